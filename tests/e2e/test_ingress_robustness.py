"""Ingress: malformed GRE from the network never stops the daemon.

    ap ns                          hub ns (vxbrd -f -vvv)                      vym ns
    +-----------------------+      +-----------------------------------+      +-------------------+
    | ap0 192.0.2.2,        | veth | hub0 192.0.2.1, 2001:db8::1       | veth | vym0 198.51.100.1 |
    |     2001:db8::2       |------|   GRE endpoints -> tap0 (VLAN 0)  |------| GrePort (bound)   |
    | GrePort v4, GrePort v6|      |                    tap20 (VLAN 20)|      +-------------------+
    +-----------------------+      | hub1 198.51.100.2; VLAN 40 is     |
                                   |   forwarded to 198.51.100.1       |
                                   +-----------------------------------+

More than 10,000 malformed datagrams (every truncation of the header,
header lengths beyond the data, unsupported protocols, short inner frames,
short tagged frames, random bytes, short IPv6 payloads, oversized frames)
are sent at a bounded rate; afterwards the daemon is alive, answers on its
control socket, still delivers valid frames byte for byte, and its log holds
only lines it writes for traffic.
"""

import random
import re
import socket
import time

from netns import process_alive, wait_until
from tunnel_lab import (AP_IPV6, HUB_IPV4, HUB_IPV6, GrePort, build_tunnel, dot1q, ethernet,
                        filler, gre, link_namespaces, wait_for_lines)

SERVER = "02:00:00:00:00:99"
OPAQUE = 0x88b5
TAPS = ["tap0", "tap20"]
RATE = 5000  # datagrams per second, at most
BATCH = 500  # datagrams sent before waiting for the daemon to catch up
IP_MTU_DISCOVER = 10
IP_PMTUDISC_DONT = 0

# Lines the daemon may write for traffic, valid or not. Anything else (an
# error line, a "Critical error", a dump of a terminating exception) fails.
ALLOWED = [re.compile(pattern) for pattern in (
    r"\[peers\] new peer: [0-9a-f.:]+, vlan: \d+, interface: hub0\[[0-9a-f.:]+\] \(total: \d+\)",
    r"\[cache\] (new device|Update device peer): ([0-9a-f]{2}:){5}[0-9a-f]{2}, peer: [0-9a-f.:]+"
    r"( FWD via VYM 198\.51\.100\.1)?(, grekey: \d+)?(, vlan: \d+)?(, mapped to vlan: \d+)?",
    r"Reassociating client to peer cache",
    r"hub0 \(ip://(192\.0\.2\.1|2001:db8::1)\): ignoring unsupported PDU type, protocol "
    r"0x[0-9A-F]{4}",
    r"unexpected traffic on vlan \d+",
    r"Response VYM-VYM packet from 192\.0\.2\.2 on hub0 \(ip://192\.0\.2\.1\)",
    r"Forwarding VYM-VYM (broadcast )?to remote AP [0-9a-f.:]+ via hub0",
    r"cant find client for VYM-VYM to ([0-9a-f]{2}:){5}[0-9a-f]{2}, vid \d+",
    r"Sending to upstream VYM [0-9.]+",
    r"Forwarding VLAN 40 to remote VYM 198\.51\.100\.1",
    r"clamping MSS",
    r"Invalid TCP packet from peer [0-9a-f.:]+ vlan \d+ from client ([0-9a-f]{2}:){5}[0-9a-f]{2}",
    r"IPv6oEthernet Multicast Packet\. Rewriting DMAC from \S+ to \S+",
    r"hub0 \(ip://[0-9a-f.:]+\): can't fragment non-IPv4 PDU",
    r"(hub0|any) \(ip://[0-9a-f.:]+\) packet too big: \d+ \(len\) > \d+ \(mtu\)",
    # The upstream frame of 30000 bytes is sent whole and the kernel refuses it.
    r"any \(ip://0\.0\.0\.0\) sendto\(\): 90 \(Message too long\)",
)]


def header_length(first: int) -> int:
    return 4 + 4 * bin(first & 0xB0).count("1")


def warns(datagram: bytes) -> bool:
    """Whether the daemon must log the unsupported-protocol line for this
    GRE payload: its header is whole and its protocol is not 0x6558."""
    return (len(datagram) >= 4 and header_length(datagram[0]) <= len(datagram)
            and datagram[2:4] != b"\x65\x58")


def malformed_ipv4(rng: random.Random) -> list[bytes]:
    """GRE payloads that are each wrong in some way."""
    out = []
    tagged = dot1q(SERVER, "02:00:00:00:01:01", 20, OPAQUE, filler(46))
    plain = ethernet(SERVER, "02:00:00:00:01:02", OPAQUE, filler(46))
    headers = [gre(plain), gre(plain, key=20), gre(plain, checksum=True, key=20, sequence=9),
               gre(tagged, key=1, recursion=6), gre(tagged, recursion=7), gre(tagged, sequence=1)]
    # Every truncation of the header (and a little beyond), lengths 0..20.
    for _ in range(20):
        for datagram in headers:
            for length in range(21):
                out.append(datagram[:length])
    # Header lengths beyond the data: the flags promise more words than there are.
    for first in (0x80, 0x20, 0x10, 0xA0, 0x90, 0x30, 0xB0, 0xB6, 0x26):
        for length in range(4, header_length(first)):
            for _ in range(20):
                protocol = rng.choice([b"\x65\x58", b"\x08\x00"])
                out.append(bytes([first, 0]) + protocol
                           + bytes(rng.randrange(256) for _ in range(length - 4)))
    # Unsupported protocols.
    for _ in range(1500):
        protocol = rng.randrange(0x10000)
        if protocol == 0x6558:
            protocol = 0x0800
        key = rng.choice([None, rng.randrange(1 << 32)])
        out.append(gre(plain[:rng.randrange(60)], key=key, protocol=protocol,
                       recursion=rng.randrange(8)))
    # Inner frames shorter than an Ethernet header, plain and relay-marked.
    for _ in range(40):
        for length in range(14):
            for recursion in (0, 6, 7):
                out.append(gre(plain[:length], key=rng.choice([None, 20]), recursion=recursion))
    # Tagged frames shorter than tag plus 4 bytes, on a tapped, an untapped
    # and the forwarded VLAN, plain and relay-marked.
    for _ in range(25):
        for vlan in (20, 33, 40):
            frame = dot1q(SERVER, "02:00:00:00:01:03", vlan, OPAQUE, filler(8))
            for length in range(14, 22):
                for recursion in (0, 6):
                    out.append(gre(frame[:length], recursion=recursion))
    # Random bytes of random length.
    for _ in range(4000):
        out.append(bytes(rng.randrange(256) for _ in range(rng.randrange(120))))
    # Random bytes behind a plausible header (learning, relay, multicast paths).
    for _ in range(1500):
        first = rng.choice([0x00, 0x20, 0x06, 0x26, 0x07, 0x27, 0x80, 0xB0])
        words = bytes(rng.randrange(256) for _ in range(header_length(first) - 4))
        body = bytes(rng.randrange(256) for _ in range(rng.randrange(14, 100)))
        out.append(bytes([first, 0, 0x65, 0x58]) + words + body)
    return out


def malformed_ipv6(rng: random.Random) -> list[bytes]:
    """GRE payloads under 40 bytes, which the IPv6 endpoint discards."""
    plain = gre(ethernet(SERVER, "02:00:00:00:01:04", OPAQUE, filler(46)), key=20)
    out = []
    for _ in range(15):
        for length in range(40):
            out.append(plain[:length])
            out.append(bytes(rng.randrange(256) for _ in range(length)))
    return out


def paced(items, send, settle=None) -> None:
    """Calls send for each item, never faster than RATE per second; every
    BATCH items calls settle(count sent so far), which waits for the daemon
    to catch up, so the kernel's socket buffer never overflows."""
    start = time.monotonic()
    for count, item in enumerate(items, 1):
        send(item)
        if count % 50 == 0:
            ahead = count / RATE - (time.monotonic() - start)
            if ahead > 0:
                time.sleep(ahead)
        if settle is not None and (count % BATCH == 0 or count == len(items)):
            settle(count)
            start = time.monotonic() - count / RATE


def test_ten_thousand_malformed_datagrams_stop_nothing(lab, vxbrd_binary, write_config):
    namespaces = {}

    def uplink(hub, ap):
        namespaces["vym"] = lab.namespace("vym")
        link_namespaces(hub, "hub1", "198.51.100.2/24", namespaces["vym"], "vym0",
                        "198.51.100.1/24")

    conf = write_config("tap0 1\ntap20 20\nvlan40 forward-to-vym 198.51.100.1\n")
    tunnel = build_tunnel(lab, vxbrd_binary, conf, TAPS, extra=uplink)
    daemon = tunnel.daemon
    vym = GrePort(namespaces["vym"].name, bind="198.51.100.1")
    v4 = tunnel.gre_port()
    v6 = tunnel.gre_port(socket.AF_INET6)
    # Large datagrams leave the access point in IPv4 fragments.
    v4.sock.setsockopt(socket.IPPROTO_IP, IP_MTU_DISCOVER, IP_PMTUDISC_DONT)

    # Peers on VLANs 0 and 20 first, so relay-marked garbage finds peers.
    v4.send(gre(ethernet(SERVER, "02:00:00:00:00:01", OPAQUE, filler(46))), HUB_IPV4)
    v4.send(gre(dot1q(SERVER, "02:00:00:00:00:02", 20, OPAQUE, filler(46)), key=5), HUB_IPV4)
    # A second peer of VLAN 20 (over IPv6) receives relayed broadcasts.
    v6.send(gre(dot1q(SERVER, "02:00:00:00:00:05", 20, OPAQUE, filler(46))), HUB_IPV6)
    # Two ingress threads (IPv4 and IPv6): their lines come in either order.
    daemon.wait_for_log("[cache] new device: 02:00:00:00:00:02, peer: 192.0.2.2, grekey: 5, "
                        "vlan: 20")
    daemon.wait_for_log(f"[cache] new device: 02:00:00:00:00:05, peer: {AP_IPV6}, vlan: 20")
    baseline = len(daemon.log())

    rng = random.Random(20240611)
    ipv4 = malformed_ipv4(rng)
    ipv6 = malformed_ipv6(rng)
    assert len(ipv4) + len(ipv6) >= 10000
    rng.shuffle(ipv4)
    # Every datagram with a whole header and a foreign protocol is logged as
    # such: counting those lines shows that each was read and judged, none
    # lost on the way, and that the thread never stopped between them.
    warned = [0]
    for datagram in ipv4:
        warned.append(warned[-1] + warns(datagram))
    assert warned[-1] > 1500

    def warnings() -> int:
        return daemon.stderr().count(": ignoring unsupported PDU type, protocol 0x")

    def settle(count: int) -> None:
        wait_until(lambda: warnings() >= warned[count], timeout=30,
                   what=f"the unsupported-protocol lines of the first {count} datagrams")

    began = time.monotonic()
    paced(ipv4, lambda item: v4.send(item, HUB_IPV4), settle)
    paced(ipv6, lambda item: v6.send(item, HUB_IPV6))
    # Oversized frames: a relay broadcast and a plain frame of the largest
    # size an IPv4 datagram holds, and a large upstream frame.
    biggest = 65535 - 20 - 4
    v4.send(gre(dot1q("ff:ff:ff:ff:ff:ff", SERVER, 20, OPAQUE, filler(biggest - 18)),
                recursion=6), HUB_IPV4)
    v4.send(gre(ethernet(SERVER, "02:00:00:00:00:03", OPAQUE, filler(biggest - 14))), HUB_IPV4)
    v4.send(gre(dot1q(SERVER, "02:00:00:00:00:04", 40, OPAQUE, filler(30000))), HUB_IPV4)
    sending = time.monotonic() - began

    # The taps' packet sockets overflowed with what the daemon wrote to them
    # during the flood: empty them, so the frames below find room.
    for port in tunnel.taps.values():
        port.drain()

    # Valid traffic still flows, byte for byte, over IPv4 and IPv6.
    barrier = ethernet(SERVER, "02:00:00:00:0b:01", OPAQUE, filler(46, 0xB1))
    v4.send(gre(barrier), HUB_IPV4)
    deadline = time.monotonic() + 30
    while tunnel.taps["tap0"].receive(1.0) != barrier:
        assert time.monotonic() < deadline, "the barrier frame never reached tap0"
    for port in tunnel.taps.values():
        port.drain()
    check4 = dot1q(SERVER, "02:00:00:00:0c:01", 20, OPAQUE, filler(60, 0xC1))
    check6 = ethernet(SERVER, "02:00:00:00:0c:02", OPAQUE, filler(60, 0xC2))
    v4.send(gre(check4, key=5), HUB_IPV4)
    v6.send(gre(check6), HUB_IPV6)
    assert tunnel.taps["tap20"].receive() == ethernet(SERVER, "02:00:00:00:0c:01", OPAQUE,
                                                      filler(60, 0xC1))
    assert tunnel.taps["tap0"].receive() == check6
    daemon.wait_for_log("[cache] new device: 02:00:00:00:0c:01, peer: 192.0.2.2, grekey: 5, "
                        "vlan: 20")
    daemon.wait_for_log(f"[cache] new device: 02:00:00:00:0c:02, peer: {AP_IPV6}")
    # The upstream path still works too.
    upstream = gre(dot1q(SERVER, "02:00:00:00:0c:03", 40, OPAQUE, filler(46)))
    vym.receive_all(quiet=0.3)
    v4.send(upstream, HUB_IPV4)
    assert vym.receive() == ("198.51.100.2", bytes([upstream[0] | 7]) + upstream[1:])

    assert warnings() == warned[-1]
    assert daemon.process.poll() is None and process_alive(daemon.pid)
    assert tunnel.control(b"peers")
    unexpected = [line for line in daemon.log()[baseline:]
                  if not any(pattern.fullmatch(line) for pattern in ALLOWED)]
    assert unexpected == []
    assert "terminate" not in daemon.stderr()
    print(f"sent {len(ipv4)} IPv4 and {len(ipv6)} IPv6 malformed datagrams in {sending:.1f} s")
