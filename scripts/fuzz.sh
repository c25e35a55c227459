#!/usr/bin/env bash
# The fuzz stage of scripts/test.sh, runnable on its own: builds the libFuzzer
# targets (ASan + UBSan, clang) in build-fuzz, runs each for a bounded time
# from its seeds, and fails when a target finds a problem, when one input
# runs longer than the per-input time-out, when a target ran fewer inputs
# than its floor (a target that crawls tests little), or when the seeds no
# longer drive the fragmentation of large frames.
#
#   scripts/fuzz.sh
#
# Settings from the environment:
#   VXBRD_FUZZ_SECONDS    each target's run time (default 120)
#   VXBRD_FUZZ_TIMEOUT    the longest one input may take, seconds (default 10)
#   VXBRD_FUZZ_MIN_RUNS   the fewest inputs a target must run (default 50
#                         per second of its run time)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
jobs=2
seconds=${VXBRD_FUZZ_SECONDS:-120}
timeout=${VXBRD_FUZZ_TIMEOUT:-10}
min_runs=${VXBRD_FUZZ_MIN_RUNS:-$((seconds * 50))}
# The largest input: a GRE datagram as large as an IPv4 packet carries, so
# relayed and sent frames above the tunnel's size limit get fragmented.
max_len=65535
# Targets whose seeds must drive nextFragment: the relay path of the ingress
# decisions and the unicast, flood and server paths of the egress ones.
fragmenting=(ingress_fuzz egress_fuzz)

CXX=clang++ cmake -S "$root" -B "$root/build-fuzz" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DVXBRD_FUZZ=ON -DBUILD_TESTING=ON >/dev/null
cmake --build "$root/build-fuzz" -j"$jobs"

shopt -s nullglob
fuzzers=("$root"/build-fuzz/tests/*_fuzz)
[ "${#fuzzers[@]}" -gt 0 ] || { echo "no fuzzers were built" >&2; exit 1; }
# What a target leaves behind for a finding: the input, to replay with
# "build-fuzz/tests/NAME FILE".
artifacts=$root/build-fuzz/artifacts
mkdir -p "$artifacts"

# Whether fuzzer's seeds, run once each, cover function (a symbol name);
# prints libFuzzer's coverage line for it.
seeds_reach() {  # seeds_reach FUZZER SEEDS FUNCTION
    local line
    line=$("$1" -runs=0 -max_len="$max_len" -timeout="$timeout" -print_coverage=1 "$2" 2>&1 |
        grep -E "^COVERED_FUNC: .* $3\(" | head -n 1) || true
    [ -n "$line" ] || return 1
    echo "$line"
}

for fuzzer in "${fuzzers[@]}"; do
    name=$(basename "$fuzzer")
    corpus=$(mktemp -d)
    log=$(mktemp)
    seeds=()
    [ -d "$root/tests/fuzz/corpus/$name" ] && seeds=("$root/tests/fuzz/corpus/$name")
    echo "--- $name (${seconds}s, inputs up to $max_len bytes, ${timeout}s each at most)"
    if ! "$fuzzer" -max_total_time="$seconds" -max_len="$max_len" -timeout="$timeout" \
        -artifact_prefix="$artifacts/$name-" -print_final_stats=1 \
        "$corpus" "${seeds[@]}" >"$log" 2>&1; then
        tail -n 60 "$log" >&2
        echo "$name found a problem; the input is under $artifacts" >&2
        exit 1
    fi
    runs=$(sed -n 's/^Done \([0-9][0-9]*\) runs in .*/\1/p' "$log" | tail -n 1)
    if [ -z "$runs" ]; then
        tail -n 20 "$log" >&2
        echo "$name: no \"Done N runs\" line" >&2
        exit 1
    fi
    grep -E '^stat::(average_exec_per_sec|new_units_added|slowest_unit_time_sec|peak_rss_mb)' \
        "$log" || true
    if [ "$runs" -lt "$min_runs" ]; then
        echo "$name ran $runs inputs, fewer than the $min_runs required" >&2
        exit 1
    fi
    echo "$name ran $runs inputs (at least $min_runs required)"
    for wanted in "${fragmenting[@]}"; do
        [ "$wanted" = "$name" ] || continue
        if ! reached=$(seeds_reach "$fuzzer" "${seeds[0]:-$corpus}" 'lumora::pdu::nextFragment'); then
            echo "$name: its seeds no longer reach nextFragment" >&2
            exit 1
        fi
        echo "$name: nextFragment reached by the seeds: $reached"
    done
    rm -rf "$corpus" "$log"
done
