#!/usr/bin/env python3
"""A parent agent, written from docs/PROTOCOL.md with nothing but Python's standard library.

Listens on the control socket, starts the daemon, sends it its configuration and then every line of standard input as a
command ("exit", "fim_status", "ioc_status"). Prints "connected", "sent COMMAND" and, at the end, "daemon ended with code
N"; ends with that code. The end of standard input is an "exit".
"""

import argparse
import ctypes
import json
import os
import socket
import sys
import time

SOCKET = "/var/run/ostrel/host-warden/sock/agent_edr.sock"
GAP_SECONDS = 0.25
FIRST_COMMAND_SECONDS = 30
PR_SET_CHILD_SUBREAPER = 36


def say(text):
    print(text, flush=True)


def listen():
    folder = os.path.dirname(SOCKET)
    os.makedirs(folder, mode=0o700, exist_ok=True)
    if os.path.exists(SOCKET):
        os.unlink(SOCKET)
    listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)  # close-on-exec, as Python makes it
    os.fchmod(listener.fileno(), 0o600)
    listener.bind(SOCKET)
    listener.listen(1)
    return listener


def start(daemon):
    """Starts the daemon and collects the process that ends at once."""
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) != 0:
        raise OSError(ctypes.get_errno(), "prctl")
    started = os.posix_spawn(daemon, [daemon], os.environ)
    _, status = os.waitpid(started, 0)
    code = os.waitstatus_to_exitcode(status)
    if code != 0:
        say(f"daemon ended with code {code}")
        sys.exit(code)


def send(connection, command, **members):
    connection.sendall(json.dumps({"command": command, **members}).encode())
    say(f"sent {command}")
    time.sleep(GAP_SECONDS)  # the end of the message


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--daemon", required=True)
    parser.add_argument("--config", required=True)
    arguments = parser.parse_args()
    listener = listen()
    start(arguments.daemon)
    listener.settimeout(FIRST_COMMAND_SECONDS)
    connection, _ = listener.accept()
    say("connected")
    send(connection, "config", config_file=arguments.config)
    for line in sys.stdin:
        send(connection, line.strip())
        if line.strip() == "exit":
            break
    else:
        send(connection, "exit")
    _, status = os.waitpid(-1, 0)
    code = os.waitstatus_to_exitcode(status)
    say(f"daemon ended with code {code}")
    sys.exit(code if code >= 0 else 128 - code)


if __name__ == "__main__":
    main()
