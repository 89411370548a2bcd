#!/usr/bin/python3
"""Test client for the Quelora websocket transport (Debian's python3-websockets).

Run with python3 -u. Prints its pid, "connected C" once C connections are open, "received I K"
(--progress), "message I <json>" per message of client I, then a final line: "done" (listen),
"aborted" (disconnect-after: TCP abort after --count), "status S SERVER <json body>" (get, no
upgrade), "refused S" (exit 3), "timeout" (60 s, 4), "closed CODE" (5) or "failed REASON" (6).
never-read: tiny buffers, never reads, until killed.
"""

import argparse
import asyncio
import http.client
import json
import os
import socket
import ssl
import sys

import websockets


class Outcome(Exception):
    """args: the final line and the exit code."""


async def connect(arguments, context, **extra):
    target = "/?" + arguments.query if arguments.query else "/"
    headers = [arguments.header.split("=", 1)] if arguments.header else []
    try:
        return await websockets.connect(
            f"wss://localhost:{arguments.port}{target}", ssl=context, extra_headers=headers,
            ping_interval=None, open_timeout=None, max_size=None, compression=None, **extra)
    except websockets.exceptions.InvalidStatusCode as error:
        raise Outcome(f"refused {error.status_code}", 3) from error


async def receive(connection, index, arguments):
    messages = []
    while len(messages) < arguments.count:
        try:
            messages.append(await connection.recv())
        except websockets.exceptions.ConnectionClosed as error:
            raise Outcome(f"closed {error.code}", 5) from error
        if arguments.progress:
            print(f"received {index} {len(messages)}")
    return messages


async def run(arguments, context):
    if arguments.mode == "never-read":  # small buffers everywhere: the server's writes stall soon
        raw = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        raw.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        raw.setblocking(False)
        await asyncio.get_running_loop().sock_connect(raw, ("127.0.0.1", arguments.port))
        await connect(arguments, context, sock=raw, server_hostname="localhost", max_queue=1,
                      read_limit=4096)
        print("connected 1")
        await asyncio.Future()
    connections = await asyncio.gather(
        *(connect(arguments, context) for _ in range(arguments.clients)))
    print(f"connected {len(connections)}")
    received = await asyncio.gather(*(receive(c, i, arguments) for i, c in enumerate(connections)))
    for index, messages in enumerate(received):
        for message in messages:
            print(f"message {index} {json.dumps(message)}")
    for connection in connections:
        if arguments.mode == "disconnect-after":
            connection.transport.abort()
        else:
            await connection.close()
    print("aborted" if arguments.mode == "disconnect-after" else "done")


def main():
    print(os.getpid())
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    # --header NAME=VALUE; --query: the target's query string, as sent.
    for name, kind in (("--port", int), ("--cafile", str), ("--clients", int), ("--count", int),
                       ("--header", str), ("--query", str)):
        parser.add_argument(name, type=kind, default={"--clients": 1, "--count": 0}.get(name))
    parser.add_argument("--progress", action="store_true")
    parser.add_argument("--mode", default="listen",
                        choices=["listen", "never-read", "disconnect-after", "get"])
    arguments = parser.parse_args()
    context = ssl.create_default_context(cafile=arguments.cafile)
    try:
        if arguments.mode == "get":
            connection = http.client.HTTPSConnection("localhost", arguments.port, context=context,
                                                     timeout=60)
            connection.request("GET", "/?" + arguments.query)
            response = connection.getresponse()
            body = json.dumps(response.read().decode())
            print(f"status {response.status} {response.getheader('Server')} {body}")
        else:
            asyncio.run(asyncio.wait_for(run(arguments, context), 60))
    except Outcome as outcome:
        print(outcome.args[0])
        return outcome.args[1]
    except asyncio.TimeoutError:
        print("timeout")
        return 4
    except Exception as error:  # pylint: disable=broad-except
        print(f"failed {type(error).__name__}: {error}".replace("\n", " "))
        return 6
    return 0


if __name__ == "__main__":
    sys.exit(main())
