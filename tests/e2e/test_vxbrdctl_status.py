"""vxbrdctl status and metrics -o against a real daemon: which process
answers, since when, with which configuration file and whether it changed;
what status says when the daemon runs but its socket is gone or it does not
answer; a metrics file that tells a down daemon from an up one.

    hub ns (own mount ns, tmpfs on /run)          ap ns
    +------------------------------------+        +------------------+
    | vxbrd -f -c CONF   tap0 (VLAN 0)   |  GRE   | ap0 192.0.2.2    |
    | hub0 192.0.2.1 --------------------+--------+- GrePort         |
    | /run/vxbrd.sock <- vxbrdctl        |        |                  |
    |   (nsenter -m: the default path)   |        |                  |
    +------------------------------------+        +------------------+
"""

from __future__ import annotations

import os
import re
import shutil
import socket
import subprocess
import time

import pytest

from tunnel_lab import HUB_IPV4, build_tunnel, control_socket_path, ethernet, gre, wait_for
from vxbrdctl_tool import ctl, vxbrdctl_path

CLIENT = "02:00:00:00:00:01"
HOST = "02:00:00:00:00:99"


@pytest.fixture(scope="module")
def vxbrdctl() -> str:
    return vxbrdctl_path()


@pytest.fixture
def tunnel(lab, vxbrd_binary, write_config):
    return build_tunnel(lab, vxbrd_binary, write_config("tap0 1\n"), ["tap0"], args=["-v"])


def inside(tunnel) -> tuple:
    return ("nsenter", "-t", str(tunnel.daemon.pid), "-m", "--")


def status_lines(pid: int, conf: str, changed: str, peers: int, clients: int):
    return [
        "socket: /var/run/vxbrd.sock",
        f"pid: {pid}",
        re.compile(r"started: \d{4}-\d\d-\d\d \d\d:\d\d:\d\d"),
        re.compile(r"uptime: 0 days 00:00:\d\d"),
        f"configuration: {conf}",
        re.compile("changed since start: " + changed),
        f"peers: {peers}",
        f"clients: {clients}",
    ]


def assert_lines(text: str, expected: list) -> None:
    lines = text.splitlines()
    assert len(lines) == len(expected), text
    for line, want in zip(lines, expected):
        if isinstance(want, str):
            assert line == want
        else:
            assert want.fullmatch(line), line


def test_status_names_the_daemon_and_its_configuration(tunnel, vxbrdctl):
    pid = tunnel.daemon.pid
    conf = tunnel.daemon.process.args[-1]
    result = ctl(vxbrdctl, "status", prefix=inside(tunnel))
    assert (result.returncode, result.stderr) == (0, "")
    assert_lines(result.stdout, status_lines(pid, conf, "no", 0, 0))

    port = tunnel.gre_port()
    port.send(gre(ethernet(HOST, CLIENT, 0x88b5, bytes(46))), HUB_IPV4)
    assert tunnel.taps["tap0"].receive() is not None
    port.close()
    later = time.time() + 60
    os.utime(conf, (later, later))
    result = ctl(vxbrdctl, "status", prefix=inside(tunnel))
    assert (result.returncode, result.stderr) == (0, "")
    stamp = time.strftime("%Y-%m-%d %H:%M:%S", time.localtime(int(later)))
    assert_lines(result.stdout, status_lines(
        pid, conf, re.escape(f"yes (modified {stamp}; vxbrd reads it only at start-up)"), 1, 1))


def test_status_when_the_socket_is_gone(tunnel, vxbrdctl):
    subprocess.run([*inside(tunnel), "rm", "/run/vxbrd.sock"], check=True)
    result = ctl(vxbrdctl, "status", prefix=inside(tunnel))
    assert (result.returncode, result.stdout) == (4, "")
    assert result.stderr == (
        f"vxbrdctl: vxbrd is running (pid {tunnel.daemon.pid}) but its control socket "
        "/var/run/vxbrd.sock is gone: it was removed, most likely by another vxbrd started "
        "since (each one replaces the socket at start-up); restart vxbrd to get it back\n")
    # The plain commands keep their plain message.
    result = ctl(vxbrdctl, "peers", prefix=inside(tunnel))
    assert (result.returncode, result.stderr) == (
        4, "vxbrdctl: /var/run/vxbrd.sock: no such socket (is vxbrd running?)\n")


def test_status_when_the_daemon_does_not_answer(tunnel, vxbrdctl):
    # A client that closes without the half-close holds the control thread
    # up; connections after it are taken but never answered.
    s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    s.connect(control_socket_path(tunnel.daemon.pid))
    s.close()
    tunnel.daemon.wait_for_output("  Error! revents = 17", stream="stdout")
    result = ctl(vxbrdctl, "-t", "1", "status", prefix=inside(tunnel))
    assert (result.returncode, result.stdout) == (1, "")
    assert result.stderr == (
        f"vxbrdctl: vxbrd (pid {tunnel.daemon.pid}) took the connection on /var/run/vxbrd.sock "
        "but did not answer within 1 s: its control thread is most likely held up by a client "
        "that closed without reading its reply, after which it answers no later connection; "
        "restart vxbrd\n")
    tunnel.daemon.stop()


def promtool(path: str) -> None:
    assert shutil.which("promtool"), "promtool (Debian package prometheus) is needed"
    with open(path) as text:
        check = subprocess.run(["promtool", "check", "metrics"], stdin=text,
                               capture_output=True, text=True, timeout=30)
    assert check.returncode == 0, check.stdout + check.stderr


def test_metrics_file_with_the_daemon_up_and_down(tunnel, vxbrdctl, tmp_path):
    out = str(tmp_path / "vxbrd.prom")
    socket_path = control_socket_path(tunnel.daemon.pid)
    port = tunnel.gre_port()
    port.send(gre(ethernet(HOST, CLIENT, 0x88b5, bytes(46))), HUB_IPV4)
    assert tunnel.taps["tap0"].receive() is not None
    port.close()

    result = ctl(vxbrdctl, "metrics", "-o", out, socket_path=socket_path)
    assert (result.returncode, result.stdout, result.stderr) == (0, "", "")
    promtool(out)
    text = open(out).read()
    assert text.startswith(
        "# HELP vxbrd_up Whether vxbrd answered on its control socket (1) or not (0).\n"
        "# TYPE vxbrd_up gauge\nvxbrd_up 1\n")
    for line in ('vxbrd_build_info{version="1.35"} 1', "vxbrd_peers 1", "vxbrd_clients 1",
                 'vxbrd_peer_clients{peer="192.0.2.2",vlan="0"} 1',
                 'vxbrd_peer_receive_bytes{peer="192.0.2.2",vlan="0"} 60',
                 'vxbrd_vlan_clients{vlan="0"} 1',
                 'vxbrd_vlan_receive_packets_total{vlan="0"} 1'):
        assert line in text.splitlines()
    assert "vxbrd_client_" not in text
    assert os.stat(out).st_mode & 0o777 == 0o644
    # Nothing beside it: the temporary file became vxbrd.prom.
    assert sorted(os.listdir(tmp_path)) == ["vxbrd.prom", "vxobrd.conf"]

    # The daemon ends, and the same file says so at the next run.
    tunnel.daemon.stop()
    wait_for(lambda: not os.path.exists(f"/proc/{tunnel.daemon.pid}"))
    gone = str(tmp_path / "gone.sock")
    result = ctl(vxbrdctl, "metrics", "-o", out, socket_path=gone)
    assert (result.returncode, result.stdout, result.stderr) == (0, "", "")
    promtool(out)
    assert open(out).read() == (
        f"# vxbrd did not answer: {gone}: no such socket (is vxbrd running?)\n"
        "# HELP vxbrd_up Whether vxbrd answered on its control socket (1) or not (0).\n"
        "# TYPE vxbrd_up gauge\n"
        "vxbrd_up 0\n"
        "# HELP vxbrd_build_info The version of the vxbrd tools that wrote these.\n"
        "# TYPE vxbrd_build_info gauge\n"
        'vxbrd_build_info{version="1.35"} 1\n')
    assert sorted(os.listdir(tmp_path)) == ["vxbrd.prom", "vxobrd.conf"]


def test_metrics_of_a_socket_nobody_listens_on(vxbrdctl, tmp_path):
    """What a daemon that has ended leaves behind: vxbrd_up 0, exit status 0."""
    path = str(tmp_path / "vxbrd.sock")
    s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    s.bind(path)
    s.close()
    result = ctl(vxbrdctl, "metrics", socket_path=path)
    assert (result.returncode, result.stderr) == (0, "")
    assert result.stdout.startswith(
        f"# vxbrd did not answer: vxbrd is not running (nothing listens on {path})\n")
    assert "\nvxbrd_up 0\n" in result.stdout
    out = str(tmp_path / "vxbrd.prom")
    open(out, "w").write(result.stdout)
    promtool(out)
