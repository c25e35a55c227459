"""vxbrdctl where no daemon, or not the daemon, sits: a missing socket, a
socket nobody listens on (what a daemon that has ended leaves behind), a
socket it may not use, and a stand-in daemon that answers wrongly or not at
all; and its command line.

    host: tmp dir 0755 --- vxbrd.sock (bound only / listening 0600 / FakeDaemon thread)
                     ^
                     vxbrdctl -s PATH   (as root, or as uid 65534 via setpriv)

No network namespace is needed: every socket is a UNIX socket in a directory
the test creates and removes.
"""

from __future__ import annotations

import os
import shutil
import socket
import tempfile
import threading
from pathlib import Path
from typing import Optional

import pytest

from vxbrdctl_tool import ctl, vxbrdctl_path


@pytest.fixture(scope="module")
def vxbrdctl() -> str:
    return vxbrdctl_path()


@pytest.fixture
def socket_dir():
    directory = tempfile.mkdtemp(prefix="vxbrdctl-")
    os.chmod(directory, 0o755)
    yield Path(directory)
    shutil.rmtree(directory, ignore_errors=True)


def test_missing_socket(vxbrdctl, socket_dir):
    path = str(socket_dir / "vxbrd.sock")
    result = ctl(vxbrdctl, "peers", socket_path=path)
    assert (result.returncode, result.stdout) == (4, "")
    assert result.stderr == f"vxbrdctl: {path}: no such socket (is vxbrd running?)\n"
    regular = socket_dir / "plain-file"
    regular.write_text("")
    result = ctl(vxbrdctl, "clients", socket_path=str(regular))
    assert (result.returncode, result.stderr) == (4, f"vxbrdctl: {regular}: not a socket\n")


def test_socket_left_by_a_daemon_that_is_gone(vxbrdctl, socket_dir):
    # The daemon never removes its socket: after it ends, the file refuses.
    path = str(socket_dir / "vxbrd.sock")
    s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    s.bind(path)
    s.close()
    for command in ("peers", "status"):
        result = ctl(vxbrdctl, command, socket_path=path)
        assert (result.returncode, result.stdout) == (3, "")
        assert result.stderr == f"vxbrdctl: vxbrd is not running (nothing listens on {path})\n"


def test_access_denied(vxbrdctl, socket_dir):
    path = str(socket_dir / "vxbrd.sock")
    listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    try:
        listener.bind(path)
        listener.listen(1)
        os.chmod(path, 0o600)
        binary = socket_dir / "vxbrdctl"
        shutil.copy(vxbrdctl, binary)
        os.chmod(binary, 0o755)
        as_nobody = ("setpriv", "--reuid=65534", "--regid=65534", "--clear-groups")
        result = ctl(str(binary), "peers", socket_path=path, prefix=as_nobody)
        assert (result.returncode, result.stdout) == (5, "")
        assert result.stderr == f"vxbrdctl: {path}: permission denied\n"
    finally:
        listener.close()


class FakeDaemon:
    """One-connection stand-in for the daemon: records the request and
    whether the client half-closed, answers with `reply` (or nothing)."""

    def __init__(self, path: str, reply: Optional[bytes]):
        self.listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.listener.bind(path)
        self.listener.listen(1)
        self.listener.settimeout(10)
        self.reply = reply
        self.request = None
        self.half_closed = False
        self.release = threading.Event()
        self.thread = threading.Thread(target=self.serve)
        self.thread.start()

    def serve(self) -> None:
        connection, _ = self.listener.accept()
        connection.settimeout(10)
        with connection:
            self.request = connection.recv(80)
            if self.reply is None:
                # Never answers: holds the connection until the test is done.
                self.half_closed = connection.recv(80) == b""
                self.release.wait(10)
                return
            connection.sendall(self.reply)
            self.half_closed = connection.recv(80) == b""

    def join(self) -> None:
        self.release.set()
        self.thread.join(15)
        self.listener.close()


@pytest.mark.parametrize("reply, message", [
    (b"Unknown Request: 'peers'\nValid Requests: peers\n                clients\n",
     'vxbrdctl: vxbrd does not know the request "peers" (is this vxbrd\'s control socket?)\n'),
    (b"peer: 192.0.2.2, vlan: 0\npeer: 192.0.2.3, vlan: 70000\n",
     'vxbrdctl: unexpected reply to "peers", line 2: invalid VLAN "70000"\n'),
    (b"peer: 192.0.2.2, vlan: 0\npeer: 192.0",
     'vxbrdctl: unexpected reply to "peers", line 2: the reply ends inside a line (cut short?)\n'),
], ids=["unknown-request", "bad-vlan", "cut-short"])
def test_replies_that_are_not_a_report(vxbrdctl, socket_dir, reply, message):
    path = str(socket_dir / "fake.sock")
    fake = FakeDaemon(path, reply)
    result = ctl(vxbrdctl, "peers", socket_path=path)
    fake.join()
    assert (result.returncode, result.stdout, result.stderr) == (1, "", message)
    assert fake.request == b"peers"
    assert fake.half_closed


def test_a_daemon_that_does_not_answer(vxbrdctl, socket_dir):
    path = str(socket_dir / "fake.sock")
    fake = FakeDaemon(path, None)
    result = ctl(vxbrdctl, "-t", "1", "clients", socket_path=path)
    fake.join()
    assert (result.returncode, result.stdout) == (1, "")
    assert result.stderr == f"vxbrdctl: no reply from vxbrd on {path} within 1 s\n"
    assert fake.request == b"clients"
    assert fake.half_closed


USAGE = ("usage: vxbrdctl [-j] [-s socket] [-t seconds] peers | clients\n"
         "       vxbrdctl [-s socket] [-t seconds] metrics [-C] [-o file]\n"
         "       vxbrdctl [-s socket] [-t seconds] status\n"
         "       vxbrdctl check [-q] [-c file]\n"
         "       vxbrdctl -V | -h\n"
         "\n"
         "\t-j          print JSON instead of a table (peers, clients)\n"
         "\t-s socket   control socket (default: /var/run/vxbrd.sock)\n"
         "\t-t seconds  give up after this long (default: 5)\n"
         "\t-C          metrics: a series per client as well\n"
         "\t-o file     metrics: replace file atomically instead of printing\n"
         "\t-c file     check: configuration file (default: /etc/vxobrd.conf)\n"
         "\t-q          check: diagnostics only, not the configuration\n"
         "\t-V          print the version and exit\n"
         "\t-h          print this summary and exit\n")


@pytest.mark.parametrize("args, status, stdout, stderr", [
    (["stats"], 2, "", 'vxbrdctl: unknown command "stats"\n' + USAGE),
    (["check", "-c"], 2, "", "vxbrdctl: option requires an argument -- 'c'\n" + USAGE),
    (["check", "-x"], 2, "", "vxbrdctl: invalid option -- 'x'\n" + USAGE),
    (["check", "extra"], 2, "", USAGE),
    (["-C", "peers"], 2, "", "vxbrdctl: -C applies to metrics, not peers\n"),
    (["status", "-o", "f"], 2, "", "vxbrdctl: -o applies to metrics, not status\n"),
    (["-s", "x", "check"], 2, "",
     "vxbrdctl: -s applies to peers, clients, metrics and status, not check\n"),
    (["-q", "metrics"], 2, "", "vxbrdctl: -q applies to check, not metrics\n"),
    ([], 2, "", USAGE),
    (["peers", "clients"], 2, "", USAGE),
    (["-x", "peers"], 2, "", "vxbrdctl: invalid option -- 'x'\n" + USAGE),
    (["-s"], 2, "", "vxbrdctl: option requires an argument -- 's'\n" + USAGE),
    (["-j", "metrics"], 2, "", "vxbrdctl: -j applies to peers and clients, not metrics\n"),
    (["-t", "0", "peers"], 2, "", 'vxbrdctl: -t wants seconds from 1 to 3600, not "0"\n'),
    (["-t", "5s", "peers"], 2, "", 'vxbrdctl: -t wants seconds from 1 to 3600, not "5s"\n'),
    (["-h"], 0, USAGE, ""),
    (["-V"], 0, "vxbrdctl 1.35\n", ""),
], ids=lambda value: None if not isinstance(value, list) else " ".join(value) or "no-args")
def test_command_line(vxbrdctl, args, status, stdout, stderr):
    result = ctl(vxbrdctl, *args)
    assert (result.returncode, result.stdout, result.stderr) == (status, stdout, stderr)
