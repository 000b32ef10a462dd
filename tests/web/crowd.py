#!/usr/bin/env python3
"""Hostile clients of the web console, for a bounded time, in one thread:
IDLE connections that never send a byte, spread over IDLE_ADDRESSES source
addresses of the loopback (127.0.1.1, 127.0.1.2, ...), and SLOW connections
from one more address (127.0.2.1) that send a request head one byte every
half second and never finish it (slow loris). Whatever the server closes is
opened again a moment later, so the crowd stands for the whole time; while it
stands, EVENTS clients (from 127.0.3.1) open the event stream and never read
it, with a small receive buffer so that the server meets a stalled reader.

usage: crowd.py HOST PORT SECONDS IDLE IDLE_ADDRESSES SLOW [EVENTS TOKEN]
Prints how many connections were made and how many the server ended."""
import selectors
import socket
import sys
import time

host, port, seconds = sys.argv[1], int(sys.argv[2]), float(sys.argv[3])
idle_count, idle_addresses, slow_count = int(sys.argv[4]), int(sys.argv[5]), int(sys.argv[6])
events_count = int(sys.argv[7]) if len(sys.argv) > 7 else 0
token = sys.argv[8] if len(sys.argv) > 8 else ""
SLOW_HEAD = b"GET /api/v1/routers HTTP/1.1\r\nHost: " + host.encode() + b"\r\nX-Slow: " + b"a" * 4000

selector = selectors.DefaultSelector()
made = 0
ended = 0
failed = 0


class Client:
    def __init__(self, kind, source):
        self.kind = kind
        self.source = source
        self.sent = 0
        self.sock = None
        self.closed_at = 0.0

    def open(self):
        global made, failed
        s = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        if self.kind == "events":
            s.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        s.bind((self.source, 0))
        s.setblocking(False)
        try:
            s.connect((host, port))
        except BlockingIOError:
            pass
        except OSError:
            failed += 1
            s.close()
            return
        self.sock = s
        self.sent = 0
        made += 1
        if self.kind == "events":
            # The request goes whole; the answer is never read.
            s.setblocking(True)
            s.settimeout(2)
            try:
                s.sendall(b"GET /api/v1/events HTTP/1.1\r\nHost: " + host.encode() + b"\r\nAuthorization: Bearer "
                          + token.encode() + b"\r\n\r\n")
            except OSError:
                pass
            return
        selector.register(s, selectors.EVENT_READ, self)

    def closed(self):
        global ended
        ended += 1
        selector.unregister(self.sock)
        self.sock.close()
        self.sock = None
        self.closed_at = time.monotonic()

    def trickle(self):
        if self.kind != "slow" or self.sock is None or self.sent >= len(SLOW_HEAD):
            return
        try:
            self.sock.send(SLOW_HEAD[self.sent:self.sent + 1])
            self.sent += 1
        except (BlockingIOError, InterruptedError):
            pass
        except OSError:
            self.closed()


clients = [Client("idle", "127.0.1.%d" % (1 + i % idle_addresses)) for i in range(idle_count)]
clients += [Client("slow", "127.0.2.1") for _ in range(slow_count)]
for c in clients:
    c.open()
stalled = [Client("events", "127.0.3.1") for _ in range(events_count)]
for c in stalled:
    c.open()

deadline = time.monotonic() + seconds
next_trickle = time.monotonic()
while time.monotonic() < deadline:
    for key, _ in selector.select(timeout=0.1):
        c = key.data
        try:
            data = c.sock.recv(4096)
        except (BlockingIOError, InterruptedError):
            continue
        except OSError:
            data = b""
        if not data:
            c.closed()
        # An answer (503, 408) is followed by the close; read on.
    now = time.monotonic()
    if now >= next_trickle:
        next_trickle = now + 0.5
        for c in clients:
            c.trickle()
    # Back a fifth of a second after the server closed it: as fast as a
    # small device would come back, without the client spinning.
    for c in clients:
        if c.sock is None and now - c.closed_at >= 0.2:
            c.open()
open_now = sum(1 for c in clients if c.sock is not None)
print(f"crowd: {made} connections made, {ended} ended by the server, {failed} refused at connect, {open_now} open at the end")
