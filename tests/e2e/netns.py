"""Network-namespace helpers for the vxbrd end-to-end tests.

Everything a test builds goes through a `Lab`, which records it and removes it
again in `Lab.cleanup()` (also when the test fails):

    with Lab() as lab:
        hub = lab.namespace("hub")          # uniquely named netns, lo up
        ap = lab.namespace("ap")
        hub.add_veth("veth0", peer=ap, peer_name="veth1", mac="02:00:00:00:0a:01")
        hub.add_address("veth0", "192.0.2.1/24")
        hub.add_address("veth0", "2001:db8::1/64")     # added with nodad
        hub.up("veth0"); ap.up("veth1")
        hub.add_tap("tap0")
        daemon = lab.start_vxbrd(hub, binary, ["-f", "-v", "-c", conf])
        daemon.wait_for_log("Listening on interface: veth0 (192.0.2.1)")

`start_vxbrd` runs the daemon inside the namespace and, because the daemon's
control socket and PID file live at fixed paths under /var/run (/run on
Debian), inside a mount namespace of its own with a private tmpfs on /run:

    ip netns exec NS unshare --mount -- sh -c 'mount -t tmpfs tmpfs /run && exec "$@"'

Interfaces are created without IPv6 link-local addresses (addrgenmode none)
unless asked for, so that the daemon's view of the namespace is exactly what
the test configured. Only documentation address ranges are ever used.

Clean-up order matters: every process still running in a lab namespace is
killed (by pid, as listed by `ip netns pids`) before the namespace is deleted,
since a live process would keep the namespace and its interfaces alive.
"""

from __future__ import annotations

import array
import fcntl
import itertools
import os
import re
import select
import signal
import subprocess
import termios
import threading
import time
from typing import Callable, Iterable, Optional, Sequence

_names = itertools.count()

# "HH:MM:SS.uuuuuu " in front of every line the logger writes to a stream.
TIMESTAMP = re.compile(r"^\d{2}:\d{2}:\d{2}\.\d{6} ")


class CommandError(AssertionError):
    """A set-up command failed; carries its output for the test report."""


def run(args: Sequence[str], check: bool = True, timeout: float = 20.0,
        input: Optional[bytes] = None) -> subprocess.CompletedProcess:
    """Runs a host command with a time-out and captured output."""
    result = subprocess.run(list(args), input=input, capture_output=True, timeout=timeout)
    if check and result.returncode != 0:
        raise CommandError(
            f"command failed ({result.returncode}): {' '.join(args)}\n"
            f"stdout: {result.stdout.decode(errors='replace')}\n"
            f"stderr: {result.stderr.decode(errors='replace')}")
    return result


def unique_name(prefix: str) -> str:
    """A name no other test run uses at the same time: prefix, pid, counter."""
    return f"{prefix}-{os.getpid()}-{next(_names)}"


def wait_until(predicate: Callable[[], object], timeout: float = 5.0, interval: float = 0.02,
               what: str = "condition"):
    """Polls predicate until it returns something true and returns that value.

    Raises AssertionError naming `what` after `timeout` seconds.
    """
    deadline = time.monotonic() + timeout
    while True:
        value = predicate()
        if value:
            return value
        if time.monotonic() >= deadline:
            raise AssertionError(f"timed out after {timeout}s waiting for {what}")
        time.sleep(interval)


def process_alive(pid: int) -> bool:
    """True while pid exists and is not a zombie."""
    try:
        with open(f"/proc/{pid}/stat") as stat:
            fields = stat.read().rsplit(")", 1)[1].split()
    except (FileNotFoundError, ProcessLookupError):
        return False
    return fields[0] != "Z"


def process_stat(pid: int) -> dict:
    """State, parent pid, process group and session of a live process."""
    with open(f"/proc/{pid}/stat") as stat:
        fields = stat.read().rsplit(")", 1)[1].split()
    return {"state": fields[0], "ppid": int(fields[1]), "pgrp": int(fields[2]),
            "session": int(fields[3])}


def process_cmdline(pid: int) -> list[str]:
    with open(f"/proc/{pid}/cmdline", "rb") as cmdline:
        return [part.decode() for part in cmdline.read().split(b"\0") if part]


def strip_timestamps(text: str) -> list[str]:
    """The messages of timestamped log lines; other lines are left out."""
    return [TIMESTAMP.sub("", line) for line in text.splitlines() if TIMESTAMP.match(line)]


def assert_in_order(lines: Sequence[str], expected: Iterable[str]) -> None:
    """Every expected line occurs in lines, in this relative order."""
    position = 0
    for want in expected:
        try:
            position = lines.index(want, position) + 1
        except ValueError:
            raise AssertionError(
                f"line {want!r} missing (or out of order) in:\n" + "\n".join(lines)) from None


class Namespace:
    """One network namespace created by a Lab."""

    def __init__(self, lab: "Lab", name: str):
        self.lab = lab
        self.name = name

    def ip(self, *args: str, check: bool = True) -> subprocess.CompletedProcess:
        """`ip -n NAME args...`"""
        return run(["ip", "-n", self.name, *args], check=check)

    def exec(self, args: Sequence[str], check: bool = True,
             timeout: float = 20.0) -> subprocess.CompletedProcess:
        """Runs a command inside the namespace and waits for it."""
        return run(["ip", "netns", "exec", self.name, *args], check=check, timeout=timeout)

    def popen(self, args: Sequence[str], **kwargs) -> subprocess.Popen:
        """Starts a command inside the namespace; the Lab kills it at clean-up."""
        process = subprocess.Popen(["ip", "netns", "exec", self.name, *args], **kwargs)
        self.lab._processes.append(process)
        return process

    def up(self, device: str) -> None:
        self.ip("link", "set", "dev", device, "up")

    def add_veth(self, name: str, peer: Optional["Namespace"] = None,
                 peer_name: Optional[str] = None, mac: Optional[str] = None,
                 peer_mac: Optional[str] = None, link_local: bool = False) -> None:
        """A veth pair: `name` here, `peer_name` in `peer` (default: here too).

        Both ends stay down; call up(). Without link_local neither end gets
        an automatic fe80:: address.
        """
        peer = peer or self
        peer_name = peer_name or name + "p"
        args = ["link", "add", name]
        if mac:
            args += ["address", mac]
        args += ["type", "veth", "peer", "name", peer_name]
        if peer_mac:
            args += ["address", peer_mac]
        if peer is not self:
            args += ["netns", peer.name]
        self.ip(*args)
        if not link_local:
            self.ip("link", "set", "dev", name, "addrgenmode", "none")
            peer.ip("link", "set", "dev", peer_name, "addrgenmode", "none")

    def add_tap(self, name: str, link_local: bool = False) -> None:
        """A persistent tap interface, as the operator creates it before the daemon runs."""
        self.exec(["ip", "tuntap", "add", "dev", name, "mode", "tap"])
        if not link_local:
            self.ip("link", "set", "dev", name, "addrgenmode", "none")

    def add_address(self, device: str, cidr: str) -> None:
        """Adds an address; IPv6 addresses skip duplicate detection so they are usable at once."""
        args = ["address", "add", cidr, "dev", device]
        if ":" in cidr:
            args.append("nodad")
        self.ip(*args)

    def mac(self, device: str) -> str:
        text = self.ip("-o", "link", "show", "dev", device).stdout.decode()
        return re.search(r"link/ether ([0-9a-f:]{17})", text).group(1)

    def pids(self) -> list[int]:
        """Processes currently in this namespace."""
        result = run(["ip", "netns", "pids", self.name], check=False)
        return [int(word) for word in result.stdout.decode().split()]


class VxbrdProcess:
    """A vxbrd started by Lab.start_vxbrd, with its output collected as it comes.

    `process.pid` is the vxbrd that was started (the exec chain keeps the pid),
    unless an epilogue was given, in which case it is the wrapping shell. The
    output pipes may stay open after that process exits (a daemon keeps the
    descriptors it inherited), so output is read by threads and never to EOF
    by the caller.
    """

    def __init__(self, process: subprocess.Popen):
        self.process = process
        self._out = bytearray()
        self._err = bytearray()
        self._changed = threading.Condition()
        self._readers = []
        for stream, sink in ((process.stdout, self._out), (process.stderr, self._err)):
            reader = threading.Thread(target=self._pump, args=(stream, sink), daemon=True)
            reader.start()
            self._readers.append(reader)

    def _pump(self, stream, sink: bytearray) -> None:
        fd = stream.fileno()
        while True:
            # Read under the lock once data is there, so that a reader who
            # holds the lock and finds the pipe empty has everything written.
            select.select([fd], [], [])
            with self._changed:
                try:
                    chunk = os.read(fd, 65536)
                except OSError:
                    chunk = b""
                sink.extend(chunk)
                self._changed.notify_all()
            if not chunk:
                return

    def stdout_complete(self) -> Optional[str]:
        """All the process has written to stdout so far, or None while some
        of it is still in the pipe."""
        with self._changed:
            unread = array.array("i", [0])
            fcntl.ioctl(self.process.stdout.fileno(), termios.FIONREAD, unread)
            return None if unread[0] else self._out.decode(errors="replace")

    @property
    def pid(self) -> int:
        return self.process.pid

    def stdout(self) -> str:
        with self._changed:
            return self._out.decode(errors="replace")

    def stderr(self) -> str:
        with self._changed:
            return self._err.decode(errors="replace")

    def log(self) -> list[str]:
        """Messages of the timestamped lines on stderr so far."""
        return strip_timestamps(self.stderr())

    def wait_for_log(self, message: str, timeout: float = 5.0, count: int = 1) -> list[str]:
        """Waits until count timestamped stderr lines carry exactly message; returns the log."""
        def enough() -> list[str] | None:
            log = self.log()
            return log if log.count(message) >= count else None
        return wait_until(enough, timeout,
                          what=f"{count} log line(s) {message!r}; stderr so far:\n{self.stderr()}")

    def wait_for_output(self, text: str, stream: str = "stderr", timeout: float = 5.0) -> str:
        """Waits until text occurs in stdout or stderr; returns that stream's text."""
        read = self.stderr if stream == "stderr" else self.stdout
        return wait_until(lambda: read() if text in read() else None, timeout,
                          what=f"{text!r} on {stream}")

    def wait_exit(self, timeout: float = 10.0, drain: float = 2.0) -> int:
        """Waits for the started process to end; returns its status (negative: signal).

        Then waits up to `drain` seconds for its output to reach end of file,
        which it does at once unless a detached child still holds the pipes.
        """
        status = self.process.wait(timeout=timeout)
        deadline = time.monotonic() + drain
        for reader in self._readers:
            reader.join(max(0.0, deadline - time.monotonic()))
        return status

    def stop(self) -> None:
        """Kills the started process (if still running) and reaps it."""
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait(timeout=10)


class Lab:
    """Creates namespaces and processes for one test and removes all of them again."""

    def __init__(self):
        self.namespaces: list[Namespace] = []
        self._processes: list[subprocess.Popen] = []

    def __enter__(self) -> "Lab":
        return self

    def __exit__(self, *exc) -> None:
        self.cleanup()

    def namespace(self, label: str) -> Namespace:
        """A new, uniquely named network namespace with its loopback up."""
        name = unique_name(f"vx{label}")
        run(["ip", "netns", "add", name])
        namespace = Namespace(self, name)
        self.namespaces.append(namespace)
        namespace.up("lo")
        return namespace

    def start_vxbrd(self, namespace: Namespace, binary: str, args: Sequence[str],
                    epilogue: Optional[str] = None) -> VxbrdProcess:
        """Starts vxbrd in namespace, in its own mount namespace with a tmpfs on /run.

        epilogue: shell text run in the same mount namespace after vxbrd
        returns, with $rc holding its exit status (for example to show a
        file under /run); the wrapper then exits with $rc.
        """
        # No core files in the test's working directory from runs that abort.
        prologue = "ulimit -c 0; mount -t tmpfs tmpfs /run || exit 99; "
        if epilogue is None:
            script = prologue + 'exec "$@"'
        else:
            script = prologue + '"$@"; rc=$?; ' + epilogue + '; exit $rc'
        command = ["unshare", "--mount", "--propagation", "private", "--", "sh", "-c", script,
                   "vxbrd-wrapper", binary, *args]
        process = namespace.popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                  stderr=subprocess.PIPE)
        return VxbrdProcess(process)

    def kill_namespace_processes(self, namespace: Namespace) -> None:
        """SIGKILLs every process left in namespace, one pid at a time, and waits for them."""
        for pid in namespace.pids():
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        try:
            wait_until(lambda: not [p for p in namespace.pids() if process_alive(p)], timeout=5,
                       what=f"processes of {namespace.name} to end")
        except AssertionError:
            pass

    def cleanup(self) -> None:
        errors = []
        for process in self._processes:
            if process.poll() is None:
                process.kill()
            try:
                process.wait(timeout=10)
            except subprocess.TimeoutExpired as error:
                errors.append(str(error))
        for namespace in reversed(self.namespaces):
            self.kill_namespace_processes(namespace)
            result = run(["ip", "netns", "del", namespace.name], check=False)
            if result.returncode != 0:
                errors.append(result.stderr.decode(errors="replace"))
        self.namespaces.clear()
        self._processes.clear()
        if errors:
            raise CommandError("lab clean-up failed:\n" + "\n".join(errors))
