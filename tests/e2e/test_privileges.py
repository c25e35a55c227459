"""Least privilege after start-up: once its endpoints are open, every thread
of the daemon holds no capability at all (effective, permitted, inheritable,
ambient and bounding sets empty), in the foreground and as a daemon, and the
tunnel, the relay and the control socket still work on the descriptors it
holds.

    ap ns: GrePort 192.0.2.2, 2001:db8::2        hub ns: vxbrd (tap0 VLAN 0, tap20 VLAN 20)
    +-----------------------------+   GRE 47   +----------------------------------+
    | ap0 ------------------------+------------+-- hub0 192.0.2.1, 2001:db8::1    |
    +-----------------------------+            +----------------------------------+
"""

import os
import signal
import struct

from netns import process_alive, wait_until
from tunnel_lab import (HUB_IPV4, build_tunnel, dot1q, ethernet, gre, mac_bytes)

CLIENT = "02:00:00:00:00:01"
OTHER = "02:00:00:00:00:02"
HOST = "02:00:00:00:00:99"
OPAQUE = 0x88b5
EMPTY = "0000000000000000"
SETS = ("CapInh", "CapPrm", "CapEff", "CapBnd", "CapAmb")


def thread_status(pid: int) -> dict:
    """Thread id -> the fields of its /proc status, for every thread of pid."""
    out = {}
    for tid in os.listdir(f"/proc/{pid}/task"):
        try:
            with open(f"/proc/{pid}/task/{tid}/status") as status:
                out[int(tid)] = dict(line.rstrip("\n").split(":\t", 1)
                                     for line in status if ":\t" in line)
        except FileNotFoundError:
            continue
    return out


def maps_thread_sanitizer(pid: int) -> bool:
    with open(f"/proc/{pid}/maps") as maps:
        return "libtsan" in maps.read()


def blocks_every_signal(fields: dict) -> bool:
    return bin(int(fields["SigBlk"], 16)).count("1") >= 60


def capability_sets(pid: int) -> dict:
    """Thread id -> {set name: hex mask} for every thread of the daemon's
    own in process pid. Left out: the ThreadSanitizer runtime's helper,
    where the process maps that runtime. The runtime starts it at the
    daemon's first pthread_create, so it keeps what the main thread held
    then, and no call of the daemon's can reach it (capabilities belong to
    each thread, and the helper blocks every signal); the daemon's own
    threads never block every signal."""
    sanitized = maps_thread_sanitizer(pid)
    return {tid: {name: fields[name] for name in SETS}
            for tid, fields in thread_status(pid).items()
            if not (sanitized and blocks_every_signal(fields))}


def all_dropped(pid: int, threads: int):
    sets = capability_sets(pid)
    if len(sets) < threads:
        return None
    return sets if all(value == EMPTY for mine in sets.values() for value in mine.values()) else None


def test_every_thread_gives_up_its_capabilities_and_the_tunnel_still_works(
        lab, vxbrd_binary, write_config):
    conf = write_config("tap0 1\ntap20 20\n")
    tunnel = build_tunnel(lab, vxbrd_binary, conf, ["tap0", "tap20"], args=["-v"])
    pid = tunnel.daemon.pid
    # main, the control thread, a GRE thread for 192.0.2.1 and one for
    # 2001:db8::1, and one thread per tap.
    sets = wait_until(lambda: all_dropped(pid, 6), timeout=5,
                      what=f"every thread without capabilities: {capability_sets(pid)}")
    assert len(sets) >= 6
    with open(f"/proc/{pid}/status") as status:
        assert f"CapEff:\t{EMPTY}\n" in status.read().splitlines(keepends=True)

    # Ingress: a tagged keyed frame reaches tap20 and teaches the client.
    port = tunnel.gre_port()
    body = bytes(range(46))
    port.send(gre(dot1q(HOST, CLIENT, 20, OPAQUE, body), key=7), HUB_IPV4)
    assert tunnel.taps["tap20"].receive() == ethernet(HOST, CLIENT, OPAQUE, body)
    # Egress: the host's reply goes back in GRE through the raw socket.
    reply = ethernet(CLIENT, HOST, OPAQUE, body)
    tunnel.taps["tap20"].inject(reply)
    source, datagram = port.receive()
    assert source == HUB_IPV4
    assert datagram == (b"\x20\x00\x65\x58" + struct.pack("!I", 7) + mac_bytes(CLIENT)
                        + mac_bytes(HOST) + struct.pack("!HHH", 0x8100, 20, OPAQUE) + body)
    # A flood from the host reaches the access point as well.
    broadcast = ethernet("ff:ff:ff:ff:ff:ff", HOST, OPAQUE, body)
    tunnel.taps["tap20"].inject(broadcast)
    source, datagram = port.receive()
    assert (source, datagram[8:]) == (HUB_IPV4, mac_bytes("ff:ff:ff:ff:ff:ff") + mac_bytes(HOST)
                                      + struct.pack("!HHH", 0x8100, 20, OPAQUE) + body)
    # Relay: a reply marked for relay (recursion control 6) goes on to the
    # client's access point, with the client's tag and key.
    port.send(gre(dot1q(CLIENT, OTHER, 20, OPAQUE, body), recursion=6), HUB_IPV4)
    assert port.receive() == (HUB_IPV4, b"\x20\x00\x65\x58" + struct.pack("!I", 7)
                              + dot1q(CLIENT, OTHER, 20, OPAQUE, body))
    # The control socket.
    assert tunnel.control(b"peers") == b"peer: 192.0.2.2, vlan: 20\n"
    assert all_dropped(pid, 6) is not None
    assert tunnel.daemon.process.poll() is None


def test_a_detached_daemon_holds_no_capabilities(lab, vxbrd_binary, write_config, tmp_path):
    hub = lab.namespace("hub")
    ap = lab.namespace("ap")
    hub.add_veth("veth0", peer=ap, peer_name="veth1")
    hub.add_address("veth0", "192.0.2.1/24")
    hub.up("veth0")
    ap.up("veth1")
    hub.add_tap("tap0")
    conf = write_config("tap0 1\n")
    pid_path = tmp_path / "vxbrd.pid"
    caller = lab.start_vxbrd(hub, vxbrd_binary, ["-c", conf, "-p", str(pid_path)])
    assert caller.wait_exit(timeout=10, drain=0) == 0
    text = wait_until(lambda: pid_path.read_text() if pid_path.exists()
                      and pid_path.read_text().endswith("\n") else None, what="the PID file")
    pid = int(text)
    try:
        # main, the control thread, the GRE thread of 192.0.2.1, tap0's thread.
        wait_until(lambda: all_dropped(pid, 4), timeout=5,
                   what=f"every thread without capabilities: {capability_sets(pid)}")
        assert process_alive(pid)
    finally:
        try:
            os.kill(pid, signal.SIGKILL)
        except ProcessLookupError:
            pass


def test_a_bounded_start_keeps_its_bounding_set_and_drops_the_rest(lab, vxbrd_binary,
                                                                   write_config):
    # As under a service manager that grants only the two capabilities: the
    # bounding set cannot shrink without CAP_SETPCAP, which is quietly so.
    hub = lab.namespace("hub")
    hub.add_tap("tap0")
    conf = write_config("tap0 1\n")
    daemon = lab.start_vxbrd(hub, "setpriv", ["--bounding-set=-all,+net_raw,+net_admin", "--",
                                              vxbrd_binary, "-f", "-v", "-c", conf])
    daemon.wait_for_log("tap0 ready")

    def settled():
        sets = capability_sets(daemon.pid)
        wanted = {"CapInh": EMPTY, "CapPrm": EMPTY, "CapEff": EMPTY,
                  "CapBnd": "0000000000003000", "CapAmb": EMPTY}
        return sets if len(sets) >= 3 and all(s == wanted for s in sets.values()) else None

    wait_until(settled, timeout=5, what=f"the sets settled: {capability_sets(daemon.pid)}")
    assert not [line for line in daemon.log() if "privileges" in line]
    assert daemon.process.poll() is None
