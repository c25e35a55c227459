"""Server mode: with -s (or a "server" line) every frame read from a tap,
unicast or not, known destination or not, goes to the one server, tagged
with the frame's own VLAN and never keyed.

    ap ns: GrePort (raw GRE)                 --veth--  hub ns: vxbrd -f -vvv -s <server>
      192.0.2.2, 2001:db8::2 (the server)               tap0 (VLAN 0), tap20 (VLAN 20)
      192.0.2.77 (named by -s but overridden)           <- TapPort.inject
"""

import socket
import struct

from scapy.layers.inet import IP, TCP
from scapy.layers.l2 import Ether

from tunnel_lab import (AP_IPV4, AP_IPV6, HUB_IPV4, HUB_IPV6, GrePort, build_tunnel, dot1q,
                        ethernet, gre)

CLIENT = "02:00:00:00:00:14"
UNKNOWN = "02:00:00:00:00:42"
HOST = "02:00:00:00:00:99"
BROADCAST = "ff:ff:ff:ff:ff:ff"
OPAQUE = 0x88b5
GRE_PLAIN = b"\x00\x00\x65\x58"


def body(n: int, seed: int = 0) -> bytes:
    return bytes((seed + i * 7) & 0xFF for i in range(n))


def tag(vlan: int) -> bytes:
    return struct.pack("!HH", 0x8100, vlan)


def syn(destination: str, mss: int) -> bytes:
    return bytes(Ether(dst=destination, src=HOST)
                 / IP(src="203.0.113.1", dst="203.0.113.2")
                 / TCP(sport=40000, dport=5001, seq=1000, flags="S", window=64240,
                       options=[("MSS", mss)]))


def clamped(frame: bytes, mss: int) -> bytes:
    """A SYN with its only option, MSS (at 56), lowered to mss, and the
    checksum (at 50) raised by the decrease, as the daemon updates it."""
    old = struct.unpack_from("!H", frame, 56)[0]
    checksum = struct.unpack_from("!H", frame, 50)[0]
    out = bytearray(frame)
    struct.pack_into("!H", out, 56, mss)
    struct.pack_into("!H", out, 50, (checksum + old - mss) % 65536)
    return bytes(out)


def retagged(frame: bytes, vlan: int) -> bytes:
    """An untagged frame as encapsulation tags it."""
    return frame[:12] + tag(vlan) + frame[12:]


def test_every_frame_goes_to_the_server_tagged_with_its_vlan(lab, vxbrd_binary, write_config):
    # VLAN 300 enters the configured set through a forward line.
    conf = write_config("tap0 1\ntap20 20\nvlan300 forward-to-vym 198.51.100.1\n")
    tunnel = build_tunnel(lab, vxbrd_binary, conf, ["tap0", "tap20"],
                          args=["-vvv", "-s", AP_IPV4])
    assert "IP Addr: 192.0.2.2\n" in tunnel.daemon.stdout()
    tunnel.daemon.wait_for_log("Sending all traffic to 192.0.2.2")
    port = tunnel.gre_port()
    # A client with a key and a VLAN is known; server mode ignores both.
    learned = dot1q(HOST, CLIENT, 20, OPAQUE, body(46))
    port.send(gre(learned, key=7), HUB_IPV4)
    tunnel.daemon.wait_for_log(
        "[cache] new device: 02:00:00:00:00:14, peer: 192.0.2.2, grekey: 7, vlan: 20")
    assert tunnel.taps["tap20"].receive() == ethernet(HOST, CLIENT, OPAQUE, body(46))
    before = tunnel.daemon.log()

    tap0, tap20 = tunnel.taps["tap0"], tunnel.taps["tap20"]
    sends = []  # (tap, frame read, inner frame expected at the server)
    for n, destination in enumerate((CLIENT, UNKNOWN, BROADCAST)):
        frame = ethernet(destination, HOST, OPAQUE, body(46, n))
        sends.append((tap20, frame, retagged(frame, 20)))
        frame = ethernet(destination, HOST, OPAQUE, body(50, n))
        sends.append((tap0, frame, frame))
        # Tagged on the VLAN-0 device: stripped, then tagged again with the
        # frame's VLAN; the broadcast too goes out at its stripped length.
        data = body(46, 10 + n)
        sends.append((tap0, dot1q(destination, HOST, 300, OPAQUE, data),
                      retagged(ethernet(destination, HOST, OPAQUE, data), 300)))
    # Unicast SYNs are clamped to the default mss of 1380; the broadcast is
    # not. The clamp's line, last of all, shows that no other line came first.
    sends.append((tap0, syn(BROADCAST, 1460), syn(BROADCAST, 1460)))
    sends.append((tap0, syn(UNKNOWN, 1460), clamped(syn(UNKNOWN, 1460), 1380)))

    for tap, frame, expected in sends:
        tap.inject(frame)
        got = port.receive()
        assert got == (HUB_IPV4, GRE_PLAIN + expected), frame.hex()
    assert port.receive(0.3) is None
    log = tunnel.daemon.wait_for_log("clamping MSS to GRE")
    assert log[len(before):] == ["clamping MSS to GRE"]

    # Server-mode traffic is not counted against the client.
    report = tunnel.control(b"clients").decode()
    assert report == ("client: 02:00:00:00:00:14\n  peer: 192.0.2.2\n  associated vlan: 20\n"
                      "  gre key: 7\n  bytes in: 60, bytes out: 0\n"
                      "  packets in: 1, packets out: 0\n")


def test_server_line_overrides_the_command_line(lab, vxbrd_binary, write_config):
    conf = write_config("tap0 1\nserver 192.0.2.2\n")

    def second_address(hub, ap):
        ap.add_address("ap0", "192.0.2.77/24")

    tunnel = build_tunnel(lab, vxbrd_binary, conf, ["tap0"], args=["-vvv", "-s", "192.0.2.77"],
                          extra=second_address)
    assert "IP Addr: 192.0.2.77\n" in tunnel.daemon.stdout()
    log = tunnel.daemon.wait_for_log("Sending all traffic to 192.0.2.2")
    assert "Sending all traffic to 192.0.2.77" not in log
    server = GrePort(tunnel.ap.name, bind=AP_IPV4)
    overridden = GrePort(tunnel.ap.name, bind="192.0.2.77")
    for frame in (ethernet(UNKNOWN, HOST, OPAQUE, body(46)),
                  ethernet(BROADCAST, HOST, OPAQUE, body(46, 1))):
        tunnel.taps["tap0"].inject(frame)
        assert server.receive() == (HUB_IPV4, GRE_PLAIN + frame)
    assert server.receive(0.3) is None
    assert overridden.receive(0.1) is None
    assert not [line for line in tunnel.daemon.log() if "can't find peer" in line]


def test_ipv6_server_is_reached_through_the_ipv6_endpoint(lab, vxbrd_binary, write_config):
    conf = write_config("tap0 1\ntap20 20\n")
    tunnel = build_tunnel(lab, vxbrd_binary, conf, ["tap0", "tap20"],
                          args=["-vvv", "-s", AP_IPV6])
    tunnel.daemon.wait_for_log("Sending all traffic to 2001:db8::2")
    port = tunnel.gre_port(socket.AF_INET6)
    unicast = ethernet(UNKNOWN, HOST, OPAQUE, body(46))
    tunnel.taps["tap20"].inject(unicast)
    assert port.receive() == (HUB_IPV6, GRE_PLAIN + retagged(unicast, 20))
    broadcast = ethernet(BROADCAST, HOST, OPAQUE, body(46, 1))
    tunnel.taps["tap0"].inject(broadcast)
    assert port.receive() == (HUB_IPV6, GRE_PLAIN + broadcast)
    assert port.receive(0.3) is None
