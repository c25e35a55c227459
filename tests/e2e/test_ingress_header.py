"""Ingress: the GRE header as the daemon reads it, over IPv4 and IPv6.

    ap ns                                   hub ns (vxbrd -f -vvv, grekey mode preferkey)
    +-------------------------------+       +------------------------------------------+
    | ap0 192.0.2.2, 2001:db8::2    | veth  | hub0 192.0.2.1, 2001:db8::1              |
    | GrePort (raw GRE, v4 or v6) --+-------+-- GRE endpoints -> tap0  (VLAN 0)        |
    +-------------------------------+       |                    tap20 (VLAN 20)       |
                                            |                    tap30 (VLAN 30)       |
                                            +------------------------------------------+

The key mode is preferkey so that the key a packet is read with decides its
tap: a wrong key position shows up as the wrong tap.
"""

import socket
import struct

import pytest
from scapy.layers.inet6 import IPv6
from scapy.packet import Raw

from netns import assert_in_order
from tunnel_lab import (HUB_IPV4, HUB_IPV6, build_tunnel, collect_frames, dot1q, ethernet,
                        filler, gre, wait_for_lines)

CLIENT = "02:00:00:00:00:01"
HOST = "02:00:00:00:00:99"
OPAQUE = 0x88b5  # the frame walk stops at this ethertype
V4_NAME = "hub0 (ip://192.0.2.1)"
V6_NAME = "hub0 (ip://2001:db8::1)"
CONFIG = "tap0 1\ntap20 20\ntap30 30\ngrekey mode preferkey\n"
TAPS = ["tap0", "tap20", "tap30"]


@pytest.fixture
def tunnel(lab, vxbrd_binary, write_config):
    return build_tunnel(lab, vxbrd_binary, write_config(CONFIG), TAPS)


def client(n: int) -> str:
    return f"02:00:00:00:01:{n:02x}"


def only(frames: dict, tap: str, expected: list) -> None:
    """tap received exactly `expected`, every other tap nothing."""
    assert frames == {name: (expected if name == tap else []) for name in frames}


def test_untagged_frame_without_key_reaches_vlan0_tap_unchanged(tunnel):
    frame = ethernet(HOST, CLIENT, OPAQUE, filler(46))
    tunnel.gre_port().send(gre(frame), HUB_IPV4)
    assert tunnel.taps["tap0"].receive() == frame
    log = tunnel.daemon.wait_for_log("[cache] new device: 02:00:00:00:00:01, peer: 192.0.2.2")
    assert "[peers] new peer: 192.0.2.2, vlan: 0, interface: hub0[192.0.2.1] (total: 1)" in log
    only(collect_frames(tunnel.taps), "tap0", [])


def test_tagged_frame_reaches_its_tap_untagged(tunnel):
    body = filler(50, 3)
    # Priority 5 and DEI in the TCI: only the low 12 bits name the VLAN.
    tagged = dot1q(HOST, CLIENT, 0xB000 | 20, OPAQUE, body)
    tunnel.gre_port().send(gre(tagged), HUB_IPV4)
    assert tunnel.taps["tap20"].receive() == ethernet(HOST, CLIENT, OPAQUE, body)
    tunnel.daemon.wait_for_log("[cache] new device: 02:00:00:00:00:01, peer: 192.0.2.2, vlan: 20")
    only(collect_frames(tunnel.taps), "tap20", [])


def test_protocol_0800_is_dropped_with_its_number(tunnel):
    port = tunnel.gre_port()
    frame = ethernet(HOST, CLIENT, OPAQUE, filler(46))
    port.send(gre(frame, protocol=0x0800), HUB_IPV4)
    port.send(gre(frame, protocol=0x88BE, key=30), HUB_IPV4)
    # The next good packet is read after both: once it is on its tap, the
    # two before it have been dealt with.
    sentinel = ethernet(HOST, client(9), OPAQUE, filler(46, 9))
    port.send(gre(sentinel), HUB_IPV4)
    assert tunnel.taps["tap0"].receive() == sentinel
    log = wait_for_lines(tunnel.daemon, [
        f"{V4_NAME}: ignoring unsupported PDU type, protocol 0x0800",
        f"{V4_NAME}: ignoring unsupported PDU type, protocol 0x88BE",
        "[cache] new device: 02:00:00:00:01:09, peer: 192.0.2.2",
    ])
    # Nothing was learned from the dropped packets.
    assert not [line for line in log if "02:00:00:00:00:01" in line]
    only(collect_frames(tunnel.taps), "tap0", [])


def test_checksum_and_key_bits_take_the_key_from_offset_4(tunnel):
    frame = ethernet(HOST, CLIENT, OPAQUE, filler(46, 5))
    # C and K set: word 4 is where a checksum would sit, word 8 where the key
    # would. The daemon reads the key from word 4, so this packet is keyed 30.
    header = bytes([0xA0, 0x00, 0x65, 0x58]) + struct.pack("!II", 30, 20)
    tunnel.gre_port().send(header + frame, HUB_IPV4)
    assert tunnel.taps["tap30"].receive() == frame
    tunnel.daemon.wait_for_log(
        "[cache] new device: 02:00:00:00:00:01, peer: 192.0.2.2, grekey: 30, mapped to vlan: 30")
    only(collect_frames(tunnel.taps), "tap30", [])


@pytest.mark.parametrize("first,words,expected_tap,line_tail", [
    # S alone: 8-byte header, no key.
    (0x10, struct.pack("!I", 77), "tap0", ""),
    # K and S: 12 bytes, key then sequence number.
    (0x30, struct.pack("!II", 20, 0xFFFFFFFF), "tap20", ", grekey: 20, mapped to vlan: 20"),
    # C, K and S: 16 bytes; the key is read from the checksum word.
    (0xB0, struct.pack("!III", 30, 20, 1), "tap30", ", grekey: 30, mapped to vlan: 30"),
    # The routing and strict-source-route bits are not interpreted.
    (0x48, b"", "tap0", ""),
], ids=["S", "K+S", "C+K+S", "routing-bits"])
def test_header_length_follows_the_c_k_s_bits(tunnel, first, words, expected_tap, line_tail):
    frame = ethernet(HOST, CLIENT, OPAQUE, filler(46, first))
    tunnel.gre_port().send(bytes([first, 0x00, 0x65, 0x58]) + words + frame, HUB_IPV4)
    assert tunnel.taps[expected_tap].receive() == frame
    tunnel.daemon.wait_for_log(
        "[cache] new device: 02:00:00:00:00:01, peer: 192.0.2.2" + line_tail)
    only(collect_frames(tunnel.taps), expected_tap, [])


def test_outer_ipv4_options_are_skipped(tunnel):
    port = tunnel.gre_port()
    # Four option bytes (NOP, NOP, NOP, end of list): a 24-byte outer header.
    port.sock.setsockopt(socket.IPPROTO_IP, socket.IP_OPTIONS, b"\x01\x01\x01\x00")
    frame = ethernet(HOST, CLIENT, OPAQUE, filler(46, 7))
    port.send(gre(frame, key=20), HUB_IPV4)
    assert tunnel.taps["tap20"].receive() == frame
    tunnel.daemon.wait_for_log(
        "[cache] new device: 02:00:00:00:00:01, peer: 192.0.2.2, grekey: 20, mapped to vlan: 20")


def test_ipv6_outer_transport(tunnel):
    port = tunnel.gre_port(socket.AF_INET6)
    # A raw IPv6 endpoint drops GRE payloads under 40 bytes: 4 + 36 is the
    # smallest that passes, 4 + 35 is dropped.
    short = ethernet(HOST, client(1), OPAQUE, filler(21))
    smallest = ethernet(HOST, client(2), OPAQUE, filler(22))
    tagged = dot1q(HOST, client(3), 20, OPAQUE, filler(60, 3))
    keyed = ethernet(HOST, client(4), OPAQUE, filler(60, 4))
    port.send(gre(short), HUB_IPV6)
    port.send(gre(smallest), HUB_IPV6)
    port.send(gre(tagged), HUB_IPV6)
    port.send(gre(keyed, key=30), HUB_IPV6)
    port.send(gre(keyed, protocol=0x0800), HUB_IPV6)
    port.send(gre(smallest), HUB_IPV6)
    frames = collect_frames(tunnel.taps, quiet=0.5)
    assert frames == {
        "tap0": [smallest, smallest],
        "tap20": [ethernet(HOST, client(3), OPAQUE, filler(60, 3))],
        "tap30": [keyed],
    }
    log = wait_for_lines(tunnel.daemon, [
        "[peers] new peer: 2001:db8::2, vlan: 0, interface: hub0[2001:db8::1] (total: 1)",
        "[cache] new device: 02:00:00:00:01:02, peer: 2001:db8::2",
        "[peers] new peer: 2001:db8::2, vlan: 20, interface: hub0[2001:db8::1] (total: 2)",
        "[cache] new device: 02:00:00:00:01:03, peer: 2001:db8::2, vlan: 20",
        "[peers] new peer: 2001:db8::2, vlan: 30, interface: hub0[2001:db8::1] (total: 3)",
        "[cache] new device: 02:00:00:00:01:04, peer: 2001:db8::2, grekey: 30, "
        "mapped to vlan: 30",
        f"{V6_NAME}: ignoring unsupported PDU type, protocol 0x0800",
    ])
    assert not [line for line in log if "02:00:00:00:01:01" in line]
    peers = tunnel.control(b"peers").decode().splitlines()
    assert sorted(peers) == ["peer: 2001:db8::2, vlan: 0", "peer: 2001:db8::2, vlan: 20",
                             "peer: 2001:db8::2, vlan: 30"]


def test_ipv6_multicast_gets_the_tap_mac_as_destination(tunnel):
    tap_mac = tunnel.tap_mac("tap0")
    # A real IPv6 header (no next header) to all-nodes: the host takes it in
    # and answers nothing.
    packet = bytes(IPv6(src="fe80::1", dst="ff02::1", nh=59, hlim=1) / Raw(filler(8)))
    frame = ethernet("33:33:00:00:00:01", CLIENT, 0x86DD, packet)
    port = tunnel.gre_port()
    port.send(gre(frame), HUB_IPV4)
    expected = ethernet(tap_mac, CLIENT, 0x86DD, packet)
    assert tunnel.taps["tap0"].receive() == expected
    log = tunnel.daemon.wait_for_log(
        f"IPv6oEthernet Multicast Packet. Rewriting DMAC from 33:33:00:00:00:01 to {tap_mac}")
    assert_in_order(log, [
        "[cache] new device: 02:00:00:00:00:01, peer: 192.0.2.2",
        f"IPv6oEthernet Multicast Packet. Rewriting DMAC from 33:33:00:00:00:01 to {tap_mac}",
    ])
    # Tagged and keyed to VLAN 20: the rewrite uses tap20's own MAC.
    tap20_mac = tunnel.tap_mac("tap20")
    tagged = dot1q("33:33:ff:00:00:02", CLIENT, 20, 0x86DD, packet)
    port.send(gre(tagged), HUB_IPV4)
    assert tunnel.taps["tap20"].receive() == ethernet(tap20_mac, CLIENT, 0x86DD, packet)
    tunnel.daemon.wait_for_log(
        f"IPv6oEthernet Multicast Packet. Rewriting DMAC from 33:33:ff:00:00:02 to {tap20_mac}")
    # 33:33 with another ethertype, and 0x86dd to another group, are left alone.
    other = ethernet("33:33:00:00:00:01", CLIENT, OPAQUE, filler(60))
    group = ethernet("01:00:5e:00:00:01", CLIENT, 0x86DD, packet)
    port.send(gre(other), HUB_IPV4)
    port.send(gre(group), HUB_IPV4)
    assert collect_frames(tunnel.taps) == {"tap0": [other, group], "tap20": [], "tap30": []}
    rewrites = [line for line in tunnel.daemon.log() if line.startswith("IPv6oEthernet")]
    assert len(rewrites) == 2
