"""Drives the live room with real browsers: starts quelora_live_room on a free
port, opens Chromium (headless, a fake microphone playing a file) on its page
through Selenium, and reads back what each tab played. Exits 77 (CTest's skip)
with the reason where Python's selenium, Chromium or its driver is missing."""

import json
import math
import shutil
import struct
import subprocess
import sys
import time
import urllib.request
import wave

SKIP = 77


def skip(why):
    print("SKIP: " + why)
    sys.exit(SKIP)


try:
    from selenium import webdriver
    from selenium.webdriver.chrome.options import Options
    from selenium.webdriver.chrome.service import Service
except ImportError:
    skip("Python's selenium is missing (Debian: python3-selenium; scripts/bootstrap installs it)")

CHROMIUM = shutil.which("chromium") or shutil.which("chromium-browser")
DRIVER = shutil.which("chromedriver")
if not CHROMIUM or not DRIVER:
    skip("Chromium or its driver is missing (Debian: chromium, chromium-driver)")

RATE = 48000


def write_talker(path, frequency, seconds=6.0, amplitude=0.3):
    """A talker the tests can tell apart from the others by pitch: a tone
    gated four times a second like syllables, 16-bit mono."""
    frames = int(seconds * RATE)
    with wave.open(path, "wb") as w:
        w.setnchannels(1)
        w.setsampwidth(2)
        w.setframerate(RATE)
        data = bytearray()
        for i in range(frames):
            t = i / RATE
            gate = 0.55 + 0.45 * math.sin(2 * math.pi * 4 * t)
            v = amplitude * gate * math.sin(2 * math.pi * frequency * t)
            data += struct.pack("<h", int(v * 32767))
        w.writeframes(bytes(data))


class Server:
    """quelora_live_room on a free port, stopped on exit."""

    def __init__(self, binary, *arguments):
        self.process = subprocess.Popen([binary, "--port", "0", *arguments],
                                        stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                        text=True)
        line = self.process.stdout.readline()
        if "localhost:" not in line:
            self.process.kill()
            raise RuntimeError("the live room did not start: " + line + self.process.stdout.read())
        self.port = int(line.split("localhost:")[1].split("/")[0])
        self.url = "http://localhost:%d/" % self.port

    def stats(self):
        with urllib.request.urlopen(self.url + "stats", timeout=5) as response:
            return json.load(response)

    def stop(self):
        self.process.terminate()
        try:
            return self.process.wait(timeout=10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            return None


class Tab:
    """One Chromium whose microphone plays `talker_wav`, on the page."""

    def __init__(self, server, talker_wav):
        options = Options()
        options.binary_location = CHROMIUM
        for argument in ("--headless=new", "--no-sandbox", "--disable-gpu",
                         "--use-fake-ui-for-media-stream", "--use-fake-device-for-media-stream",
                         "--use-file-for-fake-audio-capture=" + talker_wav,
                         "--autoplay-policy=no-user-gesture-required"):
            options.add_argument(argument)
        self.driver = webdriver.Chrome(service=Service(DRIVER), options=options)
        self.driver.set_script_timeout(60)
        self.driver.get(server.url)
        self.pid = self.driver.service.process.pid

    def call(self, script, *arguments):
        """Runs an async function body; its resolved value comes back."""
        return self.driver.execute_async_script(
            "const done = arguments[arguments.length - 1];"
            "(async () => { " + script + " })(...arguments).then(done, e => done({error: String(e)}));",
            *arguments)

    def join(self, name):
        result = self.call("return await window.liveRoom.join(arguments[0]);", name)
        if isinstance(result, dict) and "error" in result:
            raise RuntimeError(name + " could not join: " + result["error"])
        return self.driver.execute_script("return window.liveRoom.me;")

    def state(self):
        return self.driver.execute_script("return window.liveRoom.state;")

    def move(self, seat):
        self.driver.execute_script("window.liveRoom.moveTo(arguments[0]);", seat)

    def counters(self):
        return self.driver.execute_script(
            "return {received: window.liveRoom.received, underruns: window.liveRoom.underruns};")

    def start_recording(self):
        self.driver.execute_script("window.liveRoom.startRecording();")

    def stop_recording(self):
        return self.call("return await window.liveRoom.stopRecording();")

    def close(self):
        try:
            self.driver.quit()
        except Exception:  # a killed tab's driver may already be gone
            pass


def wait_until(condition, seconds, what):
    deadline = time.time() + seconds
    while time.time() < deadline:
        value = condition()
        if value:
            return value
        time.sleep(0.1)
    raise AssertionError("timed out waiting for " + what)


def tone_energy(samples, frequency):
    """Goertzel power of one frequency over the whole recording, Hann
    windowed: a rectangular window would leak a loud tone into the
    measurement of a quiet one 70-80 dB down."""
    coefficient = 2 * math.cos(2 * math.pi * frequency / RATE)
    n = max(1, len(samples))
    s1 = s2 = 0.0
    for i, x in enumerate(samples):
        w = 0.5 - 0.5 * math.cos(2 * math.pi * i / n)
        s1, s2 = x * w + coefficient * s1 - s2, s1
    return (s1 * s1 + s2 * s2 - coefficient * s1 * s2) / n ** 2


def db(ratio):
    return 10 * math.log10(max(ratio, 1e-30))
