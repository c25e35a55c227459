"""Backlogs handled in batches keep every frame's bytes and order.

    ap ns                                           hub ns: vxbrd -f (stopped, then resumed)
    +-----------------------------------+           +--------------------------------------+
    | ap0 192.0.2.2 (+ 192.0.2.3 for a  |  GRE 47   | hub0 192.0.2.1: GRE endpoint         |
    |     second access point)          |-----------|  tap0  (VLAN 0)                      |
    | GrePort: raw GRE, unbound, sees   |           |  tap20 (VLAN 20; MTU 4000 with       |
    |   what goes to either address     |           |         "mtu 1300" for fragments)    |
    +-----------------------------------+           |  <- TapPort.inject / .receive        |
                                                    +--------------------------------------+

The daemon is stopped with SIGSTOP while a backlog is queued for it: GRE
datagrams wait in its raw socket's receive buffer, frames injected into a
tap wait in the tap's queue (txqueuelen 500; each backlog stays well under
it). Resumed with SIGCONT, it meets the whole backlog at once: on ingress
every receive takes a batch of datagrams and the frames written for them
are held and handed to the taps together; on egress the datagrams made of
frames read while more are queued are held and sent together. Mixed in are
the paths that go out at once: the IPv6 multicast destination rewrite on
ingress, flood copies and IPv4 fragments on egress. Every frame must come
out exactly as it would one at a time, in the order it went in, and nothing
else may come out.
"""

from __future__ import annotations

import contextlib
import json
import os
import signal
import socket
import struct
import time

from scapy.layers.inet6 import IPv6
from scapy.packet import Raw

from netns import process_alive, wait_until
from test_egress_fragments import KEY, frame_of, inner_packet, pieces, tunnelled
from test_egress_fragments import CLIENT as FRAGMENT_CLIENT
from test_egress_fragments import HOST as FRAGMENT_HOST
from tunnel_lab import (AP_IPV4, HUB_IPV4, GrePort, build_tunnel, dot1q, ethernet, gre,
                        log_through_fence, packet_socket_statistics, raw_gre_drops,
                        wait_for_lines)

HOST = "02:00:00:00:00:99"
PLAIN_CLIENT = "02:00:00:00:0c:01"
KEYED_CLIENT = "02:00:00:00:0c:02"
TAGGED_CLIENT = "02:00:00:00:0c:20"
B_CLIENT = "02:00:00:00:0c:0b"
AP_B = "192.0.2.3"
BROADCAST = "ff:ff:ff:ff:ff:ff"
ALL_NODES = "33:33:00:00:00:01"
OPAQUE = 0x88b5  # a local experimental ethertype: nothing looks behind it
GRE_PLAIN = b"\x00\x00\x65\x58"
BACKLOG = 200
SO_RCVBUFFORCE = getattr(socket, "SO_RCVBUFFORCE", 33)
SOL_PACKET = 263
PACKET_QDISC_BYPASS = 20


# ---------------------------------------------------------------- frames

def body(index: int, length: int) -> bytes:
    """`length` bytes that start with the frame's number and differ from
    every other frame's."""
    pattern = bytes((index * 13 + i * 7 + i // 256) & 0xFF for i in range(length - 2))
    return struct.pack("!H", index) + pattern


def size_of(index: int, smallest: int = 46, spread: int = 1150) -> int:
    """Payload sizes that vary from frame to frame."""
    return smallest + (index * 389) % spread


def gre_keyed(key: int) -> bytes:
    return b"\x20\x00\x65\x58" + struct.pack("!I", key)


def tagged(frame: bytes, vlan: int) -> bytes:
    return frame[:12] + struct.pack("!HH", 0x8100, vlan) + frame[12:]


def ipv6_all_nodes(index: int) -> bytes:
    """A real IPv6 packet to all nodes with no next header: the host takes
    it in and answers nothing."""
    return bytes(IPv6(src="fe80::1", dst="ff02::1", nh=59, hlim=1) / Raw(body(index, 40)))


# ---------------------------------------------------------------- the daemon and the sockets

def daemon_pid(tunnel) -> int:
    """The vxbrd process itself: `ip netns exec`, unshare and the shell all
    exec into it, so the started pid is the daemon's."""
    pid = tunnel.daemon.pid
    with open(f"/proc/{pid}/comm") as comm:
        assert comm.read().strip() == "vxbrd", f"pid {pid} is not the daemon"
    return pid


def thread_states(pid: int) -> list[str]:
    states = []
    for task in os.listdir(f"/proc/{pid}/task"):
        try:
            with open(f"/proc/{pid}/task/{task}/stat") as stat:
                states.append(stat.read().rsplit(")", 1)[1].split()[0])
        except FileNotFoundError:
            pass
    return states


@contextlib.contextmanager
def stopped(pid: int):
    """The daemon stopped (every thread of it) for the body of the block,
    resumed afterwards, also when the block fails."""
    os.kill(pid, signal.SIGSTOP)
    try:
        wait_until(lambda: set(thread_states(pid)) == {"T"}, timeout=5,
                   what="every thread of the daemon to stop")
        yield
    finally:
        os.kill(pid, signal.SIGCONT)
    wait_until(lambda: "T" not in thread_states(pid), timeout=5,
               what="the daemon to resume")


@contextlib.contextmanager
def on_one_cpu():
    """The calling thread kept on one CPU, so that the datagrams it sends
    through the veth pair are delivered in the order they were sent."""
    before = os.sched_getaffinity(0)
    os.sched_setaffinity(0, {min(before)})
    try:
        yield
    finally:
        os.sched_setaffinity(0, before)


def roomy(sock: socket.socket) -> None:
    """A receive buffer the whole backlog fits in: the test drops nothing."""
    sock.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, 16 << 20)


def gre_queue_bytes(pid: int, address: str) -> int:
    """Bytes waiting in the receive queue of the raw GRE socket bound to an
    IPv4 address, in the namespace of process pid."""
    wanted = socket.inet_aton(address)[::-1].hex().upper()
    total = 0
    with open(f"/proc/{pid}/net/raw") as rows:
        next(rows)
        for row in rows:
            fields = row.split()
            local, protocol = fields[1].split(":")
            if int(protocol, 16) == 47 and local == wanted:
                total += int(fields[4].split(":")[1], 16)
    return total


def wait_for_quiet_queue(pid: int, address: str) -> None:
    """Waits until the daemon's receive queue stops growing: the backlog has
    been delivered to it."""
    seen = []

    def settled():
        seen.append(gre_queue_bytes(pid, address))
        return len(seen) >= 4 and seen[-1] > 0 and len(set(seen[-4:])) == 1

    wait_until(settled, timeout=5, interval=0.02, what="the GRE backlog to be queued")


def tap_tx_dropped(tunnel, device: str) -> int:
    """Frames the tap device dropped because its queue to the daemon was full."""
    text = tunnel.hub.ip("-j", "-s", "link", "show", "dev", device).stdout.decode()
    return json.loads(text)[0]["stats64"]["tx"]["dropped"]


def io_uring_completions(pid: int) -> int:
    """Frame writes completed through the daemon's io_uring rings so far."""
    total = 0
    for fd in os.listdir(f"/proc/{pid}/fd"):
        try:
            if os.readlink(f"/proc/{pid}/fd/{fd}") != "anon_inode:[io_uring]":
                continue
            with open(f"/proc/{pid}/fdinfo/{fd}") as info:
                for line in info:
                    if line.startswith("CqTail:"):
                        total += int(line.split()[1])
        except FileNotFoundError:
            pass
    return total


def collect(receive, count: int, timeout: float = 10.0) -> list:
    """Up to `count` items from receive(timeout), within `timeout` seconds
    in all, then anything more that arrives within a short quiet spell."""
    deadline = time.monotonic() + timeout
    out = []
    while len(out) < count:
        remaining = deadline - time.monotonic()
        if remaining <= 0:
            break
        got = receive(remaining)
        if got is None:
            break
        out.append(got)
    while True:
        extra = receive(0.3)
        if extra is None:
            return out
        out.append(extra)


def assert_sequence(got: list, expected: list, what: str) -> None:
    """got is exactly expected; a failure names the first frame that differs."""
    for index, (have, want) in enumerate(zip(got, expected)):
        if have != want:
            elsewhere = [i for i, w in enumerate(expected) if w == have]
            raise AssertionError(
                f"{what}: item {index} of {len(expected)} differs "
                f"(it is expected item {elsewhere} instead)\n"
                f"  got      {have!r:.240}\n  expected {want!r:.240}")
    assert len(got) == len(expected), \
        f"{what}: {len(got)} items arrived, {len(expected)} expected"


# ---------------------------------------------------------------- ingress

def test_ingress_backlog_reaches_the_taps_in_order(lab, vxbrd_binary, write_config):
    # -vv: the multicast rewrite line is an Info line.
    conf = write_config("tap0 1\ntap20 20\n")
    tunnel = build_tunnel(lab, vxbrd_binary, conf, ["tap0", "tap20"], args=["-vv"])
    pid = daemon_pid(tunnel)
    port = tunnel.gre_port()
    tap0, tap20 = tunnel.taps["tap0"], tunnel.taps["tap20"]
    for tap in (tap0, tap20):
        roomy(tap.sock)
    tap0_mac, tap20_mac = tunnel.tap_mac("tap0"), tunnel.tap_mac("tap20")

    # The clients are known before the backlog, so it adds no learning lines.
    learning = [
        (gre(ethernet(HOST, PLAIN_CLIENT, OPAQUE, body(0, 46))), tap0,
         "[cache] new device: 02:00:00:00:0c:01, peer: 192.0.2.2"),
        (gre(ethernet(HOST, KEYED_CLIENT, OPAQUE, body(0, 46)), key=77), tap0,
         "[cache] new device: 02:00:00:00:0c:02, peer: 192.0.2.2, grekey: 77"),
        (gre(dot1q(HOST, TAGGED_CLIENT, 20, OPAQUE, body(0, 46))), tap20,
         "[cache] new device: 02:00:00:00:0c:20, peer: 192.0.2.2, vlan: 20"),
    ]
    for datagram, tap, line in learning:
        port.send(datagram, HUB_IPV4)
        assert tap.receive() is not None
        tunnel.daemon.wait_for_log(line)
    for tap in (tap0, tap20):
        tap.drain()
        packet_socket_statistics(tap.sock)  # counters from zero
    before = tunnel.daemon.log()

    # IPv6 multicast in the middle of the backlog: untagged ones for tap0,
    # tagged ones for tap20, each rewritten to its tap's MAC.
    multicast_tap0 = {88, 95, 96, 103, 117}
    multicast_tap20 = {99, 110}
    datagrams = []
    expected = {"tap0": [], "tap20": []}
    rewrites = []
    for i in range(1, BACKLOG + 1):
        if i in multicast_tap0:
            packet = ipv6_all_nodes(i)
            datagrams.append(gre(ethernet(ALL_NODES, PLAIN_CLIENT, 0x86DD, packet)))
            expected["tap0"].append(ethernet(tap0_mac, PLAIN_CLIENT, 0x86DD, packet))
            rewrites.append((ALL_NODES, tap0_mac))
        elif i in multicast_tap20:
            packet = ipv6_all_nodes(i)
            group = f"33:33:ff:00:00:{i:02x}"
            datagrams.append(gre(dot1q(group, TAGGED_CLIENT, 20, 0x86DD, packet)))
            expected["tap20"].append(ethernet(tap20_mac, TAGGED_CLIENT, 0x86DD, packet))
            rewrites.append((group, tap20_mac))
        elif i % 4 == 1:
            # Tagged: the tag is taken out in the receive buffer itself.
            payload = body(i, size_of(i))
            datagrams.append(gre(dot1q(HOST, TAGGED_CLIENT, 20, OPAQUE, payload)))
            expected["tap20"].append(ethernet(HOST, TAGGED_CLIENT, OPAQUE, payload))
        elif i % 5 == 2:
            # Keyed, some with a sequence number too: longer GRE headers put
            # the frame at other offsets of its receive slot.
            frame = ethernet(HOST, KEYED_CLIENT, OPAQUE, body(i, size_of(i)))
            datagrams.append(gre(frame, key=1000 + i, sequence=i if i % 3 == 0 else None))
            expected["tap0"].append(frame)
        else:
            frame = ethernet(HOST, PLAIN_CLIENT, OPAQUE, body(i, size_of(i)))
            datagrams.append(gre(frame))
            expected["tap0"].append(frame)
    assert len(datagrams) == BACKLOG

    written_through_ring = io_uring_completions(pid)
    with stopped(pid):
        with on_one_cpu():
            for datagram in datagrams:
                port.send(datagram, HUB_IPV4)
        wait_for_quiet_queue(pid, HUB_IPV4)
    got = {"tap0": collect(tap0.receive, len(expected["tap0"])),
           "tap20": collect(tap20.receive, len(expected["tap20"]))}

    assert process_alive(pid)
    assert raw_gre_drops(pid).get(HUB_IPV4, 0) == 0, "the daemon's GRE socket overflowed"
    for tap in (tap0, tap20):
        assert packet_socket_statistics(tap.sock)[1] == 0, f"{tap.device}: the test dropped frames"
    assert_sequence(got["tap0"], expected["tap0"], "tap0")
    assert_sequence(got["tap20"], expected["tap20"], "tap20")
    # The backlog did go out in batches, through the rings of held writes.
    batched = io_uring_completions(pid) - written_through_ring
    assert batched >= BACKLOG // 2, f"only {batched} of {BACKLOG} frames written in batches"

    lines = [f"IPv6oEthernet Multicast Packet. Rewriting DMAC from {old} to {new}"
             for old, new in rewrites]
    log = wait_for_lines(tunnel.daemon, lines)
    assert log[len(before):] == lines


# ---------------------------------------------------------------- egress

def learn(tunnel, port, datagram: bytes, tap: str, line: str) -> None:
    port.send(datagram, HUB_IPV4)
    assert tunnel.taps[tap].receive() is not None
    tunnel.daemon.wait_for_log(line)


def inject_stopped(tunnel, pid: int, backlogs: dict) -> None:
    """Injects each tap's backlog (tap name -> frames) while the daemon is
    stopped; the taps queue every frame."""
    dropped = {tap: tap_tx_dropped(tunnel, tap) for tap in backlogs}
    with stopped(pid):
        for tap, frames in backlogs.items():
            port = tunnel.taps[tap]
            # Straight to the tap's queue, past the traffic control layer.
            port.sock.setsockopt(SOL_PACKET, PACKET_QDISC_BYPASS, 1)
            for frame in frames:
                port.inject(frame)
        for tap in backlogs:
            assert tap_tx_dropped(tunnel, tap) == dropped[tap], f"{tap} dropped frames"


def test_egress_unicast_backlogs_leave_in_order(lab, vxbrd_binary, write_config):
    conf = write_config("tap0 1\ntap20 20\n")
    tunnel = build_tunnel(lab, vxbrd_binary, conf, ["tap0", "tap20"], args=["-v"])
    pid = daemon_pid(tunnel)
    port = tunnel.gre_port()
    roomy(port.sock)
    # One client behind each tap: untagged without a key on tap0; on tap20
    # tagged and keyed, so the tag and the longer header are put in front of
    # each frame in its read slot.
    learn(tunnel, port, gre(ethernet(HOST, PLAIN_CLIENT, OPAQUE, body(0, 46))), "tap0",
          "[cache] new device: 02:00:00:00:0c:01, peer: 192.0.2.2")
    learn(tunnel, port, gre(dot1q(HOST, TAGGED_CLIENT, 20, OPAQUE, body(0, 46)), key=KEY),
          "tap20", "[cache] new device: 02:00:00:00:0c:20, peer: 192.0.2.2, grekey: 9, vlan: 20")
    before = tunnel.daemon.log()

    plain = [ethernet(PLAIN_CLIENT, HOST, OPAQUE, body(i, size_of(i)))
             for i in range(1, BACKLOG + 1)]
    keyed = [ethernet(TAGGED_CLIENT, HOST, OPAQUE, body(1000 + i, size_of(i + 7)))
             for i in range(1, BACKLOG + 1)]
    inject_stopped(tunnel, pid, {"tap0": plain, "tap20": keyed})
    got = collect(port.receive, 2 * BACKLOG)

    assert process_alive(pid)
    assert {source for source, _ in got} == {HUB_IPV4}
    # The two taps are read by threads of their own: each tap's datagrams
    # keep their order, however the two interleave.
    from_tap0 = [d for _, d in got if d[:4] == GRE_PLAIN]
    from_tap20 = [d for _, d in got if d[:4] != GRE_PLAIN]
    assert_sequence(from_tap0, [GRE_PLAIN + f for f in plain], "from tap0")
    assert_sequence(from_tap20, [gre_keyed(KEY) + tagged(f, 20) for f in keyed], "from tap20")
    assert log_through_fence(tunnel, "tap20", before) == []


def receive_addressed(port, timeout: float):
    """(destination address, GRE datagram) of the next datagram port's raw
    IPv4 socket receives, or None after timeout."""
    port.sock.settimeout(timeout)
    try:
        data = port.sock.recv(65535)
    except socket.timeout:
        return None
    return socket.inet_ntoa(data[16:20]), data[(data[0] & 0x0F) * 4:]


def test_egress_backlog_with_flood_copies_and_fragments_in_order(lab, vxbrd_binary,
                                                                  write_config):
    conf = write_config("tap0 1\ntap20 20\nmtu 1300\n")

    def second_access_point_and_big_tap(hub, ap):
        ap.add_address("ap0", f"{AP_B}/24")
        # Room for frames of up to 4000 bytes to be sent out of the tap.
        hub.ip("link", "set", "dev", "tap20", "mtu", "4000")

    tunnel = build_tunnel(lab, vxbrd_binary, conf, ["tap0", "tap20"], args=["-v"],
                          extra=second_access_point_and_big_tap)
    pid = daemon_pid(tunnel)
    # Unbound: sees the datagrams to both access point addresses, in order.
    port = tunnel.gre_port()
    roomy(port.sock)
    # Two access points with a client each on VLAN 20: A (192.0.2.2) keyed
    # 9, B (192.0.2.3) without a key. Each broadcast is flooded to both.
    learn(tunnel, port, gre(dot1q(FRAGMENT_HOST, FRAGMENT_CLIENT, 20, OPAQUE, body(0, 46)),
                            key=KEY), "tap20",
          "[cache] new device: 02:00:00:00:00:14, peer: 192.0.2.2, grekey: 9, vlan: 20")
    access_point_b = GrePort(tunnel.ap.name, bind=AP_B)
    learn(tunnel, access_point_b, gre(dot1q(FRAGMENT_HOST, B_CLIENT, 20, OPAQUE, body(0, 46))),
          "tap20", "[cache] new device: 02:00:00:00:0c:0b, peer: 192.0.2.3, vlan: 20")
    access_point_b.close()
    # The flood takes the peers in the table's order, the order the peers
    # report lists them in.
    peers = tunnel.control(b"peers").decode().splitlines()
    assert sorted(peers) == ["peer: 192.0.2.2, vlan: 20", "peer: 192.0.2.3, vlan: 20"]
    copy_header = {AP_IPV4: gre_keyed(KEY), AP_B: GRE_PLAIN}
    flood_order = [line.split(",")[0].removeprefix("peer: ") for line in peers]
    before = tunnel.daemon.log()

    broadcasts = {15, 52, 53, 99, 140, 186}
    # Position -> (IPv4 total length, ident): two, three, two and four pieces.
    big = {30: (1400, 0x6101), 54: (3000, 0x6102), 100: (1500, 0x6103), 160: (3900, 0x6104)}
    frames, expected = [], []
    for i in range(1, BACKLOG + 1):
        if i in broadcasts:
            frame = ethernet(BROADCAST, FRAGMENT_HOST, OPAQUE, body(i, size_of(i)))
            expected += [(peer, copy_header[peer] + tagged(frame, 20)) for peer in flood_order]
        elif i in big:
            header, payload = inner_packet(*big[i])
            frame = frame_of(header + payload)
            expected += [(AP_IPV4, tunnelled(piece)) for piece in pieces(header, payload)]
        elif i % 3 == 0:
            frame = ethernet(B_CLIENT, FRAGMENT_HOST, OPAQUE, body(i, size_of(i)))
            expected.append((AP_B, GRE_PLAIN + tagged(frame, 20)))
        else:
            # Up to the 1300-byte limit, which still goes whole.
            frame = ethernet(FRAGMENT_CLIENT, FRAGMENT_HOST, OPAQUE,
                             body(i, 1300 - 14 if i == 77 else size_of(i)))
            expected.append((AP_IPV4, gre_keyed(KEY) + tagged(frame, 20)))
        frames.append(frame)
    # Two copies of each broadcast; eleven pieces of the four big frames.
    assert len(expected) == BACKLOG + len(broadcasts) + 7

    inject_stopped(tunnel, pid, {"tap20": frames})
    got = collect(lambda timeout: receive_addressed(port, timeout), len(expected))

    assert process_alive(pid)
    assert_sequence(got, expected, "from tap20")
    assert log_through_fence(tunnel, "tap20", before) == []
