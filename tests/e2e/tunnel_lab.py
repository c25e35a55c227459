"""Tools for end-to-end tests of the tunnel: GRE and tap ports opened inside
test namespaces, packet builders, a hub/access-point topology and a control
socket client.

    access point ns (scapy-built GRE)            hub ns (vxbrd -f)
    +---------------------------------+          +----------------------------------+
    | ap0 192.0.2.2/24, 2001:db8::2   |  GRE 47  | hub0 192.0.2.1/24, 2001:db8::1   |
    | GrePort: raw proto-47 socket  --+----------+-- vxbrd GRE endpoints            |
    +---------------------------------+          | tapN (no addresses) <- TapPort   |
                                                 +----------------------------------+

Sockets are made in a thread that has entered the namespace with setns(2);
a socket stays in the namespace it was made in, so the test then uses it from
any thread. Frames the daemon writes to a tap are read from the tap with an
AF_PACKET socket (incoming direction); frames sent on that socket go out of
the tap interface, which is where the daemon reads them.
"""

from __future__ import annotations

import ctypes
import os
import socket
import struct
import threading
import time
from dataclasses import dataclass, field
from typing import Callable, Optional

from netns import Lab, Namespace, VxbrdProcess, wait_until

CLONE_NEWNET = 0x40000000
ETH_P_ALL = 0x0003
PACKET_OUTGOING = 4
GRE_PROTO = 47

_libc = ctypes.CDLL(None, use_errno=True)


def in_namespace(namespace: str, fn: Callable[[], object]) -> object:
    """Runs fn in a thread that has joined network namespace `namespace`."""
    result: dict = {}

    def body() -> None:
        try:
            fd = os.open(f"/var/run/netns/{namespace}", os.O_RDONLY)
            try:
                if _libc.setns(fd, CLONE_NEWNET) != 0:
                    err = ctypes.get_errno()
                    raise OSError(err, os.strerror(err))
            finally:
                os.close(fd)
            result["value"] = fn()
        except BaseException as error:  # handed to the caller
            result["error"] = error

    thread = threading.Thread(target=body)
    thread.start()
    thread.join()
    if "error" in result:
        raise result["error"]
    return result["value"]


# ---------------------------------------------------------------- builders

def mac_bytes(text: str) -> bytes:
    return bytes(int(part, 16) for part in text.split(":"))


def mac_text(raw: bytes) -> str:
    return ":".join(f"{b:02x}" for b in raw)


def ethernet(dst: str, src: str, ethertype: int, payload: bytes = b"") -> bytes:
    return mac_bytes(dst) + mac_bytes(src) + struct.pack("!H", ethertype) + payload


def dot1q(dst: str, src: str, vlan: int, ethertype: int, payload: bytes = b"") -> bytes:
    return (mac_bytes(dst) + mac_bytes(src) + struct.pack("!HHH", 0x8100, vlan, ethertype)
            + payload)


def gre(inner: bytes, key: Optional[int] = None, checksum: bool = False,
        sequence: Optional[int] = None, recursion: int = 0, protocol: int = 0x6558) -> bytes:
    """A GRE header (C, K, S as asked, recursion control in the low bits of
    the first byte) followed by inner."""
    first = recursion & 0x07
    words = b""
    if checksum:
        first |= 0x80
        words += b"\x00\x00\x00\x00"
    if key is not None:
        first |= 0x20
        words += struct.pack("!I", key)
    if sequence is not None:
        first |= 0x10
        words += struct.pack("!I", sequence)
    return bytes([first, 0]) + struct.pack("!H", protocol) + words + inner


# ---------------------------------------------------------------- ports

class GrePort:
    """A raw protocol-47 socket in a namespace: sends GRE payloads (the kernel
    adds the outer IP header) and receives GRE datagrams."""

    def __init__(self, namespace: str, family: int = socket.AF_INET,
                 bind: Optional[str] = None):
        self.family = family

        def make() -> socket.socket:
            s = socket.socket(family, socket.SOCK_RAW, GRE_PROTO)
            if bind is not None:
                s.bind((bind, 0))
            return s

        self.sock = in_namespace(namespace, make)

    def send(self, payload: bytes, destination: str) -> None:
        self.sock.sendto(payload, (destination, 0))

    def receive(self, timeout: float = 2.0) -> Optional[tuple[str, bytes]]:
        """(source address, GRE header and payload), or None after timeout.
        The outer IPv4 header that a raw IPv4 socket delivers is removed."""
        self.sock.settimeout(timeout)
        try:
            data, address = self.sock.recvfrom(65535)
        except socket.timeout:
            return None
        if self.family == socket.AF_INET:
            data = data[(data[0] & 0x0F) * 4:]
        return address[0], data

    def receive_all(self, quiet: float = 0.5, limit: int = 100000) -> list[tuple[str, bytes]]:
        """Every datagram until none arrives for `quiet` seconds."""
        out = []
        while len(out) < limit:
            got = self.receive(quiet)
            if got is None:
                break
            out.append(got)
        return out

    def close(self) -> None:
        self.sock.close()


class TapPort:
    """An AF_PACKET socket on a tap interface: what the daemon writes to the
    tap is read here; what is injected here is what the daemon reads."""

    def __init__(self, namespace: str, device: str):
        def make() -> socket.socket:
            s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_ALL))
            s.bind((device, 0))
            return s

        self.device = device
        self.sock = in_namespace(namespace, make)

    def inject(self, frame: bytes) -> None:
        self.sock.send(frame)

    def receive(self, timeout: float = 2.0) -> Optional[bytes]:
        """The next frame the daemon wrote to the tap (frames the host sent
        out of the tap are skipped), or None after timeout."""
        deadline = time.monotonic() + timeout
        while True:
            remaining = deadline - time.monotonic()
            if remaining <= 0:
                return None
            self.sock.settimeout(remaining)
            try:
                data, address = self.sock.recvfrom(65535)
            except socket.timeout:
                return None
            if address[2] != PACKET_OUTGOING:
                return data

    def receive_all(self, quiet: float = 0.5, limit: int = 100000) -> list[bytes]:
        out = []
        while len(out) < limit:
            got = self.receive(quiet)
            if got is None:
                break
            out.append(got)
        return out

    def drain(self) -> None:
        self.receive_all(quiet=0.05)

    def close(self) -> None:
        self.sock.close()


# ---------------------------------------------------------------- topology

HUB_IPV4 = "192.0.2.1"
AP_IPV4 = "192.0.2.2"
HUB_IPV6 = "2001:db8::1"
AP_IPV6 = "2001:db8::2"


@dataclass
class Tunnel:
    lab: Lab
    hub: Namespace
    ap: Namespace
    daemon: VxbrdProcess
    taps: dict = field(default_factory=dict)  # name -> TapPort (hub side)

    def gre_port(self, family: int = socket.AF_INET, bind: Optional[str] = None) -> GrePort:
        return GrePort(self.ap.name, family, bind)

    def tap_mac(self, device: str) -> str:
        return self.hub.mac(device)

    def control(self, request: bytes, timeout: float = 5.0) -> bytes:
        return control_request(self.daemon.pid, request, timeout)


def build_tunnel(lab: Lab, binary: str, config_path: str, taps: list[str],
                 args: Optional[list[str]] = None, ipv6: bool = True,
                 extra: Optional[Callable[[Namespace, Namespace], None]] = None) -> Tunnel:
    """Hub and access-point namespaces joined by a veth pair, tap devices in
    the hub, and vxbrd started in the hub with config_path. `extra` may add
    interfaces or addresses before the daemon starts."""
    hub = lab.namespace("hub")
    ap = lab.namespace("ap")
    hub.add_veth("hub0", peer=ap, peer_name="ap0")
    hub.add_address("hub0", f"{HUB_IPV4}/24")
    ap.add_address("ap0", f"{AP_IPV4}/24")
    if ipv6:
        hub.add_address("hub0", f"{HUB_IPV6}/64")
        ap.add_address("ap0", f"{AP_IPV6}/64")
    hub.up("hub0")
    ap.up("ap0")
    for tap in taps:
        hub.add_tap(tap)
    if extra is not None:
        extra(hub, ap)
    daemon = lab.start_vxbrd(hub, binary, ["-f", *(args or ["-vvv"]), "-c", config_path])
    for tap in taps:
        daemon.wait_for_log(f"{tap} ready")
    tunnel = Tunnel(lab, hub, ap, daemon)
    for tap in taps:
        tunnel.taps[tap] = TapPort(hub.name, tap)
    # The underlay answers before any test traffic is sent.
    ap.exec(["ping", "-c", "1", "-W", "2", HUB_IPV4])
    return tunnel


def control_socket_path(pid: int) -> str:
    """/var/run/vxbrd.sock as the daemon sees it. /var/run is a symbolic link
    to /run on Debian, and a link followed under /proc/PID/root would lead
    back to our own /run, so the link is resolved first."""
    run_dir = os.path.realpath("/var/run")
    return f"/proc/{pid}/root{run_dir}/vxbrd.sock"


def control_request(pid: int, request: bytes, timeout: float = 5.0) -> bytes:
    """Sends one request on the daemon's control socket (reached through the
    daemon's own mount namespace), half-closes, and reads until the daemon
    closes the connection."""
    s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    s.settimeout(timeout)
    try:
        s.connect(control_socket_path(pid))
        s.sendall(request)
        s.shutdown(socket.SHUT_WR)
        reply = b""
        while True:
            chunk = s.recv(65536)
            if not chunk:
                return reply
            reply += chunk
    finally:
        s.close()


def wait_for(predicate: Callable[[], object], timeout: float = 5.0) -> object:
    return wait_until(predicate, timeout=timeout)


# ---------------------------------------------------------------- further helpers

def collect_frames(taps: dict, quiet: float = 0.3) -> dict:
    """Every frame each TapPort of `taps` (name -> TapPort) received until it
    stayed quiet for `quiet` seconds: name -> list of frames, in arrival order."""
    return {name: port.receive_all(quiet=quiet) for name, port in taps.items()}


def link_namespaces(a: Namespace, a_device: str, a_cidr: str, b: Namespace, b_device: str,
                    b_cidr: str) -> None:
    """A veth pair between namespaces a and b, each end with one address, both up."""
    a.add_veth(a_device, peer=b, peer_name=b_device)
    a.add_address(a_device, a_cidr)
    b.add_address(b_device, b_cidr)
    a.up(a_device)
    b.up(b_device)


def filler(n: int, seed: int = 0) -> bytes:
    """n bytes of a recognisable, non-repeating-at-start pattern."""
    return bytes((seed + i) & 0xFF for i in range(n))


def lines_in_order(lines: list, expected: list) -> bool:
    """True when every expected line occurs in lines, in this relative order."""
    position = 0
    for want in expected:
        try:
            position = lines.index(want, position) + 1
        except ValueError:
            return False
    return True


def wait_for_lines(daemon: VxbrdProcess, expected: list, timeout: float = 5.0) -> list:
    """Waits until the daemon's log holds every expected line in this order
    (repeats count: a line listed twice must occur twice); returns the log."""
    return wait_until(lambda: (lambda log: log if lines_in_order(log, expected) else None)(
        daemon.log()), timeout,
        what=f"log lines {expected!r} in order; stderr so far:\n{daemon.stderr()}")


FENCE_MAC = "02:00:00:00:0f:ff"


def log_through_fence(tunnel: Tunnel, tap: str, before: list, timeout: float = 5.0) -> list:
    """The log lines the daemon wrote after `before` (an earlier
    VxbrdProcess.log()), up to a fence: a unicast frame to FENCE_MAC (a MAC
    no client may use) is injected into `tap`, and the tap thread's
    "can't find peer" line for it is awaited. The tap thread handles frames
    in order, so every line due to frames injected earlier into the same tap
    is in the result; the fence line itself is not. Needs a daemon without
    server mode, at -v or more."""
    fence_line = f"{tap}: can't find peer for host {FENCE_MAC}"
    fences = before.count(fence_line)
    tunnel.taps[tap].inject(ethernet(FENCE_MAC, "02:00:00:00:0f:fe", 0x88b5, bytes(46)))
    log = wait_until(lambda: (lambda lines: lines if lines.count(fence_line) > fences else None)(
        tunnel.daemon.log()), timeout, what=f"fence line {fence_line!r}")
    assert log[:len(before)] == before, "the log changed before the fence"
    after = log[len(before):]
    assert after[-1] == fence_line, after
    return after[:-1]


# ---------------------------------------------------------------- control socket conversations

SIOCOUTQ = 0x5411  # Linux: bytes a socket has sent that its peer has not yet read


def control_connect(pid: int, timeout: float = 5.0) -> socket.socket:
    """A connection to the daemon's control socket, for tests that hold the
    conversation themselves. Retries until the daemon's control thread
    listens or `timeout` passes, and while its backlog of 5 pending
    connections is full. End it with control_finish (half-close, then wait
    for the daemon's close), the way the daemon expects clients to end."""
    deadline = time.monotonic() + timeout
    while True:
        s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        s.settimeout(timeout)
        try:
            s.connect(control_socket_path(pid))
            return s
        except (FileNotFoundError, ConnectionRefusedError, BlockingIOError) as error:
            s.close()
            if time.monotonic() >= deadline:
                raise
            time.sleep(0.001 if isinstance(error, BlockingIOError) else 0.02)


def control_read(s: socket.socket, size: int, timeout: float = 5.0) -> bytes:
    """Exactly `size` bytes from s; fewer only when the daemon closed first or
    nothing more came for `timeout` seconds."""
    s.settimeout(timeout)
    data = bytearray()
    while len(data) < size:
        try:
            chunk = s.recv(min(size - len(data), 1 << 20))
        except socket.timeout:
            break
        if not chunk:
            break
        data += chunk
    return bytes(data)


def control_finish(s: socket.socket, timeout: float = 5.0) -> bytes:
    """Half-closes s and reads until the daemon closes its end; returns what
    arrived meanwhile (b"" when every reply had been read) and closes s.
    Raises socket.timeout when the daemon does not close within `timeout`."""
    try:
        s.shutdown(socket.SHUT_WR)
        s.settimeout(timeout)
        rest = bytearray()
        while True:
            chunk = s.recv(65536)
            if not chunk:
                return bytes(rest)
            rest += chunk
    finally:
        s.close()


def unread_by_peer(s: socket.socket) -> int:
    """How much of what s sent its peer has not read yet (SIOCOUTQ; for a
    UNIX socket 0 exactly when the peer has consumed everything)."""
    import fcntl
    return struct.unpack("i", fcntl.ioctl(s.fileno(), SIOCOUTQ, b"\0\0\0\0"))[0]


def open_descriptors(pid: int) -> set:
    """The descriptor numbers process pid has open, from /proc/PID/fd."""
    return {int(name) for name in os.listdir(f"/proc/{pid}/fd")}


def control_output_mark(daemon: VxbrdProcess, timeout: float = 5.0) -> int:
    """The length of the daemon's standard output once every connection it
    reported accepted is also reported closed: a position after which only
    lines of connections made from now on appear. (The lines come through a
    pipe: those of connections that just ended are waited for until the pipe
    is empty.)"""
    def settled():
        out = daemon.stdout_complete()
        if out is None:
            return None
        if (out.count("Accepted connection. ") == out.count("Connection closed. ")
                and (not out or out.endswith("\n"))):
            return len(out) + 1  # + 1: a true value even for empty output
        return None
    return wait_until(settled, timeout, what="the daemon's connection messages") - 1


# ---------------------------------------------------------------- process and socket figures

SOL_PACKET = 263
PACKET_STATISTICS = 6


def resident_kib(pid: int) -> int:
    """VmRSS of process pid, in KiB (from /proc/PID/status)."""
    with open(f"/proc/{pid}/status") as status:
        for line in status:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
    raise AssertionError(f"no VmRSS line for pid {pid}")


def raw_gre_drops(pid: int) -> dict:
    """Datagrams the kernel dropped at the raw GRE sockets of the network
    namespace process pid lives in, because their receive buffers were full
    (the drops column of /proc/PID/net/raw and raw6): local address text ->
    drops."""
    out = {}
    for table, family in (("raw", socket.AF_INET), ("raw6", socket.AF_INET6)):
        with open(f"/proc/{pid}/net/{table}") as rows:
            next(rows)
            for row in rows:
                fields = row.split()
                address, protocol = fields[1].split(":")
                if int(protocol, 16) != GRE_PROTO:
                    continue
                raw = bytes.fromhex(address)
                # The kernel prints each 32-bit word in host (little-endian) order.
                raw = b"".join(raw[i:i + 4][::-1] for i in range(0, len(raw), 4))
                text = socket.inet_ntop(family, raw)
                out[text] = out.get(text, 0) + int(fields[-1])
    return out


def packet_socket_statistics(sock: socket.socket) -> tuple[int, int]:
    """(frames received, frames dropped) of an AF_PACKET socket since the
    last call (PACKET_STATISTICS; reading it resets the counters)."""
    packets, drops = struct.unpack("II", sock.getsockopt(SOL_PACKET, PACKET_STATISTICS, 8))
    return packets, drops


def sanitizer_of(binary: str) -> Optional[str]:
    """"address" or "thread" when binary was built with that sanitizer (its
    runtime's entry symbol is named in it), else None."""
    with open(binary, "rb") as image:
        data = image.read()
    if b"__tsan_init" in data:
        return "thread"
    if b"__asan_init" in data:
        return "address"
    return None
