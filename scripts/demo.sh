#!/usr/bin/env bash
# The built-in demo, as root: builds vxbrd and vxbrdctl (nothing else) and
# runs a real layer-2 tunnel
# between two network namespaces. The hub runs vxbrd as the tunnel
# terminator; the access point runs a second vxbrd in server mode (-s), which
# sends everything its tap device emits to the hub. A ping and a TCP transfer
# cross the tunnel, the hub's control socket shows what it learned, then
# everything is removed again.
#
#   ns vxbrd-demo-ap-PID                         ns vxbrd-demo-hub-PID
#   +------------------------------+             +------------------------------+
#   | tap0 203.0.113.2/24          |             | tap0 203.0.113.1/24          |
#   |   vxbrd -f -s 192.0.2.1      |  GRE (47)   |   vxbrd -f -v                |
#   | veth ap0 192.0.2.2/24  ------+-------------+--- veth hub0 192.0.2.1/24    |
#   +------------------------------+             +------------------------------+
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
[ "$(id -u)" -eq 0 ] || { echo "scripts/demo.sh: run as root (namespaces, tap devices)" >&2; exit 1; }

started=$SECONDS
"$root/scripts/install-deps.sh" demo
echo "--- building vxbrd and vxbrdctl"
cmake -S "$root" -B "$root/build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBUILD_TESTING=OFF >/dev/null
cmake --build "$root/build" -j2 --target vxbrd vxbrdctl
vxbrd=$root/build/vxbrd
vxbrdctl=$root/build/vxbrdctl

hub=vxbrd-demo-hub-$$
ap=vxbrd-demo-ap-$$
work=$(mktemp -d)
cleanup() {
    # Everything still running in the demo's namespaces goes, then the
    # namespaces themselves.
    for ns in "$hub" "$ap"; do
        for pid in $(ip netns pids "$ns" 2>/dev/null); do kill -9 "$pid" 2>/dev/null || true; done
    done
    wait 2>/dev/null || true
    ip netns del "$hub" 2>/dev/null || true
    ip netns del "$ap" 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT

in_ns() { ip netns exec "$@"; }

ip netns add "$hub"
ip netns add "$ap"
for ns in "$hub" "$ap"; do ip -n "$ns" link set lo up; done
ip link add hub0 netns "$hub" type veth peer name ap0 netns "$ap"
ip -n "$hub" addr add 192.0.2.1/24 dev hub0
ip -n "$ap" addr add 192.0.2.2/24 dev ap0
ip -n "$hub" link set hub0 up
ip -n "$ap" link set ap0 up
for ns in "$hub" "$ap"; do ip -n "$ns" tuntap add dev tap0 mode tap; done
ip -n "$hub" addr add 203.0.113.1/24 dev tap0
ip -n "$ap" addr add 203.0.113.2/24 dev tap0
ip -n "$hub" link set tap0 mtu 1400
ip -n "$ap" link set tap0 mtu 1400
in_ns "$ap" ping -c 1 -W 2 192.0.2.1 >/dev/null   # the underlay works

printf 'tap0 1\nmss 1360\n' >"$work/hub.conf"
printf 'tap0 1\n' >"$work/ap.conf"
echo "--- hub configuration"; cat "$work/hub.conf"

# Each daemon gets its own /run, since the control socket path is fixed.
start() {  # start NS LOG ARGS...
    local ns=$1 log=$2
    shift 2
    ip netns exec "$ns" unshare --mount sh -c 'mount -t tmpfs tmpfs /run && exec "$@"' vxbrd "$@" \
        >"$log.out" 2>"$log.err" &
}
start "$hub" "$work/hub" "$vxbrd" -f -v -c "$work/hub.conf"
start "$ap" "$work/ap" "$vxbrd" -f -v -s 192.0.2.1 -c "$work/ap.conf"
sleep 1

echo "--- ping through the tunnel (access point -> hub)"
in_ns "$ap" ping -c 3 -i 0.2 -W 2 203.0.113.1
echo "--- ping with 1372 bytes of payload (a full 1400-byte tap MTU)"
in_ns "$ap" ping -c 2 -i 0.2 -W 2 -s 1372 203.0.113.1

echo "--- TCP transfer of 1 MB through the tunnel"
head -c 1048576 /dev/urandom >"$work/payload"
in_ns "$hub" python3 - "$work/received" <<'PY' &
import socket, sys
s = socket.socket(); s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
s.bind(("203.0.113.1", 5001)); s.listen(1); s.settimeout(20)
c, _ = s.accept()
with open(sys.argv[1], "wb") as f:
    while data := c.recv(65536):
        f.write(data)
PY
server=$!
sleep 0.5
in_ns "$ap" python3 - "$work/payload" <<'PY'
import socket, sys
c = socket.create_connection(("203.0.113.1", 5001), timeout=20)
c.sendall(open(sys.argv[1], "rb").read()); c.close()
PY
wait "$server"
if cmp -s "$work/payload" "$work/received"; then echo "1048576 bytes arrived intact"; else echo "TCP transfer corrupted" >&2; exit 1; fi

echo "--- the hub's view, as an operator sees it: vxbrdctl peers and clients"
hub_pid=$(pgrep -f -n "vxbrd -f -v -c $work/hub.conf")
for request in peers clients; do
    echo "# vxbrdctl $request"
    # In the hub's mount namespace, where its /run and control socket are.
    in_ns "$hub" nsenter -t "$hub_pid" -m "$vxbrdctl" "$request"
done
echo "--- hub log"
cat "$work/hub.err"
echo "--- demo finished in $((SECONDS - started)) s; namespaces removed"
