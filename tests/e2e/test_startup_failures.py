"""Start-up failures that end the daemon after the configuration was read.

    hub ns: tap7 is a veth (an Ethernet interface, but not a tap device)
"""

from netns import strip_timestamps


def test_a_tap_line_naming_no_tap_device_ends_the_daemon_with_255(lab, vxbrd_binary, write_config):
    hub = lab.namespace("hub")
    hub.add_veth("tap7")
    conf = write_config("tap7 1\n")
    daemon = lab.start_vxbrd(hub, vxbrd_binary, ["-f", "-c", conf])
    assert daemon.wait_exit(timeout=10) == 255
    assert strip_timestamps(daemon.stderr()) == [
        "vxbrd 1.35 [2025-09-05 15:00:31] [ ()]",
        "/dev/tap7 TUNSETIFF: Invalid argument",
        "Critical error - cannot open TAP interface. Exiting.",
    ]


def test_a_missing_tap_device_ends_the_daemon_with_255(lab, vxbrd_binary, write_config):
    hub = lab.namespace("hub")
    hub.add_tap("tap3")
    conf = write_config("tap3 1\ntap4 2\n")
    daemon = lab.start_vxbrd(hub, vxbrd_binary, ["-f", "-c", conf])
    # tap4 is not an interface of the host: the configuration itself is refused.
    assert daemon.wait_exit(timeout=10) == 1
    assert daemon.stderr().splitlines()[0] == f'{conf}:2 tap interface "tap4" not found'
    assert strip_timestamps(daemon.stderr()) == ["can't parse config file"]
