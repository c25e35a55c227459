"""Ingress: the GRE key mode decides each packet's VLAN (or drops it).

    ap ns                             hub ns (vxbrd -f -vvv, "grekey mode MODE [KEY]")
    +---------------------------+     +--------------------------------------------+
    | ap0 192.0.2.2             |veth | hub0 192.0.2.1                             |
    | GrePort (raw GRE)       --+-----+-- GRE endpoint -> tap0  (VLAN 0, "tap0 1") |
    +---------------------------+     |                   tap20 (VLAN 20)          |
                                      |                   tap30 (VLAN 30)          |
                                      |                   no tap for VLAN 50, 5000 |
                                      +--------------------------------------------+

Every mode gets the same four packets, each from its own client MAC:
  A  tagged 20, no key      B  tagged 20, key 30
  C  untagged, key 30       D  untagged, no key
"""


import pytest

from netns import assert_in_order
from tunnel_lab import (HUB_IPV4, build_tunnel, collect_frames, dot1q, ethernet, filler, gre,
                        wait_for_lines)

HOST = "02:00:00:00:00:99"
OPAQUE = 0x88b5
NAME = "hub0 (ip://192.0.2.1)"
TAPS = ["tap0", "tap20", "tap30"]
TAP_OF_VLAN = {0: "tap0", 20: "tap20", 30: "tap30"}


def mac(n: int) -> str:
    return f"02:00:00:00:00:{n:02x}"


def start(lab, binary, write_config, mode_line: str):
    conf = write_config(f"tap0 1\ntap20 20\ntap30 30\n{mode_line}\n")
    return build_tunnel(lab, binary, conf, TAPS)


# name -> (tag VLAN, key)
PACKETS = {"A": (20, None), "B": (20, 30), "C": (0, 30), "D": (0, None)}
MACS = {"A": 0x0A, "B": 0x0B, "C": 0x0C, "D": 0x0D}

KEY_WARNING = f"{NAME}: ignoring PDU with GRE key 30"
MISSING_KEY = f"{NAME}: ignoring PDU without GRE key"

# mode line -> packet -> policy VLAN, or the warning it is dropped with.
OUTCOMES = {
    "grekey mode ignore": {"A": 20, "B": 20, "C": 0, "D": 0},
    "grekey mode reject": {"A": 20, "B": KEY_WARNING, "C": KEY_WARNING, "D": 0},
    "grekey mode require 30": {"A": MISSING_KEY, "B": 20, "C": 0, "D": MISSING_KEY},
    "grekey mode vlanmap": {"A": MISSING_KEY, "B": 30, "C": 30, "D": MISSING_KEY},
    "grekey mode preferkey": {"A": 20, "B": 30, "C": 30, "D": 0},
    "grekey mode prefervlan": {"A": 20, "B": 20, "C": 30, "D": 0},
}


def body(name: str) -> bytes:
    return filler(46, MACS[name])


def inner(name: str) -> bytes:
    vlan, _ = PACKETS[name]
    if vlan:
        return dot1q(HOST, mac(MACS[name]), vlan, OPAQUE, body(name))
    return ethernet(HOST, mac(MACS[name]), OPAQUE, body(name))


def learned_line(name: str, policy: int) -> str:
    vlan, key = PACKETS[name]
    line = f"[cache] new device: {mac(MACS[name])}, peer: 192.0.2.2"
    if key is not None:
        line += f", grekey: {key}"
    if vlan:
        line += f", vlan: {vlan}"
    if policy and policy != vlan:
        line += f", mapped to vlan: {policy}"
    return line


@pytest.mark.parametrize("mode_line", list(OUTCOMES))
def test_mode_with_and_without_key(lab, vxbrd_binary, write_config, mode_line):
    tunnel = start(lab, vxbrd_binary, write_config, mode_line)
    port = tunnel.gre_port()
    expected_frames = {tap: [] for tap in TAPS}
    expected_lines = []
    for name, (vlan, key) in PACKETS.items():
        port.send(gre(inner(name), key=key), HUB_IPV4)
        outcome = OUTCOMES[mode_line][name]
        if isinstance(outcome, str):
            expected_lines.append(outcome)
        else:
            # Tagged or not, the tap gets the frame untagged.
            expected_frames[TAP_OF_VLAN[outcome]].append(
                ethernet(HOST, mac(MACS[name]), OPAQUE, body(name)))
            expected_lines.append(learned_line(name, outcome))
    log = wait_for_lines(tunnel.daemon, expected_lines)
    assert collect_frames(tunnel.taps) == expected_frames
    # A dropped packet teaches nothing: its client is never mentioned.
    for name in PACKETS:
        if isinstance(OUTCOMES[mode_line][name], str):
            assert not [line for line in log if mac(MACS[name]) in line], name


def test_require_names_wrong_and_expected_key(lab, vxbrd_binary, write_config):
    tunnel = start(lab, vxbrd_binary, write_config, "grekey mode require 5")
    port = tunnel.gre_port()
    frame = ethernet(HOST, mac(1), OPAQUE, filler(46))
    port.send(gre(frame, key=6), HUB_IPV4)
    port.send(gre(frame), HUB_IPV4)
    port.send(gre(frame, key=5), HUB_IPV4)
    assert tunnel.taps["tap0"].receive() == frame
    wait_for_lines(tunnel.daemon, [
        f"{NAME}: ignoring PDU with invalid GRE key 6. Expecting 5",
        f"{NAME}: ignoring PDU without GRE key",
        "[cache] new device: 02:00:00:00:00:01, peer: 192.0.2.2, grekey: 5",
    ])
    assert collect_frames(tunnel.taps) == {tap: [] for tap in TAPS}


def test_prefervlan_untagged_key_30_and_tagged_20_key_30(lab, vxbrd_binary, write_config):
    tunnel = start(lab, vxbrd_binary, write_config, "grekey mode prefervlan")
    port = tunnel.gre_port()
    untagged = ethernet(HOST, mac(1), OPAQUE, filler(46, 1))
    port.send(gre(untagged, key=30), HUB_IPV4)
    assert tunnel.taps["tap30"].receive() == untagged
    port.send(gre(dot1q(HOST, mac(2), 20, OPAQUE, filler(46, 2)), key=30), HUB_IPV4)
    assert tunnel.taps["tap20"].receive() == ethernet(HOST, mac(2), OPAQUE, filler(46, 2))
    wait_for_lines(tunnel.daemon, [
        "[peers] new peer: 192.0.2.2, vlan: 30, interface: hub0[192.0.2.1] (total: 1)",
        "[cache] new device: 02:00:00:00:00:01, peer: 192.0.2.2, grekey: 30, mapped to vlan: 30",
        "[peers] new peer: 192.0.2.2, vlan: 20, interface: hub0[192.0.2.1] (total: 2)",
        "[cache] new device: 02:00:00:00:00:02, peer: 192.0.2.2, grekey: 30, vlan: 20",
    ])
    assert collect_frames(tunnel.taps) == {tap: [] for tap in TAPS}


def test_reject_drops_keyed_packet_although_its_vlan_has_a_tap(lab, vxbrd_binary, write_config):
    tunnel = start(lab, vxbrd_binary, write_config, "grekey mode reject")
    port = tunnel.gre_port()
    tagged = dot1q(HOST, mac(1), 20, OPAQUE, filler(46))
    port.send(gre(tagged, key=20), HUB_IPV4)
    port.send(gre(tagged, key=0), HUB_IPV4)
    # The key is printed with "%d", as the line has always been written.
    port.send(gre(tagged, key=0xFFFFFFFF), HUB_IPV4)
    # The same frame without a key is taken: VLAN 20's tap is there.
    port.send(gre(tagged), HUB_IPV4)
    assert tunnel.taps["tap20"].receive() == ethernet(HOST, mac(1), OPAQUE, filler(46))
    wait_for_lines(tunnel.daemon, [
        f"{NAME}: ignoring PDU with GRE key 20",
        f"{NAME}: ignoring PDU with GRE key 0",
        f"{NAME}: ignoring PDU with GRE key -1",
        "[cache] new device: 02:00:00:00:00:01, peer: 192.0.2.2, vlan: 20",
    ])
    assert collect_frames(tunnel.taps) == {tap: [] for tap in TAPS}


def test_vlan_without_tap_is_reported_after_learning(lab, vxbrd_binary, write_config):
    tunnel = start(lab, vxbrd_binary, write_config, "grekey mode ignore")
    port = tunnel.gre_port()
    frame = dot1q(HOST, mac(1), 50, OPAQUE, filler(46))
    port.send(gre(frame, key=3), HUB_IPV4)
    port.send(gre(frame, key=3), HUB_IPV4)
    # One line per datagram: the second may still be on its way when the first shows.
    log = tunnel.daemon.wait_for_log("unexpected traffic on vlan 50", count=2)
    assert_in_order(log, [
        "[peers] new peer: 192.0.2.2, vlan: 50, interface: hub0[192.0.2.1] (total: 1)",
        "[cache] new device: 02:00:00:00:00:01, peer: 192.0.2.2, grekey: 3, vlan: 50",
        "unexpected traffic on vlan 50",
        "unexpected traffic on vlan 50",
    ])
    # Both packets were counted for the client (60 bytes each once untagged).
    assert tunnel.control(b"clients") == (
        b"client: 02:00:00:00:00:01\n  peer: 192.0.2.2\n  associated vlan: 50\n"
        b"  gre key: 3\n  bytes in: 120, bytes out: 0\n  packets in: 2, packets out: 0\n")
    assert tunnel.control(b"peers") == b"peer: 192.0.2.2, vlan: 50\n"
    assert collect_frames(tunnel.taps) == {tap: [] for tap in TAPS}


def test_vlanmap_key_beyond_4095(lab, vxbrd_binary, write_config):
    tunnel = start(lab, vxbrd_binary, write_config, "grekey mode vlanmap")
    port = tunnel.gre_port()
    frame = ethernet(HOST, mac(1), OPAQUE, filler(46))
    port.send(gre(frame, key=5000), HUB_IPV4)
    # A key used as a VLAN keeps its low 16 bits: 65536 + 20 is VLAN 20.
    port.send(gre(ethernet(HOST, mac(2), OPAQUE, filler(46)), key=65536 + 20), HUB_IPV4)
    assert tunnel.taps["tap20"].receive() == ethernet(HOST, mac(2), OPAQUE, filler(46))
    wait_for_lines(tunnel.daemon, [
        "[peers] new peer: 192.0.2.2, vlan: 5000, interface: hub0[192.0.2.1] (total: 1)",
        "[cache] new device: 02:00:00:00:00:01, peer: 192.0.2.2, grekey: 5000, "
        "mapped to vlan: 5000",
        "unexpected traffic on vlan 5000",
        "[peers] new peer: 192.0.2.2, vlan: 20, interface: hub0[192.0.2.1] (total: 2)",
        "[cache] new device: 02:00:00:00:00:02, peer: 192.0.2.2, grekey: 65556, "
        "mapped to vlan: 20",
    ])
    assert collect_frames(tunnel.taps) == {tap: [] for tap in TAPS}
    assert tunnel.daemon.process.poll() is None
    assert sorted(tunnel.control(b"peers").splitlines()) == [
        b"peer: 192.0.2.2, vlan: 20", b"peer: 192.0.2.2, vlan: 5000"]


def test_key_mode_learning_moves_a_client_between_peers(lab, vxbrd_binary, write_config):
    """The same client seen from a second address on the same policy VLAN
    moves to the new peer; the frames keep flowing to the tap."""
    def second_address(hub, ap):
        ap.add_address("ap0", "192.0.2.3/24")

    conf = write_config("tap0 1\ntap20 20\ntap30 30\ngrekey mode preferkey\n")
    tunnel = build_tunnel(lab, vxbrd_binary, conf, TAPS, extra=second_address)
    first = tunnel.gre_port(bind="192.0.2.2")
    second = tunnel.gre_port(bind="192.0.2.3")
    frame = ethernet(HOST, mac(1), OPAQUE, filler(46))
    first.send(gre(frame, key=30), HUB_IPV4)
    second.send(gre(frame, key=30), HUB_IPV4)
    assert collect_frames(tunnel.taps) == {"tap0": [], "tap20": [], "tap30": [frame, frame]}
    wait_for_lines(tunnel.daemon, [
        "[cache] new device: 02:00:00:00:00:01, peer: 192.0.2.2, grekey: 30, mapped to vlan: 30",
        "[peers] new peer: 192.0.2.3, vlan: 30, interface: hub0[192.0.2.1] (total: 2)",
        "Reassociating client to peer cache",
        "[cache] Update device peer: 02:00:00:00:00:01, peer: 192.0.2.3, grekey: 30, "
        "mapped to vlan: 30",
    ])
    assert tunnel.control(b"clients") == (
        b"client: 02:00:00:00:00:01\n  peer: 192.0.2.3\n  gre key: 30\n  mapped vlan: 30\n"
        b"  bytes in: 120, bytes out: 0\n  packets in: 2, packets out: 0\n")
