#!/usr/bin/env python3
"""A bounded flood of bad requests for the web console's server: malformed
heads, oversized bodies and heads, and slow clients that stop half-way. Sends
COUNT requests at most, a few connections at a time (each worker from an
address of its own, 127.0.4.N), and stops by itself.
usage: flood.py HOST PORT COUNT"""
import socket
import sys
import threading
import time

host, port, count = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
deadline = time.monotonic() + 100

KINDS = [
    b"GARBAGE\r\n\r\n",
    b"GET / HTTP/9.9\r\nHost: x\r\n\r\n",
    b"GET /" + b"a" * 20000 + b" HTTP/1.1\r\nHost: x\r\n\r\n",
    b"GET / HTTP/1.1\r\nHost: x\r\n" + b"X-Big: " + b"b" * 40000 + b"\r\n\r\n",
    b"PUT /api/v1/sets/x HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: application/json\r\nContent-Length: 5000000\r\n\r\n",
    b"PUT /api/v1/sets/x HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: application/json\r\nContent-Length: 20\r\n\r\n{\"files\": [[[[[[[[[[",
    b"POST /api/v1/routers/zz/install HTTP/1.1\r\nHost: 127.0.0.1\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n",
    b"GET /../../etc/passwd HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n",
    b"GET /api/v1/routers HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n",
]
sent = 0
answered = 0
lock = threading.Lock()


def one(i, source):
    global answered
    kind = KINDS[i % len(KINDS)]
    try:
        s = socket.create_connection((host, port), timeout=10, source_address=(source, 0))
        if i % 50 == 7:
            # A slow client: half a request, then nothing. The first few
            # wait for the server to give up on them (408 after 5 s); the
            # rest leave after a moment, as a client that went away does.
            s.sendall(kind[:10])
            if i >= 400:
                time.sleep(0.3)
                s.close()
                with lock:
                    answered += 1
                return
        else:
            s.sendall(kind)
        s.settimeout(10)
        data = s.recv(200)
        if data.startswith(b"HTTP/1.1 "):
            with lock:
                answered += 1
        s.close()
    except OSError:
        pass


next_index = 0


def worker(source):
    global next_index, sent
    while time.monotonic() < deadline:
        with lock:
            if next_index >= count:
                return
            i = next_index
            next_index += 1
        one(i, source)
        with lock:
            sent += 1


# Slow clients hold a connection for seconds; the others go on meanwhile.
workers = [threading.Thread(target=worker, args=("127.0.4.%d" % (n + 1),)) for n in range(24)]
for t in workers:
    t.start()
for t in workers:
    t.join()
print(f"{sent} sent, {answered} answered")
sys.exit(0 if answered >= sent * 9 // 10 else 1)
