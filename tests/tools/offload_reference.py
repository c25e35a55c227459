#!/usr/bin/env python3
"""Asks the kernel itself how TCP super-frames are split and how segments are
merged, and writes what it answered as hex for the packet model's unit tests
(tests/unit/pdu/kernel_reference.h), so that those tests need no privileges.
Run as root: python3 tests/tools/offload_reference.py > tests/unit/pdu/kernel_reference.h

    ns "A" (sender)                               ns "B" (capture)
    +------------------------------+             +------------------------------+
    | a0: no checksum offload, no  |   veth      | b0: GRO on, held for 5 ms    |
    |     TSO (software GSO)       +-------------+     packet socket, vnet hdr  |
    | packet socket, vnet hdr      |             |                              |
    +------------------------------+             +------------------------------+

Splitting: a super-frame with a segmentation header goes out of a0, whose
lack of offloads makes the kernel's software segmentation cut it and fill in
every checksum; the segments are captured on b0. Merging: those segments are
sent out of a0 again one by one, and b0's GRO (kept open across sends by
gro_flush_timeout) merges them; the merged frame and its header are captured.
"""

import ctypes
import fcntl
import os
import socket
import struct
import subprocess
import sys
import time

A, B = "offref-a-%d" % os.getpid(), "offref-b-%d" % os.getpid()
MAC_A = bytes.fromhex("00005e005301")
MAC_B = bytes.fromhex("00005e005302")
SIOCETHTOOL = 0x8946
ETHTOOL_STXCSUM, ETHTOOL_SSG, ETHTOOL_STSO, ETHTOOL_SGRO = 0x17, 0x19, 0x1F, 0x2C
SOL_PACKET, PACKET_VNET_HDR = 263, 15
ETH_P_ALL = 0x0003
libc = ctypes.CDLL(None, use_errno=True)


def run(*args):
    subprocess.run(args, check=True)


def enter(ns):
    fd = os.open("/var/run/netns/" + ns, os.O_RDONLY)
    if libc.setns(fd, 0x40000000) != 0:
        raise OSError(ctypes.get_errno(), "setns")
    os.close(fd)


def ethtool(interface, command, value):
    data = ctypes.create_string_buffer(struct.pack("II", command, value))
    request = struct.pack("16sP", interface.encode(), ctypes.addressof(data)) + bytes(16)
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        fcntl.ioctl(s.fileno(), SIOCETHTOOL, request)


def fold(total):
    while total > 0xFFFF:
        total = (total & 0xFFFF) + (total >> 16)
    return total


def ones_sum(data):
    if len(data) % 2:
        data += b"\0"
    return sum(struct.unpack("!%dH" % (len(data) // 2), data))


def ipv4_header(length, ident, flags_offset=0x4000):
    h = struct.pack("!BBHHHBBH4s4s", 0x45, 0, length, ident, flags_offset, 64, 6, 0,
                    bytes([192, 0, 2, 1]), bytes([192, 0, 2, 2]))
    return h[:10] + struct.pack("!H", 0xFFFF - fold(ones_sum(h))) + h[12:]


V6_SRC = bytes.fromhex("20010db8000000000000000000000001")
V6_DST = bytes.fromhex("20010db8000000000000000000000002")


def ipv6_header(payload_length):
    return struct.pack("!IHBB16s16s", 0x60012345, payload_length, 6, 64, V6_SRC, V6_DST)


def tcp_header(seq, flags):
    options = bytes([1, 1, 8, 10]) + struct.pack("!II", 0x0A0B0C0D, 0x01020304)
    return struct.pack("!HHIIBBHHH", 40000, 5001, seq, 0x20000000, 0x80, flags, 502, 0, 0) + options


def payload(n, mark):
    return bytes((i * 7 + mark) & 0xFF for i in range(n))


def super_frame(ipv6, size, flags, seq=0x10000000, ident=0x1C46):
    """A super-frame as the host's stack hands it over: the TCP checksum field
    holds the pseudo-header sum only."""
    tcp = bytearray(tcp_header(seq, flags) + payload(size, 3))
    if ipv6:
        ip = ipv6_header(len(tcp))
        pseudo = ones_sum(V6_SRC + V6_DST) + 6 + len(tcp)
        ethertype = 0x86DD
    else:
        ip = ipv4_header(20 + len(tcp), ident)
        pseudo = ones_sum(ip[12:20]) + 6 + len(tcp)
        ethertype = 0x0800
    struct.pack_into("!H", tcp, 16, fold(pseudo))
    return MAC_B + MAC_A + struct.pack("!H", ethertype) + ip + bytes(tcp)


def vnet_header(ipv6, mss, frame, cwr):
    network = 14
    transport = network + (40 if ipv6 else 20)
    header_length = transport + 32
    gso_type = (4 if ipv6 else 1) | (0x80 if cwr else 0)
    return struct.pack("<BBHHHH", 1, gso_type, header_length, mss, transport, 16)


def ours(frame):
    if len(frame) < 58:
        return False
    ethertype = struct.unpack("!H", frame[12:14])[0]
    transport = 14 + (20 if ethertype == 0x0800 else 40 if ethertype == 0x86DD else 0)
    return transport > 14 and frame[transport:transport + 2] == struct.pack("!H", 40000)


def capture(sock, seconds, vnet=False):
    frames, deadline = [], time.time() + seconds
    while time.time() < deadline:
        try:
            data, address = sock.recvfrom(70000)
        except BlockingIOError:
            time.sleep(0.01)
            continue
        if address[2] == socket.PACKET_OUTGOING:
            continue
        frame = data[10:] if vnet else data
        if ours(frame):
            frames.append(data)
    return frames


def main():
    for ns in (A, B):
        run("ip", "netns", "add", ns)
    try:
        run("ip", "link", "add", "a0", "netns", A, "address", MAC_A.hex(":"), "type", "veth",
            "peer", "name", "b0", "netns", B, "address", MAC_B.hex(":"))
        for ns, dev in ((A, "a0"), (B, "b0")):
            run("ip", "-n", ns, "link", "set", dev, "mtu", "1500", "up")
        home = os.open("/proc/self/ns/net", os.O_RDONLY)
        enter(A)
        ethtool("a0", ETHTOOL_STSO, 0)
        ethtool("a0", ETHTOOL_STXCSUM, 0)
        sender = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, 0)
        sender.setsockopt(SOL_PACKET, PACKET_VNET_HDR, 1)
        sender.bind(("a0", 0))
        plain = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, 0)
        plain.bind(("a0", 0))
        enter(B)
        ethtool("b0", ETHTOOL_SGRO, 0)
        catcher = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_ALL))
        catcher.bind(("b0", 0))
        catcher.setblocking(False)
        merger = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_ALL))
        merger.setsockopt(SOL_PACKET, PACKET_VNET_HDR, 1)
        merger.bind(("b0", 0))
        merger.setblocking(False)
        os.setns(home, os.CLONE_NEWNET) if hasattr(os, "setns") else libc.setns(home, 0x40000000)
        time.sleep(0.5)

        def split(ipv6, size, flags, mss, cwr=False):
            frame = super_frame(ipv6, size, flags)
            capture(catcher, 0.05)
            sender.send(vnet_header(ipv6, mss, frame, cwr) + frame)
            return frame, capture(catcher, 0.3)

        def merge(segments):
            enter(B)
            ethtool("b0", ETHTOOL_SGRO, 1)
            subprocess.run(["ip", "netns", "exec", B, "sh", "-c",
                            "echo 5000000 > /sys/class/net/b0/gro_flush_timeout; "
                            "echo 100 > /sys/class/net/b0/napi_defer_hard_irqs"], check=True)
            libc.setns(home, 0x40000000)
            capture(merger, 0.05)
            for segment in segments:
                plain.send(segment)
            got = capture(merger, 0.3, vnet=True)
            enter(B)
            ethtool("b0", ETHTOOL_SGRO, 0)
            libc.setns(home, 0x40000000)
            return got

        out = {}
        cases = {
            "SplitIPv4": (False, 3 * 1448 + 100, 0x99, 1448, True),
            "SplitIPv4One": (False, 1000, 0x18, 1448, False),
            "SplitIPv4Exact": (False, 2 * 1448, 0x10, 1448, False),
            "SplitIPv6": (True, 2 * 1428 + 50, 0x18, 1428, False),
            "MergeIPv4": (False, 4 * 1448, 0x18, 1448, False),
            "MergeIPv4ShortLast": (False, 3 * 1448 + 500, 0x10, 1448, False),
            "MergeIPv6": (True, 3 * 1428, 0x18, 1428, False),
        }
        for name, (ipv6, size, flags, mss, cwr) in cases.items():
            frame, segments = split(ipv6, size, flags, mss, cwr)
            if not segments:
                sys.exit("the kernel sent nothing for " + name)
            out[name] = (frame, segments, mss)
        for name in ("MergeIPv4", "MergeIPv4ShortLast", "MergeIPv6"):
            frame, segments, mss = out[name]
            merged = merge(segments)
            if len(merged) != 1:
                sys.exit("the kernel merged %s into %d frames" % (name, len(merged)))
            out[name] = (frame, segments, mss, merged[0])

        print("// Written by tests/tools/offload_reference.py from what the kernel's own")
        print("// segmentation and receive merging made; do not edit by hand.")
        # The hex strings stay one line each: the format check leaves them be.
        print("#pragma once\n\n// clang-format off\nnamespace lumora::test::kernel {\n")
        for name, value in out.items():
            frame, segments, mss = value[:3]
            print("// %s: segment size %d, %d segments." % (name, mss, len(segments)))
            print("inline constexpr unsigned k%sSegmentSize = %d;" % (name, mss))
            print('inline constexpr const char* k%sSuper = "%s";' % (name, frame.hex()))
            print("inline constexpr const char* k%sSegments[] = {" % name)
            for s in segments:
                print('    "%s",' % s.hex())
            print("};")
            if len(value) == 4:
                merged = value[3]
                print('inline constexpr const char* k%sHeader = "%s";' % (name, merged[:10].hex()))
                print('inline constexpr const char* k%sMerged = "%s";' % (name, merged[10:].hex()))
            print()
        print("}  // namespace lumora::test::kernel\n// clang-format on")
    finally:
        for ns in (A, B):
            subprocess.run(["ip", "netns", "del", ns], check=False)


if __name__ == "__main__":
    main()
