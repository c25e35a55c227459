"""Ingress: TCP SYN segments coming out of the tunnel get their MSS clamped.

    ap ns                           hub ns (vxbrd -f -vvv)
    +-------------------------+     +------------------------------------+
    | ap0 192.0.2.2           |veth | hub0 192.0.2.1                     |
    | GrePort (raw GRE)     --+-----+-- GRE endpoint -> tap0  (VLAN 0)   |
    +-------------------------+     |                   tap20 (VLAN 20)  |
                                    +------------------------------------+

The segments are IPv4 between 203.0.113.0/24 addresses that no interface of
the hub namespace holds, so the host drops them quietly.
"""

import struct

from scapy.layers.inet import IP, TCP
from scapy.layers.inet6 import IPv6

from netns import assert_in_order
from tunnel_lab import (HUB_IPV4, build_tunnel, collect_frames, dot1q, ethernet, gre,
                        wait_for_lines)

CLIENT = "02:00:00:00:00:01"
HOST = "02:00:00:00:00:99"
TAPS = ["tap0", "tap20"]


def segment(flags: str, mss: int, sport: int = 40000, frag: int = 0, mf: bool = False) -> bytes:
    """An IPv4 TCP segment with options NOP, NOP, MSS and valid checksums."""
    packet = (IP(src="203.0.113.2", dst="203.0.113.1", id=1, ttl=64, frag=frag,
                 flags="MF" if mf else 0)
              / TCP(sport=sport, dport=80, seq=1000, ack=0 if flags == "S" else 5000, flags=flags,
                    window=65535, options=[("NOP", None), ("NOP", None), ("MSS", mss)]))
    return bytes(packet)


def clamped(raw: bytes, old: int, new: int) -> bytes:
    """raw with its one MSS option lowered from old to new and the TCP
    checksum raised by the difference, the incremental update the daemon makes."""
    tcp = 20  # no IPv4 options
    mss_at = tcp + 20 + 2 + 2  # NOP, NOP, kind, length
    assert struct.unpack("!H", raw[mss_at:mss_at + 2])[0] == old
    checksum = struct.unpack("!H", raw[tcp + 16:tcp + 18])[0]
    updated = (checksum + old - new) & 0xFFFF
    out = bytearray(raw)
    out[mss_at:mss_at + 2] = struct.pack("!H", new)
    out[tcp + 16:tcp + 18] = struct.pack("!H", updated)
    return bytes(out)


def start(lab, binary, write_config, extra: str = ""):
    return build_tunnel(lab, binary, write_config("tap0 1\ntap20 20\n" + extra), TAPS)


def clamp_lines(log: list) -> int:
    return log.count("clamping MSS")


def test_syn_is_clamped_with_exact_mss_and_checksum(lab, vxbrd_binary, write_config):
    tunnel = start(lab, vxbrd_binary, write_config)
    syn = segment("S", 1460)
    got_checksum = struct.unpack("!H", syn[36:38])[0]
    assert got_checksum + 80 <= 0xFFFF  # no wrap: the update equals a full recount
    tunnel.gre_port().send(gre(ethernet(HOST, CLIENT, 0x0800, syn)), HUB_IPV4)
    frame = tunnel.taps["tap0"].receive()
    expected = ethernet(HOST, CLIENT, 0x0800, clamped(syn, 1460, 1380))
    assert frame == expected
    # The segment on the tap is a valid TCP segment with MSS 1380.
    parsed = IP(frame[14:])
    assert dict(parsed[TCP].options)["MSS"] == 1380
    recounted = IP(frame[14:])
    del recounted[TCP].chksum
    assert IP(bytes(recounted))[TCP].chksum == parsed[TCP].chksum
    log = wait_for_lines(tunnel.daemon, ["[cache] new device: 02:00:00:00:00:01, peer: 192.0.2.2",
                                         "clamping MSS"])
    assert clamp_lines(log) == 1


def test_syn_ack_and_small_mss_are_left_alone(lab, vxbrd_binary, write_config):
    tunnel = start(lab, vxbrd_binary, write_config)
    port = tunnel.gre_port()
    syn_ack = segment("SA", 1460)
    small = segment("S", 1200, sport=40001)
    equal = segment("S", 1380, sport=40002)
    ack = segment("A", 1460, sport=40003)
    for raw in (syn_ack, small, equal, ack):
        port.send(gre(ethernet(HOST, CLIENT, 0x0800, raw)), HUB_IPV4)
    frames = collect_frames(tunnel.taps)
    assert frames == {"tap0": [ethernet(HOST, CLIENT, 0x0800, raw)
                               for raw in (syn_ack, small, equal, ack)], "tap20": []}
    # Then a SYN that is clamped: the only "clamping MSS" line is its own.
    syn = segment("S", 1460, sport=40004)
    port.send(gre(ethernet(HOST, CLIENT, 0x0800, syn)), HUB_IPV4)
    assert tunnel.taps["tap0"].receive() == ethernet(HOST, CLIENT, 0x0800,
                                                     clamped(syn, 1460, 1380))
    assert clamp_lines(wait_for_lines(tunnel.daemon, ["clamping MSS"])) == 1


def test_tagged_syn_is_untagged_then_clamped_to_configured_mss(lab, vxbrd_binary, write_config):
    tunnel = start(lab, vxbrd_binary, write_config, "mss 1300\n")
    syn = segment("S", 1460)
    tunnel.gre_port().send(gre(dot1q(HOST, CLIENT, 20, 0x0800, syn), key=4), HUB_IPV4)
    assert tunnel.taps["tap20"].receive() == ethernet(HOST, CLIENT, 0x0800,
                                                      clamped(syn, 1460, 1300))
    assert_in_order(wait_for_lines(tunnel.daemon, ["clamping MSS"]), [
        "[cache] new device: 02:00:00:00:00:01, peer: 192.0.2.2, grekey: 4, vlan: 20",
        "clamping MSS",
    ])


def test_fragments_and_ipv6_syn_are_not_clamped(lab, vxbrd_binary, write_config):
    tunnel = start(lab, vxbrd_binary, write_config)
    port = tunnel.gre_port()
    first_fragment = segment("S", 1460, mf=True)
    v6 = bytes(IPv6(src="2001:db8:1::2", dst="2001:db8:1::1", hlim=64)
               / TCP(sport=40000, dport=80, flags="S", options=[("MSS", 1460)]))
    frames = [ethernet(HOST, CLIENT, 0x0800, first_fragment),
              ethernet(HOST, CLIENT, 0x86DD, v6)]
    for frame in frames:
        port.send(gre(frame), HUB_IPV4)
    assert collect_frames(tunnel.taps) == {"tap0": frames, "tap20": []}
    assert clamp_lines(tunnel.daemon.log()) == 0


def test_malformed_tcp_header_is_reported_and_written_unchanged(lab, vxbrd_binary, write_config):
    tunnel = start(lab, vxbrd_binary, write_config)
    good = bytearray(segment("S", 1460))
    # TCP data offset 4 words: below the 20-byte minimum.
    good[20 + 12] = 0x40
    frame = ethernet(HOST, CLIENT, 0x0800, bytes(good))
    tunnel.gre_port().send(gre(frame, key=9), HUB_IPV4)
    assert tunnel.taps["tap0"].receive() == frame
    log = wait_for_lines(tunnel.daemon, [
        "[cache] new device: 02:00:00:00:00:01, peer: 192.0.2.2, grekey: 9",
        "Invalid TCP packet from peer 192.0.2.2 vlan 0 from client 02:00:00:00:00:01",
    ])
    assert clamp_lines(log) == 0
