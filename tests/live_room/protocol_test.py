#!/usr/bin/python3
"""LiveRoom.ServerAnswersEveryMessageAndDropsASlowClient: the live room's
websocket and HTTP side without a browser (Python's websockets package).
- hello is answered by welcome and the room; a mix arrives every period;
- each wrong message gets an error naming what was wrong, and the session
  stays usable: a message before hello, text that is not JSON, an unknown
  type, a control the page may not set, a negative seat; a
  microphone block of the wrong size is ignored;
- only the page's own files are served (no paths), /stats is JSON;
- a client that stops reading is dropped after about 3 s and leaves the
  room, while another client keeps receiving its mixes.

usage: protocol_test.py QUELORA_LIVE_ROOM"""

import asyncio
import json
import struct
import subprocess
import sys
import time
import urllib.error
import urllib.request

try:
    import websockets
except ImportError:
    print("SKIP: Python's websockets package is missing (Debian: python3-websockets)")
    sys.exit(77)


def start(binary):
    process = subprocess.Popen([binary, "--port", "0"], stdout=subprocess.PIPE, text=True)
    line = process.stdout.readline()
    assert "localhost:" in line, line
    return process, int(line.split("localhost:")[1].split("/")[0])


def get(port, path):
    try:
        with urllib.request.urlopen("http://localhost:%d%s" % (port, path), timeout=5) as r:
            return r.status, r.headers.get("Content-Type"), r.read()
    except urllib.error.HTTPError as e:
        return e.code, None, b""


async def next_of(ws, kind, seconds=5.0):
    """The next text message of a type within `seconds`, skipping mixes and
    other messages."""
    deadline = time.time() + seconds
    while time.time() < deadline:
        message = await asyncio.wait_for(ws.recv(), seconds)
        if isinstance(message, str) and json.loads(message)["type"] == kind:
            return json.loads(message)
    raise AssertionError("no %s message within %.0f s" % (kind, seconds))


async def session_checks(port):
    async with websockets.connect("ws://localhost:%d/ws" % port, max_size=None) as ws:
        await ws.send(json.dumps({"type": "seat", "seat": 2}))
        assert "hello" in (await next_of(ws, "error"))["message"]
        await ws.send(json.dumps({"type": "hello", "name": "Ann"}))
        welcome = await next_of(ws, "welcome")
        assert welcome["sample_rate"] == 48000 and welcome["block"] == 480
        assert "QEL_CONTROL_MIXING_3D_ENABLE" in welcome["controls"]
        room = await next_of(ws, "room")
        assert [p["name"] for p in room["participants"]] == ["Ann"]
        assert len(room["layout"]["seats"]) == 24
        for bad, says in ((b"not json".decode(), "not a message"),
                          (json.dumps({"type": "dance"}), "unknown message type"),
                          (json.dumps({"type": "control", "control": "QEL_CONTROL_DEVICE",
                                       "value": 2}), "control"),
                          (json.dumps({"type": "seat", "seat": -3}), "invalid")):
            await ws.send(bad)
            error = await next_of(ws, "error")
            assert says.lower() in error["message"].lower(), (bad, error)
        await ws.send(struct.pack("<100f", *([0.5] * 100)))  # wrong size: ignored
        await ws.send(json.dumps({"type": "seat", "seat": 5}))
        moved = await next_of(ws, "room")
        assert moved["participants"][0]["seat"] == 5, moved
        blocks = 0
        deadline = time.time() + 1.0
        while time.time() < deadline:
            message = await asyncio.wait_for(ws.recv(), 5)
            if isinstance(message, bytes):
                assert len(message) == 960 * 4
                blocks += 1
        assert blocks > 80, "%d mixes in a second" % blocks


async def slow_client(port):
    """One client never reads; the other must keep its mixes coming."""
    async with websockets.connect("ws://localhost:%d/ws" % port, max_size=None,
                                  max_queue=1, read_limit=1024) as slow, \
            websockets.connect("ws://localhost:%d/ws" % port, max_size=None) as fine:
        await slow.send(json.dumps({"type": "hello", "name": "Slow"}))
        await fine.send(json.dumps({"type": "hello", "name": "Fine"}))
        await next_of(fine, "welcome")
        slow.transport.pause_reading()  # stop reading at the socket
        received, started = 0, time.time()
        left = None
        while time.time() - started < 20:
            message = await asyncio.wait_for(fine.recv(), 5)
            if isinstance(message, bytes):
                received += 1
            elif json.loads(message)["type"] == "room":
                names = [p["name"] for p in json.loads(message)["participants"]]
                if "Slow" not in names and left is None:
                    left = time.time() - started
                    break
        assert left is not None, "the slow client was never dropped"
        print("the slow client was dropped after %.1f s; the other got %d mixes meanwhile" %
              (left, received))
        assert received > 80 * left, "the other client's mixes stalled"


def main():
    process, port = start(sys.argv[1])
    try:
        status, kind, body = get(port, "/")
        assert status == 200 and "text/html" in kind and b"<html" in body.lower()
        assert get(port, "/app.js")[1].startswith("text/javascript")
        for path in ("/../CMakeLists.txt", "/%2e%2e/main.cpp", "/web/index.html", "/nothing.js"):
            assert get(port, path)[0] == 404, path
        assert json.loads(get(port, "/stats")[2])["periods"] > 0
        asyncio.run(session_checks(port))
        asyncio.run(slow_client(port))
        assert json.loads(get(port, "/stats")[2])["late_periods"] == 0
    finally:
        process.terminate()
        assert process.wait(timeout=10) == 0
    print("PASS")


if __name__ == "__main__":
    main()
