#!/usr/bin/env bash
# Installs what building and testing vxbrd needs on Debian, skipping what is
# already there.
set -euo pipefail
apt_packages=(cmake ninja-build g++ clang libclang-rt-14-dev libgtest-dev libgmock-dev iputils-ping
              libbenchmark-dev iproute2 procps tshark binutils util-linux mandoc man-db systemd
              prometheus)
missing=()
for p in "${apt_packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ "${#missing[@]}" -gt 0 ]; then
    echo "installing: ${missing[*]}"
    apt-get update -qq
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}" >/dev/null
fi
pip_modules=(pytest:pytest scapy:scapy ziglang:ziglang)
for entry in "${pip_modules[@]}"; do
    module=${entry%%:*} package=${entry##*:}
    python3 -c "import $module" 2>/dev/null || python3 -m pip install -q "$package"
done
