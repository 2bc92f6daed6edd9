#!/usr/bin/python3
"""A TCP proxy on loopback that holds every byte DELAY milliseconds each way,
as a mail server far away would, and counts what a client costs it.

    delay_proxy.py --to PORT --delay MS --port-file FILE --stats FILE
                   [--drop-after N] [--record FILE]

Writes its own port to --port-file once it listens. After every change
--stats holds "CONNECTIONS ROUND_TRIPS": a round trip is counted each time
the server answers after the client has spoken, on any connection. With
--drop-after, once the server has answered N times on a connection, what
the client says next still reaches the server but the connection is cut
before the answer comes back: the client cannot know whether it was done.
With --record, everything the clients send is appended to FILE.
"""
import argparse
import asyncio
import os
import time


class Counts:
    def __init__(self, path):
        self.path, self.connections, self.round_trips = path, 0, 0

    def save(self):
        with open(self.path + ".tmp", "w") as f:
            f.write("%d %d" % (self.connections, self.round_trips))
        os.replace(self.path + ".tmp", self.path)


async def carry(reader, writer, delay, on_chunk, cut):
    # Each chunk leaves `delay` after it came, in order, whatever came
    # after it meanwhile.
    queue = asyncio.Queue()

    async def send():
        while True:
            due, chunk = await queue.get()
            if chunk is None:
                break
            await asyncio.sleep(max(0.0, due - time.monotonic()))
            writer.write(chunk)
            await writer.drain()
            if cut():
                break
        writer.close()

    sender = asyncio.ensure_future(send())
    try:
        while True:
            chunk = await reader.read(65536)
            if not chunk or cut():
                break
            on_chunk(chunk)
            queue.put_nowait((time.monotonic() + delay, chunk))
    except ConnectionError:
        pass
    queue.put_nowait((0, None))
    try:
        await sender
    except ConnectionError:
        pass


async def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--to", type=int, required=True)
    parser.add_argument("--delay", type=float, required=True)
    parser.add_argument("--port-file", required=True)
    parser.add_argument("--stats", required=True)
    parser.add_argument("--drop-after", type=int, default=0)
    parser.add_argument("--record")
    options = parser.parse_args()
    delay = options.delay / 1000.0
    counts = Counts(options.stats)
    counts.save()

    async def connected(client_reader, client_writer):
        counts.connections += 1
        counts.save()
        server_reader, server_writer = await asyncio.open_connection("127.0.0.1", options.to)
        state = {"from": "server", "answers": 0}

        def from_client(chunk):
            state["from"] = "client"
            if options.drop_after and state["answers"] >= options.drop_after:
                state["cutting"] = True
            if options.record:
                with open(options.record, "ab") as f:
                    f.write(chunk)

        def from_server(chunk):
            if state["from"] == "client":
                counts.round_trips += 1
                state["answers"] += 1
                counts.save()
            state["from"] = "server"

        def cut():
            return state.get("cutting", False)

        await asyncio.gather(carry(client_reader, server_writer, delay, from_client, lambda: False),
                             carry(server_reader, client_writer, delay, from_server, cut))

    server = await asyncio.start_server(connected, "127.0.0.1", 0)
    port = server.sockets[0].getsockname()[1]
    with open(options.port_file + ".tmp", "w") as f:
        f.write(str(port))
    os.replace(options.port_file + ".tmp", options.port_file)
    async with server:
        await server.serve_forever()


if __name__ == "__main__":
    asyncio.run(main())
