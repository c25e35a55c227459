"""The configuration file as the running daemon reads it: the parser's exact
messages on stderr, followed by the logger's "can't parse config file" in the
logger's own mode, and exit status 1.

    +------------- hub (netns) --------------+      +--- ap (netns) ---+
    |  vxbrd [-f] -c CONF                    |      |                  |
    |  veth0 02:00:00:00:0b:01 192.0.2.1/24 -+------+- veth1           |
    |  tap0 (per test)                       |      |                  |
    +----------------------------------------+      +------------------+
"""

import re
import signal

import pytest

from netns import TIMESTAMP, assert_in_order

BANNER = "vxbrd 1.35 [2025-09-05 15:00:31] [ ()]"
CANT_PARSE = re.compile(r"^\d{2}:\d{2}:\d{2}\.\d{6} can't parse config file\n\Z")


@pytest.fixture
def hub(lab):
    hub = lab.namespace("hub")
    ap = lab.namespace("ap")
    hub.add_veth("veth0", peer=ap, peer_name="veth1", mac="02:00:00:00:0b:01")
    hub.add_address("veth0", "192.0.2.1/24")
    hub.up("veth0")
    ap.up("veth1")
    return hub


def run_to_exit(lab, hub, binary, args):
    daemon = lab.start_vxbrd(hub, binary, args)
    status = daemon.wait_exit(timeout=10)
    return status, daemon.stdout(), daemon.stderr()


def split_after(stderr, first_part):
    assert stderr.startswith(first_part), stderr
    return stderr[len(first_part):]


@pytest.mark.parametrize("text, message", [
    ("# tunnels\n\nmss 100\n", ':3 invalid MSS: "100"\n'),
    ("tap0 20\n", ':1 tap interface "tap0" not found\n'),
    ("mtu 9001\n", ':1 invalid MTU: "9001"\n'),
    ("vlan4096 forward-to-vym 192.0.2.9\n", ':1 invalid VID outside range: "4096"\n'),
    ("grekey mode require 0x10\n", ":1 invalid GRE key '0x10'\n"),
    ("# " + "x" * 298 + "\nmss 100\n",
     ':2 ignoring unknown keyword "' + "x" * 45 + '"\n{path}:3 invalid MSS: "100"\n'),
])
def test_config_error_in_foreground(lab, hub, vxbrd_binary, write_config, text, message):
    conf = write_config(text)
    status, stdout, stderr = run_to_exit(lab, hub, vxbrd_binary, ["-f", "-c", conf])
    assert status == 1
    assert stdout == ""
    rest = split_after(stderr, conf + message.format(path=conf))
    assert CANT_PARSE.match(rest), rest


def test_server_line_error_has_no_position(lab, hub, vxbrd_binary, write_config):
    conf = write_config("server gateway\n")
    status, stdout, stderr = run_to_exit(lab, hub, vxbrd_binary, ["-f", "-c", conf])
    assert (status, stdout) == (1, "")
    assert CANT_PARSE.match(split_after(stderr, "gateway: invalid IPv4 or IPv6 address\n"))


def test_missing_config_file(lab, hub, vxbrd_binary, tmp_path):
    conf = str(tmp_path / "absent.conf")
    status, stdout, stderr = run_to_exit(lab, hub, vxbrd_binary, ["-f", "-c", conf])
    assert (status, stdout) == (1, "")
    assert CANT_PARSE.match(split_after(stderr, f"{conf}: No such file or directory\n"))


def test_config_error_in_syslog_mode_still_prints_the_parser_line(lab, hub, vxbrd_binary,
                                                                  write_config):
    conf = write_config("mss 100\n")
    status, stdout, stderr = run_to_exit(lab, hub, vxbrd_binary, ["-c", conf])
    # "can't parse config file" went to syslog; the parser's line is on stderr regardless.
    assert (status, stdout, stderr) == (1, "", f'{conf}:1 invalid MSS: "100"\n')


def test_tap_and_parent_names_come_from_discovered_interfaces(lab, hub, vxbrd_binary,
                                                              write_config):
    conf = write_config("tap0 20 parent-interface veth0\n")
    status, _, stderr = run_to_exit(lab, hub, vxbrd_binary, ["-f", "-c", conf])
    assert status == 1
    assert stderr.startswith(f'{conf}:1 tap interface "tap0" not found\n')

    hub.add_tap("tap0")
    conf = write_config("tap0 20 parent-interface veth1\n", name="parent.conf")
    status, _, stderr = run_to_exit(lab, hub, vxbrd_binary, ["-f", "-c", conf])
    assert status == 1
    assert stderr.startswith(f'{conf}:1 parent interface "veth1" not found\n')


def test_warnings_do_not_stop_start_up(lab, hub, vxbrd_binary, write_config):
    hub.add_tap("tap0")
    conf = write_config("bridge br0\ntap0 1 vlan-isolate-enable # untagged\nmtu 1500 # jumbo\n")
    daemon = lab.start_vxbrd(hub, vxbrd_binary, ["-f", "-v", "-c", conf])
    log = daemon.wait_for_log("interface: tap0, vlan: 0, vlan-isolation: true")
    assert daemon.stderr().startswith(
        f'{conf}:1 ignoring unknown keyword "bridge"\n'
        f'{conf}:2 ignoring unknown interface option "untagged"\n')
    # After the parser, every line is the logger's.
    logger_part = daemon.stderr().split("\n", 2)[2]
    assert all(TIMESTAMP.match(line) for line in logger_part.splitlines())
    assert_in_order(log, [BANNER, "Listening on interface: veth0 (192.0.2.1)",
                          "interface: tap0, vlan: 0, vlan-isolation: true"])
    daemon.stop()


def test_parent_interface_in_last_token_slot_aborts(lab, hub, vxbrd_binary, write_config):
    hub.add_tap("tap0")
    conf = write_config("tap0 5 a b c d e parent-interface\n")
    status, stdout, stderr = run_to_exit(lab, hub, vxbrd_binary, ["-f", "-c", conf])
    assert status == -signal.SIGABRT
    assert stdout == ""
    assert stderr == "".join(f'{conf}:1 ignoring unknown interface option "{word}"\n'
                             for word in "abcde")
