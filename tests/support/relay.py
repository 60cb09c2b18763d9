#!/usr/bin/python3
"""relay.py FROM TO [DELAY]: a network that stalls. Passes connections to 127.0.0.1:FROM on to 127.0.0.1:TO, what
the server sends DELAY seconds later. While it is stopped (SIGSTOP) everything waits and comes in a burst
afterwards."""
import queue
import socket
import sys
import threading
import time


def pump(source, target, delay):
    chunks = queue.Queue()

    def send():
        while chunk := chunks.get():
            due, data = chunk
            time.sleep(max(0, due - time.monotonic()))
            try:
                target.sendall(data)
            except OSError:
                break
        for end in (source, target):
            try:
                end.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass

    threading.Thread(target=send, daemon=True).start()
    try:
        while data := source.recv(65536):
            chunks.put((time.monotonic() + delay, data))
    except OSError:
        pass
    chunks.put(None)


listener = socket.create_server(("127.0.0.1", int(sys.argv[1])))
print("ready", flush=True)
while True:
    client, _ = listener.accept()
    try:
        server = socket.create_connection(("127.0.0.1", int(sys.argv[2])))
    except OSError:
        client.close()
        continue
    threading.Thread(target=pump, args=(client, server, 0), daemon=True).start()
    late = float(sys.argv[3]) if len(sys.argv) > 3 else 0
    threading.Thread(target=pump, args=(server, client, late), daemon=True).start()
