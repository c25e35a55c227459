#!/usr/bin/env python3
"""A/B at fixed offered loads: several subjects, interleaved round by round,
on the tunnel benchmark's topology (bench/tunnel_bench.py).

    python3 bench/fixed_load.py --direction egress --rates 150e3,520e3 \\
        main=build-perf/vxbrd patched=/tmp/other/vxbrd relay duplex

A subject is `relay`, `duplex` or `batched` (the yardsticks of --build), or
LABEL=PATH for a vxbrd binary. For every subject and rate it prints the
median CPU time per delivered packet, the loss of every round and each
round's busiest threads' CPU time (ms), so that builds can be compared
beyond the loss-free rate (at a load above capacity, the loss says how far
above). Run as root, like tunnel_bench.py; it cleans up the same way.
"""

from __future__ import annotations

import argparse
import os
import statistics
import sys
import time
import types
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
import tunnel_bench as tb  # noqa: E402


def thread_times(pid: int) -> dict[str, int]:
    """sum_exec_runtime (ns) of each of the process's threads."""
    times = {}
    for tid in os.listdir(f"/proc/{pid}/task"):
        with open(f"/proc/{pid}/task/{tid}/schedstat") as stat:
            times[tid] = int(stat.read().split()[0])
    return times


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--build", default="build-perf", help="build with the bench tools")
    parser.add_argument("--direction", choices=("ingress", "egress"), default="egress")
    parser.add_argument("--variant", choices=tuple(tb.VARIANTS), default="plain")
    parser.add_argument("--size", type=int, default=64)
    parser.add_argument("--rates", default="150e3", help="offered loads, pps, comma-separated")
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--seconds", type=float, default=0.5, help="trial length")
    parser.add_argument("--nice", type=int, default=-20)
    parser.add_argument("subjects", nargs="+", help="relay, duplex, batched or LABEL=PATH")
    options = parser.parse_args()
    if os.geteuid() != 0:
        raise SystemExit("run as root: it builds network namespaces")
    rates = [float(r) for r in options.rates.split(",") if r]
    bench_options = types.SimpleNamespace(
        build=options.build, nice=options.nice, subject_lifetime=600, before=None,
        trial_seconds=options.seconds, settle=0.15, verbose=False)
    os.sched_setaffinity(0, {1})
    bench = tb.Bench(bench_options)
    default_daemon = bench.vxbrd
    results: dict[tuple[str, float], list] = {}
    point = tb.Point(options.direction, options.size, options.variant)
    try:
        bench.build_topology()
        bench.start_sink()
        for _ in range(options.rounds):
            for entry in options.subjects:
                label, _, path = entry.partition("=")
                if path:
                    subject, bench.vxbrd = "daemon", str(Path(path).resolve())
                elif label in tb.RELAY_KINDS:
                    subject, bench.vxbrd = label, default_daemon
                else:
                    raise SystemExit(f"{entry}: neither a yardstick nor LABEL=PATH")
                process = bench.start_subject(subject, point)
                time.sleep(0.3)
                try:
                    for rate in rates:
                        before = thread_times(process.pid)
                        trial = bench.attempt(point, process, rate)
                        after = thread_times(process.pid)
                        busiest = sorted((after[t] - before.get(t, 0) for t in after),
                                         reverse=True)[:2]
                        per_packet = trial["cpu_ns"] / max(1, trial["delivered"])
                        results.setdefault((label, rate), []).append(
                            (per_packet, trial["loss"], busiest))
                finally:
                    bench.spaces.stop(process)
        bench.spaces.stop(bench.sink)
    finally:
        bench.spaces.cleanup()
    for (label, rate), rounds in results.items():
        cpu = statistics.median(r[0] for r in rounds)
        losses = " ".join(f"{r[1] * 100:.2f}" for r in rounds)
        threads = " ".join("/".join(f"{t / 1e6:.0f}" for t in r[2]) for r in rounds)
        print(f"{label:12s} {rate / 1e3:6.0f} kpps  {cpu:6.0f} ns/pkt  loss % {losses}  "
              f"threads ms {threads}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
