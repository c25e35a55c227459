#!/usr/bin/env bash
# Bulk TCP throughput through four paths, as root, run by hand (never in CI):
#   bare     the underlay veth alone (the ceiling)
#   kernel   the kernel's own L2 tunnel: gretap + bridge where the kernel has
#            GRE, else VXLAN + bridge (the table says which)
#   vxbrd    a vxbrd tunnel: hub vxbrd, access point vxbrd -s, offloads on
#   plain    the same with "offload-disable"
#   before   the vxbrd tunnel (offloads on) with the daemon named by BEFORE,
#            when BEFORE is set: an earlier build measured in the same run
# iperf3 with 1 and 4 streams, both directions, inner MTU 1400 and 1500.
# Prints one Markdown table: Gbit/s median and spread (min-max) of RUNS runs,
# the daemons' CPU seconds per GB moved, and the ratio of each median to the
# kernel tunnel's in the same run.
#
#   ns tpA-PID (access point)                   ns tpH-PID (hub)
#   +-----------------------------+             +-----------------------------+
#   | tap0/br0 203.0.113.2        |  tunnel     | tap0/br0 203.0.113.1        |
#   | ap0 192.0.2.2/24  ----------+-------------+--- hub0 192.0.2.1/24        |
#   +-----------------------------+             +-----------------------------+
#   (bare: 203.0.113.x sit on ap0/hub0 themselves)
#
# Knobs (environment): RUNS (5), SECONDS_PER_RUN (5), PATHS, MTUS, STREAMS,
# DIRECTIONS (up = access point -> hub, down = hub -> access point),
# VXBRD (default build/vxbrd), BEFORE (another vxbrd binary: adds the path
# "before"), UNDERLAY ("veth", the default: the pair as it comes, which
# passes super-frames whole and merges nothing; "nic": the pair made to
# behave as network cards do, sending segments (TSO and GSO off) and merging
# what it receives (GRO on, polled in a thread of its own), for every path
# alike).
set -euo pipefail
cd "$(dirname "$0")/.."
[ "$(id -u)" -eq 0 ] || { echo "bench/throughput.sh: run as root" >&2; exit 1; }
RUNS=${RUNS:-5}
SECONDS_PER_RUN=${SECONDS_PER_RUN:-5}
BEFORE=${BEFORE:-}
PATHS=${PATHS:-"bare kernel vxbrd plain${BEFORE:+ before}"}
MTUS=${MTUS:-"1400 1500"}
STREAMS=${STREAMS:-"1 4"}
DIRECTIONS=${DIRECTIONS:-"up down"}
VXBRD=${VXBRD:-$PWD/build/vxbrd}
UNDERLAY=${UNDERLAY:-veth}
case $UNDERLAY in
veth) ;;
nic) command -v ethtool >/dev/null || { echo "UNDERLAY=nic needs ethtool" >&2; exit 1; } ;;
*) echo "UNDERLAY is veth or nic" >&2; exit 1 ;;
esac
[ -x "$VXBRD" ] || { echo "no $VXBRD: build first" >&2; exit 1; }
case " $PATHS " in
*" before "*) [ -x "$BEFORE" ] || { echo "path before: BEFORE must name a vxbrd binary" >&2; exit 1; } ;;
esac
command -v iperf3 >/dev/null || { echo "iperf3 is needed" >&2; exit 1; }

hub=tpH-$$
ap=tpA-$$
work=$(mktemp -d)
cleanup() {
    for ns in "$hub" "$ap"; do
        for pid in $(ip netns pids "$ns" 2>/dev/null); do kill -9 "$pid" 2>/dev/null || true; done
    done
    wait 2>/dev/null || true
    ip netns del "$hub" 2>/dev/null || true
    ip netns del "$ap" 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT

kernel_tunnel=vxlan
probe=tpP-$$
ip netns add "$probe"
if ip -n "$probe" link add gt0 type gretap local 192.0.2.1 remote 192.0.2.2 2>/dev/null; then
    kernel_tunnel=gretap
fi
ip netns del "$probe"

topology() {  # topology PATH MTU: fresh namespaces wired for PATH
    for ns in "$hub" "$ap"; do
        for pid in $(ip netns pids "$ns" 2>/dev/null); do kill -9 "$pid" 2>/dev/null || true; done
        ip netns del "$ns" 2>/dev/null || true
    done
    wait 2>/dev/null || true
    local path=$1 mtu=$2
    ip netns add "$hub"
    ip netns add "$ap"
    for ns in "$hub" "$ap"; do ip -n "$ns" link set lo up; done
    ip link add hub0 netns "$hub" type veth peer name ap0 netns "$ap"
    ip -n "$hub" addr add 192.0.2.1/24 dev hub0
    ip -n "$ap" addr add 192.0.2.2/24 dev ap0
    ip -n "$hub" link set hub0 up
    ip -n "$ap" link set ap0 up
    if [ "$UNDERLAY" = nic ]; then
        ip netns exec "$hub" ethtool -K hub0 tso off gso off gro on >/dev/null
        ip netns exec "$ap" ethtool -K ap0 tso off gso off gro on >/dev/null
        ip netns exec "$hub" sh -c 'echo 1 > /sys/class/net/hub0/threaded'
        ip netns exec "$ap" sh -c 'echo 1 > /sys/class/net/ap0/threaded'
    fi
    case $path in
    bare)
        ip -n "$hub" link set hub0 mtu "$mtu"
        ip -n "$ap" link set ap0 mtu "$mtu"
        ip -n "$hub" addr add 203.0.113.1/24 dev hub0
        ip -n "$ap" addr add 203.0.113.2/24 dev ap0
        ;;
    kernel)
        local i=1 ns local_ip remote_ip
        for ns in "$hub" "$ap"; do
            if [ "$ns" = "$hub" ]; then local_ip=192.0.2.1 remote_ip=192.0.2.2; else local_ip=192.0.2.2 remote_ip=192.0.2.1; fi
            if [ "$kernel_tunnel" = gretap ]; then
                ip -n "$ns" link add tun0 type gretap local $local_ip remote $remote_ip
            else
                ip -n "$ns" link add tun0 type vxlan id 42 local $local_ip remote $remote_ip dstport 4789
            fi
            ip -n "$ns" link add br0 type bridge
            ip -n "$ns" link set tun0 master br0
            ip -n "$ns" link set tun0 mtu "$mtu"
            ip -n "$ns" link set br0 mtu "$mtu"
            ip -n "$ns" addr add 203.0.113.$i/24 dev br0
            ip -n "$ns" link set tun0 up
            ip -n "$ns" link set br0 up
            i=$((i + 1))
        done
        ;;
    vxbrd | plain | before)
        for ns in "$hub" "$ap"; do ip -n "$ns" tuntap add dev tap0 mode tap; done
        ip -n "$hub" addr add 203.0.113.1/24 dev tap0
        ip -n "$ap" addr add 203.0.113.2/24 dev tap0
        ip -n "$hub" link set tap0 mtu "$mtu"
        ip -n "$ap" link set tap0 mtu "$mtu"
        local extra=""
        [ "$path" = plain ] && extra="offload-disable"
        local daemon=$VXBRD
        [ "$path" = before ] && daemon=$BEFORE
        printf 'tap0 1\nmss 1360\n%s\n' "$extra" >"$work/hub.conf"
        printf 'tap0 1\n%s\n' "$extra" >"$work/ap.conf"
        ip netns exec "$hub" unshare --mount sh -c 'mount -t tmpfs tmpfs /run && exec "$@"' vxbrd \
            "$daemon" -f -c "$work/hub.conf" >"$work/hub.log" 2>&1 &
        ip netns exec "$ap" unshare --mount sh -c 'mount -t tmpfs tmpfs /run && exec "$@"' vxbrd \
            "$daemon" -f -s 192.0.2.1 -c "$work/ap.conf" >"$work/ap.log" 2>&1 &
        # Not jobs of this shell: their kill -9 at the next topology is no news.
        disown -a
        ;;
    esac
    ip netns exec "$ap" ping -c 1 -W 2 192.0.2.1 >/dev/null
    for _ in $(seq 50); do
        ip netns exec "$ap" ping -c 1 -W 1 203.0.113.1 >/dev/null 2>&1 && break
        sleep 0.2
    done
    ip netns exec "$ap" ping -c 1 -W 2 203.0.113.1 >/dev/null
    rm -f "$work/iperf.pid"
    ip netns exec "$hub" iperf3 -s -D -B 203.0.113.1 -I "$work/iperf.pid" >/dev/null
    sleep 0.3
}

# The daemons' process names as the kernel keeps them (15 characters).
daemon_comm=$(basename "$VXBRD" | cut -c1-15)
before_comm=$(basename "${BEFORE:-$VXBRD}" | cut -c1-15)

# Summed user+system CPU ticks of the daemons in both namespaces (0 without).
daemon_ticks() {
    local total=0 pid ns
    for ns in "$hub" "$ap"; do
        for pid in $(ip netns pids "$ns"); do
            case "$(cat /proc/"$pid"/comm 2>/dev/null)" in
            "$daemon_comm" | "$before_comm") ;;
            *) continue ;;
            esac
            read -r -a f <"/proc/$pid/stat"
            total=$((total + f[13] + f[14]))
        done
    done
    echo "$total"
}

hz=$(getconf CLK_TCK)
results=$work/results
: >"$results"
for mtu in $MTUS; do
    for path in $PATHS; do
        topology "$path" "$mtu"
        for streams in $STREAMS; do
            for direction in $DIRECTIONS; do
                reverse=""
                [ "$direction" = down ] && reverse="-R"
                for run in $(seq "$RUNS"); do
                    before=$(daemon_ticks)
                    out=$(ip netns exec "$ap" iperf3 -c 203.0.113.1 -t "$SECONDS_PER_RUN" -P "$streams" $reverse -J 2>/dev/null || true)
                    [ -n "${VERBOSE:-}" ] && printf "%s" "$out" | grep -m1 "\"error\"" >&2 || true
                    after=$(daemon_ticks)
                    read -r bps bytes < <(printf '%s' "$out" | python3 -c '
import json, sys
try:
    s = json.load(sys.stdin)["end"]["sum_received"]
    print(s["bits_per_second"], s["bytes"])
except Exception:
    print(0, 0)')
                    echo "$mtu $path $streams $direction $run $bps $bytes $((after - before))" >>"$results"
                    [ -n "${VERBOSE:-}" ] && echo "$mtu $path $streams $direction $run $bps" >&2
                done
            done
        done
    done
done

python3 - "$results" "$hz" "$kernel_tunnel" "$RUNS" "$SECONDS_PER_RUN" "$UNDERLAY" <<'PY'
import statistics, sys
rows = [l.split() for l in open(sys.argv[1])]
hz = int(sys.argv[2])
points = {}
for mtu, path, streams, direction, run, bps, nbytes, ticks in rows:
    points.setdefault((mtu, streams, direction, path), []).append((float(bps), int(nbytes), int(ticks)))
print(f"kernel tunnel: {sys.argv[3]} + bridge; {sys.argv[4]} runs of {sys.argv[5]} s per point; underlay: {sys.argv[6]}")
print()
print("| inner MTU | streams | direction | path | Gbit/s median | spread (min-max) | daemon CPU s/GB | vs kernel tunnel |")
print("|---|---|---|---|---|---|---|---|")
for (mtu, streams, direction, path), runs in sorted(points.items(), key=lambda kv: (kv[0][0], kv[0][1], kv[0][2], "bare kernel vxbrd plain before".split().index(kv[0][3]))):
    gbits = [b / 1e9 for b, _, _ in runs]
    median = statistics.median(gbits)
    moved = sum(n for _, n, _ in runs) / 1e9
    ticks = sum(t for _, _, t in runs)
    cpu = f"{ticks / hz / moved:.2f}" if path in ("vxbrd", "plain", "before") and moved > 0 else "-"
    kernel = points.get((mtu, streams, direction, "kernel"))
    ratio = "-"
    if kernel:
        k = statistics.median([b / 1e9 for b, _, _ in kernel])
        if k > 0:
            ratio = f"{median / k:.2f}x"
    name = {"up": "AP -> hub", "down": "hub -> AP"}[direction]
    print(f"| {mtu} | {streams} | {name} | {path} | {median:.2f} | {min(gbits):.2f}-{max(gbits):.2f} | {cpu} | {ratio} |")
PY
