"""An interface that merges what it receives (the host's receive offload)
can hand a raw GRE socket one datagram for a run of one flow's TCP segments,
the inner TCP checksum left holding only the pseudo-header sum. The access
point's daemon delivers such a datagram to its host whole and right, with
offloads on its tap and without, and a transfer over such an interface
arrives intact with no segment dropped for its checksum.

The topology is the offload tunnel's (test_offload_tunnel.py), with the
access point's underlay interface merging: receive offload on and its
packets polled in a thread of their own, the hub's side sending segments,
not super-frames (what lets a veth merge at all). Whether a transfer's
datagrams meet in one poll depends on timing, so the merge itself is made
certain with a burst: the polling thread and the burst's sender share one
CPU, the sender at a real-time priority, so that the whole burst waits for
one poll.
"""

import os
import random
import socket
import subprocess
import sys

import pytest

import netns
from test_offload_tunnel import SIZE, build, listen, send_intact
from tunnel_lab import in_namespace

GRE = 47
BURST = 32
PAYLOAD = 1000

# Sends BURST GRE datagrams from hub0, each one TCP segment of one flow,
# from the access point's peer to its tap's address; argv: the tap's MAC.
BURST_SENDER = f"""
import os, socket, sys
from scapy.all import Ether, IP, TCP, GRE, Raw
os.sched_setaffinity(0, {{0}})
os.sched_setscheduler(0, os.SCHED_FIFO, os.sched_param(50))
frames = []
for i in range({BURST}):
    inner = (Ether(src="02:00:00:00:be:01", dst=sys.argv[1])
             / IP(src="203.0.113.1", dst="203.0.113.2", id=100 + i)
             / TCP(sport=40000, dport=9, seq=1000 + i * {PAYLOAD}, ack=1, flags="A")
             / Raw(bytes([i]) * {PAYLOAD}))
    frames.append(bytes(Ether(dst=sys.argv[2]) / IP(src="192.0.2.1", dst="192.0.2.2", flags="DF")
                        / GRE(proto=0x6558) / inner))
s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
s.bind(("hub0", 0))
for f in frames:
    s.send(f)
print("sent", flush=True)
"""


def tcp_counter(namespace, name: str) -> int:
    """One of the namespace's TCP counters (/proc/net/snmp)."""
    lines = [l.split() for l in namespace.exec(["cat", "/proc/net/snmp"]).stdout.decode().splitlines()
             if l.startswith("Tcp:")]
    return int(lines[1][lines[0].index(name)])


def rx_bytes(namespace, device: str) -> int:
    path = f"/sys/class/net/{device}/statistics/rx_bytes"
    return int(namespace.exec(["cat", path]).stdout.decode())


def merging(hub, ap) -> None:
    """Makes ap0 merge what the hub sends, or skips: a kernel that cannot."""
    hub.exec(["ethtool", "-K", "hub0", "tso", "off", "gso", "off"])
    ap.exec(["ethtool", "-K", "ap0", "gro", "on"])
    threaded = ap.exec(["sh", "-c", "echo 1 > /sys/class/net/ap0/threaded"], check=False)
    if threaded.returncode != 0:
        pytest.skip("this kernel cannot poll a veth in a thread of its own")


def polling_threads(device: str) -> list[int]:
    """The kernel threads that poll device ("napi/<device>-<id>")."""
    out = []
    for pid in os.listdir("/proc"):
        if pid.isdigit():
            try:
                with open(f"/proc/{pid}/comm") as f:
                    if f.read().startswith(f"napi/{device}-"):
                        out.append(int(pid))
            except OSError:
                pass
    return out


def gre_watcher(namespace: str) -> socket.socket:
    """A raw GRE socket of the test's own: it is handed what the daemon is."""
    def make() -> socket.socket:
        s = socket.socket(socket.AF_INET, socket.SOCK_RAW, GRE)
        s.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 16 * 1024 * 1024)
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
def test_merged_datagrams_reach_the_host_whole_and_right(vxbrd_binary, write_config, extra):
    with netns.Lab() as lab:
        hub, ap, hub_daemon, ap_daemon = build(lab, vxbrd_binary, write_config, extra)
        merging(hub, ap)
        ap.exec(["ping", "-c", "1", "-W", "2", "203.0.113.1"])
        threads = polling_threads("ap0")
        assert threads, "no polling thread for ap0"
        for pid in threads:
            os.sched_setaffinity(pid, {0})

        # The burst: one merged datagram, delivered whole and right.
        watcher = gre_watcher(ap.name)
        errors = tcp_counter(ap, "InCsumErrors")
        segments = tcp_counter(ap, "InSegs")
        received = rx_bytes(ap, "tap0")
        sender = hub.popen([sys.executable, "-c", BURST_SENDER, ap.mac("tap0"), ap.mac("ap0")],
                           stdout=subprocess.PIPE)
        assert sender.stdout.readline() == b"sent\n"
        assert sender.wait(timeout=30) == 0
        netns.wait_until(lambda: rx_bytes(ap, "tap0") - received >= BURST * PAYLOAD, 10)
        most = longest(watcher)
        assert most > 1500, f"the burst was not merged (longest datagram {most} bytes)"
        assert tcp_counter(ap, "InCsumErrors") == errors
        assert tcp_counter(ap, "InSegs") > segments

        # A transfer, merged as its timing lets the interface merge it.
        errors = tcp_counter(ap, "InCsumErrors")
        send_intact(hub, listen(ap), random.Random(17).randbytes(SIZE))
        assert tcp_counter(ap, "InCsumErrors") == errors
        watcher.close()
        for daemon in (hub_daemon, ap_daemon):
            assert not [l for l in daemon.log() if "short write" in l]
