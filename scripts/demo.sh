#!/usr/bin/env bash
# The built-in demo, as root: builds vxbrd and runs it in a throw-away network
# namespace with a sample configuration, in the foreground at -vv, so you can
# watch interface discovery and configuration; then stops it and cleans up.
#
#   namespace vxbrd-demo-PID
#   +---------------------------------------------------+
#   |  demo0 192.0.2.1/24, 2001:db8::1/64  (veth)        |
#   |  tap0 (untagged), tap1 (VLAN 20)      vxbrd -f -vv |
#   +---------------------------------------------------+
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
[ "$(id -u)" -eq 0 ] || { echo "scripts/demo.sh: run as root (namespaces, tap devices)" >&2; exit 1; }

"$root/scripts/install-deps.sh"
cmake -S "$root" -B "$root/build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$root/build" -j2 --target vxbrd

ns=vxbrd-demo-$$
work=$(mktemp -d)
cleanup() { ip netns del "$ns" 2>/dev/null || true; rm -rf "$work"; }
trap cleanup EXIT

ip netns add "$ns"
ip -n "$ns" link set lo up
ip -n "$ns" link add demo0 type veth peer name demo1
ip -n "$ns" addr add 192.0.2.1/24 dev demo0
ip -n "$ns" addr add 2001:db8::1/64 dev demo0 nodad
ip -n "$ns" link set demo0 up
ip -n "$ns" link set demo1 up
ip -n "$ns" tuntap add dev tap0 mode tap
ip -n "$ns" tuntap add dev tap1 mode tap

cat >"$work/vxobrd.conf" <<'CONF'
# access point tunnels
tap0 1
tap1 20 vlan-isolate-enable parent-interface demo0
vlan40 forward-to-vym 192.0.2.254
grekey mode prefervlan
mss 1380
CONF
echo "--- configuration"
cat "$work/vxobrd.conf"
echo "--- vxbrd -f -vv (3 seconds)"
ip netns exec "$ns" unshare --mount sh -c \
    "mount -t tmpfs tmpfs /run && timeout --preserve-status -s TERM 3 '$root/build/vxbrd' -f -vv -c '$work/vxobrd.conf'" || true
echo "--- demo finished; namespace $ns removed"
