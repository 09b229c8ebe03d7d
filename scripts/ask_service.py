#!/usr/bin/env python3
"""One request to the watch service on its socket (one JSON line), and its answer line.

As a program: ask_service.py SOCKET REQUEST prints the answer. The bench scripts import ask()."""
import socket
import sys


def ask(path, request):
    """The service's answer to "request" (without its newline); "" when it closed early."""
    with socket.socket(socket.AF_UNIX) as s:
        s.connect(path)
        s.sendall((request + "\n").encode())
        data = b""
        while not data.endswith(b"\n"):
            chunk = s.recv(65536)
            if not chunk:
                break
            data += chunk
    return data.decode().strip()


if __name__ == "__main__":
    print(ask(sys.argv[1], sys.argv[2]))
