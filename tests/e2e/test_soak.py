"""Soak: four access points send valid traffic for thousands of clients while
a rogue host floods malformed and random GRE, control-socket clients query in
a loop, and frames go from the taps back to learned clients. At the end the
daemon is alive, every valid frame reached its tap exactly once and byte for
byte, every frame from a tap reached its client's access point, the reports
list exactly the learned clients and peers with exact counters, and resident
memory and open descriptors stayed flat after learning.

  ap ns                        hub ns (vxbrd -f -v)              rogue ns
  +------------------------+   +----------------------------+   +---------------------+
  | ap0 192.0.2.2, .3, .4, |   | hub0 192.0.2.1,            |   | rogue0              |
  |     2001:db8::2        |---|      2001:db8::1           |---|   198.51.100.66,    |
  | a GrePort bound to     |   | hub1 198.51.100.1,         |   |   2001:db8:66::66   |
  | each: valid frames out,|   |      2001:db8:66::1        |   | GrePort v4 and v6:  |
  | tap frames back in     |   | tap0 (VLAN 0), tap20,      |   |   the flood, to all |
  +------------------------+   | tap30, tap40: a TapPort    |   |   four hub addresses|
                               | each (reader thread)       |   +---------------------+
                               | control socket <- queries  |
                               +----------------------------+

Every valid frame carries a mark, its client and a sequence number, so each
is traced to its tap; five profiles (untagged or tagged, keyed or not, under
"grekey mode prefervlan") spread the clients over the four taps. The flood
holds nothing the daemon would learn from, so the tables stay exactly the
valid clients and peers; its relay replies are sent on to the access points.

Phases: learning (one frame per client, all must arrive, the report must list
them all), then the load for VXBRD_SOAK_SECONDS (default 120 s, 40 s for a
sanitizer build) with the flood started first, then draining. The figures
(frames, flood, queries, drops, VmRSS, descriptors) are printed (pytest -s)
and written to soak-figures.txt in the test's temporary directory.
VXBRD_SOAK_SCALE multiplies the number of clients (3000) and every rate
(valid frames 1000/s, flood 2000/s, frames from the taps 20/s); default 1,
0.5 for a ThreadSanitizer build.
"""

import fcntl
import os
import random
import re
import socket
import time

from netns import process_alive, wait_until
from soak_traffic import (ACCESS_POINTS, PROFILES, ap_of, client_mac, expected_extra, flood_pool,
                          mac_text, new_device_line, parse_clients, payload_length, profile_of)
from soak_workers import (Soak, descriptor_targets, flood, inject_egress, query_loop, read_tap,
                          receive_egress, sample, sample_loop, send_valid)
from tunnel_lab import (GrePort, HUB_IPV4, HUB_IPV6, build_tunnel, link_namespaces,
                        packet_socket_statistics, raw_gre_drops, sanitizer_of)

TAPS = ["tap0", "tap20", "tap30", "tap40"]
CONFIG = "tap0 1\ntap20 20\ntap30 30\ntap40 40\ngrekey mode prefervlan\n"
ROGUE_IPV4, ROGUE_IPV6 = "198.51.100.66", "2001:db8:66::66"
SO_RCVBUFFORCE = 33
F_SETPIPE_SZ = 1031
RSS_TOLERANCE_KIB = 1024       # growth from the end of learning to any later sample
RSS_LATE_TOLERANCE_KIB = 256   # growth over the second half of the load


def soak_knobs(binary: str) -> tuple:
    """(sanitizer, seconds of load, scale). A sanitizer build gets a shorter
    load, since CI runs the whole suite against two of them as well. A
    ThreadSanitizer daemon also gets half the rates: it spends about five
    times the CPU per datagram of a plain build (an AddressSanitizer one
    about twice), and the headroom keeps a loaded machine from making it
    fall behind."""
    sanitizer = sanitizer_of(binary)
    seconds = float(os.environ.get("VXBRD_SOAK_SECONDS", 40 if sanitizer else 120))
    scale = float(os.environ.get("VXBRD_SOAK_SCALE", 0.5 if sanitizer == "thread" else 1.0))
    return sanitizer, seconds, scale


def widen_output_pipes(daemon) -> None:
    """The daemon's log reaches this process through a pipe that a thread
    here empties. At the flood's rate of warning lines the default 64 KiB
    holds about a second of them, and a full pipe holds up the daemon's
    logging and with it its receive threads; 1 MiB holds many seconds."""
    for stream in (daemon.process.stdout, daemon.process.stderr):
        fcntl.fcntl(stream.fileno(), F_SETPIPE_SZ, 1 << 20)


def longest_silence(stderr: str) -> float:
    """The longest time, in seconds, between two consecutive log lines."""
    times = [int(h) * 3600 + int(m) * 60 + float(sec) for h, m, sec in
             re.findall(r"^(\d\d):(\d\d):(\d\d\.\d{6}) ", stderr, re.M)]
    return max((later - earlier for earlier, later in zip(times, times[1:])), default=0.0)


def cpu_seconds(pid: int) -> float:
    """User and system CPU time process pid has used so far."""
    with open(f"/proc/{pid}/stat") as stat:
        fields = stat.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def build_lab(lab, binary: str, conf: str):
    """The topology of the drawing with vxbrd running in the hub; returns
    the tunnel, the access points' GrePorts (in ACCESS_POINTS order) and the
    rogue's GrePorts (keyed by "is IPv6")."""
    def extra(hub, ap):
        for address in ACCESS_POINTS[1:3]:
            ap.add_address("ap0", f"{address}/24")
        rogue = lab.namespace("rogue")
        link_namespaces(hub, "hub1", "198.51.100.1/24", rogue, "rogue0", f"{ROGUE_IPV4}/24")
        hub.add_address("hub1", "2001:db8:66::1/64")
        rogue.add_address("rogue0", f"{ROGUE_IPV6}/64")
        rogue.ip("route", "add", "192.0.2.0/24", "via", "198.51.100.1")
        rogue.ip("-6", "route", "add", "2001:db8::/64", "via", "2001:db8:66::1")
        built["rogue"] = rogue

    built = {}
    tunnel = build_tunnel(lab, binary, conf, TAPS, args=["-v"], extra=extra)
    rogue = built["rogue"]
    tunnel.ap.exec(["ping", "-6", "-c", "1", "-W", "2", HUB_IPV6])
    for address in (HUB_IPV4, HUB_IPV6):
        rogue.exec(["ping", "-c", "1", "-W", "2", address])
    for port in tunnel.taps.values():  # bursts must never overflow the test's own sockets
        port.sock.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, 64 << 20)
    aps = [GrePort(tunnel.ap.name, socket.AF_INET6 if ":" in address else socket.AF_INET,
                   bind=address) for address in ACCESS_POINTS]
    for port in aps:
        port.sock.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, 16 << 20)
    rogues = {False: GrePort(rogue.name, socket.AF_INET, bind=ROGUE_IPV4),
              True: GrePort(rogue.name, socket.AF_INET6, bind=ROGUE_IPV6)}
    return tunnel, aps, rogues


def expected_report(soak: Soak) -> dict:
    """The clients report (as parse_clients gives it) due for what was sent:
    bytes and frames in from every frame sent by an access point, out from
    every frame sent from a tap."""
    counters = {client: [0, 0, 0, 0] for client in range(soak.clients)}
    for seq, client in soak.sent.items():
        counters[client][0] += 14 + payload_length(seq)
        counters[client][2] += 1
    for seq, client in soak.injected.items():
        counters[client][1] += 14 + payload_length(seq)
        counters[client][3] += 1
    return {mac_text(client_mac(client)): (ACCESS_POINTS[ap_of(client)],
                                           expected_extra(profile_of(client)),
                                           bytes_in, bytes_out, packets_in, packets_out)
            for client, (bytes_in, bytes_out, packets_in, packets_out) in counters.items()}


NEW_PEER = re.compile(r"\[peers\] new peer: ([0-9a-f.:]+), vlan: (\d+), interface: "
                      r"hub0\[(192\.0\.2\.1|2001:db8::1)\] \(total: \d+\)")
UNSUPPORTED = re.compile(r"(.*): ignoring unsupported PDU type, protocol 0x[0-9A-F]{4}")
RELAY_MISS = re.compile(r"cant find client for VYM-VYM to ([0-9a-f]{2}:){5}[0-9a-f]{2}, vid \d+")


def classify_log(log: list) -> tuple:
    """(unsupported-protocol lines per endpoint name, relay misses, other
    lines) among the log lines that are not learning lines."""
    warned, relay_misses, unexpected = {}, 0, []
    for line in log:
        if line.startswith("[cache] ") or NEW_PEER.fullmatch(line):
            continue
        if match := UNSUPPORTED.fullmatch(line):
            warned[match[1]] = warned.get(match[1], 0) + 1
        elif RELAY_MISS.fullmatch(line):
            relay_misses += 1
        elif len(unexpected) < 50:
            unexpected.append(line)
    return warned, relay_misses, unexpected


def test_soak_valid_traffic_under_flood(lab, vxbrd_binary, write_config, tmp_path):
    sanitizer, seconds, scale = soak_knobs(vxbrd_binary)
    unit = len(ACCESS_POINTS) * len(PROFILES)
    soak = Soak(max(unit, int(3000 * scale) // unit * unit))
    valid_rate, flood_rate, egress_rate = 1000 * scale, 2000 * scale, 20 * scale
    tunnel, aps, rogues = build_lab(lab, vxbrd_binary, write_config(CONFIG))
    daemon = tunnel.daemon
    widen_output_pipes(daemon)
    pid = daemon.pid
    rss_start, fds_start = sample(pid)
    startup_lines = len(daemon.log())
    by_ap = [[c for c in range(soak.clients) if ap_of(c) == ap] for ap in range(len(aps))]
    peers_report = "".join(f"peer: {address}, vlan: {vlan}\n" for address in ACCESS_POINTS
                           for vlan in sorted({p.vlan for p in PROFILES})).encode()
    samples = []
    try:
        for name, port in tunnel.taps.items():
            soak.spawn(f"read-{name}", read_tap, soak, name, port.sock)
        soak.spawn("receive-egress", receive_egress, soak, aps)

        # Learning: one frame per client.
        learners = [soak.spawn(f"learn-{ap}", send_valid, soak, aps[ap], HUB_IPV6 if ":" in
                               ACCESS_POINTS[ap] else HUB_IPV4, by_ap[ap],
                               2 * valid_rate / len(aps), True) for ap in range(len(aps))]
        for thread in learners:
            thread.join(timeout=60)
        wait_until(lambda: len(soak.delivered) == soak.clients or soak.errors, timeout=30,
                   what="every learning frame at its tap")
        assert parse_clients(tunnel.control(b"clients", timeout=10).decode()) == (
            expected_report(soak))
        rss_learned, fds_learned = sample(pid)
        opened_learning = descriptor_targets(pid, fds_learned ^ fds_start)

        # Load: the flood first, then everything else beside it.
        pool = flood_pool(random.Random(20250905), 20000)
        soak.spawn("flood", flood, soak, rogues, pool, flood_rate)
        assert soak.flood_began.wait(10)
        began = time.monotonic()
        cpu_began = cpu_seconds(pid)
        log_began = len(daemon.stderr())
        for ap in range(len(aps)):
            soak.spawn(f"send-{ap}", send_valid, soak, aps[ap],
                       HUB_IPV6 if ":" in ACCESS_POINTS[ap] else HUB_IPV4, by_ap[ap],
                       valid_rate / len(aps), False)
        soak.spawn("egress", inject_egress, soak, tunnel.taps, egress_rate)
        soak.spawn("queries", query_loop, soak, pid, peers_report)
        soak.spawn("sampler", sample_loop, soak, pid, samples)
        while time.monotonic() - began < seconds and not soak.errors:
            assert daemon.process.poll() is None, f"vxbrd ended:\n{daemon.stderr()[-3000:]}"
            time.sleep(0.5)
        soak.stop_load.set()
        for thread in soak.threads:
            if not thread.name.startswith(("read-", "receive-")):
                thread.join(timeout=30)
        loaded = time.monotonic() - began
        cpu_loaded = cpu_seconds(pid) - cpu_began
        assert soak.errors == []

        # Everything sent has arrived before the readers stop.
        def settled():
            return (len(soak.delivered) == len(soak.sent)
                    and len(soak.egress_got) == len(soak.injected))
        try:
            wait_until(settled, timeout=30, what="every valid frame at its tap")
        except AssertionError:
            missing = sorted(set(soak.sent) - set(soak.delivered))
            raise AssertionError(
                f"{len(missing)} of {len(soak.sent)} valid frames never reached their tap "
                f"(first: {missing[:10]}); {len(soak.injected) - len(soak.egress_got)} egress "
                f"frames missing; raw GRE drops {raw_gre_drops(pid)}; longest silence in "
                f"the log {longest_silence(daemon.stderr()[log_began:]):.3f} s; senders held "
                f"up at most {max(soak.delays.values()):.3f} s") from None
    finally:
        soak.stop_load.set()
        soak.stop_readers.set()
        for thread in soak.threads:
            thread.join(timeout=10)
    rss_end, fds_end = sample(pid)
    drops = raw_gre_drops(pid)
    socket_stats = {name: packet_socket_statistics(port.sock)
                    for name, port in tunnel.taps.items()}
    report = parse_clients(tunnel.control(b"clients", timeout=10).decode())
    peers = tunnel.control(b"peers")
    log = daemon.log()[startup_lines:]
    silence = longest_silence(daemon.stderr()[log_began:])
    warned, relay_misses, unexpected = classify_log(log)
    flood_warnings = {k: v for k, v in soak.flood_counts.items() if k != "sent"}
    soak_rss = [rss for rss, _ in samples] + [rss_end]
    growth = max(soak_rss) - rss_learned
    late_growth = max(soak_rss[len(soak_rss) // 2:]) - soak_rss[len(soak_rss) // 2]
    figures = "\n".join([
        f"build: {sanitizer or 'plain'}, scale {scale}, {loaded:.1f} s under load",
        f"clients: {soak.clients}; peers: {len(peers_report.splitlines())}",
        f"valid frames sent: {len(soak.sent)} ({soak.clients} while learning, "
        f"{len(soak.sent) - soak.clients} under the flood); delivered: {len(soak.delivered)}",
        f"frames from taps to clients: {len(soak.injected)}; reached their access point: "
        f"{len(soak.egress_got)}; other GRE at the access points (relayed flood): "
        f"{soak.foreign_at_aps}",
        f"malformed/random datagrams sent: {soak.flood_counts['sent']} (pool {len(pool)}); "
        f"unsupported-protocol lines: {sum(warned.values())} of "
        f"{sum(flood_warnings.values())} due; relay misses: {relay_misses}",
        f"control queries: {soak.queries}",
        f"longest silence in the log under load: {silence:.3f} s; senders held up at most "
        f"{max(soak.delays.values()):.3f} s",
        f"vxbrd CPU time under load: {cpu_loaded:.1f} s ({100 * cpu_loaded / loaded:.0f}% of "
        f"one core)",
        f"raw GRE socket drops: {drops}; tap sockets (received, dropped): {socket_stats}",
        f"VmRSS KiB: start {rss_start}, after learning {rss_learned}, max under load "
        f"{max(soak_rss)}, end {rss_end}; growth after learning {growth}, over the second "
        f"half {late_growth}; at each fifth of the load: "
        f"{[soak_rss[len(soak_rss) * n // 5] for n in range(5)]}",
        f"open descriptors: start {len(fds_start)}, after learning {len(fds_learned)}, "
        f"under load {sorted({len(fds) for _, fds in samples})}, end {len(fds_end)} "
        f"({len(samples)} samples, 1 s apart); opened while learning: {opened_learning}",
    ])
    print("\n" + figures)
    (tmp_path / "soak-figures.txt").write_text(figures + "\n")

    assert soak.errors == []
    assert daemon.process.poll() is None and process_alive(pid)
    assert soak.anomalies == []
    # Each frame at the tap of its client's VLAN; the test's sockets lost nothing.
    assert all(soak.delivered[seq] == profile_of(client).tap for seq, client in soak.sent.items())
    assert all(dropped == 0 for _, dropped in socket_stats.values()), socket_stats

    # The reports: exactly the learned clients and peers, exact counters.
    assert report == expected_report(soak)
    assert sorted(peers.splitlines()) == sorted(peers_report.splitlines())

    # The log: each client and peer learned once, a line for every flood
    # datagram with a whole header and a foreign protocol (all of them, when
    # the kernel dropped none), and nothing else.
    assert unexpected == []
    assert sorted(line for line in log if line.startswith("[cache] ")) == sorted(
        new_device_line(client_mac(c), ACCESS_POINTS[ap_of(c)], profile_of(c))
        for c in range(soak.clients))
    assert sorted(f"peer: {m[1]}, vlan: {m[2]}" for m in map(NEW_PEER.fullmatch, log)
                  if m) == sorted(peers_report.decode().splitlines())
    if not any(drops.values()):
        assert warned == flood_warnings
    assert all(warned.get(k, 0) <= v for k, v in flood_warnings.items())

    # Descriptors exactly as after learning, whenever no control connection
    # is open; resident memory within RSS_TOLERANCE_KIB of what it was then,
    # and still over the second half of the load, where a leak would show
    # apart from the first use of each path.
    assert all(fds == fds_learned for _, fds in samples) and fds_end == fds_learned, (
        descriptor_targets(pid, fds_end ^ fds_learned))
    if sanitizer is None:
        # A sanitizer's allocator holds freed memory back in quarantine.
        assert growth < RSS_TOLERANCE_KIB, figures
        if len(samples) >= 60:  # in a shorter load, first uses reach into the second half
            assert late_growth < RSS_LATE_TOLERANCE_KIB, figures
