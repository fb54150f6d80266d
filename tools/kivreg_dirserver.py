#!/usr/bin/env python3
"""A local directory server for kivreg: accepts registrations on POST /kiv/ds.

It checks Basic authentication against the user and password it was started
with (401 otherwise), checks that the body is well-formed XML whose root is
`kivinfo` or `qordata` (400 otherwise), stores every accepted document in the
store directory and answers the chosen status (200 by default). With --cert
and --key it serves HTTPS. With --redirect it answers a POST to any other
path than --path with that status and Location, as a reverse proxy in front
of a moved service does. Every POST is noted in requests.log in the store
(method, path and whether it carried credentials, never the credentials). It prints "listening on <host>:<port>" once it is
ready and stops cleanly on SIGTERM or SIGINT.

Only the Python standard library is used.
"""

import argparse
import base64
import binascii
import json
import os
import signal
import ssl
import sys
import threading
import time
import xml.etree.ElementTree as ElementTree
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

SERVICE_PATH = "/kiv/ds"
ACCEPTED_ROOTS = ("kivinfo", "qordata")
MAX_BODY = 256 * 1024 * 1024


class Registry:
    """Numbers and writes the accepted documents; one lock for all threads."""

    def __init__(self, directory):
        self.directory = directory
        self.lock = threading.Lock()
        self.count = 0
        os.makedirs(directory, exist_ok=True)

    def note(self, method, path, authorization):
        with self.lock, open(os.path.join(self.directory, "requests.log"), "a",
                             encoding="utf-8") as out:
            out.write("%s %s %s\n" % (method, path,
                                       "with-credentials" if authorization else "no-credentials"))

    def store(self, body, headers):
        with self.lock:
            self.count += 1
            stem = os.path.join(self.directory, "registration-%04d" % self.count)
        with open(stem + ".xml", "wb") as out:
            out.write(body)
        with open(stem + ".headers.json", "w", encoding="utf-8") as out:
            # The credentials are checked, never kept.
            safe = {k: v for k, v in headers.items() if k.lower() != "authorization"}
            json.dump(safe, out, indent=1)
        return stem + ".xml"


def make_handler(config, registry):
    class Handler(BaseHTTPRequestHandler):
        protocol_version = "HTTP/1.1"
        server_version = "kivreg-dirserver/1.0"

        def log_message(self, fmt, *args):
            if not config.quiet:
                sys.stderr.write("dirserver: %s\n" % (fmt % args))

        def answer(self, status, text, extra=None):
            payload = text.encode("utf-8")
            self.send_response(status)
            self.send_header("Content-Type", "text/plain; charset=utf-8")
            self.send_header("Content-Length", str(len(payload)))
            self.send_header("Connection", "close")
            for name, value in (extra or {}).items():
                self.send_header(name, value)
            self.end_headers()
            self.wfile.write(payload)
            self.close_connection = True

        def authorized(self):
            header = self.headers.get("Authorization", "")
            if not header.startswith("Basic "):
                return False
            try:
                given = base64.b64decode(header[6:].strip(), validate=True).decode("utf-8")
            except (binascii.Error, UnicodeDecodeError):
                return False
            return given == "%s:%s" % (config.user, config.password)

        def read_body(self):
            length = self.headers.get("Content-Length")
            if length is None or not length.isdigit() or int(length) > MAX_BODY:
                return None
            return self.rfile.read(int(length))

        def do_POST(self):
            time.sleep(config.delay)
            registry.note(self.command, self.path, "Authorization" in self.headers)
            if self.path.split("?", 1)[0] != config.path:
                if config.redirect:
                    self.read_body()  # all of it, so that closing resets nothing
                    self.answer(config.redirect[0], "moved", {"Location": config.redirect[1]})
                else:
                    self.answer(404, "unknown path")
                return
            if not self.authorized():
                self.answer(401, "authentication required",
                            {"WWW-Authenticate": 'Basic realm="kiv"'})
                return
            body = self.read_body()
            if body is None:
                self.answer(411, "a Content-Length of at most %d is required" % MAX_BODY)
                return
            try:
                root = ElementTree.fromstring(body)
            except ElementTree.ParseError as err:
                self.answer(400, "malformed XML: %s" % err)
                return
            if root.tag not in ACCEPTED_ROOTS:
                self.answer(400, "unexpected root element %s" % root.tag)
                return
            stored = registry.store(body, dict(self.headers.items()))
            print("stored %s" % stored, flush=True)
            status = config.first.pop(0) if config.first else config.status
            extra = {"Retry-After": config.retry_after} if config.retry_after and status != 200 else None
            self.answer(status, "registration received", extra)

        def do_GET(self):
            self.answer(405, "only POST %s" % SERVICE_PATH, {"Allow": "POST"})

        do_PUT = do_DELETE = do_HEAD = do_GET

    return Handler


def parse_args(argv):
    p = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    p.add_argument("--host", default="127.0.0.1", help="address to listen on")
    p.add_argument("--port", type=int, default=0, help="port (0 = a free one)")
    p.add_argument("--user", required=True, help="user expected in Basic authentication")
    p.add_argument("--password", default="", help="password expected in Basic authentication")
    p.add_argument("--store", required=True, help="directory for the accepted documents")
    p.add_argument("--status", type=int, default=200, help="status answered on success")
    p.add_argument("--path", default=SERVICE_PATH, help="the path that takes registrations")
    p.add_argument("--redirect", type=lambda v: (int(v.split("=", 1)[0]), v.split("=", 1)[1]),
                   help="STATUS=LOCATION answered to a POST on any other path")
    p.add_argument("--first", type=lambda v: [int(s) for s in v.split(",")], default=[],
                   help="statuses answered to the first registrations, comma-separated")
    p.add_argument("--retry-after", help="Retry-After header sent with every other status than 200")
    p.add_argument("--delay", type=float, default=0, help="seconds to wait before each answer")
    p.add_argument("--cert", help="PEM server certificate (serves HTTPS with --key)")
    p.add_argument("--key", help="PEM private key of --cert")
    p.add_argument("--quiet", action="store_true", help="no request log on stderr")
    args = p.parse_args(argv)
    if bool(args.cert) != bool(args.key):
        p.error("--cert and --key go together")
    return args


def main(argv):
    config = parse_args(argv)
    registry = Registry(config.store)
    server = ThreadingHTTPServer((config.host, config.port), make_handler(config, registry))
    server.daemon_threads = True
    if config.cert:
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.minimum_version = ssl.TLSVersion.TLSv1_2
        context.load_cert_chain(config.cert, config.key)
        # The handshake then runs in the request thread, not in the accepting loop.
        server.socket = context.wrap_socket(server.socket, server_side=True,
                                            do_handshake_on_connect=False)

    def stop(signum, frame):
        # shutdown() waits for serve_forever, so it must run on another thread.
        threading.Thread(target=server.shutdown, daemon=True).start()

    signal.signal(signal.SIGTERM, stop)
    signal.signal(signal.SIGINT, stop)
    host, port = server.server_address[:2]
    print("listening on %s:%d" % (host, port), flush=True)
    try:
        server.serve_forever()
    finally:
        server.server_close()
    print("stopped", flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
