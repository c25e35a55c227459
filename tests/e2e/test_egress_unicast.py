"""Egress of unicast frames: an unknown destination, the ARP reply repair for
a tap with a parent interface, and the "ipchksum" fill-in of a missing IPv4
header checksum.

    ap ns: GrePort (raw GRE, 192.0.2.2)  --veth--  hub ns: vxbrd -f -vvv
                                                    hub0 192.0.2.1 (parent of tap0 where configured)
                                                    tap0 (VLAN 0), tap20 (VLAN 20)
                                                    <- TapPort.inject (what the daemon reads)
"""

import struct

from scapy.layers.inet import IP, UDP
from scapy.layers.l2 import ARP, Ether

from tunnel_lab import (HUB_IPV4, build_tunnel, dot1q, ethernet, gre, log_through_fence,
                        mac_bytes)

CLIENT = "02:00:00:00:00:01"
HOST = "02:00:00:00:00:99"
BROADCAST = "ff:ff:ff:ff:ff:ff"
OPAQUE = 0x88b5
GRE_PLAIN = b"\x00\x00\x65\x58"


def body(n: int, seed: int = 0) -> bytes:
    return bytes((seed + i * 11) & 0xFF for i in range(n))


def learn_untagged_client(tunnel, port, tap: str = "tap0") -> None:
    frame = ethernet(HOST, CLIENT, OPAQUE, body(46))
    port.send(gre(frame), HUB_IPV4)
    tunnel.daemon.wait_for_log("[cache] new device: 02:00:00:00:00:01, peer: 192.0.2.2")
    assert tunnel.taps[tap].receive() == frame


def test_unknown_unicast_logs_one_notice_and_sends_nothing(lab, vxbrd_binary, write_config):
    conf = write_config("tap0 1\ntap20 20\n")
    tunnel = build_tunnel(lab, vxbrd_binary, conf, ["tap0", "tap20"])
    port = tunnel.gre_port()
    # The client is known on VLAN 20 only.
    port.send(gre(dot1q(HOST, CLIENT, 20, OPAQUE, body(46))), HUB_IPV4)
    tunnel.daemon.wait_for_log("[cache] new device: 02:00:00:00:00:01, peer: 192.0.2.2, vlan: 20")
    # And a peer of VLAN 0 exists for the marker.
    port.send(gre(ethernet(HOST, "02:00:00:00:00:02", OPAQUE, body(46))), HUB_IPV4)
    tunnel.daemon.wait_for_log("[cache] new device: 02:00:00:00:00:02, peer: 192.0.2.2")
    before = tunnel.daemon.log()

    tap0 = tunnel.taps["tap0"]
    tap0.inject(ethernet("02:00:00:00:00:42", HOST, OPAQUE, body(46, 1)))
    # Known on VLAN 20, unknown on tap0's VLAN 0.
    tap0.inject(ethernet(CLIENT, HOST, OPAQUE, body(46, 2)))
    marker = ethernet(BROADCAST, HOST, OPAQUE, body(46, 3))
    tap0.inject(marker)
    assert port.receive() == (HUB_IPV4, GRE_PLAIN + marker)
    assert port.receive(0.3) is None
    assert log_through_fence(tunnel, "tap0", before) == [
        "tap0: can't find peer for host 02:00:00:00:00:42",
        "tap0: can't find peer for host 02:00:00:00:00:01"]


def arp_reply(sender_mac: str, target_mac: str) -> bytes:
    return bytes(Ether(dst=target_mac, src=sender_mac)
                 / ARP(op=2, hwsrc=sender_mac, psrc="203.0.113.1", hwdst=target_mac,
                       pdst="203.0.113.2"))


def test_arp_reply_with_the_taps_mac_leaves_with_the_parents(lab, vxbrd_binary, write_config):
    conf = write_config("tap0 1 parent-interface hub0\ntap20 20\n")
    tunnel = build_tunnel(lab, vxbrd_binary, conf, ["tap0", "tap20"])
    tap_mac = tunnel.tap_mac("tap0")
    parent_mac = tunnel.hub.mac("hub0")
    tunnel.daemon.wait_for_log(f"interface: tap0 parent interface: hub0 ({parent_mac})")
    port = tunnel.gre_port()
    learn_untagged_client(tunnel, port)
    before = tunnel.daemon.log()

    tunnel.taps["tap0"].inject(arp_reply(tap_mac, CLIENT))
    source, datagram = port.receive()
    assert source == HUB_IPV4
    # Ethernet source and ARP sender hardware address replaced; the target
    # fields and the sender's IPv4 address untouched.
    assert datagram == (GRE_PLAIN + mac_bytes(CLIENT) + mac_bytes(parent_mac) + b"\x08\x06"
                        + bytes.fromhex("0001 0800 06 04 0002") + mac_bytes(parent_mac)
                        + bytes([203, 0, 113, 1]) + mac_bytes(CLIENT) + bytes([203, 0, 113, 2]))
    assert log_through_fence(tunnel, "tap0", before) == [
        f"Incorrect ARP Reply MAC address (tap0). Re-writing with hub0 mac {parent_mac}"]

    # A reply whose sender is some other MAC is left alone.
    before = tunnel.daemon.log()
    other = arp_reply("02:00:00:00:00:77", CLIENT)
    tunnel.taps["tap0"].inject(other)
    assert port.receive() == (HUB_IPV4, GRE_PLAIN + other)
    assert port.receive(0.3) is None
    assert log_through_fence(tunnel, "tap0", before) == []


def test_arp_reply_on_a_tap_without_parent_is_left_alone(lab, vxbrd_binary, write_config):
    conf = write_config("tap0 1\n")
    tunnel = build_tunnel(lab, vxbrd_binary, conf, ["tap0"])
    tap_mac = tunnel.tap_mac("tap0")
    port = tunnel.gre_port()
    learn_untagged_client(tunnel, port)
    before = tunnel.daemon.log()
    reply = arp_reply(tap_mac, CLIENT)
    tunnel.taps["tap0"].inject(reply)
    assert port.receive() == (HUB_IPV4, GRE_PLAIN + reply)
    assert log_through_fence(tunnel, "tap0", before) == []


def ipv4_frame(checksum=None, destination: str = CLIENT) -> bytes:
    """An IPv4/UDP frame to `destination`; its header checksum field is
    `checksum`, or the right one (as scapy computes it) when None."""
    frame = bytearray(bytes(Ether(dst=destination, src=HOST)
                            / IP(src="203.0.113.1", dst="203.0.113.2", id=0x1234, ttl=17)
                            / UDP(sport=4000, dport=4001) / body(30, 9)))
    if checksum is not None:
        frame[24:26] = struct.pack("!H", checksum)
    return bytes(frame)


def test_ipchksum_fills_a_zero_header_checksum_and_keeps_any_other(lab, vxbrd_binary,
                                                                     write_config):
    conf = write_config("tap0 1\nipchksum\n")
    tunnel = build_tunnel(lab, vxbrd_binary, conf, ["tap0"])
    port = tunnel.gre_port()
    learn_untagged_client(tunnel, port)
    tap0 = tunnel.taps["tap0"]

    right = ipv4_frame()
    assert right[24:26] != b"\x00\x00"
    tap0.inject(ipv4_frame(0))
    assert port.receive() == (HUB_IPV4, GRE_PLAIN + right)

    wrong = ipv4_frame(0xBEEF)
    tap0.inject(wrong)
    assert port.receive() == (HUB_IPV4, GRE_PLAIN + wrong)

    tap0.inject(right)
    assert port.receive() == (HUB_IPV4, GRE_PLAIN + right)

    # Flooded frames are repaired before they are copied.
    tap0.inject(ipv4_frame(0, BROADCAST))
    assert port.receive() == (HUB_IPV4, GRE_PLAIN + ipv4_frame(None, BROADCAST))
    assert port.receive(0.3) is None


def test_without_ipchksum_a_zero_checksum_goes_out_zero(lab, vxbrd_binary, write_config):
    conf = write_config("tap0 1\n")
    tunnel = build_tunnel(lab, vxbrd_binary, conf, ["tap0"])
    port = tunnel.gre_port()
    learn_untagged_client(tunnel, port)
    zero = ipv4_frame(0)
    tunnel.taps["tap0"].inject(zero)
    assert port.receive() == (HUB_IPV4, GRE_PLAIN + zero)


def test_arp_reply_cut_short_is_not_repaired_from_leftover_bytes(lab, vxbrd_binary, write_config):
    # At -v the frame dump (which rejects a cut ARP header) is off, so the
    # short reply reaches the repair.
    conf = write_config("tap0 1 parent-interface hub0\n")
    tunnel = build_tunnel(lab, vxbrd_binary, conf, ["tap0"], args=["-v"])
    tap_mac = tunnel.tap_mac("tap0")
    port = tunnel.gre_port()
    learn_untagged_client(tunnel, port)
    tap0 = tunnel.taps["tap0"]
    # A frame that leaves the tap's MAC where the next frame's ARP sender
    # address would sit (frame bytes 22-27) ...
    earlier = ethernet(CLIENT, HOST, OPAQUE, body(8) + mac_bytes(tap_mac) + body(32))
    tap0.inject(earlier)
    assert port.receive() == (HUB_IPV4, GRE_PLAIN + earlier)
    before = tunnel.daemon.log()
    # ... then an ARP reply that ends after its eight fixed bytes.
    short = ethernet(CLIENT, HOST, 0x0806, bytes.fromhex("0001 0800 06 04 0002"))
    tap0.inject(short)
    assert port.receive() == (HUB_IPV4, GRE_PLAIN + short)
    assert log_through_fence(tunnel, "tap0", before) == []


def test_peer_that_relays_for_another_gateway_gets_frames_whole_and_marked(
        lab, vxbrd_binary, write_config):
    conf = write_config("tap0 1\n")
    tunnel = build_tunnel(lab, vxbrd_binary, conf, ["tap0"])
    port = tunnel.gre_port()
    # Recursion control 7: the access point forwards for another gateway.
    frame = ethernet(HOST, CLIENT, OPAQUE, body(46))
    port.send(gre(frame, recursion=7), HUB_IPV4)
    tunnel.daemon.wait_for_log("[cache] new device: 02:00:00:00:00:01, peer: 192.0.2.2")
    assert tunnel.taps["tap0"].receive() == frame
    before = tunnel.daemon.log()

    # Over the 1438-byte limit, yet sent whole (fragments would need IPv4),
    # with recursion control 6; so is the flood copy.
    big = ethernet(CLIENT, HOST, OPAQUE, body(1450 - 14, 1))
    tunnel.taps["tap0"].inject(big)
    assert port.receive() == (HUB_IPV4, b"\x06\x00\x65\x58" + big)
    broadcast = ethernet(BROADCAST, HOST, OPAQUE, body(46, 2))
    tunnel.taps["tap0"].inject(broadcast)
    assert port.receive() == (HUB_IPV4, b"\x06\x00\x65\x58" + broadcast)
    assert port.receive(0.3) is None
    assert log_through_fence(tunnel, "tap0", before) == [
        "Sending to upstream VYM 192.0.2.2", "Sending to upstream VYM 192.0.2.2"]
