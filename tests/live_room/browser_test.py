#!/usr/bin/python3
"""LiveRoom.TwoTabsHearEachOtherFromTheirSeats: two headless Chromium tabs with
different talker files join the live room. Each must hear the other's tone
and not its own; the other's tone must be louder in the ear on the side the
engine says it sits (the azimuth it reports to that tab); and after the
listener moves to the mirrored seat on the page, the louder ear must change.

usage: browser_test.py QUELORA_LIVE_ROOM"""

import os
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import live_room_harness as h  # noqa: E402  (skips when the browser is missing)

# The round room has 24 seats facing its centre: from seat 1, seat 7 (a
# quarter of the way round) is heard 45 degrees to one side, and from seat 13
# (opposite seat 1) 45 degrees to the other side at the same distance.
LISTENER_SEAT, MIRRORED_SEAT, TALKER_SEAT = 1, 13, 7
# Their pitches lie 860 Hz apart, off every multiple of 100 Hz: the renderer
# works in half-block frames and spreads a tone into sidebands 200 Hz apart
# (and the 10 ms blocks 100 Hz apart), which must not land on the other's. Both lie
# high enough for the head to shade the far ear by several decibels at 45 degrees.
TONES = {"Ann": 1170.0, "Ben": 2030.0}


def other(name):
    return "Ben" if name == "Ann" else "Ann"


def heard_from(tab, name):
    for p in tab.state()["participants"]:
        if p["name"] == name:
            return p.get("heard_from")
    return None


def record(tabs, seconds):
    for tab in tabs.values():
        tab.start_recording()
    time.sleep(seconds)
    return {name: tab.stop_recording() for name, tab in tabs.items()}


def check_hearing(recordings, tabs, label):
    """Each tab hears the other's tone, far above its own; returns the
    interaural level difference (right over left, dB) of the other's tone."""
    ild = {}
    for name, rec in recordings.items():
        assert rec["sampleRate"] == h.RATE, rec["sampleRate"]
        left, right = rec["left"], rec["right"]
        theirs = h.tone_energy(left, TONES[other(name)]) + h.tone_energy(right, TONES[other(name)])
        mine = h.tone_energy(left, TONES[name]) + h.tone_energy(right, TONES[name])
        print("%s %s: the other's tone %.1f dB, its own %.1f dB" %
              (label, name, h.db(theirs), h.db(mine)))
        assert h.db(theirs) > -70, name + " does not hear " + other(name)
        assert h.db(theirs) - h.db(mine) > 20, name + " hears itself"
        ild[name] = h.db(h.tone_energy(right, TONES[other(name)]) /
                         h.tone_energy(left, TONES[other(name)]))
    return ild


def expect_side(ild, azimuth, who):
    """Right ear louder for a source on the right (azimuth 0..180)."""
    side = 1 if 0 < azimuth % 360 < 180 else -1
    print("%s hears the other at azimuth %d: ILD %+.1f dB" % (who, azimuth, ild))
    assert side * ild > 3, "%s: ILD %+.1f dB for azimuth %d" % (who, ild, azimuth)


def main():
    server = h.Server(sys.argv[1])
    folder = tempfile.mkdtemp(prefix="live_room_test_")
    tabs = {}
    try:
        for name, tone in TONES.items():
            path = os.path.join(folder, name + ".wav")
            h.write_talker(path, tone)
            tabs[name] = h.Tab(server, path)
        ids = {name: tab.join(name) for name, tab in tabs.items()}
        h.wait_until(lambda: all(heard_from(t, other(n)) for n, t in tabs.items()), 10,
                     "both tabs to see each other")
        tabs["Ann"].move(LISTENER_SEAT)
        tabs["Ben"].move(TALKER_SEAT)
        seat_of = lambda tab, name: next(p["seat"] for p in tab.state()["participants"]
                                         if p["name"] == name)
        h.wait_until(lambda: seat_of(tabs["Ann"], "Ann") == LISTENER_SEAT and
                     seat_of(tabs["Ann"], "Ben") == TALKER_SEAT, 10, "the moves")
        time.sleep(1.0)  # the mixes from the new seats reach the jitter buffers
        ild = check_hearing(record(tabs, 3.0), tabs, "before the move:")
        for name in tabs:
            expect_side(ild[name], heard_from(tabs[name], other(name))["azimuth"], name)
        before = ild["Ann"]

        tabs["Ann"].move(MIRRORED_SEAT)
        h.wait_until(lambda: seat_of(tabs["Ann"], "Ann") == MIRRORED_SEAT, 10, "Ann's move")
        time.sleep(1.0)
        ild = check_hearing(record(tabs, 3.0), tabs, "after Ann moved:")
        expect_side(ild["Ann"], heard_from(tabs["Ann"], "Ben")["azimuth"], "Ann")
        assert before * ild["Ann"] < 0, "moving the seat did not move the sound"
        for name, tab in tabs.items():
            c = tab.counters()
            print("%s: %d blocks received, %d underruns" % (name, c["received"], c["underruns"]))
            assert c["received"] > 500, name + " received too few blocks"
        stats = server.stats()
        print("server: %d periods, %d late; microphone underruns %s" %
              (stats["periods"], stats["late_periods"],
               [(m["name"], m["underruns"]) for m in stats["members"]]))
    finally:
        for tab in tabs.values():
            tab.close()
        server.stop()
    print("PASS")


if __name__ == "__main__":
    main()
