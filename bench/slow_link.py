"""A slow link for benchmarks: a TCP proxy that delays every chunk by a fixed
time each way, with an optional bandwidth cap per direction shared by all
its connections, as one device's link is.

The delay also falls on connection set-up: the first bytes a client sends
arrive one round trip later than the others would, as after a TCP handshake,
and TLS passes through untouched, so its handshake pays its own round trips
and the worth of keeping connections alive stays honest. Each connection runs
a reader and a writer thread per direction; the writer sends each chunk at
its due time, so chunks in flight overlap as on a real link and the proxy
adds no round trip of its own.

    with SlowLink(("127.0.0.1", port), delay=0.05, bandwidth=2 << 20) as link:
        ... connect to ("127.0.0.1", link.port) ...

Alone: python3 bench/slow_link.py UPSTREAM_PORT [DELAY_S [BYTES_PER_S]].
"""

import queue
import socket
import sys
import threading
import time

CHUNK = 64 * 1024


class Pacer:
    """One direction's bandwidth: the time the link is next free, shared by
    every connection of that direction."""

    def __init__(self, bandwidth):
        self.bandwidth = bandwidth
        self.lock = threading.Lock()
        self.free_at = 0.0

    def due(self, ready, size):
        """When `size` bytes ready at `ready` have passed the link."""
        if not self.bandwidth:
            return ready
        with self.lock:
            start = max(ready, self.free_at)
            self.free_at = start + size / self.bandwidth
            return self.free_at


class SlowLink:
    def __init__(self, upstream, delay=0.05, bandwidth=0, host="127.0.0.1"):
        self.upstream = upstream
        self.delay = delay
        self.pacers = (Pacer(bandwidth), Pacer(bandwidth))  # up, down
        self.listener = socket.create_server((host, 0), backlog=128)
        self.port = self.listener.getsockname()[1]
        self.connections = 0
        self.closed = False

    def start(self):
        threading.Thread(target=self._accept, daemon=True).start()
        return self

    def stop(self):
        self.closed = True
        self.listener.close()

    def __enter__(self):
        return self.start()

    def __exit__(self, *exc):
        self.stop()

    def _accept(self):
        while not self.closed:
            try:
                client, _ = self.listener.accept()
            except OSError:
                return
            self.connections += 1
            threading.Thread(target=self._connect, args=(client, time.monotonic()),
                             daemon=True).start()

    def _connect(self, client, accepted):
        try:
            server = socket.create_connection(self.upstream)
        except OSError:
            client.close()
            return
        for s in (client, server):
            s.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        # The client's first bytes leave one round trip after its connect.
        opened = accepted + 2 * self.delay
        done = threading.Semaphore(0)
        for src, dst, pacer, not_before in ((client, server, self.pacers[0], opened),
                                            (server, client, self.pacers[1], 0.0)):
            # Bounded, so a fast sender waits as on a real link: 16 MiB is far
            # more than a delay's worth of any bandwidth tried here.
            chunks = queue.Queue(maxsize=256)
            threading.Thread(target=self._read, args=(src, chunks, not_before),
                             daemon=True).start()
            threading.Thread(target=self._write, args=(dst, chunks, pacer, done),
                             daemon=True).start()
        done.acquire()
        done.acquire()
        client.close()
        server.close()

    def _read(self, src, chunks, not_before):
        while True:
            try:
                data = src.recv(CHUNK)
            except OSError:
                data = b""
            chunks.put((max(time.monotonic(), not_before) + self.delay, data))
            if not data:
                return

    def _write(self, dst, chunks, pacer, done):
        try:
            while True:
                due, data = chunks.get()
                if not data:
                    dst.shutdown(socket.SHUT_WR)
                    return
                wait = pacer.due(due, len(data)) - time.monotonic()
                if wait > 0:
                    time.sleep(wait)
                dst.sendall(data)
        except OSError:
            # The peer is gone: the reader of its other direction sees the end.
            try:
                dst.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass
        finally:
            done.release()


def main():
    args = sys.argv[1:]
    if not args:
        sys.exit(__doc__.strip().splitlines()[-1])
    link = SlowLink(("127.0.0.1", int(args[0])), float(args[1]) if len(args) > 1 else 0.05,
                    float(args[2]) if len(args) > 2 else 0).start()
    print("127.0.0.1:%d" % link.port, flush=True)
    threading.Event().wait()


if __name__ == "__main__":
    main()
