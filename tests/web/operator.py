#!/usr/bin/env python3
"""A logged-in operator of the web console, for a bounded time: logs in with
TOKEN, then reads /api/v1/routers every 100 ms with the session cookie,
in turn over its kept-alive connection and over a new one, and times each
answer. Fails when an answer is not 200 or takes LIMIT_MS or longer.

usage: operator.py HOST PORT TOKEN SECONDS LIMIT_MS
Prints the worst answer time."""
import http.client
import json
import sys
import time

host, port, token, seconds, limit_ms = sys.argv[1], int(sys.argv[2]), sys.argv[3], float(sys.argv[4]), float(sys.argv[5])


def timed(connection, method, path, body=None, headers=None):
    start = time.monotonic()
    connection.request(method, path, body=body, headers=headers or {})
    response = connection.getresponse()
    data = response.read()
    return response, data, (time.monotonic() - start) * 1000


kept = http.client.HTTPConnection(host, port, timeout=10)
response, data, login_ms = timed(kept, "POST", "/api/v1/session", json.dumps({"token": token}),
                                 {"Content-Type": "application/json"})
if response.status != 200:
    print(f"operator: login answered {response.status}: {data[:200]}")
    sys.exit(1)
cookie = response.getheader("Set-Cookie").split(";")[0]
worst, count, failures = login_ms, 0, []
deadline = time.monotonic() + seconds
while time.monotonic() < deadline:
    fresh = count % 2 == 1
    connection = http.client.HTTPConnection(host, port, timeout=10) if fresh else kept
    try:
        response, data, ms = timed(connection, "GET", "/api/v1/routers", headers={"Cookie": cookie})
        if response.status != 200 or not data.startswith(b"["):
            failures.append(f"status {response.status}")
    except (OSError, http.client.HTTPException) as e:
        ms = 0.0
        failures.append(f"{'new' if fresh else 'kept'} connection: {e!r}")
        if not fresh:
            kept = http.client.HTTPConnection(host, port, timeout=10)
    finally:
        if fresh:
            connection.close()
    worst = max(worst, ms)
    count += 1
    time.sleep(0.1)
print(f"operator: {count} reads, login {login_ms:.1f} ms, worst answer {worst:.1f} ms")
if failures:
    print("operator: failures: " + "; ".join(failures[:10]))
sys.exit(0 if not failures and worst < limit_ms else 1)
