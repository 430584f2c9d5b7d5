#!/usr/bin/env python3
"""A platform for one agent, written from docs/PROTOCOL.md with nothing but Python's standard library.

Prints one line for each thing that happens, at once: "listening on https://127.0.0.1:PORT", "event ACTION PATH" for
each event of an accepted document, "accepted REQUEST-ID", "again REQUEST-ID" for an upload that was accepted before,
"rejected: REASON". With --lose-answers N, the first N accepted uploads get no answer.
"""

import argparse
import base64
import collections
import datetime
import hashlib
import hmac
import http.server
import json
import lzma
import socket
import ssl
import struct
import threading
import time

MAX_BODY = 128 * 1024 * 1024
WINDOW = datetime.timedelta(minutes=15)
MEMORY_SECONDS = 3600
MAX_KNOWN = 10000
CONSTANTS = {
    1: b"c90933e69a3e9d72b271a7c9809b644765dbdaf28369fa7e",
    2: b"12f76251f53ba76746e0c6112777014cce0e7c876efa86cc",
}
SCHEMES = {"ZHmacV1Auth": 1, "ZHmacV2Auth": 2}


class Refused(Exception):
    def __init__(self, status, reason):
        super().__init__(reason)
        self.status = status


def derive_secret(version, customer, agent, activation):
    message = f"HmacV{version};{customer};{agent};{activation}".encode()
    return hmac.new(CONSTANTS[version], message, hashlib.sha256).hexdigest().encode()


def fnv1a64(data):
    value = 0xCBF29CE484222325
    for byte in data:
        value = ((value ^ byte) * 0x100000001B3) & 0xFFFFFFFFFFFFFFFF
    return f"{value:016x}"


class Platform:
    """What all connections share."""

    def __init__(self, arguments):
        self.customer = arguments.customer
        self.agent = arguments.agent
        self.secrets = {
            version: derive_secret(version, arguments.customer, arguments.agent, arguments.activation)
            for version in CONSTANTS
        }
        self.lock = threading.Lock()
        self.known = collections.OrderedDict()  # request id -> when it was accepted
        self.answers_to_lose = arguments.lose_answers

    def say(self, text):
        printable = "".join(c if c.isprintable() and c != "\\" else f"\\x{ord(c):02x}" for c in text)
        with self.lock:
            print(printable, flush=True)

    def verify(self, method, target, headers, body):
        authorization = headers.get("X-OSTL-Authorization")
        timestamp = headers.get("X-OSTL-Timestamp")
        if authorization is None or timestamp is None:
            raise Refused(401, "not signed")
        scheme, _, rest = authorization.partition(" ")
        key_id, _, signature = rest.rpartition(":")
        version = SCHEMES.get(scheme)
        if version is None or key_id != self.agent:
            raise Refused(401, "unknown scheme or key id")
        try:
            sent = datetime.datetime.strptime(timestamp, "%Y-%m-%dT%H:%M:%SZ")
        except ValueError:
            raise Refused(401, "malformed timestamp") from None
        now = datetime.datetime.now(datetime.timezone.utc).replace(tzinfo=None)
        if abs(now - sent) > WINDOW:
            raise Refused(401, "timestamp too far away")
        message = self.message(version, method, target, headers, body, timestamp, key_id)
        expected = base64.b64encode(hmac.new(self.secrets[version], message, hashlib.sha256).digest()).decode()
        if not hmac.compare_digest(expected.encode(), signature.encode()):
            raise Refused(401, "signature does not match")
        if headers.get("Z-CUSTID", self.customer) != self.customer or headers.get("Z-CLNTID", key_id) != key_id:
            raise Refused(401, "identity is not the key's owner")

    @staticmethod
    def message(version, method, target, headers, body, timestamp, key_id):
        parts = [method.encode()]
        if version == 2:
            parts += [timestamp.encode(), key_id.encode(), target.encode()]
        else:
            if method in ("POST", "PUT"):
                parts += [body, headers.get("Content-Type", "null").encode()]
            parts += [timestamp.encode(), target.encode()]
        return b";".join(parts)

    @staticmethod
    def unfold(headers, body):
        encoding = headers.get("Content-Encoding")
        if encoding is None:
            return body
        if encoding != "LZMA":
            raise Refused(415, "unknown encoding")
        try:
            decoder = lzma.LZMADecompressor(format=lzma.FORMAT_ALONE, memlimit=256 * 1024 * 1024)
            plain = decoder.decompress(body, max_length=MAX_BODY)
        except lzma.LZMAError as error:
            raise Refused(400, f"not LZMA: {error}") from None
        if not decoder.eof or decoder.unused_data:
            raise Refused(400, "stream does not end, or goes on")
        return plain

    def remember(self, request_id):
        """False when this upload was accepted before."""
        now = time.monotonic()
        with self.lock:
            while self.known and next(iter(self.known.values())) < now - MEMORY_SECONDS:
                self.known.popitem(last=False)
            if request_id is None:
                return True
            if request_id in self.known:
                return False
            if len(self.known) >= MAX_KNOWN:
                self.known.popitem(last=False)
            self.known[request_id] = now
            return True

    def loses_answer(self):
        with self.lock:
            self.answers_to_lose -= 1
            return self.answers_to_lose >= 0

    def accept(self, headers, plain):
        digest = headers.get("Z-PAYLOADHASH")
        if digest is not None and digest != fnv1a64(plain):
            raise Refused(400, "payload hash does not match")
        try:
            document = json.loads(plain) if plain else {}
        except ValueError as error:
            raise Refused(400, f"not JSON: {error}") from None
        request_id = headers.get("Z-REQID")
        # Only what is taken is known: an id that came with something else must not stand for it.
        if not self.remember(request_id):
            self.say(f"again {request_id}")
            return
        for event in document.get("events", []):
            self.say(f"event {event.get('eventAction')} {event.get('imagePath')}")
        self.say(f"accepted {request_id}")


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    platform = None

    def do_POST(self):
        try:
            length = int(self.headers.get("Content-Length", "-1"))
            if length < 0:
                raise Refused(411, "no length")
            if length > MAX_BODY:
                self.close_connection = True
                raise Refused(413, "too large")
            body = self.rfile.read(length)
            if len(body) != length:
                self.close_connection = True
                raise Refused(400, "body incomplete")
            self.platform.verify(self.command, self.path, self.headers, body)
            self.platform.accept(self.headers, self.platform.unfold(self.headers, body))
            if self.platform.loses_answer():
                self.platform.say("answer lost")
                self.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
                self.close_connection = True
                self.connection.close()
                return
            self.answer(200)
        except Refused as refusal:
            self.platform.say(f"rejected: {refusal}")
            self.answer(refusal.status)

    def answer(self, status):
        self.send_response(status)
        self.send_header("Z-SRV", "interop")
        self.send_header("Content-Length", "0")
        self.end_headers()

    def log_message(self, *_):
        pass


class Server(http.server.ThreadingHTTPServer):
    """Shakes hands on the connection's own thread."""

    def __init__(self, port, context):
        self.context = context
        super().__init__(("127.0.0.1", port), Handler)

    def finish_request(self, request, client_address):
        request.settimeout(60)
        with self.context.wrap_socket(request, server_side=True) as secured:
            super().finish_request(secured, client_address)

    def handle_error(self, request, client_address):
        pass  # a client that went away


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    for name in ("customer", "agent", "activation", "cert", "key"):
        parser.add_argument(f"--{name}", required=True)
    parser.add_argument("--port", type=int, default=0)
    parser.add_argument("--lose-answers", type=int, default=0)
    arguments = parser.parse_args()
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.minimum_version = ssl.TLSVersion.TLSv1_2
    context.load_cert_chain(arguments.cert, arguments.key)
    Handler.platform = Platform(arguments)
    with Server(arguments.port, context) as server:
        Handler.platform.say(f"listening on https://127.0.0.1:{server.server_address[1]}")
        server.serve_forever()


if __name__ == "__main__":
    main()
