"""A control socket no client can stall: a client that sends requests and
never reads its replies delays the others by at most the send time-out per
pass, a reader of the daemon's standard output that goes away does not end
it, and connections beyond the poll table are refused with a line.

    hub ns: vxbrd -f (tap0, VLAN 0), /run/vxbrd.sock
      ^ AF_UNIX from the test process (/proc/PID/root/run/vxbrd.sock):
        one client that never reads, others that are timed
"""

import os
import socket
import threading
import time

from netns import process_alive, process_cmdline, wait_until
from tunnel_lab import (control_connect, control_finish, control_read, control_request,
                        open_descriptors)

SEND_TIMEOUT = 0.3  # kSendTimeoutMilliseconds
UNKNOWN_X = b"Unknown Request: '" + b"x" * 80 + b"'\nValid Requests: peers\n" + b" " * 16 + \
    b"clients\n"


def unknown(text: bytes) -> bytes:
    return b"Unknown Request: '" + text + b"'\nValid Requests: peers\n                clients\n"


def start_daemon(lab, vxbrd_binary, write_config):
    hub = lab.namespace("hub")
    hub.add_tap("tap0")
    conf = write_config("tap0 1\n")
    daemon = lab.start_vxbrd(hub, vxbrd_binary, ["-f", "-v", "-c", conf])
    daemon.wait_for_log("tap0 ready")
    return daemon


class Stalled:
    """A client that keeps the daemon supplied with requests and never reads."""

    def __init__(self, pid: int):
        self.sock = control_connect(pid)
        self.sock.settimeout(0.5)
        self.sent = 0
        self.stop = threading.Event()
        self.thread = threading.Thread(target=self.pump, daemon=True)
        self.thread.start()

    def pump(self) -> None:
        while not self.stop.is_set():
            try:
                self.sent += self.sock.send(b"x" * 80)
            except socket.timeout:
                continue
            except OSError:
                return

    def unread(self) -> int:
        import array
        import fcntl
        import termios
        queued = array.array("i", [0])
        fcntl.ioctl(self.sock.fileno(), termios.FIONREAD, queued)
        return queued[0]


def timed(request: bytes, pid: int, connection=None) -> tuple:
    """(seconds from connecting, or from the request on an open connection,
    to the whole reply; the reply). A new connection is then ended."""
    started = time.monotonic()
    s = connection if connection is not None else control_connect(pid, timeout=10.0)
    s.sendall(request)
    reply = control_read(s, len(unknown(request)), timeout=10.0)
    took = time.monotonic() - started
    if connection is None:
        assert control_finish(s, timeout=10.0) == b""
    return took, reply


def test_a_client_that_never_reads_delays_the_others_by_the_time_out_at_most(
        lab, vxbrd_binary, write_config):
    daemon = start_daemon(lab, vxbrd_binary, write_config)
    pid = daemon.pid
    waiting = control_connect(pid)  # accepted before the stall begins
    assert control_read(waiting, 0) == b""
    wait_until(lambda: "Accepted connection." in daemon.stdout(), what="the first accept")
    stalled = Stalled(pid)
    try:
        # The daemon fills the stalled client's socket with unread replies;
        # from then on every one of its requests waits out the time-out.
        wait_until(lambda: stalled.unread() > 16 * 1024, timeout=10.0,
                   what="the stalled client's socket to fill")
        time.sleep(2 * SEND_TIMEOUT)
        print(f"unread replies: {stalled.unread()} bytes")
        figures = []
        for n in range(3):
            took, reply = timed(b"req%d" % n, pid, waiting)
            assert reply == unknown(b"req%d" % n)
            figures.append(("connected", took))
            took, reply = timed(b"new%d" % n, pid)
            assert reply == unknown(b"new%d" % n)
            figures.append(("new", took))
        print("served during the stall: " + ", ".join(f"{kind} {took:.2f} s"
                                                      for kind, took in figures))
        assert max(took for _, took in figures) < SEND_TIMEOUT + 1.0
        # Still stalled: the daemon did not read the stalled client dry
        # because it waited; its replies are still piled up unread.
        assert stalled.unread() > 16 * 1024
        assert daemon.process.poll() is None
    finally:
        stalled.stop.set()
        stalled.thread.join(5)
    # Each of its replies is one send: whole, or cut where the time-out hit.
    data = stalled.sock.recv(len(UNKNOWN_X))
    assert data == UNKNOWN_X


def test_the_daemon_outlives_the_reader_of_its_standard_output(lab, vxbrd_binary, write_config):
    hub = lab.namespace("hub")
    hub.add_tap("tap0")
    conf = write_config("tap0 1\n")
    # Standard output is a pipe whose reader has exited (like vxbrd -f | logger
    # after the logger ended); standard error still reaches the test.
    daemon = lab.start_vxbrd(hub, "sh", ["-c", '"$0" "$@" | true', vxbrd_binary, "-f", "-v", "-c",
                                         conf])
    daemon.wait_for_log("tap0 ready")
    pids = wait_until(lambda: [p for p in hub.pids() if process_alive(p)
                               and process_cmdline(p)[:1] == [vxbrd_binary]], what="the daemon")
    assert len(pids) == 1
    pid = pids[0]
    # Each connection makes the control thread print two lines into the pipe.
    assert control_request(pid, b"peers") == b""
    assert control_request(pid, b"nonsense") == unknown(b"nonsense")
    time.sleep(0.2)
    assert process_alive(pid)
    assert control_request(pid, b"PEERS\n") == b""
    assert process_alive(pid)


def test_connections_beyond_the_poll_table_are_refused_with_a_line(lab, vxbrd_binary,
                                                                   write_config):
    daemon = start_daemon(lab, vxbrd_binary, write_config)
    pid = daemon.pid
    before = open_descriptors(pid)
    clients = [control_connect(pid) for _ in range(199)]
    try:
        wait_until(lambda: len(open_descriptors(pid)) == len(before) + 199,
                   what="199 accepted connections")
        extra = control_connect(pid)
        assert control_read(extra, 1) == b"", "the connection is closed at once"
        extra.close()
        line = wait_until(lambda: [line for line in daemon.stdout().splitlines()
                                   if line.startswith("Refused connection.")],
                          what="the refusal line")
        number = int(line[0].split("=")[1].split(":")[0])
        assert line == [f"Refused connection. client_socket={number}: 199 connections open"]
        assert len(open_descriptors(pid)) == len(before) + 199
        # The 199 are served, the last accepted one too.
        clients[-1].sendall(b"peers2")
        assert control_read(clients[-1], len(unknown(b"peers2"))) == unknown(b"peers2")
    finally:
        for s in clients:
            s.shutdown(socket.SHUT_WR)
            assert control_read(s, 1) == b""
            s.close()
    wait_until(lambda: open_descriptors(pid) == before, what="the daemon to close all 199")
    assert control_request(pid, b"peers") == b""
    assert os.path.exists(f"/proc/{pid}")
