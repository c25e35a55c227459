"""vxbrdctl against a running daemon that has learned peers and clients from
real GRE traffic.

    ap ns                                   hub ns (own mount ns, tmpfs on /run)
    +-----------------------------+         +--------------------------------------------+
    | ap0 192.0.2.2, 2001:db8::2  |  GRE    | hub0 192.0.2.1, 2001:db8::1                |
    | GrePort IPv4 --------------+---------+-> vxbrd -f, grekey mode prefervlan,         |
    | GrePort IPv6 --------------+---------+-> capabilities: net_raw and net_admin only |
    +-----------------------------+         |  tap0 (VLAN 0) tap20 (VLAN 20) tap30 (30)  |
                                            |  /run/vxbrd.sock <- vxbrdctl               |
                                            +--------------------------------------------+

vxbrdctl reaches the socket as /proc/PID/root/run/vxbrd.sock, or runs inside
the daemon's mount namespace (nsenter -m) with its default path. Its tables,
JSON and metrics are compared with the raw reports read from the same socket.

The installed sample configuration is started in a hub of its own:

    hub ns: vxbrd -f -c vxobrd.conf.sample, em0 192.0.2.1 (no peer), tap0 tap20 tap30

(test_vxbrdctl_errors.py tries vxbrdctl where no daemon, or a wrong one, sits.)
"""

from __future__ import annotations

import json
import os
import re
import shutil
import socket
import subprocess
from pathlib import Path

import pytest

from netns import wait_until
from tunnel_lab import (AP_IPV4, AP_IPV6, HUB_IPV4, HUB_IPV6, build_tunnel, control_socket_path,
                        dot1q, ethernet, gre, wait_for)
from vxbrdctl_tool import ctl, vxbrdctl_path

HOST = "02:00:00:00:00:99"
PLAIN = "02:00:00:00:00:01"      # untagged, no key, IPv4 peer
TAGGED = "02:00:00:00:00:02"     # tag 20, key 7, IPv4 peer
MAPPED = "02:00:00:00:00:03"     # untagged, key 30 -> VLAN 30, IPv6 peer
TAGGED6 = "02:00:00:00:00:04"    # tag 20, no key, IPv6 peer
OPAQUE = 0x88b5  # a local experimental ethertype: the frame walk stops at it
CONFIG = "tap0 1\ntap20 20\ntap30 30\ngrekey mode prefervlan\n"


@pytest.fixture(scope="module")
def vxbrdctl() -> str:
    return vxbrdctl_path()


def payload(n: int, seed: int = 0) -> bytes:
    return bytes((seed + i) % 256 for i in range(n))


# ------------------------------------------------ the reports, read independently

def parse_peers(raw: bytes) -> list[dict]:
    peers = []
    for line in raw.decode().splitlines():
        m = re.fullmatch(r"peer: (\S+), vlan: (\d+)", line)
        assert m, f"unexpected peers line {line!r}"
        peers.append({"peer": m.group(1), "vlan": int(m.group(2))})
    return peers


def parse_clients(raw: bytes) -> list[dict]:
    """Each block as {label with blanks as underscores: value}, the client's
    MAC under "client"; labels missing from a block are None."""
    clients = []
    for line in raw.decode().splitlines():
        if line.startswith("client: "):
            clients.append({"client": line[len("client: "):], "associated_vlan": None,
                            "gre_key": None, "mapped_vlan": None})
            continue
        assert line.startswith("  "), f"unexpected clients line {line!r}"
        for part in line[2:].split(", "):
            label, value = part.split(": ")
            clients[-1][label.replace(" ", "_")] = value if label == "peer" else int(value)
    for client in clients:
        if client["peer"] == "unknown":
            client["peer"] = None
    return clients


def parse_metrics(text: str) -> dict:
    """{(name, frozenset of label pairs): value} of every sample line."""
    samples = {}
    for line in text.splitlines():
        if line.startswith("#"):
            continue
        m = re.fullmatch(r"([a-z_]+)(?:\{(.*)\})? (\d+)", line)
        assert m, f"unexpected sample line {line!r}"
        labels = frozenset(re.findall(r'(\w+)="([^"]*)"', m.group(2) or ""))
        key = (m.group(1), labels)
        assert key not in samples, f"duplicate series {line!r}"
        samples[key] = int(m.group(3))
    return samples


def served_vlan(client: dict) -> int:
    return client["mapped_vlan"] or client["associated_vlan"] or 0


def table_rows(text: str) -> list[list[str]]:
    lines = text.splitlines()
    # The last column is numeric and right-aligned, so every line is as long
    # as the title line, and no line ends in a blank.
    assert len({len(line) for line in lines}) == 1, text
    return [line.split() for line in lines]


# ------------------------------------------------ a daemon with learned traffic

def least_privilege_wrapper(directory: Path, binary: str) -> str:
    """vxbrd behind setpriv with the capability bounding set of the systemd
    unit (CAP_NET_RAW, CAP_NET_ADMIN), so the test shows it suffices."""
    wrapper = directory / "vxbrd-least-privilege"
    wrapper.write_text("#!/bin/sh\nexec setpriv --no-new-privs "
                       f"--bounding-set=-all,+net_raw,+net_admin {binary} \"$@\"\n")
    wrapper.chmod(0o755)
    return str(wrapper)


@pytest.fixture
def learned(lab, vxbrd_binary, write_config, tmp_path):
    """A tunnel whose daemon knows four clients behind two peer addresses,
    with traffic counted in both directions."""
    assert shutil.which("setpriv"), "setpriv (util-linux) is needed"
    conf = write_config(CONFIG)
    tunnel = build_tunnel(lab, least_privilege_wrapper(tmp_path, vxbrd_binary), conf,
                          ["tap0", "tap20", "tap30"])
    # Bounded to CAP_NET_ADMIN (12) and CAP_NET_RAW (13), and even those
    # given up once start-up is over.
    def status() -> str:
        with open(f"/proc/{tunnel.daemon.pid}/status") as lines:
            return lines.read()

    wait_until(lambda: "CapEff:\t0000000000000000\n" in status(), what="the capabilities dropped")
    assert "CapBnd:\t0000000000003000\n" in status()
    v4 = tunnel.gre_port()
    v6 = tunnel.gre_port(socket.AF_INET6)
    sent = [  # (port, destination, GRE payload, tap, frame expected on the tap)
        (v4, HUB_IPV4, gre(ethernet(HOST, PLAIN, OPAQUE, payload(46))), "tap0",
         ethernet(HOST, PLAIN, OPAQUE, payload(46))),
        (v4, HUB_IPV4, gre(ethernet(HOST, PLAIN, OPAQUE, payload(100, 1))), "tap0",
         ethernet(HOST, PLAIN, OPAQUE, payload(100, 1))),
        (v4, HUB_IPV4, gre(dot1q(HOST, TAGGED, 20, OPAQUE, payload(60)), key=7), "tap20",
         ethernet(HOST, TAGGED, OPAQUE, payload(60))),
        (v6, HUB_IPV6, gre(ethernet(HOST, MAPPED, OPAQUE, payload(80)), key=30), "tap30",
         ethernet(HOST, MAPPED, OPAQUE, payload(80))),
        (v6, HUB_IPV6, gre(dot1q(HOST, TAGGED6, 20, OPAQUE, payload(50))), "tap20",
         ethernet(HOST, TAGGED6, OPAQUE, payload(50))),
    ]
    for port, destination, datagram, tap, expected in sent:
        port.send(datagram, destination)
        assert tunnel.taps[tap].receive() == expected
    # Replies from the host side, so the outgoing counters move too.
    for tap, client, port, size in (("tap0", PLAIN, v4, 70), ("tap20", TAGGED, v4, 90),
                                    ("tap30", MAPPED, v6, 48), ("tap30", MAPPED, v6, 52)):
        tunnel.taps[tap].inject(ethernet(client, HOST, OPAQUE, payload(size)))
        got = port.receive()
        assert got is not None, f"no GRE for the reply to {client}"
    yield tunnel
    v4.close()
    v6.close()


def test_tables_json_and_metrics_match_the_reports(learned, vxbrdctl):
    tunnel = learned
    path = control_socket_path(tunnel.daemon.pid)
    raw_peers = tunnel.control(b"peers")
    raw_clients = tunnel.control(b"clients")
    peers = parse_peers(raw_peers)
    clients = parse_clients(raw_clients)
    assert sorted((p["peer"], p["vlan"]) for p in peers) == [
        (AP_IPV4, 0), (AP_IPV4, 20), (AP_IPV6, 20), (AP_IPV6, 30)]
    by_mac = {c["client"]: c for c in clients}
    assert sorted(by_mac) == [PLAIN, TAGGED, MAPPED, TAGGED6]
    # What each kind of client looks like in the daemon's own report.
    assert (by_mac[PLAIN]["peer"], by_mac[PLAIN]["associated_vlan"], by_mac[PLAIN]["gre_key"],
            by_mac[PLAIN]["mapped_vlan"]) == (AP_IPV4, None, None, None)
    assert (by_mac[TAGGED]["associated_vlan"], by_mac[TAGGED]["gre_key"],
            by_mac[TAGGED]["mapped_vlan"]) == (20, 7, None)
    assert (by_mac[MAPPED]["peer"], by_mac[MAPPED]["associated_vlan"], by_mac[MAPPED]["gre_key"],
            by_mac[MAPPED]["mapped_vlan"]) == (AP_IPV6, None, 30, 30)
    assert (by_mac[TAGGED6]["peer"], by_mac[TAGGED6]["associated_vlan"]) == (AP_IPV6, 20)
    assert [(by_mac[m]["packets_in"], by_mac[m]["packets_out"])
            for m in (PLAIN, TAGGED, MAPPED, TAGGED6)] == [(2, 1), (1, 1), (1, 2), (1, 0)]
    # Bytes of the inner frames as written to and read from the taps (untagged).
    assert [(by_mac[m]["bytes_in"], by_mac[m]["bytes_out"])
            for m in (PLAIN, TAGGED, MAPPED, TAGGED6)] == [
        (60 + 114, 84), (74, 104), (94, 62 + 66), (64, 0)]

    # Tables: titles, then the records in the daemon's order.
    result = ctl(vxbrdctl, "peers", socket_path=path)
    assert (result.returncode, result.stderr) == (0, "")
    rows = table_rows(result.stdout)
    assert rows == [["PEER", "VLAN"]] + [[p["peer"], str(p["vlan"])] for p in peers]

    result = ctl(vxbrdctl, "clients", socket_path=path)
    assert (result.returncode, result.stderr) == (0, "")
    rows = table_rows(result.stdout)

    def cell(value):
        return "-" if value is None else str(value)

    # VLAN is the served VLAN, as everywhere; TAG the report's "associated vlan".
    assert rows == [["MAC", "PEER", "VLAN", "TAG", "KEY", "MAPPED", "BYTES-IN", "BYTES-OUT",
                     "PKTS-IN", "PKTS-OUT"]] + [
        [c["client"], c["peer"], str(served_vlan(c)), cell(c["associated_vlan"]),
         cell(c["gre_key"]), cell(c["mapped_vlan"]), str(c["bytes_in"]), str(c["bytes_out"]),
         str(c["packets_in"]), str(c["packets_out"])] for c in clients]

    # JSON: the schema tag, then every field of every record.
    result = ctl(vxbrdctl, "-j", "peers", socket_path=path)
    assert (result.returncode, result.stderr) == (0, "")
    assert result.stdout.endswith("}\n") and result.stdout.count("\n") == 1
    document = json.loads(result.stdout)
    assert list(document) == ["schema", "peers"]
    assert document["schema"] == "vxbrdctl/1"
    assert document["peers"] == peers

    result = ctl(vxbrdctl, "-j", "clients", socket_path=path)
    assert (result.returncode, result.stderr) == (0, "")
    document = json.loads(result.stdout)
    assert list(document) == ["schema", "clients"]
    assert document["schema"] == "vxbrdctl/1"
    assert len(document["clients"]) == len(clients)
    fields = ["client", "peer", "vlan", "associated_vlan", "gre_key", "mapped_vlan", "bytes_in",
              "bytes_out", "packets_in", "packets_out"]
    for got, want in zip(document["clients"], clients):
        assert list(got) == fields
        assert got["vlan"] == served_vlan(want)
        for name in fields[3:] + fields[:2]:
            assert got[name] == want[name], f"{want['client']} {name}"

    # Metrics: valid exposition, counts and totals equal to the report; the
    # per-client series only with -C.
    result = ctl(vxbrdctl, "metrics", socket_path=path)
    assert (result.returncode, result.stderr) == (0, "")
    assert shutil.which("promtool"), "promtool (Debian package prometheus) is needed"
    check = subprocess.run(["promtool", "check", "metrics"], input=result.stdout,
                           capture_output=True, text=True, timeout=30)
    assert check.returncode == 0, check.stdout + check.stderr
    samples = parse_metrics(result.stdout)
    expected = {("vxbrd_up", frozenset()): 1,
                ("vxbrd_build_info", frozenset({("version", "1.35")})): 1,
                ("vxbrd_peers", frozenset()): len(peers),
                ("vxbrd_clients", frozenset()): len(clients)}
    fields = (("receive_bytes", "bytes_in"), ("transmit_bytes", "bytes_out"),
              ("receive_packets", "packets_in"), ("transmit_packets", "packets_out"))
    for p in peers:
        labels = frozenset({("peer", p["peer"]), ("vlan", str(p["vlan"]))})
        mine = [c for c in clients if (c["peer"], served_vlan(c)) == (p["peer"], p["vlan"])]
        expected[("vxbrd_peer_clients", labels)] = len(mine)
        for name, field in fields:
            expected[(f"vxbrd_peer_{name}", labels)] = sum(c[field] for c in mine)
    for vlan in sorted({p["vlan"] for p in peers} | {served_vlan(c) for c in clients}):
        labels = frozenset({("vlan", str(vlan))})
        mine = [c for c in clients if served_vlan(c) == vlan]
        expected[("vxbrd_vlan_peers", labels)] = len([p for p in peers if p["vlan"] == vlan])
        expected[("vxbrd_vlan_clients", labels)] = len(mine)
        for name, field in fields:
            expected[(f"vxbrd_vlan_{name}_total", labels)] = sum(c[field] for c in mine)
    assert samples == expected

    result = ctl(vxbrdctl, "metrics", "-C", socket_path=path)
    assert (result.returncode, result.stderr) == (0, "")
    check = subprocess.run(["promtool", "check", "metrics"], input=result.stdout,
                           capture_output=True, text=True, timeout=30)
    assert check.returncode == 0, check.stdout + check.stderr
    samples = parse_metrics(result.stdout)
    for c in clients:
        labels = frozenset({("mac", c["client"]), ("peer", c["peer"]),
                            ("vlan", str(served_vlan(c)))})
        for name, field in (("vxbrd_client_receive_bytes_total", "bytes_in"),
                            ("vxbrd_client_transmit_bytes_total", "bytes_out"),
                            ("vxbrd_client_receive_packets_total", "packets_in"),
                            ("vxbrd_client_transmit_packets_total", "packets_out")):
            expected[(name, labels)] = c[field]
    assert samples == expected

    # Nothing moved meanwhile, so the comparisons above were against one state.
    assert tunnel.control(b"peers") == raw_peers
    assert tunnel.control(b"clients") == raw_clients


def test_default_socket_inside_the_daemons_mount_namespace(learned, vxbrdctl):
    tunnel = learned
    inside = ("nsenter", "-t", str(tunnel.daemon.pid), "-m", "--")
    result = ctl(vxbrdctl, "-j", "peers", prefix=inside)
    assert (result.returncode, result.stderr) == (0, "")
    assert json.loads(result.stdout) == {"schema": "vxbrdctl/1",
                                         "peers": parse_peers(tunnel.control(b"peers"))}
    result = ctl(vxbrdctl, "-s", "/var/run/vxbrd.sock", "clients", prefix=inside)
    assert (result.returncode, result.stderr) == (0, "")
    assert len(result.stdout.splitlines()) == 5
    assert result.stdout == ctl(vxbrdctl, "clients",
                                socket_path=control_socket_path(tunnel.daemon.pid)).stdout


def test_every_connection_is_closed_by_the_daemon(learned, vxbrdctl):
    """vxbrdctl half-closes and reads to the end, so the daemon sees end of
    stream, closes, and never reports a hung-up descriptor."""
    tunnel = learned
    pid = tunnel.daemon.pid
    path = control_socket_path(pid)
    baseline = len(os.listdir(f"/proc/{pid}/fd"))
    before = tunnel.daemon.stdout()
    for args in (["peers"], ["clients"], ["-j", "peers"], ["-j", "clients"], ["metrics"],
                 ["status"]):
        assert ctl(vxbrdctl, *args, socket_path=path).returncode == 0
    # metrics and status ask twice each: eight connections in all.
    wait_for(lambda: tunnel.daemon.stdout()[len(before):].count("Connection closed.") == 8,
             timeout=10)
    news = tunnel.daemon.stdout()[len(before):].splitlines()
    accepted = [int(line.split("=")[1]) for line in news if line.startswith("Accepted connection.")]
    closed = [int(line.split("=")[1]) for line in news if line.startswith("Connection closed.")]
    assert len(accepted) == 8 and closed == accepted
    assert not [line for line in news if "Error!" in line]
    # The daemon prints its message just before it closes the descriptor.
    wait_for(lambda: len(os.listdir(f"/proc/{pid}/fd")) == baseline)


# ------------------------------------------------ the installed sample configuration

SAMPLE = Path(__file__).resolve().parents[2] / "app" / "vxobrd.conf.sample"


def test_the_sample_configuration_and_its_examples_are_accepted(lab, vxbrd_binary,
                                                                write_config):
    """As installed (everything commented out), and with every example line
    switched on, so the sample never shows a line the daemon refuses."""
    hub = lab.namespace("hub")
    hub.add_veth("em0")
    hub.add_address("em0", "192.0.2.1/24")
    hub.up("em0")
    for tap in ("tap0", "tap20", "tap30"):
        hub.add_tap(tap)
    plain = lab.start_vxbrd(hub, vxbrd_binary, ["-f", "-v", "-c", str(SAMPLE)])
    log = plain.wait_for_log("Listening on interface: em0 (192.0.2.1)")
    assert not [line for line in log if line.startswith(("interface:", "GRE Key Mode"))]
    plain.stop()

    examples = re.sub(r"(?m)^#(?=(tap\w+|vlan\d+|grekey|mss|mtu|server|ipchksum)( |$))", "",
                      SAMPLE.read_text())
    switched_on = [line for line in examples.splitlines() if not line.startswith("#")]
    assert switched_on == ["tap0 1", "tap20 20", "tap30 30 parent-interface em0",
                           "vlan40 forward-to-vym 192.0.2.1", "grekey mode ignore", "mss 1380",
                           "mtu 1500", "server 192.0.2.10", "ipchksum"]
    daemon = lab.start_vxbrd(hub, vxbrd_binary, ["-f", "-v", "-c", write_config(examples)])
    log = daemon.wait_for_log("VLAN 40 traffic will be forwarded to server 192.0.2.1")
    for line in ("Sending all traffic to 192.0.2.10",
                 "interface: tap0, vlan: 0, vlan-isolation: false",
                 "interface: tap20, vlan: 20, vlan-isolation: false",
                 f"interface: tap30 parent interface: em0 ({hub.mac('em0')})"):
        assert line in log
    assert daemon.stderr().count("ignoring") == 0
    daemon.stop()
