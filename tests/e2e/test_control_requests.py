"""The control socket's conversation: request forms, the unknown-request
reply, several requests on one connection, 100 bytes read as two requests,
a second client while the first is idle, the thread's messages on standard
output, set-up with a stale socket file or a path that cannot be bound, and
what a client that closes outright (instead of half-closing) leaves behind.

    ap ns: GrePort (raw GRE)  --veth--  hub ns: vxbrd -f, tap0 (VLAN 0), tap20 (VLAN 20)
                                                 /run/vxbrd.sock (private /run)
                                                      ^
    test process: AF_UNIX stream through /proc/PID/root/run/vxbrd.sock

    Daemons without a tunnel run alone in a namespace with only lo and an
    empty configuration: their tables stay empty.
"""

import os
import subprocess

import pytest

from netns import Lab, VxbrdProcess, process_alive, wait_until
from tunnel_lab import (HUB_IPV4, build_tunnel, control_connect, control_finish,
                        control_output_mark, control_read, control_request, control_socket_path,
                        dot1q, ethernet, gre, open_descriptors, unread_by_peer)

CLIENT = "00:11:22:33:44:55"
HOST = "02:00:00:00:00:99"
OPAQUE = 0x88b5

PEERS = b"peer: 192.0.2.2, vlan: 20\n"
CLIENTS = (b"client: 00:11:22:33:44:55\n"
           b"  peer: 192.0.2.2\n"
           b"  associated vlan: 20\n"
           b"  gre key: 7\n"
           b"  bytes in: 60, bytes out: 0\n"
           b"  packets in: 1, packets out: 0\n")


def unknown(text: bytes) -> bytes:
    return b"Unknown Request: '" + text + b"'\nValid Requests: peers\n                clients\n"


@pytest.fixture(scope="module")
def tunnel(vxbrd_binary, tmp_path_factory):
    """One daemon for the module, with one client learned: tagged VLAN 20,
    GRE key 7, a 60-byte frame after the tag is removed."""
    conf = tmp_path_factory.mktemp("control-requests") / "vxobrd.conf"
    conf.write_text("tap0 1\ntap20 20\n")
    with Lab() as lab:
        built = build_tunnel(lab, vxbrd_binary, str(conf), ["tap0", "tap20"])
        built.gre_port().send(gre(dot1q(HOST, CLIENT, 20, OPAQUE, bytes(46)), key=7), HUB_IPV4)
        assert built.taps["tap20"].receive() == ethernet(HOST, CLIENT, OPAQUE, bytes(46))
        wait_until(lambda: built.control(b"peers") == PEERS, what="the peer to be learned")
        yield built


def new_descriptor(pid: int, before: set) -> int:
    """The one descriptor pid opened since `before` was taken."""
    fresh = wait_until(lambda: open_descriptors(pid) - before, what="the daemon to accept")
    assert len(fresh) == 1, fresh
    return fresh.pop()


def stdout_since(daemon: VxbrdProcess, mark: int) -> str:
    return daemon.stdout()[mark:]


def wait_stdout(daemon: VxbrdProcess, mark: int, expected: str) -> None:
    wait_until(lambda: stdout_since(daemon, mark) == expected,
               what=f"stdout {expected!r}; got {stdout_since(daemon, mark)!r}")


@pytest.mark.parametrize("request_bytes, reply", [
    (b"peers\n", PEERS),
    (b"peers", PEERS),
    (b"PeErS", PEERS),
    (b"PEERS\n", PEERS),
    (b"pe\ners\n", PEERS),
    (b"clients", CLIENTS),
    (b"Clients\n", CLIENTS),
    (b"CLIENTS", CLIENTS),
    (b"peers\r\n", unknown(b"peers\r")),
    (b"peer", unknown(b"peer")),
    (b"\n", unknown(b"")),
    (b"x\rpeers", unknown(b"x\rpeers")),
    (b"peers clients", unknown(b"peers clients")),
])
def test_request_forms(tunnel, request_bytes, reply):
    assert tunnel.control(request_bytes) == reply


def test_several_requests_on_one_connection(tunnel):
    s = control_connect(tunnel.daemon.pid)
    for request, reply in ((b"peers", PEERS), (b"clients\n", CLIENTS), (b"what", unknown(b"what")),
                           (b"PEERS", PEERS)):
        s.sendall(request)
        assert control_read(s, len(reply)) == reply
    assert control_finish(s) == b""


@pytest.mark.parametrize("data, replies", [
    # The first 80 bytes are "peers" and newlines; the last 20 a request of their own.
    (b"peers" + b"\n" * 75 + b"abcdefghijklmnopqrst", PEERS + unknown(b"abcdefghijklmnopqrst")),
    # Eighty letters, then "CLIENTS" and thirteen newlines.
    (b"x" * 80 + b"CLIENTS" + b"\n" * 13, unknown(b"x" * 80) + CLIENTS),
], ids=["peers-then-20-letters", "80-letters-then-clients"])
def test_hundred_bytes_at_once_are_two_requests(tunnel, data, replies):
    assert len(data) == 100
    s = control_connect(tunnel.daemon.pid)
    s.sendall(data)
    assert control_read(s, len(replies)) == replies
    assert control_finish(s) == b""


def test_messages_name_the_client_descriptor(tunnel):
    daemon = tunnel.daemon
    mark = control_output_mark(daemon)
    before = open_descriptors(daemon.pid)
    s = control_connect(daemon.pid)
    fd = new_descriptor(daemon.pid, before)
    accepted = f"Accepted connection. client_socket={fd}\n"
    wait_stdout(daemon, mark, accepted)
    assert control_finish(s) == b""
    wait_stdout(daemon, mark, accepted + f"Connection closed. client socket={fd}\n")
    assert open_descriptors(daemon.pid) == before


def test_second_client_is_served_while_the_first_is_idle(tunnel):
    daemon = tunnel.daemon
    pid = daemon.pid
    mark = control_output_mark(daemon)
    before = open_descriptors(pid)
    first = control_connect(pid)
    fd_first = new_descriptor(pid, before)
    second = control_connect(pid)
    fd_second = new_descriptor(pid, before | {fd_first})
    second.sendall(b"peers")
    assert control_read(second, len(PEERS)) == PEERS
    first.sendall(b"clients")
    assert control_read(first, len(CLIENTS)) == CLIENTS
    assert control_finish(second) == b""
    wait_until(lambda: f"client socket={fd_second}\n" in stdout_since(daemon, mark))
    assert control_finish(first) == b""
    wait_stdout(daemon, mark,
                f"Accepted connection. client_socket={fd_first}\n"
                f"Accepted connection. client_socket={fd_second}\n"
                f"Connection closed. client socket={fd_second}\n"
                f"Connection closed. client socket={fd_first}\n")
    assert open_descriptors(pid) == before


# ---------------------------------------------------------------- daemons without a tunnel

def start_alone(lab: Lab, binary: str, config: str, prepare: str = "") -> VxbrdProcess:
    """vxbrd -f with `config` in a namespace of its own (only lo), in a mount
    namespace with a private /run; `prepare` is shell text run after /run is
    mounted and before vxbrd starts."""
    namespace = lab.namespace("ctl")
    script = "ulimit -c 0; mount -t tmpfs tmpfs /run || exit 99; " + prepare + 'exec "$@"'
    process = namespace.popen(
        ["unshare", "--mount", "--propagation", "private", "--", "sh", "-c", script,
         "vxbrd-wrapper", binary, "-f", "-c", config],
        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    return VxbrdProcess(process)


def test_empty_tables_give_zero_length_replies_and_the_connection_stays(
        lab, vxbrd_binary, write_config):
    daemon = start_alone(lab, vxbrd_binary, write_config(""))
    s = control_connect(daemon.pid)
    for request in (b"peers", b"clients\n"):
        s.sendall(request)
        # Nothing comes back; once the daemon has read the request, the next
        # one cannot be merged with it.
        wait_until(lambda: unread_by_peer(s) == 0, what=f"the daemon to read {request!r}")
    s.sendall(b"\n")
    assert control_read(s, len(unknown(b""))) == unknown(b"")
    assert control_finish(s) == b""


def test_stale_socket_file_is_replaced(lab, vxbrd_binary, write_config):
    # A socket file left behind by an earlier run, nobody listening on it.
    stale = ("python3 -c 'import socket; "
             "socket.socket(socket.AF_UNIX).bind(\"/run/vxbrd.sock\")' || exit 98; "
             "test -S /run/vxbrd.sock || exit 97; ")
    daemon = start_alone(lab, vxbrd_binary, write_config(""), prepare=stale)
    assert wait_until(lambda: _answers(daemon.pid), what="the control socket to answer") == \
        unknown(b"hello")
    assert "bind failed" not in daemon.stdout()


def _answers(pid: int):
    try:
        return control_request(pid, b"hello", timeout=2.0)
    except (FileNotFoundError, ConnectionRefusedError):
        return None


def test_path_that_cannot_be_bound_ends_only_the_control_thread(lab, vxbrd_binary, write_config):
    conf = write_config("")
    # The same daemon with a working control socket, for its thread count
    # (sanitizer builds add threads of their own).
    working = start_alone(lab, vxbrd_binary, conf)
    wait_until(lambda: _answers(working.pid), what="the working daemon's control socket")
    threads = _threads(working.pid)
    # unlink cannot remove a directory, so the name stays taken.
    daemon = start_alone(lab, vxbrd_binary, conf, prepare="mkdir /run/vxbrd.sock; ")
    daemon.wait_for_output("bind failed: Address already in use[98]\n", stream="stdout")
    # The control thread has ended; the rest of the daemon goes on.
    wait_until(lambda: _threads(daemon.pid) == threads - 1, what="the control thread to end")
    assert process_alive(daemon.pid)
    assert daemon.stdout() == "bind failed: Address already in use[98]\n"


def _threads(pid: int) -> int:
    return len(os.listdir(f"/proc/{pid}/task"))


def test_client_closing_outright_is_reported_and_its_descriptor_kept(
        lab, vxbrd_binary, write_config):
    """A client that closes without half-closing first makes poll report
    POLLIN|POLLHUP (17) for its descriptor at every pass. The daemon prints
    "  Error! revents = 17", keeps the descriptor open and abandons the rest
    of that pass: clients listed before it are still served, clients
    accepted after it are accepted but never read."""
    daemon = start_alone(lab, vxbrd_binary, write_config(""))
    pid = daemon.pid
    wait_until(lambda: os.path.exists(control_socket_path(pid)), what="the control socket")
    baseline = open_descriptors(pid)
    first = control_connect(pid)
    fd_first = new_descriptor(pid, baseline)
    abrupt = control_connect(pid)
    fd_abrupt = new_descriptor(pid, baseline | {fd_first})
    abrupt.sendall(b"bye")
    assert control_read(abrupt, len(unknown(b"bye"))) == unknown(b"bye")
    abrupt.close()

    error = "  Error! revents = 17\n"
    # Met again at every following poll.
    wait_until(lambda: daemon.stdout().count(error) >= 3, what="repeated error lines")
    assert fd_abrupt in open_descriptors(pid)
    assert f"client socket={fd_abrupt}\n" not in daemon.stdout()

    # Listed before the hung-up descriptor: still served.
    first.sendall(b"still there")
    assert control_read(first, len(unknown(b"still there"))) == unknown(b"still there")

    # Accepted after it: accepted (the listening socket comes first in every
    # pass) but its requests are never read.
    before_late = open_descriptors(pid)
    late = control_connect(pid)
    fd_late = new_descriptor(pid, before_late)
    wait_until(lambda: f"Accepted connection. client_socket={fd_late}\n" in daemon.stdout())
    late.sendall(b"peers")
    assert control_read(late, 1, timeout=1.0) == b""
    assert unread_by_peer(late) > 0, "the daemon read a request it should never reach"
    late.close()

    # The first client still ends normally.
    assert control_finish(first) == b""
    wait_until(lambda: f"Connection closed. client socket={fd_first}\n" in daemon.stdout())
    assert fd_first not in open_descriptors(pid)
    assert fd_abrupt in open_descriptors(pid)

    out = daemon.stdout()
    lines = out[:out.rfind("\n") + 1].splitlines(keepends=True)  # whole lines only
    assert [line for line in lines if line != error] == [
        f"Accepted connection. client_socket={fd_first}\n",
        f"Accepted connection. client_socket={fd_abrupt}\n",
        f"Accepted connection. client_socket={fd_late}\n",
        f"Connection closed. client socket={fd_first}\n",
    ]
    assert lines.index(error) > 1, "no error line before the client closed"
