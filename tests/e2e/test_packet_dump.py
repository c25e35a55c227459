"""The packet dump in the foreground: each GRE datagram the ingress thread
takes is dumped from its GRE header as it arrived (decoded at -vv, hex as
well at -vvv, nothing at -v), and a frame from a tap cut inside its ARP
header is dumped without ending the daemon.

    ap ns: GrePort (raw GRE, 192.0.2.2)  --veth--  hub ns: vxbrd -f -v / -vv / -vvv
                                                    hub0 192.0.2.1
                                                    tap0 (VLAN 0), tap20 (VLAN 20)
                                                    <- TapPort.inject (what the daemon reads)

Dump lines carry no timestamp: they are the stderr lines the log (the
timestamped lines) leaves out.
"""

import pytest
from scapy.layers.inet import IP, UDP
from scapy.packet import Raw

from netns import TIMESTAMP, assert_in_order, process_alive, wait_until
from tunnel_lab import (HUB_IPV4, build_tunnel, dot1q, ethernet, filler, gre, mac_bytes)

CLIENT = "02:00:00:00:00:01"
HOST = "02:00:00:00:00:99"
BROADCAST = "ff:ff:ff:ff:ff:ff"
OPAQUE = 0x88b5  # the dump's walk stops at this ethertype
GRE_PLAIN = b"\x00\x00\x65\x58"
V4_NAME = "hub0 (ip://192.0.2.1)"

# A UDP datagram inside the tunnel: 32 bytes of IPv4, checksum 0xf6a7.
INNER = bytes(IP(src="192.0.2.10", dst="192.0.2.20", id=7, ttl=64)
              / UDP(sport=1024, dport=53, chksum=0) / Raw(b"abcd"))
# Tagged for VLAN 20 in plain GRE: 54 bytes.
DATAGRAM = gre(dot1q(HOST, CLIENT, 20, 0x0800, INNER))
# Dropped with a warning after its GRE line: once the warning is logged, the
# ingress thread has dumped and handled everything sent before it.
FENCE = gre(INNER, protocol=0x0800)
FENCE_WARNING = f"{V4_NAME}: ignoring unsupported PDU type, protocol 0x0800"

DECODED = [
    "GRE: flags: 0x0000, hlen: 4, proto: 0x6558, length: 54",
    " Ethernet: 02:00:00:00:00:01 > 02:00:00:00:00:99, ethertype: 0x8100, length: 50",
    "  VLAN: tag: 20, proto: 0x0800, length: 36",
    "   IPv4: 192.0.2.10 > 192.0.2.20, len: 32, id: 7, flags: 0, off: 0, ttl: 64, proto: 17, "
    "cksum: 0xf6a7, len/cap: 32/32",
    "    UDP: src port: 1024, dst port: 53, cksum: 0x0000, len/cap: 12/12",
]
HEX = [
    "\t0x0000:  00 00 65 58 02 00 00 00  00 99 02 00 00 00 00 01  ..eX............",
    "\t0x0010:  81 00 00 14 08 00 45 00  00 20 00 07 00 00 40 11  ......E.. ....@.",
    "\t0x0020:  f6 a7 c0 00 02 0a c0 00  02 14 04 00 00 35 00 0c  .............5..",
    "\t0x0030:  00 00 61 62 63 64                                 ..abcd",
]
FENCE_DECODED = ["GRE: flags: 0x0000, hlen: 4, proto: 0x0800, length: 36"]
FENCE_HEX = [
    "\t0x0000:  00 00 08 00 45 00 00 20  00 07 00 00 40 11 f6 a7  ....E.. ....@...",
    "\t0x0010:  c0 00 02 0a c0 00 02 14  04 00 00 35 00 0c 00 00  ...........5....",
    "\t0x0020:  61 62 63 64                                       abcd",
]


def dump_lines(daemon) -> list:
    """The stderr lines without a timestamp, in order."""
    return [line for line in daemon.stderr().splitlines() if not TIMESTAMP.match(line)]


def wait_for_dump(daemon, expected: list) -> list:
    """Waits until as many dump lines as expected have arrived; returns them."""
    return wait_until(lambda: (lambda lines: lines if len(lines) >= len(expected) else None)(
        dump_lines(daemon)), 5.0, what=f"{len(expected)} dump lines; stderr:\n{daemon.stderr()}")


def test_the_datagrams_are_the_ones_the_expected_lines_describe():
    assert INNER.hex() == "45000020000700004011f6a7c000020ac0000214" "04000035000c0000" "61626364"
    assert len(DATAGRAM) == 54 and len(FENCE) == 36


@pytest.mark.parametrize("verbosity,expected", [
    ("-v", []),
    ("-vv", DECODED + FENCE_DECODED),
    ("-vvv", DECODED + HEX + FENCE_DECODED + FENCE_HEX),
], ids=["v", "vv", "vvv"])
def test_ingress_dump_follows_the_level(lab, vxbrd_binary, write_config, verbosity, expected):
    conf = write_config("tap0 1\ntap20 20\n")
    tunnel = build_tunnel(lab, vxbrd_binary, conf, ["tap0", "tap20"], args=[verbosity])
    port = tunnel.gre_port()
    port.send(DATAGRAM, HUB_IPV4)
    # The dump showed the tag; the tap gets the frame without it.
    assert tunnel.taps["tap20"].receive() == ethernet(HOST, CLIENT, 0x0800, INNER)
    port.send(FENCE, HUB_IPV4)
    tunnel.daemon.wait_for_log(FENCE_WARNING)
    assert dump_lines(tunnel.daemon) == expected
    assert_in_order(tunnel.daemon.log(), [
        "[peers] new peer: 192.0.2.2, vlan: 20, interface: hub0[192.0.2.1] (total: 1)",
        "[cache] new device: 02:00:00:00:00:01, peer: 192.0.2.2, vlan: 20",
        FENCE_WARNING,
    ])


# What an earlier frame leaves where a cut ARP header's sender addresses
# would be (frame bytes 22-27 and 28-31).
SENDER_MAC = "02:00:00:00:0a:0b"
SENDER_IP = bytes([192, 0, 2, 55])
TAP_READ_SLOTS = 32  # the tap thread's ring of read buffers


def test_cut_arp_header_from_a_tap_is_dumped_and_forwarded(lab, vxbrd_binary, write_config):
    conf = write_config("tap0 1\n")
    tunnel = build_tunnel(lab, vxbrd_binary, conf, ["tap0"], args=["-vv"])
    port = tunnel.gre_port()
    tap0 = tunnel.taps["tap0"]
    learned = ethernet(HOST, CLIENT, OPAQUE, filler(46))
    port.send(gre(learned), HUB_IPV4)
    assert tap0.receive() == learned
    tunnel.daemon.wait_for_log("[cache] new device: 02:00:00:00:00:01, peer: 192.0.2.2")

    # Every slot of the read ring (and some) holds the same sender bytes.
    fill = ethernet(CLIENT, HOST, OPAQUE, filler(8) + mac_bytes(SENDER_MAC) + SENDER_IP
                    + filler(28, 1))
    for _ in range(TAP_READ_SLOTS + 8):
        tap0.inject(fill)
        assert port.receive() == (HUB_IPV4, GRE_PLAIN + fill)

    # Ethernet header and the 8 fixed ARP bytes of a request: 22 bytes,
    # flooded as they are.
    cut = ethernet(BROADCAST, HOST, 0x0806, bytes.fromhex("0001 0800 06 04 0001"))
    tap0.inject(cut)
    assert port.receive() == (HUB_IPV4, GRE_PLAIN + cut)
    # The tap thread goes on: a later frame is forwarded.
    later = ethernet(CLIENT, HOST, OPAQUE, filler(46, 9))
    tap0.inject(later)
    assert port.receive() == (HUB_IPV4, GRE_PLAIN + later)
    assert port.receive(0.3) is None

    expected = (
        ["GRE: flags: 0x0000, hlen: 4, proto: 0x6558, length: 64",
         " Ethernet: 02:00:00:00:00:01 > 02:00:00:00:00:99, ethertype: 0x88b5, length: 60"]
        + ["Ethernet: 02:00:00:00:00:99 > 02:00:00:00:00:01, ethertype: 0x88b5, length: 60"]
        * (TAP_READ_SLOTS + 8)
        + ["Ethernet: 02:00:00:00:00:99 > ff:ff:ff:ff:ff:ff, ethertype: 0x0806, length: 22",
           " ARP: hardware type: 1, protocol type: 0x0800, halen: 6, palen: 4, op: 1, length: 8",
           "source ha: 02:00:00:00:0a:0b",
           "source pa: 192.0.2.55",
           "Ethernet: 02:00:00:00:00:99 > 02:00:00:00:00:01, ethertype: 0x88b5, length: 60"])
    assert wait_for_dump(tunnel.daemon, expected) == expected
    assert process_alive(tunnel.daemon.pid)
    assert "terminate" not in tunnel.daemon.stderr()
