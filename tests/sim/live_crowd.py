#!/usr/bin/python3
"""The live page survives a crowd, over real sockets to a real simulator:
- 300 clients that send their request head a byte every half second, and 60
  that open /events and never read, leave an ordinary request served within
  a second;
- Last-Event-ID resumes after a decimal line number; any other value starts
  from the first line;
- a head that is not a GET request, or longer than 16 KiB however it is
  cut, is answered 400, 405, 431;
- SIGTERM with 20 slow clients attached ends the run and the program within
  two seconds.
Times allow ZU_TEST_LATE_TOLERANCE_MS more (sanitizer builds).
usage: live_crowd.py ZURESOURCE_SIM SCENARIO"""
import os
import re
import signal
import socket
import subprocess
import sys
import threading
import time

sim, scenario = sys.argv[1], sys.argv[2]
late = int(os.environ.get("ZU_TEST_LATE_TOLERANCE_MS", "0")) / 1000
failures = []


def check(what, ok, detail=""):
    print(("ok      " if ok else "FAILED  ") + what + (": " + detail if detail else ""))
    if not ok:
        failures.append(what)


def connect():
    return socket.create_connection(("127.0.0.1", port), timeout=10)


def get(head, until=None):
    """The answer to a request head, whole or up to the pattern `until`, and
    how long it took."""
    began = time.monotonic()
    s = connect()
    s.sendall(head)
    data = b""
    while not (until and re.search(until, data)):
        chunk = s.recv(65536)
        if not chunk:
            break
        data += chunk
    s.close()
    return data.decode(errors="replace"), time.monotonic() - began


def first_id(last_event_id):
    """The id of the first line /events sends after this Last-Event-ID."""
    header = "" if last_event_id is None else f"Last-Event-ID: {last_event_id}\r\n"
    answer = get(f"GET /events HTTP/1.1\r\nHost: x\r\n{header}\r\n".encode(), rb"\nid: \d+\n")[0]
    found = re.search(r"\nid: (\d+)\n", answer)
    return int(found.group(1)) if found else None


sim_process = subprocess.Popen([sim, scenario, "--serve", "0"], stdout=subprocess.PIPE,
                               stderr=subprocess.STDOUT, text=True)
port = None
for line in sim_process.stdout:
    found = re.search(r"http://127\.0\.0\.1:(\d+)/", line)
    if found:
        port = int(found.group(1))
        break
if port is None:
    sys.exit("the simulator printed no address")
output = []
reader = threading.Thread(target=lambda: output.append(sim_process.stdout.read()), daemon=True)
reader.start()

try:
    time.sleep(0.5)  # the run's first events are in the feed
    for header, expected in [(None, 0), ("2", 3), ("0", 1), ("-5", 0), ("3abc", 0), ("1e3", 0),
                             ("+3", 0), ("0x3", 0), ("18446744073709551615", 0),
                             ("99999999999999999999999", 0)]:
        found = first_id(header)
        check(f"Last-Event-ID {header!r}: the stream starts at line {expected}",
              found == expected, f"starts at {found}")

    # Heads that are not a GET, or longer than the server reads (16 KiB, sent
    # whole so that the answer is not lost to a reset).
    for head, status in [(b"BLAH\r\n\r\n", 400), (b"POST / HTTP/1.1\r\n\r\n", 405),
                         (b"\r\n\r\n", 400), (b"G" * (16 * 1024 + 1), 431),
                         (b"GET / HTTP/1.1\r\nX: " + b"a" * (16 * 1024) + b"\r\n\r\n", 431)]:
        answer = get(head)[0]
        check(f"a head of {head[:20]!r} ({len(head)} bytes) is answered {status}",
              answer.startswith(f"HTTP/1.1 {status} "), answer[:40])

    # The crowd.
    crowd, stop_dripping = [], threading.Event()
    for _ in range(300):
        s = connect()
        s.sendall(b"G")
        crowd.append(s)
    streams = []
    for _ in range(60):
        s = connect()
        s.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        s.sendall(b"GET /events HTTP/1.1\r\nHost: x\r\n\r\n")
        streams.append(s)

    def drip():
        while not stop_dripping.wait(0.5):
            for s in crowd:
                try:
                    s.send(b"E")
                except OSError:
                    pass
    threading.Thread(target=drip, daemon=True).start()
    time.sleep(1)
    for path in ["/", "/snapshot.json"]:
        answer, took = get(f"GET {path} HTTP/1.1\r\nHost: x\r\n\r\n".encode())
        check(f"{path} with 360 slow clients attached is served within a second",
              answer.startswith("HTTP/1.1 200") and took <= 1 + late, f"{took:.2f} s")
    stop_dripping.set()
    for s in crowd + streams:
        s.close()

    # SIGTERM with 20 slow clients attached: 10 sending their head slowly, 10
    # streams that do not read.
    attached = []
    for i in range(20):
        s = connect()
        s.sendall(b"GET /events HTTP/1.1\r\nHost: x\r\n\r\n" if i % 2 else b"GET / HT")
        attached.append(s)
    time.sleep(0.5)
    began = time.monotonic()
    sim_process.send_signal(signal.SIGTERM)
    try:
        sim_process.wait(timeout=30)
    except subprocess.TimeoutExpired:
        pass
    took = time.monotonic() - began
    check("SIGTERM with 20 slow clients attached: the program exits within 2 s",
          sim_process.returncode is not None and took <= 2 + late, f"{took:.2f} s")
    for s in attached:
        s.close()
finally:
    if sim_process.poll() is None:
        sim_process.kill()
        sim_process.wait()

reader.join(timeout=10)
reports = re.findall(r"(?:Thread|Address|UndefinedBehavior)Sanitizer|runtime error", "".join(output))
check("the simulator's output has no sanitizer report", not reports,
      "\n" + "".join(output)[-3000:] if reports else "")
sys.exit(1 if failures else 0)
