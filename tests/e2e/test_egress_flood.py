"""The flood: a broadcast or multicast frame read from a tap goes to every
peer of its VLAN, once for each (VLAN, key) pair that the peer's clients
use, tagged with the pair's VLAN and keyed with the pair's key; unicast frames
go to the one client with that client's own VLAN and key.

    ap ns: two access points on one link                      hub ns: vxbrd -f -vvv
      GrePort bound to 192.0.2.2 ("A")   --veth ap0/hub0--      "grekey mode prefervlan"
      GrePort bound to 192.0.2.3 ("B")                          tap20 (VLAN 20), tap0 (VLAN 0)
                                                               <- TapPort.inject

Clients, learned through the ingress path first (prefervlan: the tag's VLAN
when tagged, else the key, is the client's VLAN):

    A: A1 untagged, key 20  -> VLAN 20, pair (0, 20)
       A2 tag 20,   key 30  -> VLAN 20, pair (20, 30)
       A3 tag 20,   key 25  -> VLAN 20, pair (20, 25): no new pair, since
                               (20, 25) and (20, 30) count as one
       A0 untagged, no key  -> VLAN 0,  pair (0, 0)
    B: B1 tag 20,   no key  -> VLAN 20, pair (20, 0)
       B2 tag 21,   no key  -> VLAN 21, pair (21, 0)
"""

import struct

from scapy.layers.l2 import ARP, Ether

from tunnel_lab import AP_IPV4, HUB_IPV4, GrePort, build_tunnel, dot1q, ethernet, gre

AP_B = "192.0.2.3"
A0, A1 = "02:00:00:00:0a:00", "02:00:00:00:0a:01"
A2, A3 = "02:00:00:00:0a:02", "02:00:00:00:0a:03"
B1, B2 = "02:00:00:00:0b:01", "02:00:00:00:0b:02"
HOST = "02:00:00:00:00:99"
BROADCAST = "ff:ff:ff:ff:ff:ff"
OPAQUE = 0x88b5


def body(n: int, seed: int = 0) -> bytes:
    return bytes((seed + i * 5) & 0xFF for i in range(n))


def keyed(key: int) -> bytes:
    return b"\x20\x00\x65\x58" + struct.pack("!I", key)


PLAIN = b"\x00\x00\x65\x58"


def tagged(frame: bytes, vlan: int) -> bytes:
    return frame[:12] + struct.pack("!HH", 0x8100, vlan) + frame[12:]


def client_block(report: str, mac: str) -> str:
    """The lines of one client in a "clients" report."""
    start = report.index(f"client: {mac}\n")
    end = report.find("client: ", start + 1)
    return report[start:end if end >= 0 else len(report)]


def test_flood_reaches_every_pair_of_every_peer_once(lab, vxbrd_binary, write_config):
    conf = write_config("tap20 20\ntap0 1\ngrekey mode prefervlan\n")

    def second_access_point(hub, ap):
        ap.add_address("ap0", f"{AP_B}/24")

    tunnel = build_tunnel(lab, vxbrd_binary, conf, ["tap20", "tap0"], extra=second_access_point)
    a = GrePort(tunnel.ap.name, bind=AP_IPV4)
    b = GrePort(tunnel.ap.name, bind=AP_B)
    learning = [
        (a, ethernet(HOST, A1, OPAQUE, body(46)), 20,
         "[cache] new device: 02:00:00:00:0a:01, peer: 192.0.2.2, grekey: 20, mapped to vlan: 20"),
        (a, dot1q(HOST, A2, 20, OPAQUE, body(46)), 30,
         "[cache] new device: 02:00:00:00:0a:02, peer: 192.0.2.2, grekey: 30, vlan: 20"),
        (a, dot1q(HOST, A3, 20, OPAQUE, body(46)), 25,
         "[cache] new device: 02:00:00:00:0a:03, peer: 192.0.2.2, grekey: 25, vlan: 20"),
        (a, ethernet(HOST, A0, OPAQUE, body(46)), None,
         "[cache] new device: 02:00:00:00:0a:00, peer: 192.0.2.2"),
        (b, dot1q(HOST, B1, 20, OPAQUE, body(46)), None,
         "[cache] new device: 02:00:00:00:0b:01, peer: 192.0.2.3, vlan: 20"),
        (b, dot1q(HOST, B2, 21, OPAQUE, body(46)), None,
         "[cache] new device: 02:00:00:00:0b:02, peer: 192.0.2.3, vlan: 21"),
    ]
    for port, frame, key, line in learning:
        port.send(gre(frame, key=key), HUB_IPV4)
        tunnel.daemon.wait_for_log(line)
    log = tunnel.daemon.wait_for_log(
        "[peers] new peer: 192.0.2.3, vlan: 21, interface: hub0[192.0.2.1] (total: 4)")
    assert "[peers] new peer: 192.0.2.2, vlan: 20, interface: hub0[192.0.2.1] (total: 1)" in log
    assert "[peers] new peer: 192.0.2.3, vlan: 20, interface: hub0[192.0.2.1] (total: 3)" in log
    for tap in tunnel.taps.values():
        tap.drain()
    tap20, tap0 = tunnel.taps["tap20"], tunnel.taps["tap0"]

    def expect(port: GrePort, datagrams: list[bytes]) -> None:
        got = [port.receive() for _ in datagrams]
        assert got == [(HUB_IPV4, d) for d in datagrams]

    # A broadcast ARP request on VLAN 20: A gets one copy per pair, in the
    # pairs' order; B one (tagged, no key); the VLAN 0 and 21 peers none.
    request = bytes(Ether(dst=BROADCAST, src=HOST)
                    / ARP(op=1, hwsrc=HOST, psrc="203.0.113.1", pdst="203.0.113.2"))
    tap20.inject(request)
    expect(a, [keyed(20) + request, keyed(30) + tagged(request, 20)])
    expect(b, [PLAIN + tagged(request, 20)])
    assert a.receive(0.3) is None and b.receive(0.1) is None

    # A multicast destination floods the same way.
    multicast = ethernet("33:33:00:00:00:01", HOST, OPAQUE, body(46, 1))
    tap20.inject(multicast)
    expect(a, [keyed(20) + multicast, keyed(30) + tagged(multicast, 20)])
    expect(b, [PLAIN + tagged(multicast, 20)])

    # On VLAN 0 only A's VLAN 0 peer, pair (0, 0): untagged, no key.
    broadcast = ethernet(BROADCAST, HOST, OPAQUE, body(46, 2))
    tap0.inject(broadcast)
    expect(a, [PLAIN + broadcast])
    assert a.receive(0.3) is None and b.receive(0.1) is None

    # Unicast: each client with its own tag and key, A3 included.
    for client, port, header, tag in ((A1, a, keyed(20), None), (A2, a, keyed(30), 20),
                                      (A3, a, keyed(25), 20), (B1, b, PLAIN, 20)):
        frame = ethernet(client, HOST, OPAQUE, body(46, 3))
        tap20.inject(frame)
        assert port.receive() == (HUB_IPV4, header + (tagged(frame, tag) if tag else frame)), client
    assert a.receive(0.3) is None and b.receive(0.1) is None

    # Flood copies count nowhere; each unicast frame counts for its client.
    report = tunnel.control(b"clients").decode()
    for client in (A1, A2, A3, B1):
        assert client_block(report, client).endswith(
            "  bytes in: 60, bytes out: 60\n  packets in: 1, packets out: 1\n"), client
    assert client_block(report, A0).endswith(
        "  bytes in: 60, bytes out: 0\n  packets in: 1, packets out: 0\n")
