"""The tunnel's basic round trip: a GRE frame from the access point reaches
the tap of its VLAN, the client is learned, and the host's reply goes back
to the access point in GRE.

    ap ns: GrePort (raw GRE)  --veth--  hub ns: vxbrd, tap0 (VLAN 0), tap20 (VLAN 20)
"""

import socket
import struct

from tunnel_lab import (AP_IPV4, HUB_IPV4, build_tunnel, dot1q, ethernet, gre, mac_bytes)

CLIENT = "02:00:00:00:00:01"
HOST = "02:00:00:00:00:99"
# A local experimental ethertype: the frame walk (and the dump) stops at it.
OPAQUE = 0x88b5


def payload(n: int) -> bytes:
    return bytes(range(256)) * (n // 256) + bytes(range(n % 256))


def test_untagged_frame_reaches_tap_and_reply_returns(lab, vxbrd_binary, write_config):
    conf = write_config("tap0 1\ntap20 20\n")
    tunnel = build_tunnel(lab, vxbrd_binary, conf, ["tap0", "tap20"])
    port = tunnel.gre_port()
    frame = ethernet(HOST, CLIENT, OPAQUE, payload(46))
    port.send(gre(frame), HUB_IPV4)
    assert tunnel.taps["tap0"].receive() == frame
    tunnel.daemon.wait_for_log(
        "[peers] new peer: 192.0.2.2, vlan: 0, interface: hub0[192.0.2.1] (total: 1)")
    tunnel.daemon.wait_for_log("[cache] new device: 02:00:00:00:00:01, peer: 192.0.2.2")

    reply = ethernet(CLIENT, HOST, OPAQUE, payload(46))
    tunnel.taps["tap0"].inject(reply)
    got = port.receive()
    assert got is not None
    source, datagram = got
    assert source == HUB_IPV4
    assert datagram == b"\x00\x00\x65\x58" + reply


def test_tagged_frame_reaches_tap_untagged_and_reply_is_tagged(lab, vxbrd_binary, write_config):
    conf = write_config("tap0 1\ntap20 20\n")
    tunnel = build_tunnel(lab, vxbrd_binary, conf, ["tap0", "tap20"])
    port = tunnel.gre_port()
    body = payload(46)
    port.send(gre(dot1q(HOST, CLIENT, 20, OPAQUE, body), key=7), HUB_IPV4)
    assert tunnel.taps["tap20"].receive() == ethernet(HOST, CLIENT, OPAQUE, body)
    tunnel.daemon.wait_for_log(
        "[cache] new device: 02:00:00:00:00:01, peer: 192.0.2.2, grekey: 7, vlan: 20")

    reply = ethernet(CLIENT, HOST, OPAQUE, body)
    tunnel.taps["tap20"].inject(reply)
    source, datagram = port.receive()
    assert source == HUB_IPV4
    assert datagram == (b"\x20\x00\x65\x58" + struct.pack("!I", 7) + mac_bytes(CLIENT)
                        + mac_bytes(HOST) + struct.pack("!HHH", 0x8100, 20, OPAQUE) + body)
    assert tunnel.control(b"peers") == b"peer: 192.0.2.2, vlan: 20\n"
