"""vxbrdctl check against the daemon itself: every configuration diagnostic
of the daemon's own tests, read once by a starting vxbrd and once by check
in the same namespace, gives the same text and the same verdict; check
creates nothing (no control socket, no PID file, no tap opened).

    +------------- hub (netns) --------------------------------+
    |  vxbrd -f -c CONF          (own mount ns, tmpfs on /run)  |
    |  vxbrdctl check -c CONF    (own mount ns, tmpfs on /run)  |
    |  veth0 192.0.2.1/24, taps per case                        |
    +-----------------------------------------------------------+
"""

from __future__ import annotations

import signal
import subprocess

import pytest

from netns import TIMESTAMP
from vxbrdctl_tool import vxbrdctl_path

CANT_PARSE = "vxbrdctl: can't parse config file\n"
LONG = "# " + "x" * 298 + "\nmss 100\n"
DEFAULTS_TAIL = "# server not set\n# ipchksum not set\n"


@pytest.fixture(scope="module")
def vxbrdctl() -> str:
    return vxbrdctl_path()


@pytest.fixture
def hub(lab):
    hub = lab.namespace("hub")
    hub.add_veth("veth0")
    hub.add_address("veth0", "192.0.2.1/24")
    hub.up("veth0")
    return hub


def run_check(hub, vxbrdctl, conf):
    """check in the hub, in a mount namespace of its own with an empty /run,
    whose contents are listed after it."""
    script = ('mount -t tmpfs tmpfs /run || exit 99; "$@"; rc=$?; '
              'echo "--- /run:" $(ls -A /run); exit $rc')
    result = hub.exec(["unshare", "--mount", "--propagation", "private", "--", "sh", "-c",
                       script, "check", vxbrdctl, "check", "-c", conf], check=False)
    stdout = result.stdout.decode()
    stdout, listing = stdout.rsplit("--- /run:", 1)
    assert listing == "\n", f"check left files in /run: {listing!r}"
    return result.returncode, stdout, result.stderr.decode()


def daemon_verdict(lab, hub, binary, conf):
    """The daemon's exit status (None when it starts) and its parser's part of stderr."""
    daemon = lab.start_vxbrd(hub, binary, ["-f", "-v", "-c", conf])
    try:
        status = daemon.wait_exit(timeout=3)
    except subprocess.TimeoutExpired:
        daemon.wait_for_log("Listening on interface: veth0 (192.0.2.1)")
        status = None
        daemon.stop()
    lines = daemon.stderr().splitlines(keepends=True)
    parser = "".join(line for line in lines if not TIMESTAMP.match(line))
    return status, parser


# (taps to create, configuration text, the effective configuration check
# prints when the daemon starts; None when it does not)
CASES = {
    "mss": ([], "# tunnels\n\nmss 100\n", None),
    "missing-tap": ([], "tap0 20\n", None),
    "mtu": ([], "mtu 9001\n", None),
    "vid-range": ([], "vlan4096 forward-to-vym 192.0.2.9\n", None),
    "key-pattern": ([], "grekey mode require 0x10\n", None),
    "long-line": ([], LONG, None),
    "server": ([], "server gateway\n", None),
    "no-tap-for-parent": ([], "tap0 20 parent-interface veth0\n", None),
    "parent": (["tap0"], "tap0 20 parent-interface veth1\n", None),
    "second-tap": (["tap3"], "tap3 1\ntap4 2\n", None),
    "warnings": (["tap0"], "bridge br0\ntap0 1 vlan-isolate-enable # untagged\nmtu 1500 # jumbo\n",
                 "# line 2: VLAN 1 is carried untagged, as VLAN 0\n"
                 "tap0 0 vlan-isolate-enable\n"
                 "grekey mode ignore\nmss 1380\nmtu 1500\n" + DEFAULTS_TAIL +
                 "# line 2: words not read: \"untagged\"\n"
                 "# line 3: words not read: \"jumbo\"\n"),
    "offload-disable": (["tap0", "tap1"], "tap0 20 offload-disable\ntap1 30\noffload-disable\n",
                        "tap0 20 offload-disable\ntap1 30\n"
                        "grekey mode ignore\nmss 1380\n"
                        "# mtu not set: the tunnel's own limit\n" + DEFAULTS_TAIL +
                        "offload-disable\n"),
    "ipv6-forward": ([], "vlan40 forward-to-vym 2001:db8::40\n",
                     "# line 1: dropped: upstream gateways are reached over IPv4 only\n"
                     "#vlan40 forward-to-vym 2001:db8::40\n"
                     "grekey mode ignore\nmss 1380\n"
                     "# mtu not set: the tunnel's own limit\n" + DEFAULTS_TAIL),
    "duplicate-vlan": (["tap0", "tap1"], "tap0 20\ntap1 20\ngrekey mode require 010\n",
                       "tap0 20\n"
                       "# line 2: skipped at start-up (duplicate vlan entry for vid 20)\n"
                       "#tap1 20\n"
                       "# line 3: key \"010\" has a leading zero and is read as octal\n"
                       "grekey mode require 8\nmss 1380\n"
                       "# mtu not set: the tunnel's own limit\n" + DEFAULTS_TAIL),
}


@pytest.mark.parametrize("case", list(CASES))
def test_check_says_what_the_daemon_says(lab, hub, vxbrd_binary, vxbrdctl, write_config, case):
    taps, text, effective = CASES[case]
    for tap in taps:
        hub.add_tap(tap)
    conf = write_config(text)
    check_status, stdout, stderr = run_check(hub, vxbrdctl, conf)
    for tap in taps:
        # A starting daemon brings its taps up; check must not open them at all.
        flags = hub.ip("-o", "link", "show", "dev", tap).stdout.decode()
        assert ",UP" not in flags and "<UP" not in flags, flags
    status, parser = daemon_verdict(lab, hub, vxbrd_binary, conf)
    if effective is None:
        assert status == 1
        assert parser != ""
        assert (check_status, stdout, stderr) == (1, "", parser + CANT_PARSE)
    else:
        assert status is None
        assert (check_status, stderr) == (0, parser)
        assert stdout == f"# {conf} as vxbrd reads it\n" + effective


def test_check_of_the_parsers_exact_texts(lab, hub, vxbrdctl, write_config):
    """The daemon's own tests assert these texts; check gives them unchanged."""
    conf = write_config(LONG)
    assert run_check(hub, vxbrdctl, conf) == (
        1, "", f'{conf}:2 ignoring unknown keyword "{"x" * 45}"\n'
               f'{conf}:3 invalid MSS: "100"\n' + CANT_PARSE)
    conf = write_config("server gateway\n", name="server.conf")
    assert run_check(hub, vxbrdctl, conf) == (
        1, "", "gateway: invalid IPv4 or IPv6 address\n" + CANT_PARSE)


def test_a_missing_file(lab, hub, vxbrd_binary, vxbrdctl, tmp_path):
    conf = str(tmp_path / "absent.conf")
    status, parser = daemon_verdict(lab, hub, vxbrd_binary, conf)
    assert (status, parser) == (1, f"{conf}: No such file or directory\n")
    assert run_check(hub, vxbrdctl, conf) == (1, "", parser + CANT_PARSE)


def test_a_file_the_daemon_would_abort_on(lab, hub, vxbrd_binary, vxbrdctl, write_config):
    hub.add_tap("tap0")
    conf = write_config("tap0 5 a b c d e parent-interface\n")
    status, parser = daemon_verdict(lab, hub, vxbrd_binary, conf)
    assert status == -signal.SIGABRT
    assert parser == "".join(f'{conf}:1 ignoring unknown interface option "{word}"\n'
                             for word in "abcde")
    assert run_check(hub, vxbrdctl, conf) == (
        1, "", parser + f"vxbrdctl: vxbrd would abort reading {conf}\n")


def test_quiet_check_prints_diagnostics_only(hub, vxbrdctl, write_config):
    conf = write_config("mtu 1500 # jumbo\nbridge br0\n")
    result = hub.exec([vxbrdctl, "check", "-q", "-c", conf], check=False)
    assert (result.returncode, result.stdout.decode(), result.stderr.decode()) == (
        0, "", f'{conf}:2 ignoring unknown keyword "bridge"\n')
