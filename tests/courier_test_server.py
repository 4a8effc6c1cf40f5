#!/usr/bin/env python3
"""HTTPS test server on 127.0.0.1 for the uploader's tests, demo and benchmark.

Without --cert: DIR/ca.pem signs its certificate, DIR/other/ca.pem nothing it shows. Writes
DIR/port; records DIR/requests/NNNN.head ("METHOD PATH", "name: value" lines lower-cased,
"x-test-connection: N") and NNNN.body. Answers follow DIR/script.json, read per request:
{"<path>": [answer, ...]} in turn, the last repeating; an answer has "status", "body",
"body_size" (that many "x"), "headers", "delay" (s), "close": true, "action": "close" (no
answer) or "garbage". Unscripted: GET 204, POST 200. --print decodes each upload.
"""
import argparse
import email.parser
import email.policy
import http.server
import itertools
import json
import os
import socket
import ssl
import sys
import threading
import time

MARKER = b"K-Q$mw#$zRTd8pofupin"


def show(headers, command, path, body, status):
    say = lambda text: print("server: " + text, flush=True)
    say("%s %s, %d bytes, from %s (machine %s)" % (command, path, len(body),
        headers.get("User-Agent"), headers.get("X-Lumetry-Machine-ID")))
    message = email.parser.BytesParser(policy=email.policy.HTTP).parsebytes(
        b"Content-Type: " + headers.get("Content-Type", "").encode() + b"\r\n\r\n" + body)
    for part in message.iter_parts() if message.is_multipart() else []:
        data = part.get_payload(decode=True) or b""
        scrambled = data.startswith(MARKER)
        say("part %r, file %r, %d bytes%s, decoded:" % (
            part.get_param("name", header="content-disposition"), part.get_filename(),
            len(data), ", scrambled (marker found)" if scrambled else ""))
        if scrambled:
            data = bytes(33 + (b + 14) % 94 if 33 <= b <= 126 else b for b in data[len(MARKER):])
        for line in data.decode("utf-8", "replace").splitlines():
            print("    " + line, flush=True)
    say("-> %d" % status)


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    log_message = lambda self, *args: None

    def setup(self):
        super().setup()
        self.number = next(self.server.state["connections"])  # atomic under the GIL

    def _record(self, body):
        base = os.path.join(self.server.state["dir"], "requests",
                            "%04d" % next(self.server.state["count"]))
        head = "%s %s\n" % (self.command, self.path) + "".join(
            "%s: %s\n" % (name.lower(), value) for name, value in self.headers.items())
        head = (head + "x-test-connection: %d\n" % self.number).encode("utf-8", "surrogateescape")
        for suffix, data in ((".body", body), (".head", head)):  # the head last: all is there
            with open(base + suffix + ".tmp", "wb") as f:
                f.write(data)
            os.rename(base + suffix + ".tmp", base + suffix)

    def _answer_for(self):
        state = self.server.state
        try:
            with open(os.path.join(state["dir"], "script.json"), encoding="utf-8") as f:
                text = f.read()
            script = json.loads(text)
        except (OSError, ValueError):
            text, script = "", {}
        answers = script.get(self.path)
        with state["lock"]:
            if text != state.get("script"):  # a new script starts its answers afresh
                state["script"] = text
                state["used"] = {}
            if not answers:
                return {"status": 204 if self.command == "GET" else 200}
            used = state["used"].get(self.path, 0)
            state["used"][self.path] = used + 1
        return answers[min(used, len(answers) - 1)]

    def _handle(self):
        length = int(self.headers.get("Content-Length") or 0)
        body = self.rfile.read(min(length, 256 << 20)) if length > 0 else b""
        self._record(body)
        answer = self._answer_for()
        time.sleep(float(answer.get("delay", 0)))
        if answer.get("action"):
            self.close_connection = True
            if answer["action"] == "garbage":
                self.wfile.write(b"this is not an answer\r\n\r\n")
            else:
                self.connection.shutdown(socket.SHUT_RDWR)
            return
        status = int(answer.get("status", 200))
        if self.server.state["print"]:
            show(self.headers, self.command, self.path, body, status)
        size = answer.get("body_size")
        data = answer.get("body", "").encode("utf-8", "surrogateescape")
        self.send_response(status)
        for name, value in answer.get("headers", {}).items():
            self.send_header(name, value)
        self.send_header("Content-Length", str(size if size is not None else len(data)))
        self.close_connection = bool(answer.get("close"))
        if self.close_connection:
            self.send_header("Connection", "close")
        self.end_headers()
        try:
            self.wfile.write(b"x" * int(size) if size is not None else data)
        except OSError:
            self.close_connection = True  # the client stopped reading, as a capped client does

    do_GET = _handle
    do_POST = _handle


class Server(http.server.ThreadingHTTPServer):
    daemon_threads = True

    def finish_request(self, request, client_address):
        # The handshake in the request's own thread, timed: a failing client holds up no other.
        request.settimeout(10)
        try:
            tls = self.context.wrap_socket(request, server_side=True)
        except (OSError, ssl.SSLError):
            return
        with tls:
            super().finish_request(tls, client_address)


def main():
    parser = argparse.ArgumentParser()
    for flag in ("--cert", "--key"):
        parser.add_argument(flag)
    parser.add_argument("--dir", required=True)
    parser.add_argument("--lifetime", type=float, default=120)
    parser.add_argument("--print", action="store_true")
    args = parser.parse_args()
    os.makedirs(os.path.join(args.dir, "requests"), exist_ok=True)
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    if not args.cert:  # the benchmark's certificates, and a CA that signed nothing shown here
        sys.dont_write_bytecode = True  # nothing written into the source tree
        sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "bench", "courier"))
        from courier import make_certificates
        for where in (os.path.join(args.dir, "other"), args.dir):
            os.makedirs(where, exist_ok=True)
            make_certificates(where)
        args.cert, args.key = [os.path.join(args.dir, "server." + x) for x in ("pem", "key")]
    context.load_cert_chain(args.cert, args.key)
    server = Server(("127.0.0.1", 0), Handler)
    server.context, server.state = context, {
        "dir": args.dir, "lock": threading.Lock(), "count": itertools.count(1), "used": {},
        "connections": itertools.count(1), "print": args.print}
    port_file = os.path.join(args.dir, "port")
    with open(port_file + ".tmp", "w") as f:
        f.write(str(server.server_address[1]))
    os.rename(port_file + ".tmp", port_file)
    threading.Timer(args.lifetime, server.shutdown).start()
    server.serve_forever(poll_interval=0.1)


if __name__ == "__main__":
    main()
