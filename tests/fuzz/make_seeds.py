#!/usr/bin/env python3
"""Writes the seeds of the egress and control-server fuzzers and the ingress
fuzzer's large ones. The large ones hold frames above the tunnel's size limit (1438 bytes without a
key, 1434 with one, on a 1480-byte GRE endpoint), so that the seed corpus
alone drives nextFragment on the relay path and on the unicast, flood and
server paths of the egress decisions.

    tests/fuzz/make_seeds.py   (from the repository's top directory)

A packet seed is its target's three control bytes (see the comment at the
top of tests/fuzz/ingress_fuzz.cpp and tests/fuzz/egress_fuzz.cpp), then the
GRE datagram or the tap frame; a control-server seed is a list of steps (see
tests/fuzz/control_server_fuzz.cpp).
"""
import pathlib
import struct

CORPUS = pathlib.Path(__file__).resolve().parent / "corpus"
OWN_MAC = bytes.fromhex("02005e000199")
BROADCAST = b"\xff" * 6


def checksum(header: bytes) -> int:
    total = sum(struct.unpack(f"!{len(header) // 2}H", header))
    while total >> 16:
        total = (total & 0xFFFF) + (total >> 16)
    return ~total & 0xFFFF


def ipv4_udp(total_length: int) -> bytes:
    """An IPv4 UDP packet of total_length bytes, 192.0.2.10 to 203.0.113.9."""
    payload = bytes((i * 31 + 7) & 0xFF for i in range(total_length - 28))
    udp = struct.pack("!HHHH", 4097, 9, total_length - 20, 0) + payload
    header = struct.pack("!BBHHHBBH4s4s", 0x45, 0, total_length, 0x1234, 0, 64, 17, 0,
                         bytes([192, 0, 2, 10]), bytes([203, 0, 113, 9]))
    header = header[:10] + struct.pack("!H", checksum(header)) + header[12:]
    return header + udp


def tcp_syn_mss(mss: int) -> bytes:
    """An IPv4 TCP SYN carrying an MSS option of mss."""
    tcp = struct.pack("!HHIIBBHHH", 40000, 80, 1, 0, 0x60, 0x02, 65535, 0, 0)
    tcp += struct.pack("!BBH", 2, 4, mss)
    header = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 20 + len(tcp), 0x1234, 0x4000, 64, 6, 0,
                         bytes([192, 0, 2, 10]), bytes([203, 0, 113, 9]))
    header = header[:10] + struct.pack("!H", checksum(header)) + header[12:]
    return header + tcp


def tcp_ipv4_super(payload: int) -> bytes:
    """An IPv4 TCP super-frame's IP packet with payload bytes, checksum left."""
    tcp = struct.pack("!HHIIBBHHH", 40000, 80, 1000, 1, 0x50, 0x18, 65535, 0, 0)
    tcp += bytes((i * 13 + 5) & 0xFF for i in range(payload))
    header = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 20 + len(tcp), 0x1234, 0x4000, 64, 6, 0,
                         bytes([192, 0, 2, 10]), bytes([203, 0, 113, 9]))
    header = header[:10] + struct.pack("!H", checksum(header)) + header[12:]
    return header + tcp


def tcp_ipv6_super(payload: int) -> bytes:
    """An IPv6 TCP super-frame's IP packet with payload bytes, checksum left."""
    tcp = struct.pack("!HHIIBBHHH", 40000, 80, 1000, 1, 0x50, 0x18, 65535, 0, 0)
    tcp += bytes((i * 13 + 5) & 0xFF for i in range(payload))
    source = bytes.fromhex("20010db8000000000000000000000010")
    destination = bytes.fromhex("20010db8000000000000000000000020")
    return struct.pack("!IHBB", 0x60000000, len(tcp), 6, 64) + source + destination + tcp


def tcp_segments_ipv4(count: int, payload: int, psh_last: bool) -> list:
    """count consecutive IPv4 TCP segments of one flow (ACK, IDs one up, right
    checksums), the kind a tap with offloads takes merged."""
    out = []
    source, destination = bytes([203, 0, 113, 9]), bytes([192, 0, 2, 10])
    for i in range(count):
        flags = 0x18 if psh_last and i == count - 1 else 0x10
        data = bytes((i * 17 + j * 3) & 0xFF for j in range(payload))
        tcp = struct.pack("!HHIIBBHHH", 80, 40000, 5000 + i * payload, 77, 0x50, flags, 502,
                          0, 0) + data
        pseudo = source + destination + struct.pack("!BBH", 0, 6, len(tcp))
        tcp = tcp[:16] + struct.pack("!H", checksum(pseudo + tcp)) + tcp[18:]
        header = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 20 + len(tcp), 0x2000 + i, 0x4000, 64,
                             6, 0, source, destination)
        header = header[:10] + struct.pack("!H", checksum(header)) + header[12:]
        out.append(header + tcp)
    return out


def tcp_segments_ipv6(count: int, payload: int) -> list:
    """count consecutive IPv6 TCP segments of one flow with right checksums."""
    out = []
    source = bytes.fromhex("20010db8000000000000000000000020")
    destination = bytes.fromhex("20010db8000000000000000000000010")
    for i in range(count):
        data = bytes((i * 11 + j * 5) & 0xFF for j in range(payload))
        tcp = struct.pack("!HHIIBBHHH", 80, 40000, 9000 + i * payload, 77, 0x50, 0x10, 502,
                          0, 0) + data
        pseudo = source + destination + struct.pack("!IxxxB", len(tcp), 6)
        tcp = tcp[:16] + struct.pack("!H", checksum(pseudo + tcp)) + tcp[18:]
        out.append(struct.pack("!IHBB", 0x60000000, len(tcp), 6, 64) + source + destination + tcp)
    return out


def offload(segmentation: int, partial: bool, segment_size: int, header_length: int,
            checksum_start: int, checksum_offset: int) -> bytes:
    """What a tap with offloads says of a read, as the egress fuzzer takes it."""
    return bytes([segmentation | (4 if partial else 0)]) + struct.pack(
        "!HHHH", segment_size, header_length, checksum_start, checksum_offset)


def tagged(vlan: int) -> bytes:
    return struct.pack("!HH", 0x8100, vlan)


def write(target: str, name: str, control: bytes, body: bytes) -> None:
    path = CORPUS / target / name
    path.parent.mkdir(exist_ok=True)
    path.write_bytes(control + body)
    print(f"{path.relative_to(CORPUS.parent.parent.parent)}: {len(control) + len(body)} bytes")


def main() -> None:
    relay_reply = bytes([0x06, 0x00, 0x65, 0x58])  # recursion control 6, no key
    # Relay replies from 203.0.113.1 (sender 2), taps present.
    write("ingress_fuzz", "relay_unicast_keyed_vlan20_ipv4_4000.bin", bytes([0x00, 0x22, 0x00]),
          relay_reply + bytes.fromhex("02005e00000b") + OWN_MAC + tagged(20) + b"\x08\x00" +
          ipv4_udp(4000))
    # The largest datagram behind a 60-byte outer header: 65475 bytes.
    write("ingress_fuzz", "relay_broadcast_vlan20_ipv4_largest.bin", bytes([0x00, 0xE2, 0x00]),
          relay_reply + BROADCAST + OWN_MAC + tagged(20) + b"\x08\x00" +
          ipv4_udp(65475 - 4 - 18))

    # Device VLAN 20 (index 3); no server; client 0 (keyed 7 on 192.0.2.10).
    write("egress_fuzz", "unicast_keyed_client_ipv4_3000.bin", bytes([0x03, 0x00, 0x00]),
          BROADCAST + OWN_MAC + b"\x08\x00" + ipv4_udp(3000))
    # Device VLAN 20, broadcast: flooded to every (VLAN, key) pair on VLAN 20.
    write("egress_fuzz", "flood_vlan20_ipv4_2000.bin", bytes([0x03, 0x00, 0x0F]),
          BROADCAST + OWN_MAC + b"\x08\x00" + ipv4_udp(2000))
    # Tagged device (VLAN 0), frame tagged 30, the IPv6 server, the longest
    # frame a tap read takes (4032 bytes).
    write("egress_fuzz", "server_ipv6_tagged30_ipv4_largest.bin", bytes([0x00, 0x10, 0x0F]),
          BROADCAST + OWN_MAC + tagged(30) + b"\x08\x00" + ipv4_udp(4032 - 18))
    # Device VLAN 20, IPv4 server, unicast to client 1, "mtu 1280", checksum
    # recomputed, and the frame's source learned from 192.0.2.11 first.
    write("egress_fuzz", "server_ipv4_unicast_mtu1280_ipv4_1600.bin", bytes([0x13, 0x4D, 0x01]),
          BROADCAST + OWN_MAC + b"\x08\x00" + ipv4_udp(1600))
    # Reads from a tap with offloads (byte 1 bit 7): a TCP super-frame to
    # client 0 on device VLAN 20, three segments each above the size limit;
    # an IPv6 one to client 5 on device VLAN 2; an ordinary UDP frame whose
    # checksum the host left partial, to client 4 on device VLAN 0.
    write("egress_fuzz", "super_tcp_ipv4_keyed_client_3_segments.bin",
          bytes([0x03, 0x80, 0x00]) + offload(1, True, 1448, 54, 34, 16),
          BROADCAST + OWN_MAC + b"\x08\x00" + tcp_ipv4_super(3 * 1448 - 100))
    write("egress_fuzz", "super_tcp_ipv6_to_ipv6_peer.bin",
          bytes([0x02, 0x80, 0x05]) + offload(2, True, 1428, 74, 54, 16),
          BROADCAST + OWN_MAC + b"\x86\xdd" + tcp_ipv6_super(4 * 1428))
    write("egress_fuzz", "partial_checksum_udp.bin",
          bytes([0x00, 0x80, 0x04]) + offload(0, True, 0, 0, 34, 6),
          BROADCAST + OWN_MAC + b"\x08\x00" + ipv4_udp(300))
    # One batch of consecutive TCP segments to tap0 (untagged, key mode
    # ignore), the taps taking merged frames (byte 2: several datagrams,
    # merging, checksums made right); then IPv6 segments tagged for VLAN 20.
    gre = bytes([0x00, 0x00, 0x65, 0x58])
    batch = b"".join(struct.pack("!H", len(d)) + d for d in (
        gre + bytes.fromhex("02005e000001") + OWN_MAC + b"\x08\x00" + segment
        for segment in tcp_segments_ipv4(4, 1400, True)))
    write("ingress_fuzz", "batch_tcp_ipv4_segments_merged.bin", bytes([0x00, 0x02, 0x1C]), batch)
    batch = b"".join(struct.pack("!H", len(d)) + d for d in (
        gre + bytes.fromhex("02005e000001") + OWN_MAC + tagged(20) + b"\x86\xdd" + segment
        for segment in tcp_segments_ipv6(3, 1200)))
    write("ingress_fuzz", "batch_tcp_ipv6_segments_merged_vlan20.bin", bytes([0x00, 0x02, 0x1C]),
          batch)

    # Small frames through the other decisions.
    tap_mac = bytes.fromhex("02005e000100")
    arp_reply = struct.pack("!HHBBH", 1, 0x0800, 6, 4, 2) + tap_mac + bytes([192, 0, 2, 1]) + \
        bytes.fromhex("02005e00000b") + bytes([192, 0, 2, 2])
    # Device VLAN 0, tap and parent MACs known: the reply's sender MAC is
    # repaired, then it goes to client 3, whose peer is a gateway.
    write("egress_fuzz", "arp_reply_repaired_to_gateway.bin", bytes([0x00, 0x20, 0x03]),
          BROADCAST + tap_mac + b"\x08\x06" + arp_reply)
    # Device VLAN 0, to client 4 (key 5): the SYN's MSS is clamped to 536.
    write("egress_fuzz", "syn_clamped_keyed_client.bin", bytes([0x00, 0x02, 0x04]),
          BROADCAST + OWN_MAC + b"\x08\x00" + tcp_syn_mss(1460))
    # Device VLAN 2, to client 5 behind an IPv6 peer.
    ipv6 = struct.pack("!IHBB", 0x60000000, 8, 17, 64) + bytes(16) + bytes(16) + bytes(8)
    write("egress_fuzz", "ipv6_to_ipv6_peer.bin", bytes([0x02, 0x00, 0x05]),
          BROADCAST + OWN_MAC + b"\x86\xdd" + ipv6)
    # Device VLAN 0: a client known without a peer, and a tag of no VLAN.
    write("egress_fuzz", "client_without_peer.bin", bytes([0x00, 0x00, 0x06]),
          BROADCAST + OWN_MAC + b"\x08\x00" + ipv4_udp(60))
    write("egress_fuzz", "tagged_unknown_vlan.bin", bytes([0x00, 0x00, 0x0F]),
          BROADCAST + OWN_MAC + tagged(77) + b"\x08\x00" + ipv4_udp(60))

    # Control-server sessions.
    def request(client: int, text: bytes) -> bytes:
        return bytes([client, len(text) - 1]) + text

    def step(client: int, action: int) -> bytes:
        return bytes([action << 2 | client])

    one_pass, shut, connect = step(0, 4), 5, 6
    write("control_server_fuzz", "peers.bin", b"", request(0, b"peers\n") + one_pass)
    write("control_server_fuzz", "two_clients_one_pass.bin", b"",
          request(0, b"clients\n") + request(1, b"PEERS") + one_pass + one_pass +
          request(1, b"clients") + step(1, shut) + one_pass + one_pass + one_pass)
    # One write the server takes in three reads of at most 80 bytes.
    write("control_server_fuzz", "long_request.bin", b"",
          step(2, connect) + one_pass + request(2, b"peers" * 40) + one_pass * 4)
    # Connected and asking before the server accepts; ended before a reply.
    write("control_server_fuzz", "before_accept.bin", b"",
          step(0, connect) + step(1, connect) + step(3, connect) + request(3, b"peers") +
          request(0, b"bogus\r\n") + step(0, shut) + one_pass + one_pass + one_pass)


if __name__ == "__main__":
    main()
