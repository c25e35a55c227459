"""A tap whose MTU does not fit the daemon's read buffer: one warning at
start naming the tap, its MTU and the longest frame carried whole; a longer
frame from the host is dropped with a line, never handled cut short, and
the frames beside it cross the tunnel whole. (That a frame of the longest
size is read whole is shown by tests/unit/vif/tap_mtu_test.cpp.)

    ap ns: GrePort 192.0.2.2 (mtu 9000)   hub ns: vxbrd -f -v, tap0 (VLAN 0, mtu 9000)
    +---------------------------+  GRE 47  +------------------------------+
    | ap0 ----------------------+----------+-- hub0 192.0.2.1             |
    +---------------------------+          +------------------------------+
"""

from tunnel_lab import HUB_IPV4, build_tunnel, ethernet, filler, gre, wait_for_lines

CLIENT = "02:00:00:00:00:01"
HOST = "02:00:00:00:00:99"
OPAQUE = 0x88b5
LONGEST = 4096 - 64  # a tap read slot less its headroom
WARNING = (f"tap0 mtu 9000 exceeds the read buffer: frames up to {LONGEST} bytes are carried, "
           "longer ones are dropped")
DROPPED = f"tap0: frame longer than {LONGEST} bytes dropped"


def test_a_9000_byte_mtu_is_one_warning_and_longer_frames_are_dropped_not_cut(
        lab, vxbrd_binary, write_config):
    def jumbo(hub, ap):
        hub.ip("link", "set", "tap0", "mtu", "9000")
        hub.ip("link", "set", "hub0", "mtu", "9000")
        ap.ip("link", "set", "ap0", "mtu", "9000")

    conf = write_config("tap0 1\n")
    tunnel = build_tunnel(lab, vxbrd_binary, conf, ["tap0"], args=["-v"], ipv6=False,
                          extra=jumbo)
    log = tunnel.daemon.log()
    assert log.count(WARNING) == 1
    assert log.index("tap0 mtu: 9000") < log.index(WARNING) < log.index("tap0 ready")

    port = tunnel.gre_port()
    port.send(gre(ethernet(HOST, CLIENT, OPAQUE, filler(46))), HUB_IPV4)
    assert tunnel.taps["tap0"].receive() == ethernet(HOST, CLIENT, OPAQUE, filler(46))
    tunnel.daemon.wait_for_log("[cache] new device: 02:00:00:00:00:01, peer: 192.0.2.2")

    # Frames the tunnel takes whole (non-IPv4 frames above the GRE socket's
    # limit are never sent) on either side of two the read cannot take.
    first = ethernet(CLIENT, HOST, OPAQUE, filler(1000, 1))
    second = ethernet(CLIENT, HOST, OPAQUE, filler(46, 2))
    too_long = ethernet(CLIENT, HOST, OPAQUE, filler(5000, 3))
    just_too_long = ethernet(CLIENT, HOST, OPAQUE, filler(LONGEST - 13, 4))
    for frame in (too_long, first, just_too_long, second):
        tunnel.taps["tap0"].inject(frame)
    got = port.receive_all(quiet=0.5)
    assert got == [(HUB_IPV4, b"\x00\x00\x65\x58" + first),
                   (HUB_IPV4, b"\x00\x00\x65\x58" + second)]
    wait_for_lines(tunnel.daemon, [DROPPED, DROPPED])
    assert tunnel.daemon.log().count(DROPPED) == 2
    assert tunnel.daemon.log().count(WARNING) == 1
