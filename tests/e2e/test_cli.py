"""Command line of vxbrd: exact texts, channels and exit statuses.

Every run happens in a namespace of the test's own, in a private mount
namespace with a tmpfs on /run; the server-mode runs also need an interface:

    +------ hub (netns) -------+          +------ ap (netns) ------+
    |  vxbrd -f -s ADDR        |          |                        |
    |  veth0 192.0.2.1/24 -----+----------+- veth1                 |
    +--------------------------+          +------------------------+
"""

import pytest

VERSION_LINE = "vxbrd 1.35 [2025-09-05 15:00:31] [ ()]\n"


def usage(program: str) -> str:
    return (
        f"usage: {program} [options]\n\noptions:\n"
        "\t-V        print version info and exit\n"
        "\t-b addr   bind the GRE endpoint to addr (ipv4)\n"
        "\t-c conf   configuration file (default: /etc/vxobrd.conf)\n"
        "\t-f        run in foreground mode (do not deamonize)\n"
        "\t-h        print usage summary and exit\n"
        "\t-p path   save PID in path\n"
        "\t-q        decrease verbosity (repeat to decrease further)\n"
        "\t-s        specify the GRE server to send ALL packets to\n"
        "\t-v        increase verbosity (repeat to increase further)\n\n")


def test_version(run_vxbrd):
    result = run_vxbrd(["-V"])
    assert (result.returncode, result.stdout, result.stderr) == (0, VERSION_LINE, "")


def test_version_ends_parsing_before_later_errors(run_vxbrd):
    result = run_vxbrd(["-V", "-x", "operand"])
    assert (result.returncode, result.stdout, result.stderr) == (0, VERSION_LINE, "")


def test_help(run_vxbrd, vxbrd_binary):
    result = run_vxbrd(["-h"])
    assert (result.returncode, result.stdout, result.stderr) == (0, "", usage(vxbrd_binary))


def test_bind_option_is_refused(run_vxbrd, vxbrd_binary):
    result = run_vxbrd(["-b", "192.0.2.1"])
    assert (result.returncode, result.stdout, result.stderr) == (1, "", usage(vxbrd_binary))


def test_unknown_option(run_vxbrd, vxbrd_binary):
    result = run_vxbrd(["-f", "-x"])
    assert result.returncode == 1
    assert result.stdout == ""
    assert result.stderr == f"{vxbrd_binary}: invalid option -- 'x'\n" + usage(vxbrd_binary)


@pytest.mark.parametrize("option", ["-c", "-p", "-b"])
def test_option_without_its_argument(run_vxbrd, vxbrd_binary, option):
    result = run_vxbrd(["-f", option])
    assert result.returncode == 1
    assert result.stdout == ""
    assert result.stderr == (f"{vxbrd_binary}: option requires an argument -- '{option[1]}'\n"
                             + usage(vxbrd_binary))


@pytest.mark.parametrize("args", [["extra"], ["-f", "extra"], ["-f", "--", "-v"]])
def test_leftover_operands(run_vxbrd, vxbrd_binary, args):
    result = run_vxbrd(args)
    assert (result.returncode, result.stdout, result.stderr) == (1, "", usage(vxbrd_binary))


def test_server_option_without_address(run_vxbrd):
    result = run_vxbrd(["-f", "-s"])
    # One line without a newline, and nothing else: no getopt text, no usage.
    assert (result.returncode, result.stdout, result.stderr) == (
        1, "", "No Server IP address specified with -s flad")


@pytest.mark.parametrize("address, message", [
    ("fe80::1%eth0", "fe80::1%eth0: invalid IPv6 address\n"),
    ("192.0.2.300", "192.0.2.300: invalid IPv4 or IPv6 address\n"),
    ("gateway", "gateway: invalid IPv4 or IPv6 address\n"),
    ("-f", "-f: invalid IPv4 or IPv6 address\n"),
])
def test_server_option_with_bad_address(run_vxbrd, address, message):
    result = run_vxbrd(["-s", address, "-f"])
    assert (result.returncode, result.stdout, result.stderr) == (1, "", message)


@pytest.fixture
def hub(lab):
    hub = lab.namespace("hub")
    ap = lab.namespace("ap")
    hub.add_veth("veth0", peer=ap, peer_name="veth1")
    hub.add_address("veth0", "192.0.2.1/24")
    hub.up("veth0")
    ap.up("veth1")
    return hub


LAST_STARTUP_LINE = "Listening on interface: veth0 (192.0.2.1)"


def start_server_mode(lab, hub, binary, write_config, server, config_text=""):
    conf = write_config(config_text)
    daemon = lab.start_vxbrd(hub, binary, ["-f", "-v", "-s", server, "-c", conf])
    log = daemon.wait_for_log(LAST_STARTUP_LINE)
    return daemon, log


@pytest.mark.parametrize("server", ["192.0.2.9", "2001:db8::9"])
def test_server_option_sends_all_traffic(lab, hub, vxbrd_binary, write_config, server):
    daemon, log = start_server_mode(lab, hub, vxbrd_binary, write_config, server)
    assert daemon.stdout() == f"IP Addr: {server}\n"
    sending = [line for line in log if line.startswith("Sending all traffic to")]
    assert sending == [f"Sending all traffic to {server}"]
    assert log.index(sending[0]) == 1  # right after the banner
    daemon.stop()


@pytest.mark.parametrize("configured", ["198.51.100.7", "2001:db8::7"])
def test_server_line_in_config_overrides_option(lab, hub, vxbrd_binary, write_config,
                                                configured):
    daemon, log = start_server_mode(lab, hub, vxbrd_binary, write_config, "192.0.2.9",
                                    f"server {configured}\n")
    assert daemon.stdout() == "IP Addr: 192.0.2.9\n"
    assert [line for line in log if line.startswith("Sending all traffic to")] == [
        f"Sending all traffic to {configured}"]
    daemon.stop()


def test_no_server_mode_without_option_or_config(lab, hub, vxbrd_binary, write_config):
    conf = write_config("")
    daemon = lab.start_vxbrd(hub, vxbrd_binary, ["-f", "-v", "-c", conf])
    log = daemon.wait_for_log(LAST_STARTUP_LINE)
    assert daemon.stdout() == ""
    assert not [line for line in log if line.startswith("Sending all traffic")]
    daemon.stop()
