#!/usr/bin/env python3
"""A stand-in for the telemetry server, for the demo only (127.0.0.1).

Usage: demo-server.py --cert PEM --key PEM --port-file FILE [--lifetime SECONDS]

Answers the uploader's three requests: 204 to the configuration and policy
requests (nothing to change) and 200 to each upload, and prints what arrives.
An uploaded usage log is shown decoded: a file that starts with the 20-byte
scramble marker has the rest run through ROT47; any other file is shown as it
is. Stops by itself after the lifetime.
"""
import argparse
import email.parser
import email.policy
import http.server
import ssl
import sys
import threading

MARKER = b"K-Q$mw#$zRTd8pofupin"
MAX_BODY = 16 * 1024 * 1024


def rot47(data):
    return bytes(33 + (b - 33 + 47) % 94 if 33 <= b <= 126 else b for b in data)


def decode_log(data):
    if data.startswith(MARKER):
        return rot47(data[len(MARKER):]).decode("utf-8", "replace")
    return data.decode("utf-8", "replace")


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, *args):
        pass

    def say(self, text):
        print(text, flush=True)

    def answer(self, status):
        self.send_response(status)
        self.send_header("Content-Length", "0")
        self.send_header("Connection", "close")
        self.end_headers()
        self.close_connection = True

    def do_GET(self):
        self.say("server: %s %s (machine %s) -> 204" %
                 (self.command, self.path, self.headers.get("X-Lumetry-Machine-ID")))
        self.answer(204)

    def do_POST(self):
        length = min(int(self.headers.get("Content-Length") or 0), MAX_BODY)
        body = self.rfile.read(length)
        message = email.parser.BytesParser(policy=email.policy.HTTP).parsebytes(
            b"Content-Type: " + self.headers.get("Content-Type", "").encode() + b"\r\n\r\n" + body)
        self.say("server: %s %s, %d bytes, from %s" %
                 (self.command, self.path, length, self.headers.get("User-Agent")))
        for part in message.iter_parts() if message.is_multipart() else []:
            data = part.get_payload(decode=True) or b""
            self.say("server: part %r, file %r, %d bytes%s" %
                     (part.get_param("name", header="content-disposition"),
                      part.get_filename(), len(data),
                      ", scrambled (marker found)" if data.startswith(MARKER) else ""))
            self.say("server: decoded usage log:")
            for line in decode_log(data).splitlines():
                self.say("    " + line)
        self.say("server: -> 200 (accepted)")
        self.answer(200)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--cert", required=True)
    parser.add_argument("--key", required=True)
    parser.add_argument("--port-file", required=True)
    parser.add_argument("--lifetime", type=float, default=60)
    args = parser.parse_args()
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(args.cert, args.key)
    server.socket = context.wrap_socket(server.socket, server_side=True)
    with open(args.port_file, "w") as f:
        f.write(str(server.server_address[1]))
    threading.Timer(args.lifetime, server.shutdown).start()
    server.serve_forever(poll_interval=0.1)
    return 0


if __name__ == "__main__":
    sys.exit(main())
