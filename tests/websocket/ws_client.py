#!/usr/bin/python3
"""Test client for the Quelora websocket transport (spec Part 6.1).

Run with Debian's /usr/bin/python3 (python3-websockets 10.4). Connects over
TLS to 127.0.0.1, checking the certificate given by --cafile against the
name "localhost", and reports on stdout, one flushed line each:

  connected C            all C connections are open (their 101 was read)
  received I K           (--progress, listen mode) client I has read K messages
  message I <json>       client I's messages in order, each as a JSON string
  done                   listen mode: all read, connections closed cleanly (exit 0)
  aborted                disconnect-after: TCP connection aborted (exit 0)
  refused STATUS         the server refused the upgrade (exit 3)
  timeout                --timeout elapsed (exit 4)
  closed CODE            the server closed a connection unexpectedly (exit 5)
  failed REASON          anything else went wrong (exit 6)

Modes:
  listen            each client reads --count messages, then prints them
  never-read        one client with tiny receive buffers that never reads,
                    until killed or until its stdin is closed
  disconnect-after  each client reads --after messages, prints them, then
                    aborts its TCP connection without a close handshake
"""

import argparse
import asyncio
import json
import os
import socket
import ssl
import sys
import threading
import urllib.parse

import websockets


def say(line):
    sys.stdout.write(line + "\n")
    sys.stdout.flush()


class Outcome(Exception):
    """Ends the run with a line and an exit code."""

    def __init__(self, line, code):
        super().__init__(line)
        self.line = line
        self.code = code


def key_value(text):
    key, separator, value = text.partition("=")
    if not separator:
        raise argparse.ArgumentTypeError(f"expected KEY=VALUE, got {text!r}")
    return key, value


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--port", type=int, required=True)
    parser.add_argument("--cafile", required=True)
    parser.add_argument("--header", type=key_value, action="append", default=[])
    parser.add_argument("--query", type=key_value, action="append", default=[])
    parser.add_argument("--clients", type=int, default=1)
    parser.add_argument("--count", type=int, default=0)
    parser.add_argument("--mode", choices=["listen", "never-read", "disconnect-after"],
                        default="listen")
    parser.add_argument("--after", type=int, default=0)
    parser.add_argument("--timeout", type=float, default=30.0)
    parser.add_argument("--progress", action="store_true",
                        help="listen mode: print 'received I K' as each message arrives")
    return parser.parse_args()


def tls_context(cafile):
    context = ssl.create_default_context(ssl.Purpose.SERVER_AUTH, cafile=cafile)
    context.check_hostname = True
    return context


def uri(arguments):
    path = "/"
    if arguments.query:
        path += "?" + urllib.parse.urlencode(arguments.query)
    return f"wss://localhost:{arguments.port}{path}"


async def open_connection(arguments, context, **extra):
    try:
        return await websockets.connect(
            uri(arguments),
            ssl=context,
            server_hostname="localhost",
            extra_headers=arguments.header,
            ping_interval=None,
            open_timeout=None,
            max_size=None,
            compression=None,
            **extra,
        )
    except websockets.exceptions.InvalidStatusCode as error:
        raise Outcome(f"refused {error.status_code}", 3) from error
    except websockets.exceptions.ConnectionClosed as error:
        raise Outcome(f"closed {error.code}", 5) from error


async def receive(connection, index, count, progress):
    messages = []
    try:
        while len(messages) < count:
            message = await connection.recv()
            if isinstance(message, bytes):
                raise Outcome(f"failed client {index} received a binary message", 6)
            messages.append(message)
            if progress:
                say(f"received {index} {len(messages)}")
    except websockets.exceptions.ConnectionClosed as error:
        raise Outcome(f"closed {error.code}", 5) from error
    return messages


def print_messages(all_messages):
    for index, messages in enumerate(all_messages):
        for message in messages:
            say(f"message {index} {json.dumps(message)}")


async def connect_and_receive(arguments, context, count, progress):
    """Opens --clients connections, reads count messages on each, prints them."""
    connections = await asyncio.gather(
        *(open_connection(arguments, context) for _ in range(arguments.clients)))
    say(f"connected {len(connections)}")
    all_messages = await asyncio.gather(
        *(receive(connection, index, count, progress)
          for index, connection in enumerate(connections)))
    print_messages(all_messages)
    return connections


async def listen(arguments, context):
    connections = await connect_and_receive(arguments, context, arguments.count, arguments.progress)
    await asyncio.gather(*(connection.close() for connection in connections))
    say("done")


async def disconnect_after(arguments, context):
    connections = await connect_and_receive(arguments, context, arguments.after, False)
    for connection in connections:
        connection.transport.abort()
    say("aborted")


async def never_read(arguments, context):
    # Small buffers everywhere, so that the server's writes stall quickly.
    raw = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    raw.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
    raw.setblocking(False)
    await asyncio.get_running_loop().sock_connect(raw, ("127.0.0.1", arguments.port))
    connection = await open_connection(arguments, context, sock=raw, max_queue=1,
                                       read_limit=4096)
    say("connected 1")
    stdin_closed = asyncio.Event()
    loop = asyncio.get_running_loop()

    def wait_for_stdin():
        # os.read, not sys.stdin: a daemon thread blocked in a buffered read
        # would make the interpreter's shutdown abort.
        while os.read(0, 4096):
            pass
        loop.call_soon_threadsafe(stdin_closed.set)

    threading.Thread(target=wait_for_stdin, daemon=True).start()
    await stdin_closed.wait()
    connection.transport.abort()


async def main(arguments):
    context = tls_context(arguments.cafile)
    runs = {"listen": listen, "never-read": never_read, "disconnect-after": disconnect_after}
    try:
        await asyncio.wait_for(runs[arguments.mode](arguments, context), arguments.timeout)
    except asyncio.TimeoutError as error:
        raise Outcome("timeout", 4) from error


def run():
    arguments = parse_arguments()
    try:
        asyncio.run(main(arguments))
    except Outcome as outcome:
        say(outcome.line)
        return outcome.code
    except Exception as error:  # pylint: disable=broad-except
        say(f"failed {type(error).__name__}: {error}".replace("\n", " "))
        return 6
    return 0


if __name__ == "__main__":
    sys.exit(run())
