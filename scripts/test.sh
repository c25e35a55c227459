#!/usr/bin/env bash
# Runs every test of vxbrd on a fresh Debian machine, as root: installs what is
# missing, builds, runs the unit tests, the end-to-end tests in network
# namespaces, the sanitizer builds, the fuzzers for a bounded time
# (scripts/fuzz.sh), and the FreeBSD cross build. Exits non-zero on the first
# failure.
#
#   scripts/test.sh           everything (what CI runs)
#   scripts/test.sh --quick   build, unit tests and end-to-end tests only
#
# Each stage's duration and the total are printed at the end.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
jobs=2
fuzz_seconds=${VXBRD_FUZZ_SECONDS:-120}
# Debian's own interpreter sees Debian's python3-pytest and python3-scapy; a
# python3 earlier on the PATH might not.
python=/usr/bin/python3

quick=0
case "${1:-}" in
    "") ;;
    --quick) quick=1 ;;
    *) echo "usage: scripts/test.sh [--quick]" >&2; exit 2 ;;
esac

if [ "$(id -u)" -ne 0 ]; then
    echo "scripts/test.sh: the end-to-end tests create network namespaces and tap devices: run as root" >&2
    exit 1
fi

# Stage bookkeeping: step names a stage and starts its clock; the summary
# lists every stage that ran, also when one failed.
stage_names=()
stage_seconds=()
stage_started=0
started=$SECONDS
stage_end() {
    [ "${#stage_names[@]}" -gt 0 ] || return 0
    stage_seconds+=($((SECONDS - stage_started)))
}
step() {
    stage_end
    stage_names+=("$*")
    stage_started=$SECONDS
    printf '\n==> %s\n' "$*"
}
summary() {
    local status=$?
    stage_end
    printf '\n%-72s %8s\n' "stage" "seconds"
    for i in "${!stage_names[@]}"; do
        printf '%-72s %8d\n' "${stage_names[$i]}" "${stage_seconds[$i]:-0}"
    done
    printf '%-72s %8d\n' "total" $((SECONDS - started))
    if [ "$status" -eq 0 ]; then echo "all tests passed"; else echo "FAILED (exit status $status)"; fi
}
trap summary EXIT

step "dependencies"
if [ "$quick" -eq 1 ]; then "$root/scripts/install-deps.sh" quick; else "$root/scripts/install-deps.sh" test; fi

configure() {  # configure DIR [cmake args...]
    local dir=$1
    shift
    cmake -S "$root" -B "$root/$dir" -G Ninja "$@" >/dev/null
}

# Unit tests that are not there are a failure, not a pass.
unit_tests() {  # unit_tests BUILD-DIR [env...]
    local dir=$1
    shift
    env "$@" ctest --test-dir "$dir" --output-on-failure --no-tests=error -j"$jobs"
}

step "formatting (.clang-format)"
# Every C++ file of the repository, the endpoint headers without a suffix too.
git ls-files -z '*.cpp' '*.h' vif/IP vif/TAP vif/VIF |
    xargs -0 clang-format --style=file --dry-run --Werror

step "build (release with debug info)"
configure build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBUILD_TESTING=ON
cmake --build build -j"$jobs"

step "unit tests"
unit_tests build

step "end-to-end tests"
VXBRD_BINARY="$root/build/vxbrd" "$python" -m pytest -q tests/e2e

[ "$quick" -eq 1 ] && exit 0

# Runs the end-to-end suite against a sanitizer build of the daemon. Every
# report is written to a file of its own, so a report from any daemon any
# test started fails the run, even one the test itself did not notice.
e2e_sanitized() {  # e2e_sanitized BUILD-DIR
    local reports
    reports=$(mktemp -d)
    ASAN_OPTIONS="log_path=$reports/asan:detect_leaks=0" \
    UBSAN_OPTIONS="log_path=$reports/ubsan:print_stacktrace=1" \
    TSAN_OPTIONS="log_path=$reports/tsan:halt_on_error=1" \
    VXBRD_BINARY="$root/$1/vxbrd" "$python" -m pytest -q tests/e2e
    if [ -n "$(ls -A "$reports")" ]; then
        cat "$reports"/* >&2
        echo "sanitizer reports from $1" >&2
        exit 1
    fi
    rm -rf "$reports"
}

step "unit tests under AddressSanitizer + UndefinedBehaviorSanitizer"
configure build-asan -DCMAKE_BUILD_TYPE=Debug -DBUILD_TESTING=ON -DVXBRD_SANITIZE=address,undefined
cmake --build build-asan -j"$jobs"
unit_tests build-asan

step "end-to-end tests against the AddressSanitizer + UndefinedBehaviorSanitizer daemon"
e2e_sanitized build-asan

step "unit tests under ThreadSanitizer"
configure build-tsan -DCMAKE_BUILD_TYPE=Debug -DBUILD_TESTING=ON -DVXBRD_SANITIZE=thread
cmake --build build-tsan -j"$jobs"
unit_tests build-tsan TSAN_OPTIONS=halt_on_error=1

step "end-to-end tests against the ThreadSanitizer daemon"
e2e_sanitized build-tsan

step "fuzzers (${fuzz_seconds}s each, ASan + UBSan)"
VXBRD_FUZZ_SECONDS=$fuzz_seconds "$root/scripts/fuzz.sh"

step "manual pages, service files (systemd-analyze verify, security), install layout"
"$root/scripts/check-dist.sh" build

step "FreeBSD cross build"
configure build-freebsd -DCMAKE_TOOLCHAIN_FILE="$root/cmake/freebsd-toolchain.cmake" -DBUILD_TESTING=OFF
cmake --build build-freebsd -j"$jobs"
"$root/scripts/check-freebsd-binary.sh" build-freebsd/vxbrd
