"""Ingress: frames of a VLAN configured "forward-to-vym" go to the upstream
gateway (the VYM) as received, marked with recursion control 7, and to no tap.

    ap ns                     hub ns (vxbrd -f -vvv)                       vym ns
    +------------------+      +------------------------------------+      +--------------------+
    | ap0 192.0.2.2    | veth | hub0 192.0.2.1                     | veth | vym0 198.51.100.1  |
    | GrePort        --+------+-- GRE endpoints, "any" endpoint  --+------+-- GrePort (bound)  |
    +------------------+      | hub1 198.51.100.2                  |      +--------------------+
                              | tap0 (VLAN 0), tap40 (VLAN 40)     |
                              +------------------------------------+

Config: "vlan40 forward-to-vym 198.51.100.1"; VLAN 40 also has a tap, which
must stay empty.
"""

import struct

import pytest

from tunnel_lab import (HUB_IPV4, GrePort, build_tunnel, collect_frames, dot1q, ethernet, filler,
                        gre, link_namespaces, wait_for_lines)

VYM = "198.51.100.1"
HUB_UPLINK = "198.51.100.2"
SERVER = "02:00:00:00:00:99"
OPAQUE = 0x88b5
TAPS = ["tap0", "tap40"]
FORWARDING = "Forwarding VLAN 40 to remote VYM 198.51.100.1"


def mac(n: int) -> str:
    return f"02:00:00:00:00:{n:02x}"


class Upstream:
    def __init__(self, tunnel, vym):
        self.tunnel = tunnel
        self.vym = GrePort(vym.name, bind=VYM)
        self.ap = tunnel.gre_port()


def start(lab, binary, write_config, extra_config: str = "") -> Upstream:
    namespaces = {}

    def uplink(hub, ap):
        namespaces["vym"] = lab.namespace("vym")
        link_namespaces(hub, "hub1", f"{HUB_UPLINK}/24", namespaces["vym"], "vym0", f"{VYM}/24")

    conf = write_config("tap0 1\ntap40 40\nvlan40 forward-to-vym 198.51.100.1\n" + extra_config)
    tunnel = build_tunnel(lab, binary, conf, TAPS, extra=uplink)
    tunnel.daemon.wait_for_log("Listening for forwarding on all IPv4 addresses")
    namespaces["vym"].exec(["ping", "-c", "1", "-W", "2", HUB_UPLINK])
    return Upstream(tunnel, namespaces["vym"])


def marked(datagram: bytes) -> bytes:
    return bytes([datagram[0] | 0x07]) + datagram[1:]


def test_tagged_vlan40_frame_goes_upstream_as_received_marked_7(lab, vxbrd_binary, write_config):
    up = start(lab, vxbrd_binary, write_config)
    frame = dot1q(SERVER, mac(1), 40, OPAQUE, filler(64))
    sent = gre(frame, key=9)
    up.ap.send(sent, HUB_IPV4)
    source, datagram = up.vym.receive()
    assert source == HUB_UPLINK
    assert datagram == b"\x27\x00\x65\x58" + struct.pack("!I", 9) + frame
    assert datagram == marked(sent)
    log = wait_for_lines(up.tunnel.daemon, [
        FORWARDING,
        "[peers] new peer: 192.0.2.2, vlan: 40, interface: hub0[192.0.2.1] (total: 1)",
        "[cache] new device: 02:00:00:00:00:01, peer: 192.0.2.2 FWD via VYM 198.51.100.1, "
        "grekey: 9, vlan: 40",
    ])
    assert log.count(FORWARDING) == 1
    # A second frame of the same client: forwarded again, learned once; the
    # client counts both frames untagged (78 + 114 bytes).
    second = gre(dot1q(SERVER, mac(1), 40, OPAQUE, filler(100, 1)), key=9)
    up.ap.send(second, HUB_IPV4)
    assert up.vym.receive() == (HUB_UPLINK, marked(second))
    log = wait_for_lines(up.tunnel.daemon, [FORWARDING, FORWARDING])
    assert len([line for line in log if line.startswith("[cache]")]) == 1
    assert up.vym.receive_all(quiet=0.3) == []
    assert collect_frames(up.tunnel.taps) == {"tap0": [], "tap40": []}
    assert up.tunnel.control(b"clients") == (
        b"client: 02:00:00:00:00:01\n  peer: 192.0.2.2\n  associated vlan: 40\n  gre key: 9\n"
        b"  bytes in: 192, bytes out: 0\n  packets in: 2, packets out: 0\n")


@pytest.mark.parametrize("build", [
    # Checksum and sequence words are carried as they came.
    lambda frame: gre(frame, checksum=True, sequence=0x01020304),
    # Recursion control already 7 (sent on by another gateway) stays 7.
    lambda frame: gre(frame, key=1, recursion=7),
    # Routing bit and a recursion value of 2: the low bits become 7, the rest stays.
    lambda frame: bytes([0x42]) + gre(frame)[1:],
], ids=["checksum-sequence", "already-7", "other-bits"])
def test_header_bits_are_kept_and_recursion_set_to_7(lab, vxbrd_binary, write_config, build):
    up = start(lab, vxbrd_binary, write_config)
    sent = build(dot1q(SERVER, mac(1), 40, OPAQUE, filler(50, 2)))
    up.ap.send(sent, HUB_IPV4)
    assert up.vym.receive() == (HUB_UPLINK, marked(sent))
    wait_for_lines(up.tunnel.daemon, [FORWARDING])
    assert collect_frames(up.tunnel.taps) == {"tap0": [], "tap40": []}


def test_other_vlans_are_not_forwarded(lab, vxbrd_binary, write_config):
    up = start(lab, vxbrd_binary, write_config)
    untagged = ethernet(SERVER, mac(2), OPAQUE, filler(46))
    up.ap.send(gre(untagged), HUB_IPV4)
    assert up.tunnel.taps["tap0"].receive() == untagged
    # A frame keyed 40 but untagged is not forwarded: the tag VLAN decides.
    up.ap.send(gre(ethernet(SERVER, mac(3), OPAQUE, filler(46)), key=40), HUB_IPV4)
    assert up.tunnel.taps["tap0"].receive() == ethernet(SERVER, mac(3), OPAQUE, filler(46))
    assert up.vym.receive_all(quiet=0.3) == []
    log = wait_for_lines(up.tunnel.daemon, [
        "[cache] new device: 02:00:00:00:00:02, peer: 192.0.2.2",
        "[cache] new device: 02:00:00:00:00:03, peer: 192.0.2.2, grekey: 40"])
    assert not [line for line in log if "VYM" in line]


def test_key_mode_still_drops_forwarded_vlan(lab, vxbrd_binary, write_config):
    up = start(lab, vxbrd_binary, write_config, "grekey mode reject\n")
    up.ap.send(gre(dot1q(SERVER, mac(1), 40, OPAQUE, filler(46)), key=9), HUB_IPV4)
    # Without the key the same frame is forwarded; it is read after the first.
    good = gre(dot1q(SERVER, mac(2), 40, OPAQUE, filler(46)))
    up.ap.send(good, HUB_IPV4)
    assert up.vym.receive() == (HUB_UPLINK, marked(good))
    assert up.vym.receive_all(quiet=0.3) == []
    log = wait_for_lines(up.tunnel.daemon, [
        FORWARDING,
        "hub0 (ip://192.0.2.1): ignoring PDU with GRE key 9",
        FORWARDING,
        "[cache] new device: 02:00:00:00:00:02, peer: 192.0.2.2 FWD via VYM 198.51.100.1, "
        "vlan: 40",
    ])
    assert not [line for line in log if "02:00:00:00:00:01" in line]
    assert collect_frames(up.tunnel.taps) == {"tap0": [], "tap40": []}
