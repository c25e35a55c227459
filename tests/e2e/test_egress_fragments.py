"""Frames too big for the tunnel, sent through the daemon: the host's IPv4
packet read from a tap is cut into inner IPv4 fragments, each a whole
Ethernet frame of its own in GRE, and the access point can put the packet
together again. tshark, which knows nothing of the daemon, captures in the
access point's namespace and reassembles; a raw GRE socket beside it sees
the exact bytes.

    ap ns                                            hub ns: vxbrd -f -vvv, "mtu 1300"
    +------------------------------------+           +---------------------------------+
    | ap0 192.0.2.2                      |  GRE 47   | hub0 192.0.2.1                  |
    |  tshark -i ap0 -w pcap             |-----------|  tap20 (VLAN 20, MTU 4000)      |
    |  GrePort (raw GRE)                 |           |   <- TapPort.inject: IPv4 frames|
    +------------------------------------+           +---------------------------------+

The client sits behind the access point on VLAN 20 with GRE key 9, so every
piece is tagged and keyed. The size limit is the smaller of the "mtu"
setting and the GRE socket's 1480 less 46: 1300 bytes of frame; each piece
carries (1300 - 20) & ~7 = 1280 payload bytes.
"""

import shutil
import struct
import subprocess
import threading
import time

import pytest

from netns import wait_until
from tunnel_lab import (AP_IPV4, HUB_IPV4, GrePort, build_tunnel, dot1q, ethernet, gre,
                        log_through_fence, mac_bytes)

CLIENT = "02:00:00:00:00:14"
HOST = "02:00:00:00:00:99"
OPAQUE = 0x88b5
KEY = 9
LIMIT = 1300
PER_PIECE = (LIMIT - 20) & ~7
INNER_SRC = bytes([203, 0, 113, 1])
INNER_DST = bytes([203, 0, 113, 2])


def full_checksum(header: bytes) -> int:
    total = sum(struct.unpack("!10H", header))
    while total > 0xFFFF:
        total = (total & 0xFFFF) + (total >> 16)
    return ~total & 0xFFFF


def one_fold_checksum(header: bytes) -> int:
    """The daemon's fragment checksum: one fold, a carry out of it dropped."""
    words = struct.unpack("!10H", header)
    total = sum(words) - words[5]
    return ~(total + (total >> 16)) & 0xFFFF


def inner_packet(length: int, ident: int) -> tuple[bytes, bytes]:
    """A DF-marked IPv4 header of protocol 253 (nothing dissects it further)
    with a correct checksum, and a patterned payload."""
    header = bytearray(struct.pack("!BBHHHBBH4s4s", 0x45, 0, length, ident, 0x4000, 64, 253, 0,
                                   INNER_SRC, INNER_DST))
    struct.pack_into("!H", header, 10, full_checksum(bytes(header)))
    payload = bytes((i * 7 + i // 251) & 0xFF for i in range(length - 20))
    return bytes(header), payload


def pieces(header: bytes, payload: bytes) -> list[bytes]:
    """The inner IPv4 pieces the daemon sends for this packet: 20-byte header
    (DF cleared, MF on all but the last, offset in 8-byte units, one-fold
    checksum) and PER_PIECE payload bytes each."""
    out = []
    for offset in range(0, len(payload), PER_PIECE):
        chunk = payload[offset:offset + PER_PIECE]
        last = offset + PER_PIECE >= len(payload)
        h = bytearray(header)
        struct.pack_into("!HHH", h, 2, 20 + len(chunk), struct.unpack_from("!H", h, 4)[0],
                         (offset // 8) | (0 if last else 0x2000))
        struct.pack_into("!H", h, 10, 0)
        checksum = one_fold_checksum(bytes(h))
        # Chosen packets only: the one-fold rule must give the right checksum here.
        assert checksum == full_checksum(bytes(h)), "pick another ident"
        struct.pack_into("!H", h, 10, checksum)
        out.append(bytes(h) + chunk)
    return out


def frame_of(packet: bytes) -> bytes:
    return ethernet(CLIENT, HOST, 0x0800, packet)


def tunnelled(piece: bytes) -> bytes:
    """GRE datagram of one piece: keyed, tagged with VLAN 20."""
    return (b"\x20\x00\x65\x58" + struct.pack("!I", KEY) + mac_bytes(CLIENT) + mac_bytes(HOST)
            + struct.pack("!HHH", 0x8100, 20, 0x0800) + piece)


FIELDS = ("ip.checksum.status", "ip.id", "ip.flags.mf", "ip.frag_offset", "ip.len", "ip.src",
          "ip.dst", "gre.key", "vlan.id", "ip.reassembled.length", "data.data")


def dissect(pcap) -> list[dict]:
    """One row per GRE datagram that carried Ethernet (the capture's probes
    carry another protocol type)."""
    result = subprocess.run(
        ["tshark", "-r", str(pcap), "-o", "ip.defragment:TRUE", "-o", "ip.check_checksum:TRUE",
         "-Y", "gre.proto == 0x6558", "-T", "fields", "-E", "separator=/t",
         *[a for f in FIELDS for a in ("-e", f)]],
        capture_output=True, text=True, timeout=30, check=True)
    rows = []
    for line in result.stdout.splitlines():
        values = line.split("\t")
        rows.append(dict(zip(FIELDS, values + [""] * (len(FIELDS) - len(values)))))
    return rows


def inner(row: dict, field: str) -> str:
    """The inner IPv4 layer's value: the last of tshark's comma-separated list."""
    return row[field].split(",")[-1]


class LiveCapture:
    """tshark capturing GRE on the access point's ap0 into a pcap file.

    tshark says "Capturing on" a moment before its filter sees packets, so the
    capture is only trusted once it has printed a probe: GRE datagrams of a
    protocol type nobody handles, sent from the hub until one shows. The
    probes also reach the access point's raw GRE sockets; receivers made
    before the capture must drain them."""

    PROBE = gre(b"probe", protocol=0x88B6)

    def __init__(self, tunnel, pcap):
        self.tunnel = tunnel
        self.pcap = pcap
        self.process = None
        self.lines = []

    def __enter__(self) -> "LiveCapture":
        self.process = self.tunnel.ap.popen(
            ["tshark", "-i", "ap0", "-f", "ip proto 47", "-l", "-P", "-w", str(self.pcap)],
            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        reader = threading.Thread(target=self._read, daemon=True)
        reader.start()
        prober = GrePort(self.tunnel.hub.name)
        try:
            deadline = time.monotonic() + 20
            while not self.lines:
                assert self.process.poll() is None, "tshark ended early"
                assert time.monotonic() < deadline, "tshark never saw a probe"
                prober.send(self.PROBE, AP_IPV4)
                time.sleep(0.1)
        finally:
            prober.close()
        self.probes = len(self.lines)
        return self

    def _read(self) -> None:
        for line in self.process.stdout:
            self.lines.append(line)

    def wait_for(self, datagrams: int, timeout: float = 15) -> None:
        """Waits until tshark has printed `datagrams` packets beyond the probes."""
        wait_until(lambda: len(self.lines) >= self.probes + datagrams, timeout,
                   what=f"{datagrams} datagrams in the capture")

    def __exit__(self, *exc) -> None:
        # SIGTERM: tshark closes the file properly before it exits.
        self.process.terminate()
        self.process.wait(timeout=15)


@pytest.fixture
def tshark_present():
    if shutil.which("tshark") is None:
        pytest.fail("tshark is not installed (apt-get install tshark)")


def test_big_ipv4_frames_are_cut_and_reassemble_at_the_access_point(
        lab, vxbrd_binary, write_config, tmp_path, tshark_present):
    conf = write_config("tap0 1\ntap20 20\nmtu 1300\n")

    def big_tap(hub, ap):
        # Room for frames of up to 4000 bytes to be sent out of the tap.
        hub.ip("link", "set", "dev", "tap20", "mtu", "4000")

    tunnel = build_tunnel(lab, vxbrd_binary, conf, ["tap0", "tap20"], extra=big_tap)
    port = tunnel.gre_port()
    learned = dot1q(HOST, CLIENT, 20, OPAQUE, bytes(46))
    port.send(gre(learned, key=KEY), HUB_IPV4)
    tunnel.daemon.wait_for_log(
        "[cache] new device: 02:00:00:00:00:14, peer: 192.0.2.2, grekey: 9, vlan: 20")
    tunnel.taps["tap20"].drain()

    # Two pieces, two pieces, three pieces; and one that fits goes whole.
    packets = [inner_packet(length, ident)
               for length, ident in ((1400, 0x5101), (1500, 0x5102), (3000, 0x5103))]
    small = inner_packet(1286, 0x5104)  # a 1300-byte frame: exactly the limit
    expected = [tunnelled(p) for header, payload in packets for p in pieces(header, payload)]
    expected.append(tunnelled(small[0] + small[1]))
    assert len(expected) == 8

    pcap = tmp_path / "egress.pcap"
    with LiveCapture(tunnel, pcap) as capture:
        assert {d for _, d in port.receive_all(quiet=0.2)} == {LiveCapture.PROBE}
        started = time.monotonic()
        for header, payload in packets + [small]:
            tunnel.taps["tap20"].inject(frame_of(header + payload))
        got = [port.receive() for _ in expected]
        assert got == [(HUB_IPV4, d) for d in expected]
        assert port.receive(0.3) is None
        capture.wait_for(len(expected))
        assert time.monotonic() - started < 15
    # The frames went out in pieces without a single warning.
    assert not [line for line in tunnel.daemon.log() if "can't fragment" in line
                or "packet too big" in line]

    rows = dissect(pcap)
    assert len(rows) == len(expected)
    for row in rows:
        # Outer and inner IPv4 headers all check out.
        assert set(row["ip.checksum.status"].split(",")) == {"1"}, row
        assert row["gre.key"] == "0x00000009", row
        assert row["vlan.id"] == "20", row
        assert (inner(row, "ip.src"), inner(row, "ip.dst")) == ("203.0.113.1", "203.0.113.2")
    by_id: dict = {}
    for row in rows:
        by_id.setdefault(int(inner(row, "ip.id"), 16), []).append(row)
    for (header, payload), ident, count in zip(packets, (0x5101, 0x5102, 0x5103), (2, 2, 3)):
        got_rows = by_id[ident]
        assert len(got_rows) == count
        assert [inner(r, "ip.flags.mf") for r in got_rows] == ["1"] * (count - 1) + ["0"]
        assert [int(inner(r, "ip.frag_offset")) for r in got_rows] == \
            [i * PER_PIECE // 8 for i in range(count)]
        final = got_rows[-1]
        assert final["ip.reassembled.length"] == str(len(payload)), final
        assert final["data.data"] == payload.hex(), f"{ident:#x}: reassembled payload differs"
    whole = by_id[0x5104]
    assert len(whole) == 1
    assert inner(whole[0], "ip.len") == "1286"
    assert whole[0]["data.data"] == small[1].hex()


def test_big_frames_that_are_not_ipv4_are_dropped_with_a_warning(lab, vxbrd_binary, write_config):
    conf = write_config("tap0 1\ntap20 20\nmtu 1300\n")
    tunnel = build_tunnel(lab, vxbrd_binary, conf, ["tap0", "tap20"])
    port = tunnel.gre_port()
    port.send(gre(dot1q(HOST, CLIENT, 20, OPAQUE, bytes(46)), key=KEY), HUB_IPV4)
    tunnel.daemon.wait_for_log(
        "[cache] new device: 02:00:00:00:00:14, peer: 192.0.2.2, grekey: 9, vlan: 20")
    before = tunnel.daemon.log()
    tap20 = tunnel.taps["tap20"]
    tap20.inject(ethernet(CLIENT, HOST, OPAQUE, bytes(1301 - 14)))
    # An IPv4 packet inside a tag that the host added is not looked into.
    tagged, payload = inner_packet(1400, 0x5201)
    tap20.inject(dot1q(CLIENT, HOST, 77, 0x0800, tagged + payload))
    fits = ethernet(CLIENT, HOST, OPAQUE, bytes(1300 - 14))
    tap20.inject(fits)
    assert port.receive() == (HUB_IPV4, b"\x20\x00\x65\x58" + struct.pack("!I", KEY)
                              + fits[:12] + struct.pack("!HH", 0x8100, 20) + fits[12:])
    assert port.receive(0.3) is None
    assert log_through_fence(tunnel, "tap20", before) == [
        "hub0 (ip://192.0.2.1): can't fragment non-IPv4 PDU"] * 2
