"""A real two-ended tunnel: the hub runs vxbrd as the tunnel terminator, the
access point runs a second vxbrd in server mode (-s), which sends whatever
its tap emits to the hub. The two hosts' own stacks then ping and talk TCP
across the tunnel, as they would across a wire.

    ns "ap"                                          ns "hub"
    +--------------------------------+               +--------------------------------+
    | tap0 203.0.113.2/24 (MTU 1500) |               | tap0 203.0.113.1/24 (MTU 1500) |
    |   vxbrd -f -v -s 192.0.2.1     |   GRE (47)    |   vxbrd -f -v                  |
    |   "tap0 1", "mss 1360"         |               |   "tap0 1", "mss 1380"         |
    | ap0 192.0.2.2/24  -------------+---------------+--- hub0 192.0.2.1/24           |
    +--------------------------------+               +--------------------------------+

Neither side uses a GRE key, so the frame size limit is 1480 - 42 = 1438
bytes: a 1472-byte ping (a 1500-byte IPv4 packet, a 1514-byte frame) only
crosses because the sending daemon cuts the inner IPv4 packet in two and the
receiving host reassembles it. TCP segments fit whole once the MSS of the
connection's SYN and SYN+ACK has been clamped. The two sides clamp to
different values so that the far end shows whose clamp acted: the SYN (access
point to hub) is clamped by the access point's daemon on the way into the
tunnel, the SYN+ACK by the hub's (the receiving side clamps SYNs only).
"""

import hashlib
import random
import struct
import subprocess
import sys
import time

from tunnel_lab import TapPort, control_request

AP_MSS = 1360
HUB_MSS = 1380
SIZE = 10 * 1024 * 1024
PORT = 5001

# The receiving end of the transfer: accepts one connection on the hub's tap
# address, reads it to the end and prints the byte count and SHA-256.
RECEIVER = """
import hashlib, socket, sys
s = socket.socket()
s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
s.bind(("203.0.113.1", %d))
s.listen(1)
s.settimeout(30)
print("listening", flush=True)
c, _ = s.accept()
c.settimeout(30)
digest, count = hashlib.sha256(), 0
while True:
    data = c.recv(65536)
    if not data:
        break
    digest.update(data)
    count += len(data)
print(count, digest.hexdigest(), flush=True)
""" % PORT

# The sending end: SIZE bytes read from stdin, sent in one connection.
SENDER = """
import socket, sys
data = sys.stdin.buffer.read()
c = socket.create_connection(("203.0.113.1", %d), timeout=30)
c.sendall(data)
c.close()
""" % PORT


def build(lab, vxbrd_binary, write_config):
    hub = lab.namespace("hub")
    ap = lab.namespace("ap")
    hub.add_veth("hub0", peer=ap, peer_name="ap0")
    hub.add_address("hub0", "192.0.2.1/24")
    ap.add_address("ap0", "192.0.2.2/24")
    hub.up("hub0")
    ap.up("ap0")
    for namespace, address in ((hub, "203.0.113.1/24"), (ap, "203.0.113.2/24")):
        namespace.add_tap("tap0")
        namespace.ip("link", "set", "dev", "tap0", "mtu", "1500")
        namespace.add_address("tap0", address)
    # The underlay answers before the tunnel is used.
    ap.exec(["ping", "-c", "1", "-W", "2", "192.0.2.1"])

    hub_conf = write_config(f"tap0 1\nmss {HUB_MSS}\n", name="hub.conf")
    ap_conf = write_config(f"tap0 1\nmss {AP_MSS}\n", name="ap.conf")
    hub_daemon = lab.start_vxbrd(hub, vxbrd_binary, ["-f", "-v", "-c", hub_conf])
    ap_daemon = lab.start_vxbrd(ap, vxbrd_binary, ["-f", "-v", "-s", "192.0.2.1", "-c", ap_conf])
    for daemon in (hub_daemon, ap_daemon):
        daemon.wait_for_log("tap0 ready")
        daemon.wait_for_log("Listening on interface: hub0 (192.0.2.1)"
                            if daemon is hub_daemon else
                            "Listening on interface: ap0 (192.0.2.2)")
    ap_daemon.wait_for_log("Sending all traffic to 192.0.2.1")
    return hub, ap, hub_daemon, ap_daemon


def ping(ap, size: int) -> str:
    result = ap.exec(["ping", "-c", "3", "-i", "0.2", "-W", "2", "-s", str(size),
                      "203.0.113.1"], check=False, timeout=30)
    out = result.stdout.decode()
    assert result.returncode == 0, f"ping -s {size} failed:\n{out}{result.stderr.decode()}"
    return out


def ipv4_pieces(frames: list[bytes], protocol: int) -> list[tuple[int, int, int, int]]:
    """(id, MF, offset in bytes, total length) of the IPv4 fragments of
    `protocol` among frames, in arrival order."""
    out = []
    for frame in frames:
        if len(frame) < 34 or frame[12:14] != b"\x08\x00" or frame[23] != protocol:
            continue
        total, ident, word = struct.unpack_from("!HHH", frame, 16)
        if word & 0x3FFF:  # MF or an offset: a piece of a packet
            out.append((ident, (word >> 13) & 1, (word & 0x1FFF) * 8, total))
    return out


def syn_mss(frames: list[bytes], flags: int) -> list[int]:
    """The MSS option of each IPv4 TCP segment to or from PORT whose flags
    byte, masked to SYN|ACK, equals flags."""
    out = []
    for frame in frames:
        if len(frame) < 54 or frame[12:14] != b"\x08\x00" or frame[23] != 6:
            continue
        ihl = (frame[14] & 0x0F) * 4
        tcp = frame[14 + ihl:]
        sport, dport = struct.unpack_from("!HH", tcp)
        if PORT not in (sport, dport) or (tcp[13] & 0x12) != flags:
            continue
        header = (tcp[12] >> 4) * 4
        options, i = tcp[20:header], 0
        while i < len(options) and options[i] != 0:
            if options[i] == 1:
                i += 1
                continue
            if options[i] == 2 and options[i + 1] == 4:
                out.append(struct.unpack_from("!H", options, i + 2)[0])
            i += max(options[i + 1], 2)
    return out


def test_ping_crosses_the_tunnel_at_every_size(lab, vxbrd_binary, write_config):
    hub, ap, hub_daemon, ap_daemon = build(lab, vxbrd_binary, write_config)
    out = ping(ap, 56)
    assert "3 packets transmitted, 3 received" in out
    # A 1442-byte frame: over the limit, yet its 1408 payload bytes fit one
    # piece of 1416, so it leaves as a single piece.
    out = ping(ap, 1400)
    assert "3 packets transmitted, 3 received" in out
    assert "1408 bytes from 203.0.113.1" in out

    # The biggest ping the taps allow is cut in two both ways: the request by
    # the access point's daemon, the reply by the hub's. Each far end gets the
    # two pieces on its tap and its host puts the packet together again.
    hub_tap, ap_tap = TapPort(hub.name, "tap0"), TapPort(ap.name, "tap0")
    out = ping(ap, 1472)
    assert "3 packets transmitted, 3 received" in out
    assert "1480 bytes from 203.0.113.1" in out
    for tap in (hub_tap, ap_tap):
        pieces = ipv4_pieces(tap.receive_all(quiet=0.3), protocol=1)
        assert len(pieces) == 6, pieces
        for first, last in zip(pieces[0::2], pieces[1::2]):
            # 1438 - 20 = 1418, rounded down to 1416 payload bytes per piece.
            assert first[1:] == (1, 0, 20 + 1416)
            assert last[1:] == (0, 1416, 20 + 1480 - 1416)
            assert first[0] == last[0]
    hub_tap.close()
    ap_tap.close()

    assert control_request(hub_daemon.pid, b"peers") == b"peer: 192.0.2.2, vlan: 0\n"
    assert control_request(ap_daemon.pid, b"peers") == b"peer: 192.0.2.1, vlan: 0\n"
    for daemon in (hub_daemon, ap_daemon):
        assert not [line for line in daemon.log() if "packet too big" in line
                    or "can't fragment" in line or "can't find peer" in line]


def test_tcp_transfer_of_10_mb_arrives_intact(lab, vxbrd_binary, write_config):
    hub, ap, hub_daemon, ap_daemon = build(lab, vxbrd_binary, write_config)
    # The address of the far end is learned before the connection is made.
    ping(ap, 56)
    data = random.Random(20250905).randbytes(SIZE)
    expected = hashlib.sha256(data).hexdigest()

    # Frames the daemons write to the taps: the SYN reaches the hub's, the
    # SYN+ACK the access point's. The first frames stay queued on these
    # sockets even when the transfer overflows them later.
    hub_tap, ap_tap = TapPort(hub.name, "tap0"), TapPort(ap.name, "tap0")
    hub_tap.drain()
    ap_tap.drain()

    receiver = hub.popen([sys.executable, "-c", RECEIVER], stdout=subprocess.PIPE)
    assert receiver.stdout.readline() == b"listening\n"
    started = time.monotonic()
    sender = ap.popen([sys.executable, "-c", SENDER], stdin=subprocess.PIPE)
    sender.stdin.write(data)
    sender.stdin.close()
    assert sender.wait(timeout=60) == 0
    line = receiver.stdout.readline().decode().split()
    assert receiver.wait(timeout=30) == 0
    elapsed = time.monotonic() - started
    assert line == [str(SIZE), expected]
    assert elapsed < 60

    syns = syn_mss(hub_tap.receive_all(quiet=0.3, limit=500), flags=0x02)
    syn_acks = syn_mss(ap_tap.receive_all(quiet=0.3, limit=500), flags=0x12)
    hub_tap.close()
    ap_tap.close()
    # Both hosts offered 1460 (tap MTU 1500); each sender's daemon clamped
    # its own side's segment on the way into the tunnel.
    assert syns and all(mss == AP_MSS for mss in syns), syns
    assert syn_acks and all(mss == HUB_MSS for mss in syn_acks), syn_acks
    for daemon in (hub_daemon, ap_daemon):
        assert not [line for line in daemon.log() if "packet too big" in line
                    or "can't fragment" in line]
