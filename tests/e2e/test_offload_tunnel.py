"""Offloads on both daemons change nothing the tunnel carries: a TCP
transfer through a two-daemon tunnel arrives intact, the GRE datagrams on the
underlay have the same forms (sizes, GRE header, fragmentation) as with
offloads off, and the hub counts one packet per segment it sent. The same
with an "mtu" setting that makes the daemons cut every full segment in two.

    ns "ap"                                          ns "hub"
    +--------------------------------+               +--------------------------------+
    | tap0 203.0.113.2/24 (MTU 1500) |               | tap0 203.0.113.1/24 (MTU 1500) |
    |   vxbrd -f -s 192.0.2.1        |   GRE (47)    |   vxbrd -f                     |
    |   receiver of 4 MB             |               |   sender of 4 MB               |
    | ap0 192.0.2.2/24  -------------+---------------+--- hub0 192.0.2.1/24 (capture) |
    +--------------------------------+               +--------------------------------+

The hub sends, so its tap hands its daemon super-frames to split; the access
point's daemon merges what arrives before writing it to its tap.
"""

import collections
import hashlib
import random
import socket
import struct
import subprocess
import sys

import pytest

import netns
from tunnel_lab import control_request, in_namespace

SIZE = 4 * 1024 * 1024
PORT = 5002
SO_RCVBUFFORCE = 33
ETH_P_ALL = 0x0003
PACKET_OUTGOING = 4

RECEIVER = """
import hashlib, socket
s = socket.socket()
s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
s.bind(("203.0.113.2", %d))
s.listen(1)
s.settimeout(30)
print("listening", flush=True)
c, _ = s.accept()
c.settimeout(30)
digest, count = hashlib.sha256(), 0
while True:
    data = c.recv(65536)
    if not data:
        break
    digest.update(data)
    count += len(data)
print(count, digest.hexdigest(), flush=True)
""" % PORT

SENDER = """
import socket, sys
data = sys.stdin.buffer.read()
c = socket.create_connection(("203.0.113.2", %d), timeout=30)
c.sendall(data)
c.close()
""" % PORT


def build(lab, vxbrd_binary, write_config, extra):
    hub = lab.namespace("hub")
    ap = lab.namespace("ap")
    hub.add_veth("hub0", peer=ap, peer_name="ap0")
    hub.add_address("hub0", "192.0.2.1/24")
    ap.add_address("ap0", "192.0.2.2/24")
    hub.up("hub0")
    ap.up("ap0")
    for namespace, address in ((hub, "203.0.113.1/24"), (ap, "203.0.113.2/24")):
        namespace.add_tap("tap0")
        namespace.ip("link", "set", "dev", "tap0", "mtu", "1500")
        namespace.add_address("tap0", address)
    ap.exec(["ping", "-c", "1", "-W", "2", "192.0.2.1"])
    hub_conf = write_config(f"tap0 1\nmss 1380\n{extra}", name="hub.conf")
    ap_conf = write_config(f"tap0 1\nmss 1360\n{extra}", name="ap.conf")
    hub_daemon = lab.start_vxbrd(hub, vxbrd_binary, ["-f", "-v", "-c", hub_conf])
    ap_daemon = lab.start_vxbrd(ap, vxbrd_binary, ["-f", "-v", "-s", "192.0.2.1", "-c", ap_conf])
    for daemon in (hub_daemon, ap_daemon):
        daemon.wait_for_log("tap0 ready")
    ap_daemon.wait_for_log("Sending all traffic to 192.0.2.1")
    return hub, ap, hub_daemon, ap_daemon


def underlay_capture(namespace: str) -> socket.socket:
    def make() -> socket.socket:
        s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_ALL))
        s.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, 64 * 1024 * 1024)
        s.bind(("hub0", 0))
        return s

    return in_namespace(namespace, make)


def hub_datagrams(capture: socket.socket) -> list[bytes]:
    """The IPv4 GRE datagrams the hub sent, outer IPv4 header first."""
    out = []
    capture.settimeout(0.5)
    while True:
        try:
            data, address = capture.recvfrom(70000)
        except socket.timeout:
            return out
        if address[2] == PACKET_OUTGOING and data[12:14] == b"\x08\x00" and data[23] == 47:
            out.append(data[14:])


def form(datagram: bytes) -> tuple:
    """What must not change: outer length, GRE header, inner frame length,
    and the inner IPv4 fragment flags and offset."""
    outer = (datagram[0] & 0x0F) * 4
    gre = datagram[outer:outer + 4]
    inner = datagram[outer + 4:]
    fragment = None
    if inner[12:14] == b"\x08\x00":
        fragment = struct.unpack_from("!H", inner, 20)[0] & 0x3FFF
    return (len(datagram), gre.hex(), len(inner), fragment)


def starts_a_frame(datagram: bytes) -> bool:
    """A unicast frame, or the first piece of one: what the client counters count."""
    inner = datagram[(datagram[0] & 0x0F) * 4 + 4:]
    if inner[0] & 1:
        return False
    return inner[12:14] != b"\x08\x00" or (struct.unpack_from("!H", inner, 20)[0] & 0x1FFF) == 0


def packets_out(daemon) -> int:
    """Packets out of every client the daemon reports, summed."""
    report = control_request(daemon.pid, b"clients").decode()
    return sum(int(l.split("packets out: ")[1]) for l in report.splitlines()
               if "packets out: " in l)


def listen(ap) -> subprocess.Popen:
    """The access point's receiver, once it listens."""
    receiver = ap.popen([sys.executable, "-c", RECEIVER], stdout=subprocess.PIPE)
    assert receiver.stdout.readline() == b"listening\n"
    return receiver


def send_intact(hub, receiver: subprocess.Popen, data: bytes) -> None:
    """Sends data from the hub; the receiver must have got exactly it."""
    sender = hub.popen([sys.executable, "-c", SENDER], stdin=subprocess.PIPE)
    sender.stdin.write(data)
    sender.stdin.close()
    assert sender.wait(timeout=60) == 0
    line = receiver.stdout.readline().decode().split()
    assert receiver.wait(timeout=30) == 0
    assert line == [str(len(data)), hashlib.sha256(data).hexdigest()]


def transfer(vxbrd_binary, write_config, extra):
    """Datagrams the hub sent, the packets out its clients report, and the
    access point daemon's log, for one transfer in a lab of its own."""
    with netns.Lab() as lab:
        return transfer_in(lab, vxbrd_binary, write_config, extra)


def transfer_in(lab, vxbrd_binary, write_config, extra):
    hub, ap, hub_daemon, ap_daemon = build(lab, vxbrd_binary, write_config, extra)
    ap.exec(["ping", "-c", "1", "-W", "2", "203.0.113.1"])
    receiver = listen(ap)
    before = packets_out(hub_daemon)
    capture = underlay_capture(hub.name)
    send_intact(hub, receiver, random.Random(16).randbytes(SIZE))
    datagrams = hub_datagrams(capture)
    capture.close()
    counted = packets_out(hub_daemon) - before
    for daemon in (hub_daemon, ap_daemon):
        assert not [l for l in daemon.log() if "cannot be split" in l or "short write" in l]
    return datagrams, counted, ap_daemon.log()


@pytest.mark.parametrize("mtu", ["", "mtu 1280\n"], ids=["whole", "fragmented"])
def test_offloads_leave_the_wire_as_it_was(vxbrd_binary, write_config, mtu):
    on, on_counted, log = transfer(vxbrd_binary, write_config, mtu)
    assert not [l for l in log if "offloads off" in l], "the kernel refused the offloads"
    off, off_counted, _ = transfer(vxbrd_binary, write_config, mtu + "offload-disable\n")

    # Every datagram the hub sent started a frame it counted, or continued one.
    assert on_counted == sum(starts_a_frame(d) for d in on)
    assert off_counted == sum(starts_a_frame(d) for d in off)

    # The forms that carry the transfer (those seen often) are the same, and
    # no form appears with offloads that the tunnel does not make without.
    on_forms = collections.Counter(form(d) for d in on)
    off_forms = collections.Counter(form(d) for d in off)
    common = lambda forms: {f for f, n in forms.items() if n >= 20}
    assert common(on_forms) == common(off_forms), (on_forms.most_common(5), off_forms.most_common(5))
    limit = 1280 if mtu else 1438
    for f in on_forms:
        _, gre, inner, fragment = f
        assert gre == "00006558"
        assert f[0] <= 1480
        # Whole frames fit the limit; longer ones leave only as fragments.
        assert inner <= limit or fragment, f
    if mtu:
        # Full segments are cut in two: a first piece of (1280 - 20) & ~7
        # payload bytes with MF set, then the rest.
        assert (4 + 20 + 14 + 20 + 1256, "00006558", 14 + 20 + 1256, 0x2000) in common(on_forms)
