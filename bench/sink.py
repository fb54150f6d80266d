#!/usr/bin/env python3
"""A registration sink for benchmarks: answers every request with 200 as soon
as its body has been read, one connection at a time, keeping nothing (or the
last body, with --store). Unlike the directory server it does not parse the
body, so what is timed is the client. Prints "listening on 127.0.0.1:<port>"
when ready; stops on SIGTERM.
"""

import argparse
import signal
import socket
import ssl
import sys

ANSWER = b"HTTP/1.1 200 OK\r\nContent-Length: 0\r\nConnection: close\r\n\r\n"


def serve(conn, store):
    head = b""
    while b"\r\n\r\n" not in head:
        piece = conn.recv(65536)
        if not piece:
            return
        head += piece
    head, rest = head.split(b"\r\n\r\n", 1)
    fields = {}
    for line in head.split(b"\r\n")[1:]:
        name, _, value = line.partition(b":")
        fields[name.strip().lower()] = value.strip()
    if fields.get(b"expect", b"").lower() == b"100-continue":
        conn.sendall(b"HTTP/1.1 100 Continue\r\n\r\n")
    left = int(fields.get(b"content-length", b"0")) - len(rest)
    out = open(store, "wb") if store else None
    if out:
        out.write(rest)
    buf = bytearray(1 << 20)
    view = memoryview(buf)
    while left > 0:
        n = conn.recv_into(buf, min(left, len(buf)))
        if n == 0:
            break
        if out:
            out.write(view[:n])
        left -= n
    if out:
        out.close()
    conn.sendall(ANSWER)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--cert")
    parser.add_argument("--key")
    parser.add_argument("--store", help="file that receives the last body")
    args = parser.parse_args()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(0))
    listener = socket.socket()
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    listener.bind(("127.0.0.1", 0))
    listener.listen(8)
    tls = None
    if args.cert:
        tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        tls.load_cert_chain(args.cert, args.key)
    print("listening on 127.0.0.1:%d" % listener.getsockname()[1], flush=True)
    while True:
        conn, _ = listener.accept()
        try:
            if tls:
                conn = tls.wrap_socket(conn, server_side=True)
            serve(conn, args.store)
        except (OSError, ssl.SSLError):
            pass
        finally:
            conn.close()


if __name__ == "__main__":
    main()
