#!/bin/sh
# Builds the daemon and the benchmark tools (RelWithDebInfo, in build-perf
# unless BUILD_DIR says otherwise) and runs the tunnel benchmark; arguments go
# to bench/tunnel_bench.py (--quick for a short run, --help for the knobs).
# Needs root: it creates network namespaces, taps and raw sockets.
set -eu
cd "$(dirname "$0")/.."
build=${BUILD_DIR:-build-perf}
[ -f "$build/build.ninja" ] || cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j2 --target vxbrd bench_traffic bench_relay >/dev/null
exec python3 bench/tunnel_bench.py --build "$build" "$@"
