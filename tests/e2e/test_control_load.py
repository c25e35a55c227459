"""The control socket under load: 500 clients connected at once (199 served,
the rest refused), 10,000 connect-request-half-close cycles that must leave
the daemon's descriptors as they were, and the clients report of 100,000 clients learned from GRE
traffic (its production time is measured and printed).

    ap ns                                      hub ns: vxbrd -f
    +------------------------------+           +------------------------------+
    | ap0 192.0.2.2 .. 192.0.2.5   |  GRE 47   | hub0 192.0.2.1               |
    | one GrePort per address    --+-----------+-- vxbrd, /run/vxbrd.sock     |
    +------------------------------+           +------------------------------+
                                                     ^ AF_UNIX from the test process
                                                       (/proc/PID/root/run/vxbrd.sock)
"""

import resource
import socket
import struct
import time

import pytest

from netns import Lab, wait_until
from tunnel_lab import (HUB_IPV4, build_tunnel, control_connect, control_output_mark,
                        control_read, control_socket_path, dot1q, ethernet, gre, mac_bytes,
                        open_descriptors)

CLIENT = "00:11:22:33:44:55"
HOST = "02:00:00:00:00:99"
OPAQUE = 0x88b5

PEERS = b"peer: 192.0.2.2, vlan: 20\n"
CLIENTS = (b"client: 00:11:22:33:44:55\n  peer: 192.0.2.2\n  associated vlan: 20\n"
           b"  gre key: 7\n  bytes in: 60, bytes out: 0\n  packets in: 1, packets out: 0\n")


def unknown(text: bytes) -> bytes:
    return b"Unknown Request: '" + text + b"'\nValid Requests: peers\n                clients\n"


def raise_descriptor_limit(wanted: int) -> None:
    """Lets this process (and the daemons it starts) hold `wanted` descriptors."""
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    if soft < wanted:
        if hard != resource.RLIM_INFINITY and hard < wanted:
            pytest.fail(f"RLIMIT_NOFILE hard limit {hard} is below {wanted}")
        resource.setrlimit(resource.RLIMIT_NOFILE, (wanted, hard))


@pytest.fixture(scope="module")
def tunnel(vxbrd_binary, tmp_path_factory):
    raise_descriptor_limit(2048)
    conf = tmp_path_factory.mktemp("control-load") / "vxobrd.conf"
    conf.write_text("tap0 1\ntap20 20\n")
    with Lab() as lab:
        built = build_tunnel(lab, vxbrd_binary, str(conf), ["tap0", "tap20"], args=["-v"])
        built.gre_port().send(gre(dot1q(HOST, CLIENT, 20, OPAQUE, bytes(46)), key=7), HUB_IPV4)
        assert built.taps["tap20"].receive() == ethernet(HOST, CLIENT, OPAQUE, bytes(46))
        wait_until(lambda: built.control(b"peers") == PEERS, what="the peer to be learned")
        yield built


def test_five_hundred_simultaneous_clients_the_poll_table_serves_199(tunnel):
    daemon = tunnel.daemon
    pid = daemon.pid
    before = open_descriptors(pid)
    mark = control_output_mark(daemon)
    connections = [control_connect(pid, timeout=10.0) for _ in range(500)]
    # The poll table holds the listener and 199 clients; the daemon accepts
    # in order of connection and closes every connection beyond those at once.
    served, refused = connections[:199], connections[199:]
    try:
        for s in refused:
            assert control_read(s, 1, timeout=10.0) == b"", "a refused connection is closed"
        wait_until(lambda: len(open_descriptors(pid)) == len(before) + 199, timeout=10.0,
                   what="199 accepted connections")
        replies = []
        for n, s in enumerate(served):
            request, reply = ((b"peers", PEERS), (b"CLIENTS\n", CLIENTS),
                              (b"req%d" % n, unknown(b"req%d" % n)))[n % 3]
            s.sendall(request)
            replies.append(reply)
        for s, reply in zip(served, replies):
            assert control_read(s, len(reply)) == reply
        # A second round on the same, still open, connections.
        for s in served:
            s.sendall(b"Peers")
        for s in served:
            assert control_read(s, len(PEERS)) == PEERS
        for s in served:
            s.shutdown(socket.SHUT_WR)
        for s in served:
            assert control_read(s, 1) == b"", "the daemon closes after the half-close"
    finally:
        for s in connections:
            s.close()
    wait_until(lambda: open_descriptors(pid) == before, timeout=10.0,
               what="the daemon to close all 199")
    # Printed as they happen; the pipe may still be delivering them.
    lines = wait_until(lambda: (lambda out: out.splitlines() if (
        out.count("\n") >= 699 and out.endswith("\n")) else None)(daemon.stdout()[mark:]),
        what="the 699 connection messages")
    accepted = [int(line.rsplit("=", 1)[1]) for line in lines
                if line.startswith("Accepted connection. client_socket=")]
    closed = [int(line.rsplit("=", 1)[1]) for line in lines
              if line.startswith("Connection closed. client socket=")]
    refusals = [line for line in lines if line.startswith("Refused connection. ")]
    assert len(lines) == 699
    assert len(set(accepted)) == 199 and sorted(accepted) == sorted(closed)
    assert not set(accepted) & before
    assert len(refusals) == 301
    for line in refusals:
        number = line[len("Refused connection. client_socket="):].split(":")[0]
        assert line == f"Refused connection. client_socket={int(number)}: 199 connections open"
    # With the table free again, new connections are served.
    assert tunnel.control(b"peers") == PEERS


def test_ten_thousand_half_closed_cycles_leave_descriptors_as_they_were(tunnel):
    daemon = tunnel.daemon
    pid = daemon.pid
    path = control_socket_path(pid)
    before = open_descriptors(pid)
    mark = control_output_mark(daemon)
    started = time.monotonic()
    for n in range(10000):
        s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        s.settimeout(5.0)
        try:
            s.connect(path)
            s.sendall(b"peers")
            s.shutdown(socket.SHUT_WR)
            reply = b""
            while True:
                chunk = s.recv(4096)
                if not chunk:
                    break
                reply += chunk
        finally:
            s.close()
        assert reply == PEERS, f"cycle {n}"
    elapsed = time.monotonic() - started
    print(f"10,000 control cycles took {elapsed:.1f} s")
    assert open_descriptors(pid) == before
    out = wait_until(lambda: (lambda got: got if (
        got.count("\n") >= 20000 and got.endswith("\n")) else None)(daemon.stdout()[mark:]),
        what="the 20,000 connection messages")
    assert out.count("Accepted connection. client_socket=") == 10000
    assert out.count("Connection closed. client socket=") == 10000
    assert "Error!" not in out


# ---------------------------------------------------------------- 100,000 clients

AP_ADDRESSES = ["192.0.2.2", "192.0.2.3", "192.0.2.4", "192.0.2.5"]
VLANS = list(range(100, 350))  # 4 addresses x 250 VLANs = 1,000 peers of 100 clients
CLIENT_COUNT = 100_000
FENCE_VLAN = 990  # fence k makes the peer (192.0.2.2, FENCE_VLAN + k)


def client_mac(n: int) -> bytes:
    return b"\x02\x01" + struct.pack("!I", n)


def client_packet(n: int) -> tuple:
    """(AP address index, GRE packet) of client n: a 64-byte tagged frame."""
    vlan = VLANS[(n // len(AP_ADDRESSES)) % len(VLANS)]
    frame = (mac_bytes(HOST) + client_mac(n) + struct.pack("!HHH", 0x8100, vlan, OPAQUE)
             + bytes(46))
    return n % len(AP_ADDRESSES), b"\x00\x00\x65\x58" + frame


def client_block(n: int) -> bytes:
    vlan = VLANS[(n // len(AP_ADDRESSES)) % len(VLANS)]
    mac = ":".join(f"{b:02x}" for b in client_mac(n))
    return (f"client: {mac}\n  peer: {AP_ADDRESSES[n % len(AP_ADDRESSES)]}\n"
            f"  associated vlan: {vlan}\n  bytes in: 60, bytes out: 0\n"
            f"  packets in: 1, packets out: 0\n").encode()


def gre_receive_queue(pid: int):
    """Bytes waiting in the daemon's raw GRE socket on 192.0.2.1 (rx_queue of
    /proc/PID/net/raw), or None while the daemon has not opened it yet."""
    with open(f"/proc/{pid}/net/raw") as table:
        for line in list(table)[1:]:
            fields = line.split()
            if fields[1] == "010200C0:002F":  # 192.0.2.1, protocol 47
                return int(fields[4].split(":")[1], 16)
    return None


def report_blocks(report: bytes) -> list:
    return [b"client: " + part for part in report.split(b"client: ")[1:]]


def test_report_of_one_hundred_thousand_clients(lab, vxbrd_binary, write_config):
    conf = write_config("")

    def addresses(hub, ap):
        for address in AP_ADDRESSES[1:]:
            ap.add_address("ap0", f"{address}/24")

    # -q: the per-frame "unexpected traffic" lines (no tap serves these
    # VLANs; learning happens before that check) stay out of the log.
    tunnel = build_tunnel(lab, vxbrd_binary, conf, [], args=["-q"], ipv6=False, extra=addresses)
    ports = [tunnel.gre_port(bind=address) for address in AP_ADDRESSES]
    pid = tunnel.daemon.pid
    wait_until(lambda: gre_receive_queue(pid) is not None, what="the daemon's GRE socket")
    fences = 0

    def fence() -> None:
        """Waits until the daemon has handled everything sent so far: the
        ingress thread reads its socket in order, so once a packet sent last
        has made its peer, every earlier packet has been learned (or was
        dropped by the kernel). A fence packet can itself be dropped while
        the receive buffer is full; then the next fence (a new MAC on a new
        VLAN, so a new peer) is sent."""
        nonlocal fences
        for _ in range(20):
            fences += 1
            vlan = FENCE_VLAN + fences
            frame = (mac_bytes(HOST) + b"\x02\xff\x00\x00\x00" + bytes([fences])
                     + struct.pack("!HHH", 0x8100, vlan, OPAQUE) + bytes(46))
            ports[0].send(b"\x00\x00\x65\x58" + frame, HUB_IPV4)
            line = b"peer: 192.0.2.2, vlan: %d\n" % vlan
            try:
                wait_until(lambda: line in tunnel.control(b"peers"), timeout=3.0)
                return
            except AssertionError:
                continue
        pytest.fail("no fence packet got through")

    def send(numbers) -> None:
        # 500 packets at a time, each burst once the daemon's receive queue
        # is below 256 kB: the rate follows the daemon's (a sanitizer build
        # learns ten times slower), so its receive buffer is not overrun.
        for n, number in enumerate(numbers):
            index, packet = client_packet(number)
            ports[index].sock.sendto(packet, (HUB_IPV4, 0))
            if n % 500 == 499:
                wait_until(lambda: gre_receive_queue(pid) < 256 * 1024, timeout=30.0,
                           interval=0.002, what="the daemon to catch up")

    started = time.monotonic()
    missing = list(range(CLIENT_COUNT))
    rounds = 0
    for rounds in range(1, 5):
        send(missing)
        fence()
        report = tunnel.control(b"clients", timeout=60.0)
        present = {block[8:25] for block in report_blocks(report)}
        missing = [n for n in missing
                   if ":".join(f"{b:02x}" for b in client_mac(n)).encode() not in present]
        if not missing:
            break
    assert not missing, f"{len(missing)} clients never learned"
    learning = time.monotonic() - started

    # The fences that got through, each a client with one packet on a peer of its own.
    peers_report = tunnel.control(b"peers")
    passed = [k for k in range(1, fences + 1)
              if b"peer: 192.0.2.2, vlan: %d\n" % (FENCE_VLAN + k) in peers_report]
    expected = sorted([client_block(n) for n in range(CLIENT_COUNT)]
                      + [(f"client: 02:ff:00:00:00:{k:02x}\n  peer: 192.0.2.2\n"
                          f"  associated vlan: {FENCE_VLAN + k}\n  bytes in: 60, bytes out: 0\n"
                          f"  packets in: 1, packets out: 0\n").encode()
                         for k in passed])
    size = sum(len(block) for block in expected)

    s = control_connect(tunnel.daemon.pid)
    asked = time.monotonic()
    s.sendall(b"clients")
    report = control_read(s, size, timeout=60.0)
    produced = time.monotonic() - asked
    s.shutdown(socket.SHUT_WR)
    assert control_read(s, 1) == b""
    s.close()
    print(f"learning {CLIENT_COUNT} clients took {learning:.1f} s ({rounds} rounds); "
          f"their clients report ({size} bytes) took {produced:.2f} s")

    blocks = report_blocks(report)
    assert b"".join(blocks) == report and len(report) == size
    assert sorted(blocks) == expected

    peers = peers_report.splitlines(keepends=True)
    assert sorted(peers) == sorted(
        [f"peer: {address}, vlan: {vlan}\n".encode() for address in AP_ADDRESSES for vlan in VLANS]
        + [f"peer: 192.0.2.2, vlan: {FENCE_VLAN + k}\n".encode() for k in passed])
