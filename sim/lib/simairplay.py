#!/usr/bin/python3
"""A simulated AirPlay video and photo receiver: a small HTTP server on loopback.

    simairplay.py STATE_DIR [--port N] [--length SECONDS]

Writes STATE_DIR/pid and STATE_DIR/port once it listens (N=0: a free port) and
ends by itself once STATE_DIR is removed (a test's root going away); appends one JSON line
per request to STATE_DIR/requests.log ({"method", "path", "type", "agent", "session",
"body", "size"}; a photo's body is given by its size only), and plays what
/play hands it: the position advances with real time at the rate set by
/rate, up to the length (--length, or "len=N" in the played URL's query).

Switches, read at each request from STATE_DIR/switches.json (any may be absent):
  {"password": true}  every request answers 401, as a receiver that wants a PIN
  {"outside": "stop"} the receiver goes idle, as when stopped from its remote
  {"silent": true}    requests are read but never answered (the client times out)
  {"huge": true}      every answer is a megabyte of text
An idle receiver answers a status GET /scrub with 405, as real ones do.
"""

import json
import os
import sys
import threading
import time
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from urllib.parse import parse_qs, urlsplit


class Receiver:
    def __init__(self, state_dir, length):
        self.dir = state_dir
        self.default_length = length
        self.lock = threading.Lock()
        self.url = None
        self.length = 0.0
        self.rate = 0.0
        self.base = 0.0  # position when the rate last changed
        self.since = time.monotonic()

    def switches(self):
        try:
            with open(os.path.join(self.dir, "switches.json")) as f:
                return json.load(f)
        except (OSError, ValueError):
            return {}

    def position(self):
        pos = self.base + (time.monotonic() - self.since) * self.rate
        return min(pos, self.length)

    def set_rate(self, rate):
        self.base = self.position()
        self.since = time.monotonic()
        self.rate = rate

    def record(self, entry):
        line = json.dumps(entry, ensure_ascii=False) + "\n"
        with open(os.path.join(self.dir, "requests.log"), "a", encoding="utf-8") as f:
            f.write(line)


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    receiver = None  # set by main

    def log_message(self, *args):
        pass

    def _handle(self):
        rx = self.receiver
        size = int(self.headers.get("Content-Length") or 0)
        body = self.rfile.read(size) if size > 0 else b""
        path = self.path
        entry = {
            "method": self.command,
            "path": path,
            "type": self.headers.get("Content-Type", ""),
            "agent": self.headers.get("User-Agent", ""),
            "session": self.headers.get("X-Apple-Session-ID", ""),
            "size": len(body),
        }
        if not path.startswith("/photo"):
            entry["body"] = body.decode("utf-8", "replace")
        rx.record(entry)
        switches = rx.switches()
        if switches.get("silent"):
            time.sleep(3600)
            return
        if switches.get("password"):
            return self._answer(401)
        if switches.get("huge"):
            return self._answer(200, "position: 1.0\n" * 70000)
        with rx.lock:
            if switches.get("outside") == "stop":
                rx.url = None
            self._route(rx, path, body)

    def _route(self, rx, path, body):
        parts = urlsplit(path)
        query = parse_qs(parts.query)
        route = (self.command, parts.path)
        if route == ("POST", "/play"):
            fields = dict(
                line.split(": ", 1) for line in body.decode("utf-8", "replace").split("\n") if ": " in line
            )
            url = fields.get("Content-Location", "")
            if not url:
                return self._answer(400)
            lengths = parse_qs(urlsplit(url).query).get("len")
            rx.url = url
            rx.length = float(lengths[0]) if lengths else rx.default_length
            rx.base, rx.since, rx.rate = 0.0, time.monotonic(), 1.0
            return self._answer(200)
        if route == ("POST", "/rate"):
            if rx.url:
                rx.set_rate(float(query.get("value", ["0"])[0]))
            return self._answer(200)
        if route == ("POST", "/scrub"):
            if rx.url:
                rx.base, rx.since = float(query.get("position", ["0"])[0]), time.monotonic()
            return self._answer(200)
        if route == ("GET", "/scrub"):
            if not rx.url:
                return self._answer(405)
            if rx.position() >= rx.length:
                rx.url = None  # played to its end: idle again
            text = "duration: %f\nposition: %f\n" % (rx.length, rx.position())
            return self._answer(200, text)
        if route == ("POST", "/stop"):
            rx.url = None
            return self._answer(200)
        if route == ("PUT", "/photo"):
            return self._answer(200)
        if self.command == "GET" and parts.path in ("/server-info", "/slideshow-features", "/playback-info"):
            return self._answer(200, "<plist></plist>\n", "text/x-apple-plist+xml")
        if route == ("POST", "/getProperty"):
            return self._answer(200)
        return self._answer(404)

    def _answer(self, status, text="", ctype="text/parameters"):
        data = text.encode("utf-8")
        self.send_response(status)
        self.send_header("Content-Length", str(len(data)))
        if data:
            self.send_header("Content-Type", ctype)
        self.end_headers()
        self.wfile.write(data)

    do_GET = do_POST = do_PUT = _handle


def main(argv):
    state_dir = argv[1]
    port = int(argv[argv.index("--port") + 1]) if "--port" in argv else 0
    length = float(argv[argv.index("--length") + 1]) if "--length" in argv else 10.0
    os.makedirs(state_dir, exist_ok=True)
    with open(os.path.join(state_dir, "pid"), "w") as f:
        f.write(str(os.getpid()))
    Handler.receiver = Receiver(state_dir, length)
    server = ThreadingHTTPServer(("127.0.0.1", port), Handler)
    server.daemon_threads = True
    tmp = os.path.join(state_dir, "port.tmp")
    with open(tmp, "w") as f:
        f.write(str(server.server_address[1]))
    os.replace(tmp, os.path.join(state_dir, "port"))

    def watch():
        while os.path.isdir(state_dir):
            time.sleep(1)
        os._exit(0)

    threading.Thread(target=watch, daemon=True).start()
    server.serve_forever()


if __name__ == "__main__":
    main(sys.argv)


def ensure_running(state_dir, length=10.0, wait=5.0):
    """The port of the receiver of STATE_DIR, started when it does not run yet; None when it
    does not come up in time."""
    import simcommon
    return simcommon.ensure_server(state_dir, [sys.executable or "/usr/bin/python3", os.path.abspath(__file__),
                                               state_dir, "--length", str(length)], wait)
