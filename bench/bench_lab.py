"""The tunnel benchmark's laboratory: namespaces that clean up after
themselves, the addresses and variants of its topology, the counters it reads
(device statistics, raw socket drops, the kernel's CPU accounting) and the
records of a point's outcome. Shared by tunnel_bench.py and fixed_load.py."""

from __future__ import annotations

import os
import subprocess
import sys
import time
from dataclasses import dataclass, field
from pathlib import Path
from typing import Callable

HUB_IP, AP_IP = "192.0.2.1", "192.0.2.2"
HUB_MAC, AP_MAC = "02:00:00:00:0a:01", "02:00:00:00:0a:02"
CLIENT_MAC = "02:00:00:00:0b:01"  # bench_traffic's inner source (the client)
TAG_VLAN, GRE_KEY = 20, 7
LOSS_LIMIT = 0.001
SUBJECTS = ("daemon", "relay", "duplex", "batched", "floor")
# Subjects that are builds of the daemon: this one, and an earlier one (--before).
DAEMONS = ("daemon", "before")
RELAY_KINDS = {"relay": "minimal", "duplex": "duplex", "batched": "batched", "floor": "spin"}
VARIANTS = {"plain": (0, -1), "tag+key": (TAG_VLAN, GRE_KEY)}  # inner tag VLAN, key


def log(text: str) -> None:
    print(text, file=sys.stderr, flush=True)


def run(args: list[str], timeout: float = 30.0, check: bool = True) -> str:
    done = subprocess.run(args, capture_output=True, text=True, timeout=timeout)
    if check and done.returncode != 0:
        raise RuntimeError(f"{' '.join(args)}: exit {done.returncode}: {done.stderr.strip()}")
    return done.stdout


# ---------------------------------------------------------------- topology

class Namespaces:
    """Network namespaces named <tag><suffix>; everything in them goes with them."""

    def __init__(self, tag: str):
        self.tag = tag
        self.created: list[str] = []
        self.processes: list[subprocess.Popen] = []

    def add(self, suffix: str) -> str:
        name = self.tag + suffix
        run(["ip", "netns", "add", name])
        self.created.append(name)
        # No IPv6: no router or neighbour solicitations among the counted packets.
        self.sh(name, "sysctl -qw net.ipv6.conf.all.disable_ipv6=1 "
                      "net.ipv6.conf.default.disable_ipv6=1")
        self.ip(name, "link", "set", "lo", "up")
        return name

    def ip(self, ns: str, *args: str) -> str:
        return run(["ip", "-n", ns, *args])

    def sh(self, ns: str, script: str, timeout: float = 30.0) -> str:
        return run(["ip", "netns", "exec", ns, "sh", "-c", script], timeout=timeout)

    def start(self, args: list[str], output: Path) -> subprocess.Popen:
        with open(output, "wb") as sink:
            process = subprocess.Popen(args, stdout=sink, stderr=subprocess.STDOUT,
                                       start_new_session=True)
        self.processes.append(process)
        return process

    def stop(self, process: subprocess.Popen) -> None:
        if process.poll() is None:
            process.terminate()
            try:
                process.wait(timeout=5)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait(timeout=5)
        if process in self.processes:
            self.processes.remove(process)

    def cleanup(self) -> None:
        for process in list(self.processes):
            try:
                self.stop(process)
            except Exception as error:  # keep cleaning
                log(f"cleanup: {error}")
        for name in reversed(self.created):
            run(["ip", "netns", "del", name], check=False)
        self.created.clear()


def counters(spaces: Namespaces, ns: str, device: str) -> dict:
    """The device's statistics files and the GRE sockets' drop counts."""
    out = spaces.sh(ns, f"cd /sys/class/net/{device}/statistics && "
                        "for f in rx_packets rx_dropped tx_packets tx_dropped; do "
                        "echo $f $(cat $f); done; cat /proc/net/raw")
    values = {}
    raw_drops = 0
    for line in out.splitlines():
        parts = line.split()
        if len(parts) == 2 and parts[1].isdigit():
            values[parts[0]] = int(parts[1])
        elif len(parts) > 12 and parts[0].endswith(":") and parts[1].endswith(":002F"):
            raw_drops += int(parts[-1])  # sockets of protocol 47
    values["raw_drops"] = raw_drops
    return values


def cpu_ns(pid: int) -> int:
    """Time on CPU of every thread of pid, in nanoseconds (kernel's accounting)."""
    total = 0
    for task in os.listdir(f"/proc/{pid}/task"):
        try:
            with open(f"/proc/{pid}/task/{task}/schedstat") as f:
                total += int(f.read().split()[0])
        except FileNotFoundError:
            pass
    return total


def system_busy_ns() -> int:
    """Busy time of every CPU from /proc/stat (user, nice, system, irq,
    softirq, steal), in nanoseconds: the same figure for every subject, so
    work moved into interrupt context or onto another CPU is never free."""
    with open("/proc/stat") as f:
        fields = f.readline().split()  # the "cpu" line: all CPUs together
    user, nice, system, _idle, _iowait, irq, softirq, steal = (int(x) for x in fields[1:9])
    ticks = os.sysconf("SC_CLK_TCK")
    return (user + nice + system + irq + softirq + steal) * 1_000_000_000 // ticks


def context_switches(pid: int) -> int:
    """Voluntary and involuntary context switches of every thread of pid:
    each voluntary one is a wait that ended in a wake-up."""
    total = 0
    for task in os.listdir(f"/proc/{pid}/task"):
        try:
            with open(f"/proc/{pid}/task/{task}/status") as f:
                for line in f:
                    if line.startswith(("voluntary_ctxt_switches", "nonvoluntary_ctxt_switches")):
                        total += int(line.split()[1])
        except FileNotFoundError:
            pass
    return total


def wait_until(predicate: Callable[[], object], timeout: float, what: str) -> object:
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        value = predicate()
        if value:
            return value
        time.sleep(0.02)
    raise RuntimeError(f"timed out waiting for {what}")


# ---------------------------------------------------------------- the bench

@dataclass
class Point:
    direction: str  # "ingress" (GRE->tap) or "egress" (tap->GRE)
    size: int
    variant: str

    @property
    def label(self) -> str:
        arrow = "GRE->tap" if self.direction == "ingress" else "tap->GRE"
        return f"{arrow} {self.size} B {self.variant}"


@dataclass
class Outcome:
    rates: list = field(default_factory=list)      # loss-free rates, pps, one per run
    limited: list = field(default_factory=list)    # True when the generator was the limit
    cpu: dict = field(default_factory=dict)        # load -> [ns per packet, ...]
    cpu_loss: dict = field(default_factory=dict)   # load -> [loss, ...]
    system: dict = field(default_factory=dict)     # load -> [system-wide ns per packet, ...]
    wakeups: dict = field(default_factory=dict)    # load -> [context switches per packet, ...]
