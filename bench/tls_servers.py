#!/usr/bin/env python3
"""Local TLS servers for the concurrency benchmark.

Listens on COUNT ports of 127.0.0.1 (never any other address) and, on each
connection, waits DELAY seconds before it answers the TLS handshake with the
given certificate; with --silent it accepts and never answers. Prints
"PORTS p1 p2 ..." once every port listens, then serves until standard input
closes.
"""
import argparse
import asyncio
import ssl
import sys


async def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--count", type=int, default=1)
    parser.add_argument("--delay", type=float, default=0.2, help="seconds before the handshake")
    parser.add_argument("--silent", action="store_true", help="accept, never answer")
    parser.add_argument("--cert", required=True)
    parser.add_argument("--key", required=True)
    options = parser.parse_args()

    context = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
    context.load_cert_chain(options.cert, options.key)
    loop = asyncio.get_running_loop()

    class Connection(asyncio.Protocol):
        """Leaves the client's hello in the kernel until the delay has passed."""

        def connection_made(self, transport: asyncio.BaseTransport) -> None:
            self.transport = transport
            transport.pause_reading()
            if not options.silent:
                loop.create_task(self.handshake())

        async def handshake(self) -> None:
            await asyncio.sleep(options.delay)
            if self.transport.is_closing():
                return
            try:
                self.transport = await loop.start_tls(self.transport, self, context, server_side=True)
            except (OSError, ssl.SSLError, ConnectionError):
                self.transport.close()

        def data_received(self, data: bytes) -> None:
            pass

        def connection_lost(self, exc) -> None:
            pass

    servers = [await loop.create_server(Connection, "127.0.0.1", 0, backlog=512) for _ in range(options.count)]
    ports = [s.sockets[0].getsockname()[1] for s in servers]
    print("PORTS " + " ".join(map(str, ports)), flush=True)
    await loop.run_in_executor(None, sys.stdin.read)  # serve until stdin closes
    for s in servers:
        s.close()


if __name__ == "__main__":
    asyncio.run(main())
