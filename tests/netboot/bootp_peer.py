#!/usr/bin/env python3
"""A booting router's BOOTP request on one device, and a check of the reply.

The same command line as tools/bootpclient, for test runs that have no
native build of it (the Windows build under Wine). Exit 0 when the reply
matches what the request asks for, 1 on a mismatch, 2 when none came.
"""
import argparse
import os
import select
import socket
import struct
import sys
import time

SO_BINDTODEVICE = 25


def request_bytes(mac, vendor, arch, xid):
    msg = bytearray(300)
    msg[0:4] = bytes([1, 1, 6, 0])
    msg[4:8] = struct.pack(">I", xid)
    msg[28:34] = mac
    msg[236:240] = bytes([99, 130, 83, 99])
    pos = 240
    if arch >= 0:
        msg[pos:pos + 4] = bytes([93, 2, arch >> 8, arch & 0xFF])
        pos += 4
    if vendor:
        data = vendor.encode()[:40]
        msg[pos:pos + 2 + len(data)] = bytes([60, len(data)]) + data
        pos += 2 + len(data)
    msg[pos] = 255
    return bytes(msg)


def expected_reply(request, args):
    reply = bytearray(request)
    reply[0] = 2
    reply[16:20] = socket.inet_aton(args.client)
    reply[20:24] = socket.inet_aton(args.server)
    options = b""
    if args.pxe:
        reply[108:236] = b"/image".ljust(128, b"\0")
        blocks = args.image_length // 512 + 1
        options = bytes([13, 2, blocks >> 8, blocks & 0xFF, 1, 4]) + socket.inet_aton(args.netmask)
    return bytes(reply[:240]) + options + b"\xff"


def main():
    p = argparse.ArgumentParser()
    p.add_argument("--interface", required=True)
    p.add_argument("--vendor-class", default="")
    p.add_argument("--arch", type=int, default=-1)
    p.add_argument("--mac", default="02:00:5E:10:20:30")
    p.add_argument("--timeout", type=int, default=10)
    p.add_argument("--client")
    p.add_argument("--server")
    p.add_argument("--netmask")
    p.add_argument("--pxe", action="store_true")
    p.add_argument("--image-length", type=int, default=-1)
    args = p.parse_args()
    mac = bytes(int(x, 16) for x in args.mac.split(":"))
    xid = (os.getpid() * 2654435761) & 0xFFFFFFFF
    request = request_bytes(mac, args.vendor_class, args.arch, xid)

    s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    s.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
    s.setsockopt(socket.SOL_SOCKET, SO_BINDTODEVICE, args.interface.encode())
    s.bind(("0.0.0.0", 68))
    deadline = time.monotonic() + args.timeout
    reply = None
    while reply is None and time.monotonic() < deadline:
        sent_at = time.monotonic()
        s.sendto(request, ("255.255.255.255", 67))
        while time.monotonic() < sent_at + 1 and reply is None:
            ready, _, _ = select.select([s], [], [], max(0.01, sent_at + 1 - time.monotonic()))
            if not ready:
                continue
            data = s.recv(2048)
            if len(data) >= 240 and data[0] == 2 and data[4:8] == request[4:8] and data[28:34] == mac:
                reply = data
                micros = int((time.monotonic() - sent_at) * 1e6)
    if reply is None:
        print("no reply")
        return 2
    print(f"reply {len(reply)} us={micros}")
    if not args.client:
        return 0
    want = expected_reply(request, args)
    bad = 0
    if len(reply) != len(want):
        print(f"length {len(reply)}, want {len(want)}")
        bad += 1
    for i, (got, exp) in enumerate(zip(reply, want)):
        if got != exp:
            bad += 1
            if bad <= 20:
                print(f"offset {i}: {got}, want {exp}")
    return 0 if bad == 0 else 1


if __name__ == "__main__":
    sys.exit(main())
