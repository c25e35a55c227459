"""The peers and clients reports after real GRE traffic in both directions:
IPv4 and IPv6 peers, clients with and without VLAN, GRE key and mapped VLAN,
and counters that match what was sent each way.

    ap ns                                       hub ns: vxbrd -f, grekey mode preferkey
    +-------------------------------+           +-------------------------------------+
    | ap0 192.0.2.2, 2001:db8::2    |  GRE 47   | hub0 192.0.2.1, 2001:db8::1         |
    | GrePort v4 / GrePort v6     --+-----------+-- vxbrd  tap0 (VLAN 0)  <- TapPort  |
    +-------------------------------+           |          tap20 (VLAN 20) <- TapPort |
                                                |          tap30 (VLAN 30) <- TapPort |
                                                +-------------------------------------+

With "preferkey" a packet's GRE key, when present, is its VLAN; otherwise
its 802.1Q tag is. A client whose VLAN comes from its key rather than its
tag shows a mapped VLAN.

A client without a peer ("unknown") cannot arise from traffic (learning
always gives a client a peer); the unit tests of the reports cover it.
"""

import socket
from dataclasses import dataclass, field
from typing import Optional

import pytest

from netns import Lab
from tunnel_lab import (AP_IPV4, AP_IPV6, HUB_IPV4, HUB_IPV6, build_tunnel, dot1q, ethernet,
                        gre)

HOST = "02:00:00:00:00:99"
OPAQUE = 0x88b5


def body(n: int, seed: int) -> bytes:
    return bytes((seed + i) & 0xFF for i in range(n))


@dataclass
class Client:
    mac: str
    family: int
    tag: int                # 0: untagged
    key: Optional[int]      # None: no GRE key
    vlan: int               # the VLAN the policy gives (tap and peer)
    sizes_in: list          # payload sizes of the frames it sends
    sizes_out: list         # payload sizes of the replies sent to it
    lines: str              # its VLAN / key / mapped lines in the report
    bytes_in: int = 0
    bytes_out: int = 0
    packets_out: int = 0

    @property
    def peer(self) -> str:
        return AP_IPV4 if self.family == socket.AF_INET else AP_IPV6

    def block(self) -> bytes:
        return (f"client: {self.mac}\n  peer: {self.peer}\n{self.lines}"
                f"  bytes in: {self.bytes_in}, bytes out: {self.bytes_out}\n"
                f"  packets in: {len(self.sizes_in)}, packets out: {self.packets_out}\n").encode()


def clients() -> list:
    v4, v6 = socket.AF_INET, socket.AF_INET6
    return [
        # untagged, no key: four lines
        Client("02:00:00:00:00:0a", v4, 0, None, 0, [46, 86], [46, 986], ""),
        # tagged 20, key 20: VLAN and key, nothing mapped
        Client("00:11:22:33:44:55", v4, 20, 20, 20, [46, 182], [66],
               "  associated vlan: 20\n  gre key: 20\n"),
        # tagged 20, key 30: on VLAN 30 by its key
        Client("02:00:00:00:00:0c", v6, 20, 30, 30, [46, 500, 1200], [46, 300, 46],
               "  associated vlan: 20\n  gre key: 30\n  mapped vlan: 30\n"),
        # untagged, key 30
        Client("02:00:00:00:00:0d", v6, 0, 30, 30, [146], [246],
               "  gre key: 30\n  mapped vlan: 30\n"),
        # tagged 20, no key; no replies
        Client("02:00:00:00:00:0e", v4, 20, None, 20, [46], [], "  associated vlan: 20\n"),
        # untagged, key 0: the key is listed, VLAN 0 is not a mapping
        Client("02:00:00:00:00:0f", v6, 0, 0, 0, [46, 46], [50], "  gre key: 0\n"),
    ]


def blocks(report: bytes) -> list:
    """The clients report cut into its per-client blocks, in report order."""
    out = []
    for part in report.split(b"client: ")[1:]:
        out.append(b"client: " + part)
    return out


@dataclass
class Scenario:
    tunnel: object
    clients: list = field(default_factory=list)


@pytest.fixture(scope="module")
def scenario(vxbrd_binary, tmp_path_factory):
    conf = tmp_path_factory.mktemp("control-reports") / "vxobrd.conf"
    conf.write_text("tap0 1\ntap20 20\ntap30 30\ngrekey mode preferkey\n")
    taps = {0: "tap0", 20: "tap20", 30: "tap30"}
    with Lab() as lab:
        tunnel = build_tunnel(lab, vxbrd_binary, str(conf), list(taps.values()))
        ports = {socket.AF_INET: tunnel.gre_port(socket.AF_INET),
                 socket.AF_INET6: tunnel.gre_port(socket.AF_INET6)}
        hub = {socket.AF_INET: HUB_IPV4, socket.AF_INET6: HUB_IPV6}
        learned = clients()
        for n, client in enumerate(learned):
            for size in client.sizes_in:
                payload = body(size, n)
                untagged = ethernet(HOST, client.mac, OPAQUE, payload)
                inner = (dot1q(HOST, client.mac, client.tag, OPAQUE, payload) if client.tag
                         else untagged)
                ports[client.family].send(gre(inner, key=client.key), hub[client.family])
                # What reaches the tap is what the daemon counts in.
                assert tunnel.taps[taps[client.vlan]].receive() == untagged
                client.bytes_in += len(untagged)
        for n, client in enumerate(learned):
            for size in client.sizes_out:
                reply = ethernet(client.mac, HOST, OPAQUE, body(size, 100 + n))
                tunnel.taps[taps[client.vlan]].inject(reply)
                got = ports[client.family].receive()
                assert got is not None, f"reply to {client.mac} did not arrive"
                assert got[1].endswith(reply[12:]), "the reply's payload went out"
                client.bytes_out += len(reply)
                client.packets_out += 1
        yield Scenario(tunnel, learned)


def test_peers_report_lists_ipv4_and_ipv6_peers(scenario):
    report = scenario.tunnel.control(b"peers")
    lines = report.splitlines(keepends=True)
    assert b"".join(lines) == report
    assert sorted(lines) == sorted([
        b"peer: 192.0.2.2, vlan: 0\n",
        b"peer: 192.0.2.2, vlan: 20\n",
        b"peer: 2001:db8::2, vlan: 0\n",
        b"peer: 2001:db8::2, vlan: 30\n",
    ])


def test_clients_report_has_one_exact_block_per_client(scenario):
    report = scenario.tunnel.control(b"clients")
    got = blocks(report)
    assert b"".join(got) == report, "nothing outside the blocks"
    expected = [client.block() for client in scenario.clients]
    assert sorted(got) == sorted(expected)


def test_counters_match_the_traffic_of_both_directions(scenario):
    by_mac = {block.split(b"\n")[0]: block for block in blocks(scenario.tunnel.control(b"CLIENTS"))}
    for client in scenario.clients:
        block = by_mac[f"client: {client.mac}".encode()]
        lines = block.decode().splitlines()
        assert lines[-2] == f"  bytes in: {client.bytes_in}, bytes out: {client.bytes_out}"
        assert lines[-1] == (f"  packets in: {len(client.sizes_in)}, "
                             f"packets out: {len(client.sizes_out)}")


def test_tagged_keyed_client_without_mapping_has_six_lines(scenario):
    """A client tagged 20 with a key and no mapped VLAN: client, peer,
    associated vlan, gre key, byte counters, packet counters."""
    report = scenario.tunnel.control(b"clients\n")
    block = next(b for b in blocks(report) if b.startswith(b"client: 00:11:22:33:44:55\n"))
    assert block == (b"client: 00:11:22:33:44:55\n"
                     b"  peer: 192.0.2.2\n"
                     b"  associated vlan: 20\n"
                     b"  gre key: 20\n"
                     b"  bytes in: 256, bytes out: 80\n"
                     b"  packets in: 2, packets out: 1\n")
    four = next(b for b in blocks(report) if b.startswith(b"client: 02:00:00:00:00:0a\n"))
    assert four.count(b"\n") == 4
