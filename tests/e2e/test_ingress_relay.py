"""Ingress: relay replies from an upstream gateway (recursion control 6) go on
to the access point of their destination client, or to every access point
of their VLAN for a group destination.

    ap ns (one veth, three addresses)              hub ns (vxbrd -f -vvv)
    +------------------------------------+         +-----------------------------------+
    | ap0 192.0.2.2  access point 1  ----+  veth   | hub0 192.0.2.1, 2001:db8::1       |
    |     192.0.2.3  "gateway" (relays)--+---------+-- GRE endpoints -> tap0  (VLAN 0) |
    |     192.0.2.4  access point 2  ----+         |                    tap20 (VLAN 20)|
    |     2001:db8::2                    |         |                    tap30 (VLAN 30)|
    +------------------------------------+         +-----------------------------------+

Each address has its own raw GRE socket bound to it, so what the daemon
sends to one address is read on that address's socket only.
"""

import socket
import struct

import pytest

from netns import wait_until
from tunnel_lab import (HUB_IPV4, HUB_IPV6, build_tunnel, collect_frames, dot1q, ethernet, filler,
                        gre, wait_for_lines)

AP1 = "192.0.2.2"
GATEWAY = "192.0.2.3"
AP2 = "192.0.2.4"
SERVER = "02:00:00:00:00:99"  # a host behind the gateway
OPAQUE = 0x88b5
TAPS = ["tap0", "tap20", "tap30"]
RESPONSE = "Response VYM-VYM packet from 192.0.2.3 on hub0 (ip://192.0.2.1)"


def mac(n: int) -> str:
    return f"02:00:00:00:00:{n:02x}"


class Site:
    def __init__(self, tunnel):
        self.tunnel = tunnel
        self.ap1 = tunnel.gre_port(bind=AP1)
        self.gateway = tunnel.gre_port(bind=GATEWAY)
        self.ap2 = tunnel.gre_port(bind=AP2)

    def silent(self, *ports) -> None:
        for port in ports:
            assert port.receive_all(quiet=0.3) == []


def make_site(lab, binary, write_config, extra_config: str = "") -> Site:
    def addresses(hub, ap):
        ap.add_address("ap0", f"{GATEWAY}/24")
        ap.add_address("ap0", f"{AP2}/24")

    conf = write_config("tap0 1\ntap20 20\ntap30 30\n" + extra_config)
    return Site(build_tunnel(lab, binary, conf, TAPS, extra=addresses))


@pytest.fixture
def site(lab, vxbrd_binary, write_config):
    return make_site(lab, vxbrd_binary, write_config)


def forwarded(log: list) -> list:
    return [line for line in log if line.startswith("Forwarding VYM-VYM")]


def learn(site: Site, port, frame: bytes, key=None, recursion: int = 0, line: str = "") -> None:
    """Sends frame from port as ordinary traffic and waits until it is learned."""
    destination = HUB_IPV6 if port.family == socket.AF_INET6 else HUB_IPV4
    port.send(gre(frame, key=key, recursion=recursion), destination)
    wait_for_lines(site.tunnel.daemon, [line])


def test_unicast_reply_goes_to_the_clients_access_point_with_its_tag_and_key(site):
    daemon = site.tunnel.daemon
    learn(site, site.ap1, dot1q(SERVER, mac(1), 20, OPAQUE, filler(46)), key=7,
          line="[cache] new device: 02:00:00:00:00:01, peer: 192.0.2.2, grekey: 7, vlan: 20")
    body = filler(80, 1)
    # The gateway's reply carries its own key; the tag names the client's VLAN.
    site.gateway.send(gre(dot1q(mac(1), SERVER, 20, OPAQUE, body), key=99, recursion=6),
                      HUB_IPV4)
    source, datagram = site.ap1.receive()
    assert source == HUB_IPV4
    # Keyed GRE with the client's key, one tag with the client's VLAN.
    assert datagram == (b"\x20\x00\x65\x58" + struct.pack("!I", 7)
                        + dot1q(mac(1), SERVER, 20, OPAQUE, body))
    wait_for_lines(daemon, [RESPONSE, "Forwarding VYM-VYM to remote AP 192.0.2.2 via hub0"])
    site.silent(site.ap1, site.gateway, site.ap2)
    # The relayed frame is not written to any tap (only the first frame was).
    assert collect_frames(site.tunnel.taps) == {
        "tap0": [], "tap20": [ethernet(SERVER, mac(1), OPAQUE, filler(46))], "tap30": []}
    # Nothing about the gateway was learned from its relay reply.
    assert site.tunnel.control(b"peers") == b"peer: 192.0.2.2, vlan: 20\n"


def test_unicast_reply_uses_the_clients_own_tag_and_key_not_its_mapped_vlan(
        lab, vxbrd_binary, write_config):
    # preferkey: tagged 20 with key 30 is the client of VLAN 30.
    site = make_site(lab, vxbrd_binary, write_config, "grekey mode preferkey\n")
    learn(site, site.ap1, dot1q(SERVER, mac(6), 20, OPAQUE, filler(46)), key=30,
          line="[cache] new device: 02:00:00:00:00:06, peer: 192.0.2.2, grekey: 30, vlan: 20, "
               "mapped to vlan: 30")
    # The gateway answers on VLAN 30, where the client is known; the access
    # point gets the frame as it sends the client's own: tag 20, key 30.
    body = filler(60, 6)
    site.gateway.send(gre(dot1q(mac(6), SERVER, 30, OPAQUE, body), recursion=6), HUB_IPV4)
    assert site.ap1.receive() == (HUB_IPV4, b"\x20\x00\x65\x58" + struct.pack("!I", 30)
                                  + dot1q(mac(6), SERVER, 20, OPAQUE, body))
    wait_for_lines(site.tunnel.daemon, [RESPONSE,
                                        "Forwarding VYM-VYM to remote AP 192.0.2.2 via hub0"])
    site.silent(site.ap1, site.gateway, site.ap2)


def test_unicast_reply_to_untagged_client_without_key(site):
    learn(site, site.ap2, ethernet(SERVER, mac(2), OPAQUE, filler(46)),
          line="[cache] new device: 02:00:00:00:00:02, peer: 192.0.2.4")
    reply = ethernet(mac(2), SERVER, OPAQUE, filler(60, 2))
    site.gateway.send(gre(reply, recursion=6), HUB_IPV4)
    source, datagram = site.ap2.receive()
    assert (source, datagram) == (HUB_IPV4, b"\x00\x00\x65\x58" + reply)
    wait_for_lines(site.tunnel.daemon, [RESPONSE,
                                        "Forwarding VYM-VYM to remote AP 192.0.2.4 via hub0"])
    site.silent(site.ap1, site.gateway, site.ap2)


def test_unicast_reply_to_client_behind_a_gateway_peer_is_marked_6(site):
    # Recursion control 7 marks the access point as a gateway peer.
    learn(site, site.ap1, dot1q(SERVER, mac(1), 20, OPAQUE, filler(46)), recursion=7,
          line="[cache] new device: 02:00:00:00:00:01, peer: 192.0.2.2, vlan: 20")
    reply = dot1q(mac(1), SERVER, 20, OPAQUE, filler(60, 3))
    site.gateway.send(gre(reply, recursion=6), HUB_IPV4)
    source, datagram = site.ap1.receive()
    assert (source, datagram) == (HUB_IPV4, b"\x06\x00\x65\x58" + reply)
    wait_for_lines(site.tunnel.daemon, [RESPONSE,
                                        "Forwarding VYM-VYM to remote AP 192.0.2.2 via hub0",
                                        "Sending to upstream VYM 192.0.2.2"])


def test_unicast_reply_to_client_behind_an_ipv6_access_point(site):
    v6 = site.tunnel.gre_port(socket.AF_INET6)
    learn(site, v6, dot1q(SERVER, mac(5), 30, OPAQUE, filler(46)), key=11,
          line="[cache] new device: 02:00:00:00:00:05, peer: 2001:db8::2, grekey: 11, vlan: 30")
    reply = dot1q(mac(5), SERVER, 30, OPAQUE, filler(60, 5))
    site.gateway.send(gre(reply, recursion=6), HUB_IPV4)
    assert v6.receive() == (HUB_IPV6, b"\x20\x00\x65\x58" + struct.pack("!I", 11) + reply)
    wait_for_lines(site.tunnel.daemon, [RESPONSE,
                                        "Forwarding VYM-VYM to remote AP 2001:db8::2 via hub0"])
    site.silent(site.ap1, site.gateway, site.ap2)


def test_unicast_reply_for_unknown_client_is_dropped(site):
    learn(site, site.ap1, dot1q(SERVER, mac(1), 20, OPAQUE, filler(46)),
          line="[cache] new device: 02:00:00:00:00:01, peer: 192.0.2.2, vlan: 20")
    # Unknown MAC; and a known MAC on a VLAN it was not seen on.
    site.gateway.send(gre(dot1q(mac(0x77), SERVER, 20, OPAQUE, filler(46)), recursion=6),
                      HUB_IPV4)
    site.gateway.send(gre(dot1q(mac(1), SERVER, 30, OPAQUE, filler(46)), recursion=6), HUB_IPV4)
    site.gateway.send(gre(ethernet(mac(1), SERVER, OPAQUE, filler(46)), recursion=6), HUB_IPV4)
    log = wait_for_lines(site.tunnel.daemon, [
        RESPONSE, "cant find client for VYM-VYM to 02:00:00:00:00:77, vid 20",
        RESPONSE, "cant find client for VYM-VYM to 02:00:00:00:00:01, vid 30",
        RESPONSE, "cant find client for VYM-VYM to 02:00:00:00:00:01, vid 0",
    ])
    assert not [line for line in log if line.startswith("Forwarding VYM-VYM")]
    site.silent(site.ap1, site.gateway, site.ap2)


def test_group_reply_goes_to_every_access_point_of_the_vlan_but_the_sender(site):
    daemon = site.tunnel.daemon
    learn(site, site.ap1, dot1q(SERVER, mac(1), 20, OPAQUE, filler(46)), key=7,
          line="[cache] new device: 02:00:00:00:00:01, peer: 192.0.2.2, grekey: 7, vlan: 20")
    learn(site, site.ap2, dot1q(SERVER, mac(2), 20, OPAQUE, filler(46)),
          line="[cache] new device: 02:00:00:00:00:02, peer: 192.0.2.4, vlan: 20")
    # The gateway is a peer of VLAN 20 itself, and access point 1 also of VLAN 30.
    learn(site, site.gateway, dot1q(SERVER, mac(3), 20, OPAQUE, filler(46)),
          line="[cache] new device: 02:00:00:00:00:03, peer: 192.0.2.3, vlan: 20")
    learn(site, site.ap1, dot1q(SERVER, mac(4), 30, OPAQUE, filler(46)),
          line="[cache] new device: 02:00:00:00:00:04, peer: 192.0.2.2, vlan: 30")
    site.tunnel.taps["tap20"].drain()
    site.tunnel.taps["tap30"].drain()

    for n, destination in enumerate(("ff:ff:ff:ff:ff:ff", "01:00:5e:00:00:fb")):
        body = filler(70, 0x40 + n)
        site.gateway.send(gre(dot1q(destination, SERVER, 20, OPAQUE, body), recursion=6),
                          HUB_IPV4)
        # Tagged with the VLAN, without a key, once to each other access point.
        expected = b"\x00\x00\x65\x58" + dot1q(destination, SERVER, 20, OPAQUE, body)
        assert site.ap1.receive() == (HUB_IPV4, expected)
        assert site.ap2.receive() == (HUB_IPV4, expected)
        site.silent(site.ap1, site.ap2, site.gateway)
    # Peers are walked in the table's order: the lines come in either order.
    log = wait_until(lambda: (lambda log: log if len(forwarded(log)) == 4 else None)(daemon.log()))
    relayed = forwarded(log)
    assert sorted(relayed) == sorted(2 * [
        "Forwarding VYM-VYM broadcast to remote AP 192.0.2.2 via hub0",
        "Forwarding VYM-VYM broadcast to remote AP 192.0.2.4 via hub0",
    ])
    assert log.count(RESPONSE) == 2
    assert collect_frames(site.tunnel.taps) == {tap: [] for tap in TAPS}

    # A group reply for a VLAN without peers goes nowhere.
    site.gateway.send(gre(dot1q("ff:ff:ff:ff:ff:ff", SERVER, 40, OPAQUE, filler(46)),
                          recursion=6), HUB_IPV4)
    wait_for_lines(daemon, [RESPONSE] * 3)
    site.silent(site.ap1, site.ap2, site.gateway)
    assert len([line for line in daemon.log() if line.startswith("Forwarding VYM-VYM")]) == 4


def test_relay_reply_over_ipv6_is_dropped(site):
    learn(site, site.ap1, ethernet(SERVER, mac(1), OPAQUE, filler(46)),
          line="[cache] new device: 02:00:00:00:00:01, peer: 192.0.2.2")
    v6 = site.tunnel.gre_port(socket.AF_INET6)
    reply = ethernet(mac(1), SERVER, OPAQUE, filler(60, 5))
    v6.send(gre(reply, recursion=6), HUB_IPV6)
    # The same reply over IPv4 is read after it and relayed.
    site.gateway.send(gre(reply, recursion=6), HUB_IPV4)
    assert site.ap1.receive() == (HUB_IPV4, b"\x00\x00\x65\x58" + reply)
    log = wait_for_lines(site.tunnel.daemon, [
        RESPONSE, "Forwarding VYM-VYM to remote AP 192.0.2.2 via hub0"])
    assert [line for line in log if line.startswith(("Response", "Forwarding"))] == [
        RESPONSE, "Forwarding VYM-VYM to remote AP 192.0.2.2 via hub0"]
    assert not [line for line in log if "2001:db8::2" in line]
    site.silent(site.ap1, site.ap2, site.gateway)
    assert collect_frames(site.tunnel.taps) == {"tap0": [ethernet(SERVER, mac(1), OPAQUE,
                                                                  filler(46))],
                                                "tap20": [], "tap30": []}


def fragments(packet: bytes, limit: int) -> list[bytes]:
    """The IPv4 fragments the tunnel cuts packet into for size limit `limit`:
    payload (limit - 20) & ~7 per fragment, stopping once (limit & ~7) times
    the count reaches the packet's length, header checksum folded once."""
    per = (limit - 20) & ~7
    out = []
    index = 0
    while True:
        offset = index * per
        remaining = len(packet) - offset - 20
        more = remaining > per
        payload = packet[20 + offset:20 + offset + (per if more else remaining)]
        header = bytearray(packet[:20])
        header[0] = (header[0] & 0xF0) | 5
        header[6:8] = struct.pack("!H", (offset // 8) | (0x2000 if more else 0))
        header[2:4] = struct.pack("!H", 20 + len(payload))
        total = sum(struct.unpack("!H", header[k:k + 2])[0] for k in range(0, 20, 2) if k != 10)
        total += total >> 16
        header[10:12] = struct.pack("!H", ~total & 0xFFFF)
        out.append(bytes(header) + payload)
        if (limit & ~7) * (index + 1) >= len(packet):
            return out
        index += 1


def test_largest_group_reply_is_fragmented_for_each_access_point(site):
    learn(site, site.ap1, dot1q(SERVER, mac(1), 20, OPAQUE, filler(46)),
          line="[cache] new device: 02:00:00:00:00:01, peer: 192.0.2.2, vlan: 20")
    learn(site, site.ap2, dot1q(SERVER, mac(2), 20, OPAQUE, filler(46)),
          line="[cache] new device: 02:00:00:00:00:02, peer: 192.0.2.4, vlan: 20")
    # The largest GRE payload an IPv4 datagram holds, sent in IPv4 fragments
    # by the gateway's kernel: 4 bytes of GRE, 18 of tagged Ethernet header,
    # 65493 bytes of inner IPv4 packet.
    site.gateway.sock.setsockopt(socket.IPPROTO_IP, 10, 0)  # IP_MTU_DISCOVER: don't
    payload = bytes((i * 7) & 0xFF for i in range(65493 - 28))
    packet = (struct.pack("!BBHHHBBH4s4s", 0x45, 0, 65493, 0x0707, 0, 64, 17, 0,
                          bytes([203, 0, 113, 9]), bytes([203, 0, 113, 255]))
              + struct.pack("!HHHH", 5353, 5353, 65493 - 20, 0) + payload)
    destination = "ff:ff:ff:ff:ff:ff"
    site.gateway.send(gre(dot1q(destination, SERVER, 20, 0x0800, packet), recursion=6), HUB_IPV4)
    # Tunnel MTU 1480, no key: size limit 1438, 1416 payload bytes a fragment.
    header = b"\x00\x00\x65\x58" + dot1q(destination, SERVER, 20, 0x0800)
    expected = [(HUB_IPV4, header + piece) for piece in fragments(packet, 1438)]
    assert len(expected) == 46
    assert site.ap1.receive_all(quiet=1.0) == expected
    assert site.ap2.receive_all(quiet=0.3) == expected
    site.silent(site.gateway)
    log = wait_until(lambda: (lambda log: log if len(forwarded(log)) == 2 else None)(
        site.tunnel.daemon.log()))
    assert sorted(forwarded(log)) == [
        "Forwarding VYM-VYM broadcast to remote AP 192.0.2.2 via hub0",
        "Forwarding VYM-VYM broadcast to remote AP 192.0.2.4 via hub0",
    ]
