"""Traffic of the soak test (test_soak.py): the valid frames of the access
points' clients, numbered so each one can be traced to its tap; the frames
sent back to clients from the taps; and the rogue host's flood of malformed
and random GRE, of which no datagram is one the daemon would learn from, so
the tables after learning hold exactly the valid clients."""

from __future__ import annotations

import random
import re
import struct
import time
from dataclasses import dataclass
from typing import Optional

from tunnel_lab import dot1q, ethernet, gre, mac_bytes

HOST = "02:00:00:00:00:99"
OPAQUE = 0x88b5          # the frame walk and the packet dump stop at it
INGRESS_MARK = b"VXSK"   # valid frames from an access point
EGRESS_MARK = b"VXEG"    # frames from a tap towards a client
CLIENT_PREFIX = b"\x02\x5a"
FILL = bytes(random.Random(4711).randrange(256) for _ in range(1024))


@dataclass(frozen=True)
class Profile:
    """How a client's frames travel: 802.1Q tag (0: untagged), GRE key (None:
    no key), and the VLAN the key mode "prefervlan" puts them on."""
    tag: int
    key: Optional[int]
    vlan: int

    @property
    def tap(self) -> str:
        return f"tap{self.vlan}"

    @property
    def mapped(self) -> int:
        """The mapped VLAN the reports show (0: none)."""
        return self.vlan if self.vlan not in (0, self.tag) else 0


PROFILES = [
    Profile(tag=0, key=None, vlan=0),    # plain
    Profile(tag=20, key=7, vlan=20),     # tagged and keyed: the tag wins
    Profile(tag=0, key=30, vlan=30),     # keyed only: the key is the VLAN
    Profile(tag=40, key=None, vlan=40),  # tagged only
    Profile(tag=30, key=40, vlan=30),    # tagged and keyed, another pair
]


# The access points, and how clients are spread over them and the profiles.
ACCESS_POINTS = ["192.0.2.2", "192.0.2.3", "192.0.2.4", "2001:db8::2"]


def ap_of(client: int) -> int:
    return client % len(ACCESS_POINTS)


def profile_of(client: int) -> Profile:
    return PROFILES[(client // len(ACCESS_POINTS)) % len(PROFILES)]


def client_mac(index: int) -> bytes:
    return CLIENT_PREFIX + struct.pack("!I", index)


def mac_text(raw: bytes) -> str:
    return ":".join(f"{b:02x}" for b in raw)


# ---------------------------------------------------------------- valid traffic

def payload_length(seq: int) -> int:
    """46 to 245 bytes, varied so that byte counters mean something."""
    return 46 + (seq * 37) % 200


def valid_payload(mark: bytes, client: int, seq: int) -> bytes:
    length = payload_length(seq)
    head = mark + struct.pack("!III", client, seq, length)
    start = seq % 509
    return head + FILL[start:start + length - len(head)]


def ingress_datagram(profile: Profile, mac: bytes, payload: bytes) -> bytes:
    """The GRE payload an access point sends for this client."""
    host = mac_bytes(HOST)
    if profile.tag:
        inner = host + mac + struct.pack("!HHH", 0x8100, profile.tag, OPAQUE) + payload
    else:
        inner = host + mac + struct.pack("!H", OPAQUE) + payload
    return gre(inner, key=profile.key)


def delivered_frame(mac: bytes, payload: bytes) -> bytes:
    """What the daemon writes to the tap: the inner frame, tag removed."""
    return mac_bytes(HOST) + mac + struct.pack("!H", OPAQUE) + payload


def egress_frame(mac: bytes, payload: bytes) -> bytes:
    """A frame the host sends out of a tap to a client."""
    return mac + mac_bytes(HOST) + struct.pack("!H", OPAQUE) + payload


def egress_datagram(profile: Profile, mac: bytes, payload: bytes) -> bytes:
    """The GRE payload the access point receives for egress_frame: the
    client's key, and its tag when its frames came tagged."""
    first = b"\x20" if profile.key is not None else b"\x00"
    header = first + b"\x00\x65\x58"
    if profile.key is not None:
        header += struct.pack("!I", profile.key)
    if profile.tag:
        inner = mac + mac_bytes(HOST) + struct.pack("!HHH", 0x8100, profile.tag, OPAQUE)
    else:
        inner = mac + mac_bytes(HOST) + struct.pack("!H", OPAQUE)
    return header + inner + payload


# ---------------------------------------------------------------- the flood

def header_length(first: int) -> int:
    return 4 + 4 * bin(first & 0xB0).count("1")


def fate(datagram: bytes, ipv6: bool) -> str:
    """What the daemon does with a GRE payload from a source it has no peer
    for, under the key mode prefervlan without forwarded VLANs: "drop"
    (discarded without a line), "warn" (the unsupported-protocol line),
    "relay" (a relay reply, never learned from) or "learn"."""
    if ipv6 and len(datagram) < 40:
        return "drop"
    if len(datagram) < 4 or header_length(datagram[0]) > len(datagram):
        return "drop"
    if datagram[2:4] != b"\x65\x58":
        return "warn"
    inner = datagram[header_length(datagram[0]):]
    if len(inner) < 14:
        return "drop"
    if inner[12:14] == b"\x81\x00" and len(inner) < 22:
        return "drop"
    if datagram[0] & 0x07 == 6:
        return "drop" if ipv6 else "relay"
    return "learn"


@dataclass(frozen=True)
class FloodItem:
    ipv6: bool
    destination: str
    datagram: bytes
    warns: Optional[str]  # the endpoint named in the line it causes, if any


def _malformed_ipv4(rng: random.Random) -> bytes:
    plain = ethernet(HOST, "02:00:00:00:01:02", OPAQUE, FILL[:46])
    tagged = dot1q(HOST, "02:00:00:00:01:01", 20, OPAQUE, FILL[:46])
    kind = rng.randrange(100)
    if kind < 25:  # a valid datagram cut short
        whole = gre(rng.choice([plain, tagged]), key=rng.choice([None, 7, 30]),
                    checksum=rng.random() < 0.3, sequence=rng.choice([None, 1]),
                    recursion=rng.choice([0, 0, 6, 7]))
        return whole[:rng.randrange(header_length(whole[0]) + 14)]
    if kind < 35:  # flags promising more header words than there are bytes
        first = rng.choice([0x80, 0x20, 0x10, 0xA0, 0x90, 0x30, 0xB0, 0xB6, 0x26])
        return bytes([first, 0]) + b"\x65\x58" + rng.randbytes(
            rng.randrange(header_length(first) - 4))
    if kind < 55:  # a protocol other than bridged Ethernet
        protocol = rng.choice([0x0800, 0x86DD, 0x0806, 0x8847, rng.randrange(0x10000)])
        if protocol == 0x6558:
            protocol = 0x0800
        return gre(plain[:rng.randrange(60)], key=rng.choice([None, rng.randrange(1 << 32)]),
                   protocol=protocol, recursion=rng.randrange(8))
    if kind < 62:  # a tagged inner frame shorter than tag and four bytes
        frame = dot1q(HOST, "02:00:00:00:01:03", rng.choice([20, 30, 40, 33]), OPAQUE, FILL[:8])
        return gre(frame[:rng.randrange(14, 22)], recursion=rng.choice([0, 6]))
    if kind < 67:  # relay replies with random frames (broadcast or unknown)
        first = rng.choice([0x06, 0x26])
        body = rng.randbytes(rng.randrange(14, 120))
        return bytes([first, 0]) + b"\x65\x58" + rng.randbytes(header_length(first) - 4) + body
    return rng.randbytes(rng.randrange(120))  # random bytes


def _malformed_ipv6(rng: random.Random) -> bytes:
    if rng.random() < 0.7:  # shorter than the 40 bytes the IPv6 endpoint wants
        return rng.choice([gre(ethernet(HOST, "02:00:00:00:01:04", OPAQUE, FILL[:46]), key=30),
                           rng.randbytes(40)])[:rng.randrange(40)]
    return _malformed_ipv4(rng)


# The rogue's destinations per family (IPv6 or not): (address, the name of the
# daemon's endpoint on it, weight). Most go to the endpoint the access points use.
ROGUE_TARGETS = {
    False: [("192.0.2.1", "hub0 (ip://192.0.2.1)", 6),
            ("198.51.100.1", "hub1 (ip://198.51.100.1)", 1)],
    True: [("2001:db8::1", "hub0 (ip://2001:db8::1)", 6),
           ("2001:db8:66::1", "hub1 (ip://2001:db8:66::1)", 1)],
}


def flood_pool(rng: random.Random, size: int) -> list[FloodItem]:
    """`size` flood datagrams, one in five over IPv6. Datagrams the daemon
    would learn from, and relay replies addressed to a valid client, are
    drawn again."""
    pool = []
    while len(pool) < size:
        ipv6 = rng.random() < 0.2
        datagram = _malformed_ipv6(rng) if ipv6 else _malformed_ipv4(rng)
        what = fate(datagram, ipv6)
        if what == "learn":
            continue
        if what == "relay" and datagram[header_length(datagram[0]):][:2] == CLIENT_PREFIX:
            continue
        targets = ROGUE_TARGETS[ipv6]
        destination, endpoint, _ = rng.choices(targets, weights=[t[2] for t in targets])[0]
        pool.append(FloodItem(ipv6, destination, datagram, endpoint if what == "warn" else None))
    return pool


# ---------------------------------------------------------------- pacing and reports

class Pacer:
    """Keeps a sender at `rate` items per second. A sender held up (this
    process not scheduled for a while) makes up at most `slack` seconds of
    lost time, so the daemon never gets a burst of more than slack * rate
    items; the longest hold-up is kept in `longest_delay`."""

    def __init__(self, rate: float, slack: float = 0.05):
        self.rate = rate
        self.slack = slack
        self.start = time.monotonic()
        self.count = 0
        self.longest_delay = 0.0

    def tick(self) -> None:
        self.count += 1
        if self.count % 8:
            return
        now = time.monotonic()
        due = self.start + self.count / self.rate
        if due > now:
            time.sleep(due - now)
        else:
            self.longest_delay = max(self.longest_delay, now - due)
            if now - due > self.slack:
                self.start += now - due - self.slack


CLIENT_BLOCK = re.compile(
    r"client: ([0-9a-f:]{17})\n  peer: ([^\n]*)\n((?:  (?:associated vlan|gre key|mapped vlan): "
    r"\d+\n)*)  bytes in: (\d+), bytes out: (\d+)\n  packets in: (\d+), packets out: (\d+)\n")


def parse_clients(reply: str) -> dict:
    """mac -> (peer, extra lines, bytes in, bytes out, packets in, packets
    out) of a clients report; raises AssertionError when any part of the
    reply is not a client block."""
    out = {}
    position = 0
    for match in CLIENT_BLOCK.finditer(reply):
        assert match.start() == position, (
            f"unparsable report text: {reply[position:match.start()]!r}")
        position = match.end()
        mac = match.group(1)
        assert mac not in out, f"client {mac} listed twice"
        out[mac] = (match.group(2), match.group(3), *(int(match.group(n)) for n in range(4, 8)))
    assert position == len(reply), f"unparsable report tail: {reply[position:position + 200]!r}"
    return out


def expected_extra(profile: Profile) -> str:
    """The optional lines of a client block for this profile."""
    text = ""
    if profile.tag:
        text += f"  associated vlan: {profile.tag}\n"
    if profile.key is not None:
        text += f"  gre key: {profile.key}\n"
    if profile.mapped:
        text += f"  mapped vlan: {profile.mapped}\n"
    return text


def new_device_line(mac: bytes, peer: str, profile: Profile) -> str:
    line = f"[cache] new device: {mac_text(mac)}, peer: {peer}"
    if profile.key is not None:
        line += f", grekey: {profile.key}"
    if profile.tag:
        line += f", vlan: {profile.tag}"
    if profile.mapped:
        line += f", mapped to vlan: {profile.mapped}"
    return line
