"""The tunnel benchmark's Markdown tables: medians with their spread, and
each subject as a ratio of the yardsticks measured in the same run."""

from __future__ import annotations

import statistics

from bench_lab import DAEMONS, LOSS_LIMIT, Outcome, Point

def median_spread(values: list) -> tuple:
    m = statistics.median(values)
    spread = (max(values) - min(values)) / m if m else 0.0
    return m, spread


def rate_cell(outcome: Outcome) -> str:
    m, spread = median_spread(outcome.rates)
    mark = ">" if any(outcome.limited) else ""
    return f"{mark}{m / 1e6:.3f} ±{spread * 50:.0f}%"


def cpu_cell(outcome: Outcome, loads: list) -> str:
    cells = []
    for load in loads:
        m, spread = median_spread(outcome.cpu[load])
        lossy = "*" if statistics.median(outcome.cpu_loss[load]) > LOSS_LIMIT else ""
        cells.append(f"{m:.0f}{lossy}")
    return " / ".join(cells)


def ratio(a: float, b: float) -> str:
    return f"{a / b:.2f}" if b else "-"


def table(points: list[Point], outcomes: dict, options) -> str:
    loads = "/".join(f"{l / 1e3:g}k" for l in options.loads)
    subjects = options.subjects
    daemons = [s for s in subjects if s in DAEMONS]
    yardsticks = [s for s in subjects if s not in DAEMONS]
    head = ["point"] + [f"{s} Mpps" for s in subjects]
    head += [f"{d}/{y}" for d in daemons for y in yardsticks]
    head += [f"{s} ns/pkt @{loads}" for s in subjects]
    # The batched relay and the floor are yardsticks of rate only: the floor
    # burns its core whatever the load.
    cpu_yardsticks = [y for y in yardsticks if y not in ("batched", "floor")]
    head += [f"CPU {d}/{y}" for d in daemons for y in cpu_yardsticks]
    lines = ["| " + " | ".join(head) + " |", "|" + "---|" * len(head)]
    for p in points:
        o = {s: outcomes[(p.label, s)] for s in subjects}
        rate = {s: statistics.median(o[s].rates) for s in subjects}
        row = [p.label] + [rate_cell(o[s]) for s in subjects]
        row += [ratio(rate[d], rate[y]) for d in daemons for y in yardsticks]
        row += [cpu_cell(o[s], options.loads) for s in subjects]
        row += [" / ".join(ratio(statistics.median(o[d].cpu[l]),
                                 statistics.median(o[y].cpu[l]))
                           for l in options.loads)
                for d in daemons for y in cpu_yardsticks]
        lines.append("| " + " | ".join(row) + " |")
    return "\n".join(lines)


def load_table(points: list[Point], outcomes: dict, options) -> str:
    """At each fixed load: the subject's own CPU time per packet, the whole
    machine's busy time per packet (/proc/stat) and the subject's context
    switches per packet, medians over the runs, with the ratios of the
    system-wide figure to the minimal relay's."""
    loads = "/".join(f"{l / 1e3:g}k" for l in options.loads)
    head = ["point", "subject", f"own ns/pkt @{loads}", f"system ns/pkt @{loads}",
            f"wake-ups/pkt @{loads}", "system vs relay"]
    lines = ["| " + " | ".join(head) + " |", "|" + "---|" * len(head)]
    median = statistics.median
    for p in points:
        relay = outcomes.get((p.label, "relay"))
        for s in options.subjects:
            o = outcomes[(p.label, s)]
            versus = (" / ".join(ratio(median(o.system[l]), median(relay.system[l]))
                                 for l in options.loads) if relay else "-")
            lines.append("| " + " | ".join([
                p.label, s,
                " / ".join(f"{median(o.cpu[l]):.0f}" for l in options.loads),
                " / ".join(f"{median(o.system[l]):.0f}" for l in options.loads),
                " / ".join(f"{median(o.wakeups[l]):.2f}" for l in options.loads),
                versus]) + " |")
    return "\n".join(lines)


def latency_table(results: dict) -> str:
    """Round trips through each tunnel and the bare veth, medians over the
    runs; "added" rows subtract the veth's figure of the same runs."""
    def median_of(name: str, column: int) -> float:
        return statistics.median(r[column] for r in results[name])
    veth = (median_of("veth", 0), median_of("veth", 1))
    rows = ["| round trip (ms) | median | 99th percentile |", "|---|---|---|",
            f"| bare veth | {veth[0]:.3f} | {veth[1]:.3f} |"]
    tunnels = [name for name in results if name != "veth"]
    for name in tunnels:
        label = "two-daemon tunnel" + (" (before)" if name.endswith("before") else "")
        rows.append(f"| {label} | {median_of(name, 0):.3f} | {median_of(name, 1):.3f} |")
    for name in tunnels:
        label = "added by the tunnel" + (" (before)" if name.endswith("before") else "")
        rows.append(f"| {label} | {median_of(name, 0) - veth[0]:.3f} | "
                    f"{median_of(name, 1) - veth[1]:.3f} |")
    return "\n".join(rows)
