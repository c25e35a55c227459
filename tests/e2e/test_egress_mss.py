"""MSS clamping on the way into the tunnel: TCP segments with SYN set (SYN
and SYN+ACK alike) that the host sends to a known client leave with their
MSS option lowered to the configured "mss"; nothing else is touched.

    ap ns: GrePort (raw GRE, 192.0.2.2)  --veth--  hub ns: vxbrd -f -vvv, "mss 1360"
                                                    tap0 (VLAN 0) <- TapPort.inject
"""

import struct

from scapy.layers.inet import IP, TCP
from scapy.layers.l2 import Ether

from tunnel_lab import HUB_IPV4, build_tunnel, ethernet, gre, log_through_fence

CLIENT = "02:00:00:00:00:01"
HOST = "02:00:00:00:00:99"
BROADCAST = "ff:ff:ff:ff:ff:ff"
OPAQUE = 0x88b5
KEY = 0x00C0FFEE
GRE_KEYED = b"\x20\x00\x65\x58" + struct.pack("!I", KEY)
CLAMP_LINE = "clamping MSS to GRE"

# Offsets in the Ethernet frame: IPv4 header at 14, TCP header at 34, the
# TCP checksum at 50 and the first option (MSS: kind, length, value) at 54.
TCP_CHECKSUM = 50
MSS_VALUE = 56


def segment(flags: str, mss: int, destination: str = CLIENT, frag: int = 0,
            ip_flags: int = 0, seq: int = 1000) -> bytes:
    return bytes(Ether(dst=destination, src=HOST)
                 / IP(src="203.0.113.1", dst="203.0.113.2", id=0x4242, flags=ip_flags, frag=frag)
                 / TCP(sport=40000, dport=5001, seq=seq, ack=2000 if "A" in flags else 0,
                       flags=flags, window=64240,
                       options=[("MSS", mss), ("SAckOK", b""), ("Timestamp", (1, 0)),
                                ("NOP", None), ("WScale", 7)]))


def checksum_of(frame: bytes) -> int:
    return struct.unpack_from("!H", frame, TCP_CHECKSUM)[0]


def with_checksum(flags: str, mss: int, target: int) -> bytes:
    """A segment whose (correct) TCP checksum is target: raising the low
    16 bits of the sequence number by d lowers the checksum by d in
    one's-complement arithmetic."""
    d = (checksum_of(segment(flags, mss)) - target) % 0xFFFF
    frame = segment(flags, mss, seq=1000 + d)
    assert checksum_of(frame) == target
    return frame


def clamped(frame: bytes, mss: int) -> bytes:
    """frame with its MSS lowered to mss and the checksum moved the way the
    daemon does it: up by the decrease, modulo 2^16, no end-around carry."""
    old = struct.unpack_from("!H", frame, MSS_VALUE)[0]
    checksum = struct.unpack_from("!H", frame, TCP_CHECKSUM)[0]
    out = bytearray(frame)
    struct.pack_into("!H", out, MSS_VALUE, mss)
    struct.pack_into("!H", out, TCP_CHECKSUM, (checksum + old - mss) % 65536)
    return bytes(out)


def tcp_checksum_ok(frame: bytes) -> bool:
    packet = Ether(frame)
    stored = packet[TCP].chksum
    del packet[TCP].chksum
    return Ether(bytes(packet))[TCP].chksum == stored


def start(lab, vxbrd_binary, write_config):
    conf = write_config("tap0 1\nmss 1360\n")
    tunnel = build_tunnel(lab, vxbrd_binary, conf, ["tap0"])
    port = tunnel.gre_port()
    learned = ethernet(HOST, CLIENT, OPAQUE, bytes(46))
    port.send(gre(learned, key=KEY), HUB_IPV4)
    tunnel.daemon.wait_for_log(
        "[cache] new device: 02:00:00:00:00:01, peer: 192.0.2.2, grekey: 12648430")
    assert tunnel.taps["tap0"].receive() == learned
    return tunnel, port


def send_one(tunnel, port, frame: bytes) -> tuple[bytes, list[str]]:
    """Injects frame; returns the inner frame that reached the access point
    and the log lines the daemon wrote meanwhile."""
    before = tunnel.daemon.log()
    tunnel.taps["tap0"].inject(frame)
    got = port.receive()
    assert got is not None, "nothing reached the access point"
    source, datagram = got
    assert source == HUB_IPV4
    assert datagram[:8] == GRE_KEYED
    return datagram[8:], log_through_fence(tunnel, "tap0", before)


def test_syn_and_syn_ack_are_clamped_to_the_configured_mss(lab, vxbrd_binary, write_config):
    tunnel, port = start(lab, vxbrd_binary, write_config)
    for flags in ("S", "SA"):
        # A checksum far from the top does not wrap, so the daemon's update
        # is also the correct checksum.
        frame = with_checksum(flags, 1460, 0x8000)
        assert frame[54:58] == b"\x02\x04\x05\xb4"
        inner, lines = send_one(tunnel, port, frame)
        assert inner == clamped(frame, 1360), flags
        assert inner[54:58] == b"\x02\x04\x05\x50"
        assert tcp_checksum_ok(inner)
        assert lines == [CLAMP_LINE], flags


def test_checksum_near_the_top_wraps_without_carry(lab, vxbrd_binary, write_config):
    tunnel, port = start(lab, vxbrd_binary, write_config)
    # A SYN whose checksum field plus 100 passes 0xffff: the daemon's update
    # drops the carry, so the result is one below a correct checksum.
    frame = with_checksum("S", 1460, 0xFFD0)
    inner, lines = send_one(tunnel, port, frame)
    assert inner == clamped(frame, 1360)
    assert checksum_of(inner) == 0x0034
    assert not tcp_checksum_ok(inner)
    assert lines == [CLAMP_LINE]


def test_segments_that_are_not_clamped(lab, vxbrd_binary, write_config):
    tunnel, port = start(lab, vxbrd_binary, write_config)
    cases = {
        "MSS already below": segment("S", 1200),
        "MSS equal": segment("S", 1360),
        "no SYN": segment("A", 1460),
        # Offset 1 (8 bytes): no TCP header here, whatever the bytes look like.
        "not the first fragment": segment("S", 1460, frag=1),
    }
    for what, frame in cases.items():
        inner, lines = send_one(tunnel, port, frame)
        assert inner == frame, what
        assert lines == [], what

    # A first fragment (MF set, offset 0) still carries the TCP header: clamped.
    frame = segment("S", 1460, ip_flags=1)
    inner, lines = send_one(tunnel, port, frame)
    assert inner == clamped(frame, 1360)
    assert lines == [CLAMP_LINE]


def test_flooded_syn_is_not_clamped(lab, vxbrd_binary, write_config):
    tunnel, port = start(lab, vxbrd_binary, write_config)
    frame = segment("S", 1460, destination=BROADCAST)
    inner, lines = send_one(tunnel, port, frame)
    assert inner == frame
    assert lines == []
    assert port.receive(0.3) is None
