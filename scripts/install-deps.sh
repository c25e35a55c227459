#!/usr/bin/env bash
# Installs what vxbrd needs on Debian, skipping what is already there.
#
#   scripts/install-deps.sh demo    building the daemon and vxbrdctl, and the demo
#   scripts/install-deps.sh quick   the build, unit and end-to-end tests (test.sh --quick)
#   scripts/install-deps.sh test    everything the test command runs (the default)
#
# Python packages come from Debian (python3-pytest, python3-scapy) and are
# used through Debian's own interpreter, /usr/bin/python3. What only PyPI has
# (ziglang, the FreeBSD cross tool chain) goes into the project's own virtual
# environment, .venv (or $VXBRD_VENV), which the cross build's wrappers in
# cmake/ use by path. Nothing is ever installed with pip outside it.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
profile=${1:-test}

# Building and running the demo: a compiler, CMake and Ninja; iproute2,
# util-linux (unshare, nsenter) and procps for its namespaces and processes;
# ping and python3 for the traffic it sends through the tunnel.
demo_packages=(g++ cmake ninja-build iproute2 util-linux procps iputils-ping python3)
# The test command adds: GoogleTest and Google Benchmark, clang and its
# sanitizer and fuzzer runtimes, llvm (llvm-symbolizer: the fuzzers' coverage
# report names functions only through it, and clang only recommends it),
# clang-format (the formatting check), pytest
# and scapy, tshark (fragment reassembly checks), binutils (readelf for the
# FreeBSD binary), mandoc, man-db, manpages-dev (the C library's pages that
# ours cite) and systemd (manual page and unit checks),
# prometheus (promtool), python3-venv for the ziglang environment,
# ethtool (receive offload on a veth) and iperf3 for the benchmarks.
test_packages=(libgtest-dev libgmock-dev libbenchmark-dev clang libclang-rt-14-dev llvm clang-format
               python3-pytest python3-scapy python3-venv tshark binutils mandoc man-db
               manpages-dev systemd prometheus ethtool iperf3)

case "$profile" in
    demo) packages=("${demo_packages[@]}") ;;
    quick | test) packages=("${demo_packages[@]}" "${test_packages[@]}") ;;
    *) echo "usage: scripts/install-deps.sh [demo|quick|test]" >&2; exit 2 ;;
esac

missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ "${#missing[@]}" -gt 0 ]; then
    echo "installing: ${missing[*]}"
    apt-get update -qq
    # tshark asks whether non-root users may capture; the answer is no.
    echo "wireshark-common wireshark-common/install-setuid boolean false" | debconf-set-selections
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

[ "$profile" = test ] || exit 0

venv=${VXBRD_VENV:-$root/.venv}
if ! "$venv/bin/python3" -c 'import ziglang' 2>/dev/null; then
    echo "creating $venv with ziglang (FreeBSD cross tool chain)"
    /usr/bin/python3 -m venv "$venv"
    # The system's certificate store, not pip's own copy: a machine whose
    # egress runs through a proxy of its own trusts that proxy there.
    cert=()
    [ -f /etc/ssl/certs/ca-certificates.crt ] && cert=(--cert /etc/ssl/certs/ca-certificates.crt)
    "$venv/bin/python3" -m pip install -q --disable-pip-version-check "${cert[@]}" ziglang
fi
