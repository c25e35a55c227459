"""Egress of tagged frames: what a tap thread does with an 802.1Q tag the
host put on a frame, on a device that carries several VLANs (VLAN 0) and on a
device that serves one VLAN.

    ap ns: GrePort (raw GRE, 192.0.2.2)  --veth--  hub ns: vxbrd -f -vvv
                                                    tap0   (VLAN 0: tagged frames of many VLANs)
                                                    tap300 (VLAN 300) or tap20 (VLAN 20)
                                                    <- TapPort.inject (what the daemon reads)

Clients are learned first through the ingress path (a GRE frame from the
access point), then frames are injected into a hub tap and the GRE datagrams
that reach the access point are compared byte for byte.
"""

import struct

from tunnel_lab import (HUB_IPV4, build_tunnel, dot1q, ethernet, gre, log_through_fence,
                        mac_bytes)

TAGGED_CLIENT = "02:00:00:00:01:2c"   # learned on VLAN 300
PLAIN_CLIENT = "02:00:00:00:00:01"    # learned untagged (VLAN 0)
VLAN20_CLIENT = "02:00:00:00:00:14"   # learned on VLAN 20 with GRE key 7
HOST = "02:00:00:00:00:99"
BROADCAST = "ff:ff:ff:ff:ff:ff"
OPAQUE = 0x88b5  # the frame walk (and the dump) stops at this ethertype
GRE_PLAIN = b"\x00\x00\x65\x58"


def body(n: int, seed: int = 0) -> bytes:
    return bytes((seed + i * 13) & 0xFF for i in range(n))


def tag(vlan: int) -> bytes:
    return struct.pack("!HH", 0x8100, vlan)


def learn(tunnel, port, frame: bytes, line: str, key=None) -> None:
    """One GRE frame from the access point; waits until the daemon logs line."""
    port.send(gre(frame, key=key), HUB_IPV4)
    tunnel.daemon.wait_for_log(line)


def client_block(report: bytes, mac: str) -> str:
    """The lines of one client in a "clients" report."""
    text = report.decode()
    start = text.index(f"client: {mac}\n")
    end = text.find("client: ", start + 1)
    return text[start:end if end >= 0 else len(text)]


def test_tagged_frame_on_vlan0_device_leaves_untagged_to_its_vlans_peers(
        lab, vxbrd_binary, write_config):
    # VLAN 300 is in the configured set through its own tap line.
    conf = write_config("tap0 1\ntap300 300\n")
    tunnel = build_tunnel(lab, vxbrd_binary, conf, ["tap0", "tap300"])
    tunnel.daemon.wait_for_log("TAP thread running on tap0")
    tunnel.daemon.wait_for_log("TAP thread running on tap300")
    port = tunnel.gre_port()
    learn(tunnel, port, dot1q(HOST, TAGGED_CLIENT, 300, OPAQUE, body(46)),
          "[cache] new device: 02:00:00:00:01:2c, peer: 192.0.2.2, vlan: 300")
    learn(tunnel, port, ethernet(HOST, PLAIN_CLIENT, OPAQUE, body(46)),
          "[cache] new device: 02:00:00:00:00:01, peer: 192.0.2.2")
    assert tunnel.control(b"peers") in (b"peer: 192.0.2.2, vlan: 300\npeer: 192.0.2.2, vlan: 0\n",
                                        b"peer: 192.0.2.2, vlan: 0\npeer: 192.0.2.2, vlan: 300\n")
    tap0 = tunnel.taps["tap0"]

    # Unicast, 64 bytes as read, priority bits set in the tag: the VLAN is
    # TCI & 0x0fff; the tag is stripped (60 bytes) and the client's VLAN tag
    # put back by encapsulation, priority 0.
    data = body(46, 1)
    tap0.inject(mac_bytes(TAGGED_CLIENT) + mac_bytes(HOST) + struct.pack("!HH", 0x8100, 0xA12C)
                + struct.pack("!H", OPAQUE) + data)
    source, datagram = port.receive()
    assert source == HUB_IPV4
    assert datagram == (GRE_PLAIN + mac_bytes(TAGGED_CLIENT) + mac_bytes(HOST) + tag(300)
                        + struct.pack("!H", OPAQUE) + data)
    assert len(datagram) == 4 + 60 + 4

    # Broadcast of the same size: flooded to the VLAN 300 peer only, at the
    # length as read, so the four bytes the strip left behind trail the frame.
    data = body(46, 2)
    tap0.inject(dot1q(BROADCAST, HOST, 300, OPAQUE, data))
    source, datagram = port.receive()
    assert datagram == (GRE_PLAIN + mac_bytes(BROADCAST) + mac_bytes(HOST) + tag(300)
                        + struct.pack("!H", OPAQUE) + data + data[-4:])
    assert len(datagram) == 4 + 64 + 4
    assert port.receive(0.3) is None

    # The unicast frame counts towards the client (60 bytes, as stripped); the
    # flood copy counts nowhere.
    block = client_block(tunnel.control(b"clients"), TAGGED_CLIENT)
    assert block == ("client: 02:00:00:00:01:2c\n  peer: 192.0.2.2\n  associated vlan: 300\n"
                     "  bytes in: 60, bytes out: 60\n  packets in: 1, packets out: 1\n")
    assert "can't find peer" not in "\n".join(tunnel.daemon.log())


def test_vlan_set_by_a_forward_line_lets_the_tagged_broadcast_out(lab, vxbrd_binary, write_config):
    # A forward line also puts its VLAN in the configured set; no tap serves it.
    conf = write_config("tap0 1\nvlan300 forward-to-vym 198.51.100.1\n")
    tunnel = build_tunnel(lab, vxbrd_binary, conf, ["tap0"])
    port = tunnel.gre_port()
    learn(tunnel, port, dot1q(HOST, TAGGED_CLIENT, 300, OPAQUE, body(46)),
          "[cache] new device: 02:00:00:00:01:2c, peer: 192.0.2.2 FWD via VYM 198.51.100.1"
          ", vlan: 300")
    data = body(60, 3)
    tunnel.taps["tap0"].inject(dot1q(BROADCAST, HOST, 300, OPAQUE, data))
    source, datagram = port.receive()
    assert datagram == (GRE_PLAIN + mac_bytes(BROADCAST) + mac_bytes(HOST) + tag(300)
                        + struct.pack("!H", OPAQUE) + data + data[-4:])
    assert port.receive(0.3) is None


def test_tag_of_an_unconfigured_vlan_vanishes_without_a_line(lab, vxbrd_binary, write_config):
    conf = write_config("tap0 1\n")
    tunnel = build_tunnel(lab, vxbrd_binary, conf, ["tap0"])
    port = tunnel.gre_port()
    tap0 = tunnel.taps["tap0"]
    # A peer of VLAN 300 exists (learned, though no tap serves the VLAN) ...
    port.send(gre(dot1q(HOST, TAGGED_CLIENT, 300, OPAQUE, body(46))), HUB_IPV4)
    tunnel.daemon.wait_for_log("unexpected traffic on vlan 300")
    # ... and one of VLAN 0, which receives the marker below.
    learn(tunnel, port, ethernet(HOST, PLAIN_CLIENT, OPAQUE, body(46)),
          "[cache] new device: 02:00:00:00:00:01, peer: 192.0.2.2")
    assert tap0.receive() == ethernet(HOST, PLAIN_CLIENT, OPAQUE, body(46))
    before = tunnel.daemon.log()

    tap0.inject(dot1q(TAGGED_CLIENT, HOST, 300, OPAQUE, body(46, 4)))
    tap0.inject(dot1q(BROADCAST, HOST, 300, OPAQUE, body(46, 5)))
    # The tap thread reads in order: the marker arriving first proves that
    # both tagged frames were dropped.
    marker = ethernet(BROADCAST, HOST, OPAQUE, body(46, 6))
    tap0.inject(marker)
    source, datagram = port.receive()
    assert datagram == GRE_PLAIN + marker
    assert port.receive(0.3) is None
    assert log_through_fence(tunnel, "tap0", before) == []


def test_tagged_frame_on_vlan20_device_goes_on_tag_included(lab, vxbrd_binary, write_config):
    # The tag's VLAN (77) is configured nowhere: a device with a VLAN of its
    # own does not look into tags.
    conf = write_config("tap0 1\ntap20 20\n")
    tunnel = build_tunnel(lab, vxbrd_binary, conf, ["tap0", "tap20"])
    port = tunnel.gre_port()
    learn(tunnel, port, dot1q(HOST, VLAN20_CLIENT, 20, OPAQUE, body(46)),
          "[cache] new device: 02:00:00:00:00:14, peer: 192.0.2.2, grekey: 7, vlan: 20", key=7)
    tap20 = tunnel.taps["tap20"]
    keyed = b"\x20\x00\x65\x58" + struct.pack("!I", 7)

    data = body(46, 7)
    tap20.inject(dot1q(VLAN20_CLIENT, HOST, 77, OPAQUE, data))
    source, datagram = port.receive()
    assert source == HUB_IPV4
    assert datagram == (keyed + mac_bytes(VLAN20_CLIENT) + mac_bytes(HOST) + tag(20) + tag(77)
                        + struct.pack("!H", OPAQUE) + data)

    data = body(46, 8)
    tap20.inject(dot1q(BROADCAST, HOST, 77, OPAQUE, data))
    source, datagram = port.receive()
    assert datagram == (keyed + mac_bytes(BROADCAST) + mac_bytes(HOST) + tag(20) + tag(77)
                        + struct.pack("!H", OPAQUE) + data)
    assert port.receive(0.3) is None

    # Counted at its full length as read: 64 bytes, tag included.
    block = client_block(tunnel.control(b"clients"), VLAN20_CLIENT)
    assert "  bytes in: 60, bytes out: 64\n  packets in: 1, packets out: 1\n" in block


def test_tagged_frame_too_short_for_its_tag_ends_the_daemon(lab, vxbrd_binary, write_config):
    # Frames from the host's own stack are trusted: one that cannot hold the
    # tag it announces is not survived. At -v the frame dump is off, so the
    # tag handling itself meets the frame.
    conf = write_config("tap0 1\ntap300 300\n")
    tunnel = build_tunnel(lab, vxbrd_binary, conf, ["tap0", "tap300"], args=["-v"])
    tunnel.taps["tap0"].inject(mac_bytes(BROADCAST) + mac_bytes(HOST) + tag(300))
    assert tunnel.daemon.wait_exit(timeout=10) == -6  # SIGABRT, from std::terminate
    assert "terminate called after throwing an instance of 'int'" in tunnel.daemon.stderr()
