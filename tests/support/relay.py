#!/usr/bin/python3
"""relay.py FROM TO: a network that stalls. Passes connections to 127.0.0.1:FROM on to 127.0.0.1:TO. While it is
stopped (SIGSTOP) everything waits and comes in a burst afterwards."""
import contextlib
import socket
import sys
import threading


def pump(source, target):
    with contextlib.suppress(OSError):
        while data := source.recv(65536):
            target.sendall(data)
    for end in (source, target):
        with contextlib.suppress(OSError):
            end.shutdown(socket.SHUT_RDWR)


listener = socket.create_server(("127.0.0.1", int(sys.argv[1])))
print("ready", flush=True)
while True:
    client, _ = listener.accept()
    try:
        server = socket.create_connection(("127.0.0.1", int(sys.argv[2])))
    except OSError:
        client.close()
        continue
    for ends in ((client, server), (server, client)):
        threading.Thread(target=pump, args=ends, daemon=True).start()
