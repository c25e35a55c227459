"""Inner IPv4 fragments as they leave a real GRE socket, checked by tshark.

    namespace "send"                           namespace "sink"
    +--------------------------------+         +-----------------------------+
    | fragment_probe                 |  veth   | AF_PACKET capture -> pcap   |
    |  lumora::vif::IP on 192.0.2.1  |---------|  192.0.2.2                  |
    |  (or 2001:db8:f::1) -> send()  |         |  2001:db8:f::2              |
    +--------------------------------+         +-----------------------------+

fragment_probe puts one Ethernet frame (as a tap read leaves it) through the
daemon's send path onto a raw GRE socket; the sink records what arrives.
tshark, which knows nothing of the daemon, then dissects the capture: GRE,
the optional 802.1Q tag, the inner IPv4 pieces, their header checksums
(ip.check_checksum) and the reassembled packet (ip.defragment). For frame sizes where the daemon's stop rule loses
nothing, the reassembled payload must equal the original; the sizes that do
lose a tail, and a header whose one-fold checksum drops a carry, are checked
as the daemon is meant to send them.

Needs root, tshark, and fragment_probe (built next to the daemon: the
directory of $VXBRD_BINARY, or $VXBRD_FRAGMENT_PROBE).
"""

import os
import shutil
import subprocess
import sys
import time
from pathlib import Path

import pytest

KEY = 0x00BEEF01
INNER_SRC = bytes([198, 51, 100, 1])
INNER_DST = bytes([198, 51, 100, 2])
MACS = bytes.fromhex("02005e000002" "02005e000001")


# ---------------------------------------------------------------- prerequisites

def _probe_path():
    explicit = os.environ.get("VXBRD_FRAGMENT_PROBE")
    if explicit:
        return Path(explicit)
    binary = os.environ.get("VXBRD_BINARY")
    if binary:
        return Path(binary).resolve().parent / "fragment_probe"
    return Path(__file__).resolve().parents[2] / "build" / "fragment_probe"


@pytest.fixture(scope="module")
def probe():
    if os.geteuid() != 0:
        pytest.fail("test_fragments_tshark needs root (network namespaces, raw sockets)")
    if shutil.which("tshark") is None:
        pytest.fail("tshark is not installed (apt-get install tshark)")
    path = _probe_path()
    if not os.access(path, os.X_OK):
        pytest.fail(f"fragment_probe not found at {path}: build the fragment_probe target "
                    "and set VXBRD_BINARY or VXBRD_FRAGMENT_PROBE")
    return path


def _run(*args, timeout=20, check=True):
    return subprocess.run(list(args), capture_output=True, text=True, timeout=timeout,
                          check=check)


# Echo requests sent with scapy from inside a namespace (the machines need no
# ping binary); bounded in attempts and time.
_ECHO = """
import sys, time
from scapy.all import ICMP, IP, IPv6, ICMPv6EchoRequest, conf, sr1
conf.verb = 0
for address in sys.argv[1:]:
    if ":" in address:
        request = IPv6(dst=address) / ICMPv6EchoRequest()
    else:
        request = IP(dst=address) / ICMP()
    for attempt in range(20):
        if sr1(request, timeout=0.5) is not None:
            break
        time.sleep(0.1)
    else:
        sys.exit(f"{address} does not answer")
"""


def _wait_for_echo(namespace, *addresses):
    result = _run("ip", "netns", "exec", namespace, sys.executable, "-c", _ECHO, *addresses,
                  timeout=60, check=False)
    if result.returncode != 0:
        pytest.fail(f"underlay not ready in {namespace}: {result.stderr.strip()}")


@pytest.fixture
def link(tmp_path):
    """Two namespaces joined by a veth pair; always removed again."""
    tag = f"{os.getpid() % 100000}"
    sender, sink = f"vxfs{tag}", f"vxfk{tag}"
    veth_s, veth_k = f"vfs{tag}", f"vfk{tag}"
    created = []
    try:
        for ns in (sender, sink):
            _run("ip", "netns", "add", ns)
            created.append(ns)
        _run("ip", "link", "add", veth_s, "netns", sender, "type", "veth",
             "peer", "name", veth_k, "netns", sink)
        for ns, dev, v4, v6 in ((sender, veth_s, "192.0.2.1/24", "2001:db8:f::1/64"),
                                (sink, veth_k, "192.0.2.2/24", "2001:db8:f::2/64")):
            _run("ip", "-n", ns, "addr", "add", v4, "dev", dev)
            _run("ip", "-n", ns, "-6", "addr", "add", v6, "dev", dev, "nodad")
            _run("ip", "-n", ns, "link", "set", "lo", "up")
            _run("ip", "-n", ns, "link", "set", dev, "up")
        # The underlay first: both families must answer before GRE is sent.
        _wait_for_echo(sender, "192.0.2.2", "2001:db8:f::2")
        yield {"sender": sender, "sink": sink, "veth_s": veth_s, "veth_k": veth_k,
               "dir": tmp_path}
    finally:
        for ns in reversed(created):
            subprocess.run(["ip", "netns", "del", ns], capture_output=True, timeout=20)


# --------------------------------------------------------- the daemon's rules

def size_limit(mtu, keyed, setting):
    limit = mtu - 46 + (0 if keyed else 4)
    return min(setting, limit) if setting else limit


def pieces(packet_length, limit):
    """(payload offset, total length, last) of every piece the daemon sends."""
    stride, per_piece = limit & ~7, (limit - 20) & ~7
    out, i = [], 0
    while True:
        offset = i * per_piece
        last = packet_length - offset - 20 <= per_piece
        out.append((offset, packet_length - offset if last else per_piece + 20, last))
        if stride * (i + 1) >= packet_length:
            return out
        i += 1


def loses_nothing(packet_length, limit):
    sent = pieces(packet_length, limit)
    covered = sum(max(total - 20, 0) for _, total, _ in sent)
    return covered == packet_length - 20 and all(total > 20 for _, total, _ in sent)


def one_fold_is_exact(header):
    """True when the daemon's one-fold checksum equals the full one."""
    words = [header[i] << 8 | header[i + 1] for i in range(0, 20, 2) if i != 10]
    total = sum(words)
    full = total
    while full > 0xFFFF:
        full = (full & 0xFFFF) + (full >> 16)
    return (total + (total >> 16)) & 0xFFFF == full


def ipv4_checksum(header):
    total = sum(header[i] << 8 | header[i + 1] for i in range(0, len(header), 2))
    while total > 0xFFFF:
        total = (total & 0xFFFF) + (total >> 16)
    return ~total & 0xFFFF


def inner_packet(length, ident, tos=0, ttl=64, proto=253, src=INNER_SRC, dst=INNER_DST):
    """IPv4 header (DF set, correct checksum) and a patterned payload."""
    header = bytearray([0x45, tos]) + length.to_bytes(2, "big") + ident.to_bytes(2, "big")
    header += bytes([0x40, 0x00, ttl, proto, 0, 0]) + src + dst
    header[10:12] = ipv4_checksum(header).to_bytes(2, "big")
    payload = bytes((i * 7 + i // 251) & 0xFF for i in range(length - 20))
    return bytes(header), payload


def piece_header(header, offset, total, last):
    h = bytearray(header)
    h[2:4] = total.to_bytes(2, "big")
    h[6:8] = ((offset // 8) | (0 if last else 0x2000)).to_bytes(2, "big")
    return h


# ------------------------------------------------------- capture and analysis

# The capture side: an AF_PACKET socket bound to the sink's veth before
# anything is sent (so nothing can slip past it), keeping GRE over IPv4 and
# IPv6 and writing them as a classic pcap file for tshark. It waits at most
# `seconds` for `count` datagrams, then half a second more to catch extras.
_SNIFF = """
import socket, struct, sys, time
interface, count, seconds, out = sys.argv[1], int(sys.argv[2]), float(sys.argv[3]), sys.argv[4]
s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(0x0003))
s.bind((interface, 0))
s.settimeout(0.1)
print("ready", flush=True)
frames, deadline, linger = [], time.monotonic() + seconds, None
while time.monotonic() < (linger or deadline):
    try:
        data, address = s.recvfrom(65535)
    except socket.timeout:
        continue
    if address[2] == socket.PACKET_OUTGOING or len(data) < 34:
        continue
    ethertype = data[12] << 8 | data[13]
    if (ethertype == 0x0800 and data[23] == 47) or (ethertype == 0x86dd and data[20] == 47):
        frames.append((time.time(), data))
        if len(frames) == count and linger is None:
            linger = time.monotonic() + 0.5
with open(out, "wb") as f:
    f.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 1))
    for stamp, data in frames:
        f.write(struct.pack("<IIII", int(stamp), int(stamp % 1 * 1e6), len(data), len(data)))
        f.write(data)
print(len(frames), flush=True)
"""


def capture(link, expected_frames, sends):
    """Runs every send in the sender namespace while the sink namespace
    captures GRE; returns the pcap path. Exactly expected_frames must arrive."""
    pcap = link["dir"] / "gre.pcap"
    sniffer = subprocess.Popen(
        ["ip", "netns", "exec", link["sink"], sys.executable, "-c", _SNIFF, link["veth_k"],
         str(expected_frames), "20", str(pcap)],
        stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    try:
        assert sniffer.stdout.readline().strip() == "ready", sniffer.stderr.read()
        for args in sends:
            result = _run("ip", "netns", "exec", link["sender"], *args)
            assert result.returncode == 0, result.stderr
        out, err = sniffer.communicate(timeout=30)
    finally:
        if sniffer.poll() is None:
            sniffer.kill()
            sniffer.wait(timeout=10)
    assert sniffer.returncode == 0, err
    assert int(out.strip()) == expected_frames, f"GRE datagrams captured: {out.strip()}"
    return pcap


FIELDS = ("frame.number", "ip.checksum.status", "ip.id", "ip.flags.mf", "ip.frag_offset",
          "ip.len", "gre.key", "vlan.id", "ip.reassembled.length", "data.data")


def dissect(pcap):
    result = _run("tshark", "-r", str(pcap), "-o", "ip.defragment:TRUE",
                  "-o", "ip.check_checksum:TRUE", "-T", "fields", "-E", "separator=/t",
                  *[arg for field in FIELDS for arg in ("-e", field)])
    rows = []
    for line in result.stdout.splitlines():
        values = line.split("\t")
        rows.append(dict(zip(FIELDS, values + [""] * (len(FIELDS) - len(values)))))
    return rows


def inner(row, field):
    """The inner IPv4 layer's value: the last of a comma-separated list."""
    return row[field].split(",")[-1]


def probe_args(probe, link, family, vlan, keyed, setting, frame):
    local, peer = (("192.0.2.1", "192.0.2.2") if family == 4
                   else ("2001:db8:f::1", "2001:db8:f::2"))
    return [str(probe), local, link["veth_s"], peer, str(vlan), str(KEY) if keyed else "-",
            str(setting), frame.hex()]


def send_and_check(probe, link, family, vlan, keyed, setting, packet_lengths):
    limit = size_limit(1480, keyed, setting)
    plans, sends, frames = [], [], 0
    for n, length in enumerate(packet_lengths):
        assert loses_nothing(length, limit), f"{length} is not a loss-free size for L {limit}"
        header, payload = inner_packet(length, 0x5100 + n)
        frame = MACS + b"\x08\x00" + header + payload
        assert len(frame) > limit, "every size here must need the fragment path"
        plan = pieces(length, limit)
        plans.append((header, payload, plan))
        frames += len(plan)
        sends.append(probe_args(probe, link, family, vlan, keyed, setting, frame))

    rows = dissect(capture(link, frames, sends))
    assert len(rows) == frames
    by_id = {}
    for row in rows:
        by_id.setdefault(int(inner(row, "ip.id"), 16), []).append(row)
    for n, (header, payload, plan) in enumerate(plans):
        got = by_id.get(0x5100 + n, [])
        assert len(got) == len(plan), f"packet {n}: pieces"
        for row, (offset, total, last) in zip(got, plan):
            # Every IPv4 header on the wire, outer and inner, checks out
            # (1 = good), unless the one-fold rule predicts a dropped carry.
            expected = "1" if one_fold_is_exact(piece_header(header, offset, total, last)) else "0"
            statuses = row["ip.checksum.status"].split(",")
            assert statuses[-1] == expected, row
            assert all(s == "1" for s in statuses[:-1]), row
            assert inner(row, "ip.flags.mf") == ("0" if last else "1"), row
            assert int(inner(row, "ip.frag_offset")) == offset // 8, row  # in 8-byte units
            assert int(inner(row, "ip.len")) == total, row
            assert row["gre.key"] == (f"0x{KEY:08x}" if keyed else ""), row
            assert row["vlan.id"] == (str(vlan) if vlan >= 2 else ""), row
        final = got[-1]
        if len(plan) > 1:
            assert final["ip.reassembled.length"] == str(len(payload)), final
        assert final["data.data"] == payload.hex(), f"packet {n}: reassembled payload differs"


# ------------------------------------------------------------------- the tests

def test_keyed_ipv4_tunnel_vlan20_reassembles(probe, link):
    # L 1434: 1421 is the first size over the limit (one piece), 4018 the
    # largest frame a tap read gives (4032 bytes).
    send_and_check(probe, link, 4, 20, True, 0, [1421, 1500, 2000, 2816, 4000, 4018])


def test_unkeyed_ipv6_tunnel_untagged_reassembles(probe, link):
    send_and_check(probe, link, 6, 0, False, 0, [1700, 2500, 2830, 3500])


def test_mtu_setting_1300_vlan1_reassembles(probe, link):
    send_and_check(probe, link, 4, 1, True, 1300, [1400, 2000, 3000, 3800])


def test_a_tail_in_the_gap_is_not_sent(probe, link):
    # L 1434: a 1432-byte packet goes out as one piece of 1408 payload bytes
    # still marked "more fragments": tshark never completes it.
    header, payload = inner_packet(1432, 0x6200)
    frame = MACS + b"\x08\x00" + header + payload
    args = probe_args(probe, link, 4, 0, True, 0, frame)
    rows = dissect(capture(link, 1, [args]))
    assert len(rows) == 1
    row = rows[0]
    assert inner(row, "ip.flags.mf") == "1"
    assert int(inner(row, "ip.len")) == 1428
    assert row["ip.reassembled.length"] == ""
    assert row["ip.checksum.status"] == "1,1"


def test_one_fold_checksum_drops_the_carry_on_the_wire(probe, link):
    # This header's nine words sum to 0x3fffd once the daemon has cleared DF:
    # one fold stores 0xffff where a full fold gives 0xfffe, so tshark flags
    # the inner checksum as bad while the outer one is good.
    header, payload = inner_packet(1421, 0x4C44, tos=0xFF, ttl=0xFF, proto=0xFE,
                                   src=bytes([203, 0, 113, 254]),
                                   dst=bytes([198, 51, 100, 254]))
    assert not one_fold_is_exact(piece_header(header, 0, 1421, True))
    frame = MACS + b"\x08\x00" + header + payload
    args = probe_args(probe, link, 4, 0, True, 0, frame)
    pcap = capture(link, 1, [args])
    rows = dissect(pcap)
    assert len(rows) == 1
    assert rows[0]["ip.checksum.status"] == "1,0"
    result = _run("tshark", "-r", str(pcap), "-o", "ip.check_checksum:TRUE",
                  "-T", "fields", "-e", "ip.checksum", "-e", "ip.checksum_calculated")
    assert result.stdout.split("\t")[0].split(",")[-1] == "0xffff"
    assert result.stdout.strip().split("\t")[1].split(",")[-1] == "0xfffe"
