"""The reference receiver with its page as a process, and an agent that uploads to it, written from docs/PROTOCOL.md."""

import atexit
import base64
import hashlib
import hmac
import http.client
import json
import lzma
import os
import queue
import ssl
import subprocess
import tempfile
import threading
import time
import urllib.parse
import uuid

CUSTOMER = "0f6c2d4e-9a51-4f5e-8a4e-5a1d3c7b9e20"
AGENT = "7d1b8f2c-3e64-4c0a-b1f7-2c9e5d8a6b41"
ACTIVATION = "c3a9e5d1-6b28-47f0-9d3c-8e1f4a7b2c65"
OTHER_AGENT = "2e5f9a17-40c8-4d63-b7a9-6f1c0d8e3b52"  # of a keys file beside it
OTHER_ACTIVATION = "9b4e7c20-15d3-4a8f-8e62-d07c3f5a1b94"
CONSTANT = b"12f76251f53ba76746e0c6112777014cce0e7c876efa86cc"

FIM = "/v1/fim/events"
IOC = f"/linuxagentevent/v1/customer/{CUSTOMER}/agent/{AGENT}"
STATUS = f"/v1/customer/{CUSTOMER}/agent/{AGENT}/status"

PATIENCE = 30


class Receiver:
    """reference-receiver on free ports. Its own lines are read as they come."""

    def __init__(self, program, port=0, page=0):
        self.folder = tempfile.TemporaryDirectory()
        ca = os.path.join(self.folder.name, "ca.pem")
        self.lines = queue.Queue()
        keys = os.path.join(self.folder.name, "keys")
        with open(os.open(keys, os.O_WRONLY | os.O_CREAT, 0o600), "w", encoding="ascii") as file:
            file.write(f"{CUSTOMER} {OTHER_AGENT} {OTHER_ACTIVATION}\n")
        arguments = ["--customer", CUSTOMER, "--agent", AGENT, "--activation", ACTIVATION, "--keys", keys]
        arguments += ["--ca-out", ca, "--port", str(port), "--page", str(page)]
        self.process = subprocess.Popen([program, *arguments], stdout=subprocess.PIPE, text=True, errors="replace")
        atexit.register(self.process.kill)  # nothing of a test that could not begin stays
        threading.Thread(target=self._read, daemon=True).start()
        self.url = self.await_line("listening on ")
        self.page = self.await_line("page on ")
        self.context = ssl.create_default_context(cafile=ca)
        self.connection = None
        self.secrets = {}
        for agent, activation in ((AGENT, ACTIVATION), (OTHER_AGENT, OTHER_ACTIVATION)):
            message = f"HmacV2;{CUSTOMER};{agent};{activation}".encode()
            self.secrets[agent] = hmac.new(CONSTANT, message, hashlib.sha256).hexdigest().encode()

    def _read(self):
        for line in self.process.stdout:
            self.lines.put(line.rstrip("\n"))

    def await_line(self, beginning):
        deadline = time.monotonic() + PATIENCE
        while True:
            line = self.lines.get(timeout=max(0.01, deadline - time.monotonic()))
            if line.startswith(beginning):
                return line[len(beginning) :]

    def memory(self):
        """Resident bytes of the process."""
        with open(f"/proc/{self.process.pid}/statm", encoding="ascii") as statm:
            return int(statm.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")

    def stop(self):
        if self.connection is not None:
            self.connection.close()
        self.process.terminate()
        code = self.process.wait(PATIENCE)
        self.process.stdout.close()
        self.folder.cleanup()
        return code

    def upload(self, payload, target=FIM, content_type="application/json", break_signature=False, agent=AGENT, request_id=None):
        """One upload; the status of its answer."""
        stamp = time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime())
        signature = hmac.new(self.secrets[agent], f"POST;{stamp};{agent};{target}".encode(), hashlib.sha256).digest()
        if break_signature:
            signature = signature[::-1]
        headers = {
            "Content-Type": content_type,
            "Content-Encoding": "LZMA",
            "Z-REQID": request_id or str(uuid.uuid4()),
            "X-OSTL-Timestamp": stamp,
            "X-OSTL-Authorization": f"ZHmacV2Auth {agent}:{base64.b64encode(signature).decode()}",
        }
        body = lzma.compress(payload, format=lzma.FORMAT_ALONE, preset=0)
        if self.connection is None:
            host = urllib.parse.urlsplit(self.url)
            self.connection = http.client.HTTPSConnection(host.hostname, host.port, context=self.context, timeout=PATIENCE)
        self.connection.request("POST", target, body, headers)
        answer = self.connection.getresponse()
        answer.read()
        return answer.status

    def upload_events(self, events, **how):
        document = {"events": events, "timestamp": time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime())}
        status = self.upload(json.dumps(document).encode(), **how)
        if status != 200:
            raise AssertionError(f"the upload was answered {status}")

    def upload_file(self, path):
        """A payload as a receiver has stored it."""
        with open(path, "rb") as file:
            payload = file.read()
        if path.endswith(".bin"):
            status = self.upload(payload, IOC, "application/octet-stream")
        else:
            status = self.upload(payload, STATUS if payload.startswith(b'{"status"') else FIM)
        if status != 200:
            raise AssertionError(f"{path} was answered {status}")


def event(path, action="Write", program="/usr/bin/vi", user="alice", **members):
    """A document of an event; see docs/EVENTS.md."""
    return {
        "successStatus": "yes",
        "timestamp": time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime()),
        "eventId": 4711,
        "eventAction": action,
        "eventClass": "Disk",
        "eventType": "File",
        "imagePath": path,
        "associatedRules": ["5f0c6a3e-7f5d-4a53-9a0e-2b6d7f1c0a01"],
        "actor": {
            "imagePath": program,
            "processID": 1234,
            "userName": user,
            "userID": 1000,
            "auditUserName": user,
            "auditUserID": 1000,
            "procTitle": f"{program} {path}",
        },
        **members,
    }
