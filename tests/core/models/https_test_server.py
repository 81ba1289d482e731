#!/usr/bin/env python3
"""HTTPS file server on the loopback for the download tests.

Serves the files of --root with byte ranges, and a few misbehaving routes:
  /files/NAME            the file, with ranges; no published hash
  /linked/NAME           a redirect to /files/NAME that publishes the file's SHA-256 (X-Linked-Etag)
  /linked-wrong/NAME     the same redirect, publishing a wrong SHA-256
  /to-http/NAME          a redirect to a plain-http address
  /flaky/NAME            the first request sends half the file and closes; later ones serve it
  /stall/NAME            sends the headers and a few bytes, then nothing
  /status/CODE           answers with that HTTP status
Prints the port it listens on, then serves until killed.
"""
import argparse
import hashlib
import http.server
import os
import re
import ssl
import sys
import threading
import time

flaky_seen = set()
lock = threading.Lock()


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, *args):
        pass

    def file_bytes(self, name):
        path = os.path.join(self.server.root, os.path.basename(name))
        with open(path, "rb") as f:
            return f.read()

    def send_plain(self, status, body=b""):
        self.send_response(status)
        self.send_header("Content-Length", str(len(body)))
        self.send_header("Connection", "close")
        self.end_headers()
        self.wfile.write(body)

    def redirect(self, location, linked=None):
        self.send_response(302)
        self.send_header("Location", location)
        if linked:
            self.send_header("X-Linked-Etag", '"%s"' % linked)
        self.send_header("Content-Length", "0")
        self.send_header("Connection", "close")
        self.end_headers()

    def serve_file(self, data, cut_after=None, stall=False):
        start = 0
        match = re.fullmatch(r"bytes=(\d+)-", self.headers.get("Range", ""))
        if match:
            start = int(match.group(1))
            if start >= len(data):
                self.send_response(416)
                self.send_header("Content-Range", "bytes */%d" % len(data))
                self.send_header("Content-Length", "0")
                self.send_header("Connection", "close")
                self.end_headers()
                return
            self.send_response(206)
            self.send_header("Content-Range", "bytes %d-%d/%d" % (start, len(data) - 1, len(data)))
        else:
            self.send_response(200)
        self.send_header("Content-Length", str(len(data) - start))
        self.send_header("Connection", "close")
        self.end_headers()
        body = data[start:]
        if stall:
            self.wfile.write(body[:100])
            self.wfile.flush()
            time.sleep(60)
            return
        if cut_after is not None:
            self.wfile.write(body[:cut_after])
            self.wfile.flush()
            self.connection.shutdown(2)
            return
        self.wfile.write(body)

    def do_GET(self):
        parts = self.path.split("/")
        route, name = parts[1], "/".join(parts[2:])
        base = "https://127.0.0.1:%d" % self.server.server_port
        if route == "files":
            self.serve_file(self.file_bytes(name))
        elif route == "linked":
            self.redirect(base + "/files/" + name, hashlib.sha256(self.file_bytes(name)).hexdigest())
        elif route == "linked-wrong":
            self.redirect(base + "/files/" + name, "0" * 64)
        elif route == "to-http":
            self.redirect("http://127.0.0.1:%d/files/%s" % (self.server.server_port, name))
        elif route == "flaky":
            with lock:
                first = name not in flaky_seen
                flaky_seen.add(name)
            data = self.file_bytes(name)
            self.serve_file(data, cut_after=len(data) // 2 if first else None)
        elif route == "stall":
            self.serve_file(self.file_bytes(name), stall=True)
        elif route == "status":
            self.send_plain(int(name), b"status page\n")
        else:
            self.send_plain(404)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--root", required=True)
    parser.add_argument("--cert", required=True)
    parser.add_argument("--key", required=True)
    args = parser.parse_args()
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
    server.daemon_threads = True
    server.root = args.root
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(args.cert, args.key)
    server.socket = context.wrap_socket(server.socket, server_side=True)
    print(server.server_port, flush=True)
    server.serve_forever()


if __name__ == "__main__":
    sys.exit(main())
