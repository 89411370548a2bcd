#!/usr/bin/python3
"""LiveRoom.SixteenBotsAndFourTabsKeepEveryPeriodForTwoMinutes: 16 bots talking
from files and 4 headless Chromium tabs in one live room for SECONDS (120 by
default). The audio thread must finish every 10 ms period before its deadline,
the server's resident memory must stay flat once everyone is in, every tab
must keep receiving its mix, and a tab killed half-way (its browser process
gone without a goodbye) must leave the room within 10 s while the others
carry on.

usage: soak_test.py QUELORA_LIVE_ROOM [SECONDS]"""

import os
import signal
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import live_room_harness as h  # noqa: E402  (skips when the browser is missing)

BOTS, TABS = 16, 4


def main():
    seconds = float(sys.argv[2]) if len(sys.argv) > 2 else 120.0
    folder = tempfile.mkdtemp(prefix="live_room_soak_")
    bot_files = []
    for i in range(BOTS):
        path = os.path.join(folder, "bot%02d.wav" % i)
        h.write_talker(path, 300.0 + 110.0 * i, seconds=3.0, amplitude=0.2)
        bot_files.append(path)
    server = h.Server(sys.argv[1], *[a for f in bot_files for a in ("--bot", f)])
    tabs = []
    try:
        for i in range(TABS):
            path = os.path.join(folder, "tab%d.wav" % i)
            h.write_talker(path, 2500.0 + 170.0 * i)
            tab = h.Tab(server, path)
            tab.join("Tab %d" % i)
            tabs.append(tab)
        h.wait_until(lambda: len(server.stats()["members"]) == BOTS + TABS, 10, "everyone in")
        time.sleep(5.0)  # the tabs' jitter buffers and the server's rings settle
        start = server.stats()
        resident = [start["resident_kib"]]
        killed = None
        began = time.time()
        while time.time() - began < seconds:
            time.sleep(5.0)
            stats = server.stats()
            resident.append(stats["resident_kib"])
            if killed is None and time.time() - began > seconds / 2:
                # The last tab's browser dies mid-stream.
                killed = tabs.pop()
                for pid in child_pids(killed.pid):
                    os.kill(pid, signal.SIGKILL)
                gone = time.time()
                h.wait_until(lambda: len(server.stats()["members"]) == BOTS + TABS - 1, 10,
                             "the killed tab to leave")
                print("the killed tab left after %.1f s" % (time.time() - gone))
        end = server.stats()
        periods = end["periods"] - start["periods"]
        late = end["late_periods"] - start["late_periods"]
        mean = (end["total_processing_us"] - start["total_processing_us"]) / max(1, periods)
        print("%d periods in %.0f s, %d late; processing %.2f ms on average, longest %.2f ms; "
              "real-time thread: %s" % (periods, seconds, late, mean / 1000.0,
                                        end["max_processing_us"] / 1000.0,
                                        end["realtime_thread"]))
        print("resident memory (KiB) every 5 s:", resident)
        counters = [tab.counters() for tab in tabs]
        print("tabs:", counters)
        assert killed is not None
        assert late == 0, "%d periods finished after their deadline" % late
        growth = max(resident[1:]) - resident[0]
        assert growth < 0.05 * resident[0], "resident memory grew by %d KiB" % growth
        for c in counters:
            assert c["received"] > 90 * (seconds + 5), "a tab stopped receiving its mix"
    finally:
        for tab in tabs:
            tab.close()
        status = server.stop()
    assert status == 0, "the server did not stop cleanly (%s)" % status
    print("PASS")


def child_pids(pid):
    """Every browser process below the chromedriver process, then the driver
    (from each process's parent in /proc/*/stat)."""
    parents = {}
    for entry in os.listdir("/proc"):
        if entry.isdigit():
            try:
                with open("/proc/%s/stat" % entry) as f:
                    parents[int(entry)] = int(f.read().rsplit(")", 1)[1].split()[1])
            except (OSError, IndexError, ValueError):
                pass
    found, queue = [], [pid]
    while queue:
        parent = queue.pop()
        found.append(parent)
        queue.extend(child for child, p in parents.items() if p == parent)
    return found[1:] + found[:1]


if __name__ == "__main__":
    main()
