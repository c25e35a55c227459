"""The threads of the soak test (test_soak.py) and the state they share:
valid senders, tap readers, the access points' receiver of frames from the
taps, the injector of those frames, the rogue's flood, the control-socket
conversations and the sampler of the daemon's memory and descriptors."""

from __future__ import annotations

import itertools
import os
import random
import select
import socket
import struct
import threading
import traceback

from soak_traffic import (ACCESS_POINTS, EGRESS_MARK, INGRESS_MARK, Pacer, ap_of, client_mac,
                          delivered_frame, egress_datagram, egress_frame, expected_extra,
                          ingress_datagram, mac_text, parse_clients, profile_of, valid_payload)
from tunnel_lab import (PACKET_OUTGOING, GrePort, control_connect, control_finish, control_read,
                        control_request, open_descriptors, resident_kib)

UNKNOWN = b"Unknown Request: 'stats'\nValid Requests: peers\n                clients\n"


class Soak:
    """The shared state of the traffic threads; every thread's failure is
    recorded in `errors` rather than lost."""

    def __init__(self, clients: int):
        self.clients = clients
        self.sequence = itertools.count()
        self.egress_sequence = itertools.count()
        self.sent = {}          # seq -> client, recorded before the send
        self.delivered = {}     # seq -> tap it arrived on
        self.injected = {}      # egress seq -> client
        self.egress_got = {}    # egress seq -> access point index
        self.anomalies = []     # (where, what) of frames that should not be there
        self.foreign_at_aps = 0
        self.flood_counts = {"sent": 0}
        self.queries = {"clients": 0, "peers": 0, "unknown": 0}
        self.delays = {}        # sender -> longest time it was held up, seconds
        self.errors = []
        self.flood_began = threading.Event()
        self.stop_load = threading.Event()
        self.stop_readers = threading.Event()
        self.control_lock = threading.Lock()  # held while a control connection is open
        self.threads = []

    def spawn(self, name: str, target, *args) -> threading.Thread:
        def body():
            try:
                target(*args)
            except BaseException:
                self.errors.append(f"{name}: {traceback.format_exc()}")
        thread = threading.Thread(target=body, name=name, daemon=True)
        thread.start()
        self.threads.append(thread)
        return thread

    def anomaly(self, where: str, what: object) -> None:
        if len(self.anomalies) < 1000:
            self.anomalies.append((where, what))


def send_valid(soak: Soak, port: GrePort, destination: str, clients: list, rate: float,
               once: bool) -> None:
    """Frames of these clients, in shuffled rounds, at `rate` per second:
    one round (learning) or until the load stops."""
    pacer = Pacer(rate)
    order = list(clients)
    rng = random.Random(clients[0])
    name = f"{'learn' if once else 'send'} {destination} {clients[0] % len(ACCESS_POINTS)}"
    while True:
        rng.shuffle(order)
        for client in order:
            if not once and soak.stop_load.is_set():
                return
            seq = next(soak.sequence)
            soak.sent[seq] = client
            port.send(ingress_datagram(profile_of(client), client_mac(client),
                                       valid_payload(INGRESS_MARK, client, seq)), destination)
            pacer.tick()
            soak.delays[name] = pacer.longest_delay
        if once:
            return


def read_tap(soak: Soak, name: str, sock: socket.socket) -> None:
    """Every frame the daemon writes to tap `name`: valid frames are matched
    byte for byte to what was sent; anything else is an anomaly."""
    sock.settimeout(0.2)
    while not soak.stop_readers.is_set():
        try:
            data, address = sock.recvfrom(65535)
        except socket.timeout:
            continue
        if address[2] == PACKET_OUTGOING:  # our own injected frames
            continue
        if len(data) < 30 or data[14:18] != INGRESS_MARK:
            soak.anomaly(name, data[:64])
            continue
        client, seq, _ = struct.unpack_from("!III", data, 18)
        if (client >= soak.clients or data != delivered_frame(
                client_mac(client), valid_payload(INGRESS_MARK, client, seq))):
            soak.anomaly(name, data[:64])
        elif seq in soak.delivered:
            soak.anomaly(name, f"frame {seq} delivered twice")
        else:
            soak.delivered[seq] = name


def receive_egress(soak: Soak, ports: list) -> None:
    """GRE that reaches the access points: frames sent from the taps are
    matched byte for byte; the rest (relayed flood) is only counted."""
    socks = {port.sock: (index, port.family == socket.AF_INET) for index, port in enumerate(ports)}
    while not soak.stop_readers.is_set():
        ready, _, _ = select.select(list(socks), [], [], 0.2)
        for sock in ready:
            index, ipv4 = socks[sock]
            data = sock.recv(65535)
            if ipv4:
                data = data[(data[0] & 0x0F) * 4:]
            at = data.find(EGRESS_MARK)
            if at < 0:
                soak.foreign_at_aps += 1
                continue
            client, seq, _ = struct.unpack_from("!III", data, at + 4)
            expected = egress_datagram(profile_of(client), client_mac(client),
                                       valid_payload(EGRESS_MARK, client, seq))
            if data != expected or ap_of(client) != index or seq in soak.egress_got:
                soak.anomaly(f"access point {index}", data[:64])
            else:
                soak.egress_got[seq] = index


def inject_egress(soak: Soak, taps: dict, rate: float) -> None:
    """Frames from the taps to randomly chosen learned clients."""
    pacer = Pacer(rate)
    rng = random.Random(99)
    while not soak.stop_load.is_set():
        client = rng.randrange(soak.clients)
        seq = next(soak.egress_sequence)
        soak.injected[seq] = client
        taps[profile_of(client).tap].inject(
            egress_frame(client_mac(client), valid_payload(EGRESS_MARK, client, seq)))
        pacer.tick()
        soak.delays["egress"] = pacer.longest_delay


def flood(soak: Soak, ports: dict, pool: list, rate: float) -> None:
    """The rogue host's malformed and random GRE, cycling through `pool`."""
    pacer = Pacer(rate)
    counts = soak.flood_counts
    for n in itertools.count():
        if soak.stop_load.is_set():
            return
        item = pool[n % len(pool)]
        ports[item.ipv6].send(item.datagram, item.destination)
        counts["sent"] += 1
        if item.warns is not None:
            counts[item.warns] = counts.get(item.warns, 0) + 1
        soak.flood_began.set()
        pacer.tick()
        soak.delays["flood"] = pacer.longest_delay


def query_loop(soak: Soak, pid: int, peers: bytes) -> None:
    """Control-socket conversations in a loop, each ended by a half-close:
    the clients report (always exactly the learned clients with their peers,
    VLANs and keys, counters never going back), three peers reports on one
    connection, an unknown request."""
    identity = {mac_text(client_mac(c)): (ACCESS_POINTS[ap_of(c)], expected_extra(profile_of(c)))
                for c in range(soak.clients)}
    last = {}
    for n in itertools.count():
        if soak.stop_load.wait(0.1):
            return
        with soak.control_lock:
            kind = n % 4
            if kind in (0, 2):
                report = parse_clients(control_request(pid, b"clients", timeout=10).decode())
                assert set(report) == set(identity), "the clients report lost or gained clients"
                for mac, record in report.items():
                    assert record[:2] == identity[mac], (mac, record)
                    counters = record[2:]
                    assert all(a >= b for a, b in zip(counters, last.get(mac, counters))), mac
                    last[mac] = counters
                soak.queries["clients"] += 1
            elif kind == 1:
                s = control_connect(pid)
                replies = []
                for request in (b"peers", b"PeErS\n", b"Peers"):
                    s.sendall(request)
                    replies.append(control_read(s, len(peers)))
                assert control_finish(s) == b""
                for reply in replies:
                    assert sorted(reply.splitlines()) == sorted(peers.splitlines()), reply
                soak.queries["peers"] += 3
            else:
                assert control_request(pid, b"stats") == UNKNOWN
                soak.queries["unknown"] += 1


def sample(pid: int) -> tuple:
    return resident_kib(pid), open_descriptors(pid)


def descriptor_targets(pid: int, fds) -> dict:
    """What each of these descriptors of process pid refers to, for messages."""
    out = {}
    for fd in sorted(fds):
        try:
            out[fd] = os.readlink(f"/proc/{pid}/fd/{fd}")
        except OSError as error:
            out[fd] = str(error)
    return out


def sample_loop(soak: Soak, pid: int, samples: list) -> None:
    """RSS and descriptors once a second, with no control connection open."""
    while not soak.stop_load.wait(1.0):
        with soak.control_lock:
            samples.append(sample(pid))
