"""Start-up of vxbrd in the foreground: banner, interface discovery and the
summary of the configuration it logs, in order.

    +------------------ hub (netns) ------------------+      +--- ap (netns) ---+
    |  vxbrd -f -v -c CONF                             |      |                  |
    |  veth0 02:00:00:00:0a:01                         |      |                  |
    |        192.0.2.1/24, 2001:db8::1/64 -------------+------+- veth1           |
    |  (per test: em0, vlan10 veth pairs; tap0..tap2)  |      |                  |
    +--------------------------------------------------+      +------------------+

Expected lines are checked as an ordered subsequence of the log, so that
lines other parts of the daemon add at start-up do not break these tests;
lines that must not appear are checked for absence.
"""

import time

import pytest

from netns import TIMESTAMP, assert_in_order

BANNER = "vxbrd 1.35 [2025-09-05 15:00:31] [ ()]"
VETH0_MAC = "02:00:00:00:0a:01"


@pytest.fixture
def hub(lab):
    hub = lab.namespace("hub")
    ap = lab.namespace("ap")
    hub.add_veth("veth0", peer=ap, peer_name="veth1", mac=VETH0_MAC)
    hub.add_address("veth0", "192.0.2.1/24")
    hub.add_address("veth0", "2001:db8::1/64")
    hub.up("veth0")
    ap.up("veth1")
    return hub


def start(lab, hub, binary, write_config, config_text, options=("-f", "-v"), last_line=None):
    conf = write_config(config_text)
    daemon = lab.start_vxbrd(hub, binary, [*options, "-c", conf])
    # veth0's IPv6 endpoint is the last one the hub's own addresses make.
    log = daemon.wait_for_log(last_line or "veth0 (ip://2001:db8::1) ready")
    return daemon, log


def test_banner_and_listening_lines(lab, hub, vxbrd_binary, write_config):
    daemon, log = start(lab, hub, vxbrd_binary, write_config, "")
    assert_in_order(log, [
        BANNER,
        "Listening on interface: veth0 (192.0.2.1)",
        "Listening on interface: veth0 (2001:db8::1)",
    ])
    assert log[0] == BANNER
    # The loopback never carries tunnels.
    assert not [line for line in log if "Listening on interface: lo " in line]
    assert "Listening for forwarding on all IPv4 addresses" not in log
    assert not [line for line in log if line.startswith(("GRE Key Mode", "Sending all"))]
    # Every stderr line is a logger line: 16 characters of time, the text, one newline.
    stderr = daemon.stderr()
    assert stderr.endswith("\n") and "\n\n" not in stderr
    assert all(TIMESTAMP.match(line) for line in stderr.splitlines())
    assert daemon.stdout() == ""
    daemon.stop()


def test_ipv4_by_interface_name_then_ipv6(lab, hub, vxbrd_binary, write_config):
    hub.add_veth("em0")
    hub.add_address("em0", "198.51.100.1/24")
    hub.add_address("em0", "198.51.100.2/24")
    hub.add_address("em0", "2001:db8:1::1/64")
    hub.add_address("veth0", "203.0.113.1/24")
    daemon, log = start(lab, hub, vxbrd_binary, write_config, "",
                        last_line="Listening on interface: veth0 (2001:db8::1)")
    listening = [line for line in log if line.startswith("Listening on interface")]
    assert listening == [
        "Listening on interface: em0 (198.51.100.1)",
        "Listening on interface: em0 (198.51.100.2)",
        "Listening on interface: veth0 (192.0.2.1)",
        "Listening on interface: veth0 (203.0.113.1)",
        "Listening on interface: em0 (2001:db8:1::1)",
        "Listening on interface: veth0 (2001:db8::1)",
    ]
    daemon.stop()


def test_default_level_shows_banner_without_notices(lab, hub, vxbrd_binary, write_config):
    hub.add_tap("tap0")
    hub.add_tap("tap1")
    # The duplicate warning comes from the tap lines, after every Listening
    # line would have been logged: it marks the end of start-up.
    daemon, log = start(lab, hub, vxbrd_binary, write_config, "tap0 1\ntap1 1\n",
                        options=("-f",), last_line="duplicate vlan entry for vid 0")
    assert log == [BANNER, "duplicate vlan entry for vid 0"]
    daemon.stop()


def test_quiet_leaves_errors_only(lab, hub, vxbrd_binary, write_config):
    hub.add_tap("tap0")
    hub.add_tap("tap1")
    daemon, log = start(lab, hub, vxbrd_binary, write_config, "tap0 20\ntap1 20\n",
                        options=("-f", "-q", "-s", "192.0.2.9"),
                        last_line="Sending all traffic to 192.0.2.9")
    # No Error line follows; the filtered warning would come within this time.
    time.sleep(0.5)
    assert daemon.log() == [BANNER, "Sending all traffic to 192.0.2.9"]
    daemon.stop()


def test_vlan_interface_with_three_ipv4_addresses_is_skipped(lab, hub, vxbrd_binary,
                                                             write_config):
    hub.add_veth("vlan10")
    for address in ("198.51.100.1/24", "198.51.100.2/24", "198.51.100.3/24",
                    "2001:db8:10::1/64"):
        hub.add_address("vlan10", address)
    # vlan10's IPv6 line follows veth0's: wait for it, not for the usual last line.
    daemon, log = start(lab, hub, vxbrd_binary, write_config, "",
                        last_line="Listening on interface: vlan10 (2001:db8:10::1)")
    assert_in_order(log, [
        "Listening on interface: veth0 (192.0.2.1)",
        "Skipping interface: vlan10 (198.51.100.1). VLAN interface with > 2 ipaddrs (3)",
        "Listening on interface: veth0 (2001:db8::1)",
        # The rule is about IPv4 addresses only.
        "Listening on interface: vlan10 (2001:db8:10::1)",
    ])
    assert not [line for line in log if line.startswith("Listening on interface: vlan10 (198.")]
    daemon.stop()


def test_vlan_interface_with_two_ipv4_addresses_listens_on_both(lab, hub, vxbrd_binary,
                                                                write_config):
    hub.add_veth("vlan10")
    hub.add_address("vlan10", "198.51.100.1/24")
    hub.add_address("vlan10", "198.51.100.2/24")
    daemon, log = start(lab, hub, vxbrd_binary, write_config, "")
    assert_in_order(log, [
        "Listening on interface: veth0 (192.0.2.1)",
        "Listening on interface: vlan10 (198.51.100.1)",
        "Listening on interface: vlan10 (198.51.100.2)",
        "Listening on interface: veth0 (2001:db8::1)",
    ])
    assert not [line for line in log if line.startswith("Skipping")]
    daemon.stop()


def test_other_interfaces_with_three_addresses_listen_on_all(lab, hub, vxbrd_binary,
                                                             write_config):
    hub.add_veth("em0")
    for address in ("198.51.100.1/24", "198.51.100.2/24", "198.51.100.3/24"):
        hub.add_address("em0", address)
    daemon, log = start(lab, hub, vxbrd_binary, write_config, "")
    assert [line for line in log if line.startswith("Listening on interface: em0")] == [
        "Listening on interface: em0 (198.51.100.1)",
        "Listening on interface: em0 (198.51.100.2)",
        "Listening on interface: em0 (198.51.100.3)",
    ]
    daemon.stop()


def test_tap_lines_duplicate_vlan_and_parent(lab, hub, vxbrd_binary, write_config):
    for tap in ("tap0", "tap1", "tap2"):
        hub.add_tap(tap)
    config = ("tap0 20\n"
              "tap1 20 vlan-isolate-enable\n"
              "tap2 1 vlan-isolate-enable parent-interface veth0\n")
    daemon, log = start(lab, hub, vxbrd_binary, write_config, config,
                        last_line=f"interface: tap2 parent interface: veth0 ({VETH0_MAC})")
    assert_in_order(log, [
        BANNER,
        "Listening on interface: veth0 (2001:db8::1)",
        "interface: tap0, vlan: 20, vlan-isolation: false",
        "duplicate vlan entry for vid 20",
        "interface: tap2, vlan: 0, vlan-isolation: true",
        f"interface: tap2 parent interface: veth0 ({VETH0_MAC})",
    ])
    assert not [line for line in log if line.startswith("interface: tap1")]
    assert log.count("duplicate vlan entry for vid 20") == 1
    daemon.stop()


@pytest.mark.parametrize("grekey, expected", [
    ("grekey mode reject\n", ["GRE Key Mode: reject"]),
    ("grekey mode require 1001\n", ["GRE Key Mode: require", "GRE required key: 1001"]),
    ("grekey mode require 010\n", ["GRE Key Mode: require", "GRE required key: 8"]),
    # VlanMap is printed as "preferkey": the long-standing text of this line.
    ("grekey mode vlanmap\n", ["GRE Key Mode: preferkey"]),
    ("grekey mode preferkey\n", ["GRE Key Mode: preferkey"]),
    ("grekey mode prefervlan\n", ["GRE Key Mode: prefervlan"]),
    ("grekey mode ignore\n", []),
])
def test_gre_key_mode_lines(lab, hub, vxbrd_binary, write_config, grekey, expected):
    daemon, log = start(lab, hub, vxbrd_binary, write_config, grekey)
    assert [line for line in log if line.startswith("GRE ")] == expected
    if expected:
        assert_in_order(log, [BANNER, *expected, "Listening on interface: veth0 (192.0.2.1)"])
    daemon.stop()


def test_forwarded_vlans(lab, hub, vxbrd_binary, write_config):
    hub.add_tap("tap0")
    config = ("vlan40 forward-to-vym 198.51.100.40\n"
              "tap0 30\n")
    daemon, log = start(lab, hub, vxbrd_binary, write_config, config,
                        last_line="VLAN 40 traffic will be forwarded to server 198.51.100.40")
    assert_in_order(log, [
        "Listening on interface: veth0 (2001:db8::1)",
        "Listening for forwarding on all IPv4 addresses",
        "interface: tap0, vlan: 30, vlan-isolation: false",
        "VLAN 40 traffic will be forwarded to server 198.51.100.40",
    ])
    daemon.stop()


def test_ipv6_forward_line_configures_nothing(lab, hub, vxbrd_binary, write_config):
    conf = write_config("vlan40 forward-to-vym 2001:db8::40\n")
    daemon = lab.start_vxbrd(hub, vxbrd_binary, ["-f", "-v", "-c", conf])
    # The last line of start-up: a forwarding line would have come before it.
    log = daemon.wait_for_log("veth0 (ip://2001:db8::1) ready")
    assert daemon.stderr().startswith(
        f"{conf}:1 IPv6 Not supported for forward-to-vym '2001:db8::40'\n")
    assert "Listening for forwarding on all IPv4 addresses" not in log
    assert not [line for line in log if line.startswith("VLAN ")]
    daemon.stop()
