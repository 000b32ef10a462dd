#!/usr/bin/env python3
"""Watches the TFTP traffic of one network boot on an interface (the PC's
own tap device: a bridge device does not see the frames it forwards) and reports
how long the download took: from the read request that started the transfer
(the last one before data block 1) to the client's last acknowledgement.
Ends after IDLE seconds without TFTP traffic once data has flowed, or after
LIMIT seconds in all. Needs root (a packet socket).

usage: tftp_watch.py INTERFACE OUTPUT [IDLE] [LIMIT]
  OUTPUT gets one line: "download SECONDS s, DATA data datagrams, ACKS acks".
"""
import select
import socket
import struct
import sys
import time

ETH_P_ALL = 0x0003


def main():
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    interface, output = sys.argv[1], sys.argv[2]
    idle = float(sys.argv[3]) if len(sys.argv) > 3 else 2.0
    limit = float(sys.argv[4]) if len(sys.argv) > 4 else 200.0
    sock = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_ALL))
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 16 << 20)
    sock.bind((interface, 0))
    began = time.monotonic()
    last_rrq = None
    start = None
    last_ack = None
    last_seen = None
    data = acks = 0
    while True:
        now = time.monotonic()
        if now - began > limit:
            break
        if start is not None and last_seen is not None and now - last_seen > idle:
            break
        ready, _, _ = select.select([sock], [], [], 0.2)
        if not ready:
            continue
        frame = sock.recv(65535)
        stamp = time.monotonic()
        if len(frame) < 14 + 20 + 8 + 4 or frame[12:14] != b"\x08\x00" or frame[23] != 17:
            continue
        header = (frame[14] & 0x0F) * 4
        udp = 14 + header
        source, destination = struct.unpack("!HH", frame[udp:udp + 4])
        payload = frame[udp + 8:]
        if len(payload) < 4 or source in (67, 68) or destination in (67, 68):
            continue
        opcode, block = struct.unpack("!HH", payload[:4])
        if opcode == 1:
            last_rrq = stamp
        elif opcode == 3:
            data += 1
            if block == 1 and start is None:
                start = last_rrq if last_rrq is not None else stamp
        elif opcode == 4 and start is not None:
            acks += 1
            last_ack = stamp
        if start is not None:
            last_seen = stamp
    with open(output, "w") as out:
        if start is None or last_ack is None:
            out.write("no download seen\n")
            sys.exit(1)
        out.write(f"download {last_ack - start:.3f} s, {data} data datagrams, {acks} acks\n")


if __name__ == "__main__":
    main()
