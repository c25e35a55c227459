"""An interface that merges what it receives (the host's receive offload)
can hand a raw GRE socket one datagram for a run of one flow's TCP segments,
the inner TCP checksum left holding only the pseudo-header sum. The access
point's daemon still delivers a transfer intact, and its host drops no
segment for a bad checksum, with offloads on its tap and without.

The topology is the offload tunnel's (test_offload_tunnel.py), with the
access point's underlay interface merging: receive offload on, its packets
polled in a thread of their own so that several wait for one poll, and the
hub's side sending segments, not super-frames, which is what lets a veth
merge at all.
"""

import hashlib
import random
import socket
import subprocess
import sys

import pytest

import netns
from test_offload_tunnel import RECEIVER, SENDER, SIZE, build
from tunnel_lab import in_namespace

GRE = 47


def tcp_checksum_errors(namespace) -> int:
    """InCsumErrors of the namespace's TCP counters (/proc/net/snmp)."""
    lines = [l.split() for l in namespace.exec(["cat", "/proc/net/snmp"]).stdout.decode().splitlines()
             if l.startswith("Tcp:")]
    return int(lines[1][lines[0].index("InCsumErrors")])


def merging(lab, hub, ap) -> None:
    """Makes ap0 merge what the hub sends, or skips: a kernel that cannot."""
    hub.exec(["ethtool", "-K", "hub0", "tso", "off", "gso", "off"])
    ap.exec(["ethtool", "-K", "ap0", "gro", "on"])
    threaded = ap.exec(["sh", "-c", "echo 1 > /sys/class/net/ap0/threaded"], check=False)
    if threaded.returncode != 0:
        pytest.skip("this kernel cannot poll a veth in a thread of its own")


def gre_watcher(namespace: str) -> socket.socket:
    """A raw GRE socket of the test's own: it is handed what the daemon is."""
    def make() -> socket.socket:
        s = socket.socket(socket.AF_INET, socket.SOCK_RAW, GRE)
        s.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 64 * 1024 * 1024)
        return s

    return in_namespace(namespace, make)


def longest(watcher: socket.socket) -> int:
    """The longest datagram the watcher was handed."""
    most = 0
    watcher.settimeout(0.2)
    while True:
        try:
            most = max(most, len(watcher.recv(70000)))
        except socket.timeout:
            return most


@pytest.mark.parametrize("extra", ["", "offload-disable\n"], ids=["offloads", "plain"])
def test_merged_datagrams_are_delivered_intact(vxbrd_binary, write_config, extra):
    with netns.Lab() as lab:
        hub, ap, hub_daemon, ap_daemon = build(lab, vxbrd_binary, write_config, extra)
        merging(lab, hub, ap)
        ap.exec(["ping", "-c", "1", "-W", "2", "203.0.113.1"])
        watcher = gre_watcher(ap.name)
        errors = tcp_checksum_errors(ap)
        data = random.Random(17).randbytes(SIZE)
        receiver = ap.popen([sys.executable, "-c", RECEIVER], stdout=subprocess.PIPE)
        assert receiver.stdout.readline() == b"listening\n"
        sender = hub.popen([sys.executable, "-c", SENDER], stdin=subprocess.PIPE)
        sender.stdin.write(data)
        sender.stdin.close()
        assert sender.wait(timeout=60) == 0
        line = receiver.stdout.readline().decode().split()
        assert receiver.wait(timeout=30) == 0
        assert line == [str(SIZE), hashlib.sha256(data).hexdigest()]
        # The interface did merge: a datagram longer than its MTU (1500)
        # can only be several made one.
        most = longest(watcher)
        watcher.close()
        assert most > 1500, f"nothing was merged (longest datagram {most} bytes)"
        assert tcp_checksum_errors(ap) == errors
        for daemon in (hub_daemon, ap_daemon):
            assert not [l for l in daemon.log() if "short write" in l]
