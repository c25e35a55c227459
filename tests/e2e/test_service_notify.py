"""Readiness under a real NOTIFY_SOCKET: the daemon sends READY=1 only once
its tap and GRE endpoints are up and their threads run, then the peer and
client counts when they change.

    test: datagram socket TMP/notify.sock  <-- READY=1, STATUS=...
                      ^
    +-- hub (netns) --+-----------------------------+      +-- ap (netns) --+
    |  NOTIFY_SOCKET=TMP/notify.sock vxbrd -f -v    |      |                |
    |  hub0 192.0.2.1/24 ---------------------------+------+- ap0 192.0.2.2 |
    |  tap0 (VLAN 0)                                |      |  GrePort       |
    +-----------------------------------------------+      +----------------+
"""

from __future__ import annotations

import socket

import pytest

from tunnel_lab import AP_IPV4, HUB_IPV4, GrePort, TapPort, ethernet, gre

CLIENT = "02:00:00:00:00:01"
HOST = "02:00:00:00:00:99"
OPAQUE = 0x88b5


@pytest.fixture
def listener(tmp_path):
    path = str(tmp_path / "notify.sock")
    s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    s.bind(path)
    yield path, s
    s.close()


def hub_and_ap(lab):
    hub = lab.namespace("hub")
    ap = lab.namespace("ap")
    hub.add_veth("hub0", peer=ap, peer_name="ap0")
    hub.add_address("hub0", f"{HUB_IPV4}/24")
    ap.add_address("ap0", f"{AP_IPV4}/24")
    hub.up("hub0")
    ap.up("ap0")
    hub.add_tap("tap0")
    return hub, ap


def test_ready_only_when_the_tunnel_works_then_counts(lab, vxbrd_binary, write_config,
                                                      listener):
    path, notifications = listener
    hub, ap = hub_and_ap(lab)
    conf = write_config("tap0 1\n")
    daemon = lab.start_vxbrd(hub, "/usr/bin/env",
                             [f"NOTIFY_SOCKET={path}", vxbrd_binary, "-f", "-v", "-c", conf])
    notifications.settimeout(10)
    first = notifications.recv(4096)
    assert first == b"READY=1\nSTATUS=peers: 0, clients: 0"

    # Everything start-up logs happened before the datagram was sent.
    log = daemon.wait_for_log("tap0 ready", timeout=2)
    assert "hub0 (ip://192.0.2.1) ready" in log
    assert "Listening on interface: hub0 (192.0.2.1)" in log
    flags = hub.ip("-o", "link", "show", "dev", "tap0").stdout.decode()
    assert "<BROADCAST,MULTICAST,UP" in flags, flags

    # And the threads run: a frame sent right away crosses to the tap.
    tap = TapPort(hub.name, "tap0")
    port = GrePort(ap.name)
    try:
        frame = ethernet(HOST, CLIENT, OPAQUE, bytes(46))
        port.send(gre(frame), HUB_IPV4)
        assert tap.receive() == frame
    finally:
        port.close()
        tap.close()

    # One peer and one client now: said once, within about a second.
    notifications.settimeout(5)
    assert notifications.recv(4096) == b"STATUS=peers: 1, clients: 1"
    notifications.settimeout(2.5)
    with pytest.raises(socket.timeout):
        notifications.recv(4096)
    daemon.stop()


def test_an_unusable_notify_socket_is_a_warning_only(lab, vxbrd_binary, write_config, tmp_path):
    hub, _ = hub_and_ap(lab)
    conf = write_config("tap0 1\n")
    missing = str(tmp_path / "nobody-listens.sock")
    daemon = lab.start_vxbrd(hub, "/usr/bin/env",
                             [f"NOTIFY_SOCKET={missing}", vxbrd_binary, "-f", "-c", conf])
    log = daemon.wait_for_log("NOTIFY_SOCKET: No such file or directory")
    assert log == ["vxbrd 1.35 [2025-09-05 15:00:31] [ ()]",
                   "NOTIFY_SOCKET: No such file or directory"]
    assert daemon.process.poll() is None
    daemon.stop()
