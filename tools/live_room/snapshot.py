#!/usr/bin/python3
"""Takes the live room's picture and measures its latency, for docs/: starts
quelora_live_room with bots talking from the given WAV files (the synthesised
demo talkers without any), joins with one headless Chromium tab, waits until
the room is talking, measures the latency with noise cancellation off and
then on with the deep filter (the page's "Measure latency"), prints the
page's latency tables and saves a screenshot.

usage: snapshot.py QUELORA_LIVE_ROOM OUT.png [BOT.wav ...]"""

import os
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tests",
                                "live_room"))
import live_room_harness as h  # noqa: E402


def main():
    binary, picture, bots = sys.argv[1], sys.argv[2], sys.argv[3:]
    server = h.Server(binary, *([a for f in bots for a in ("--bot", f)] or ["--demo-bots"]))
    folder = tempfile.mkdtemp(prefix="live_room_snapshot_")
    voice = os.path.join(folder, "you.wav")
    h.write_talker(voice, 220.0, amplitude=0.1)
    tab = h.Tab(server, voice)
    try:
        tab.driver.set_window_size(1280, 900)
        tab.join("You")
        time.sleep(4.0)
        for anc in (1, 0):
            tab.driver.execute_script(
                "window.liveRoom.setControl('QEL_CONTROL_ANC_ENABLE', arguments[0]);", anc)
            time.sleep(1.0)
            tab.driver.find_element("id", "measure").click()
            h.wait_until(lambda: tab.driver.execute_script(
                "return document.getElementById('latency').innerText.includes('Mouth to ear');"),
                         15, "the latency")
            print("noise cancellation", "on (deep filter)" if anc else "off")
            print(tab.driver.execute_script(
                "return document.getElementById('latency').innerText;"))
        time.sleep(1.0)
        tab.driver.save_screenshot(picture)
        print("saved", picture)
    finally:
        tab.close()
        server.stop()


if __name__ == "__main__":
    main()
