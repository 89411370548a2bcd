#!/usr/bin/env python3
"""Writes the seed corpus of api_sequence_fuzzer (tests/fuzz/corpus/api_sequence).

Each seed is a program in the fuzzer's input format (see the top of
api_sequence_fuzzer.cpp); the encoder below mirrors its byte reader, so that
the seeds start the fuzzer inside rooms that hold participants instead of
leaving it to find the add, seat and state paths by chance. Run it again after
changing the input format: python3 tests/fuzz/make_api_sequence_seeds.py
"""
import pathlib
import struct

# Opcodes, in the order of the fuzzer's `op` enumeration.
(CREATE_ROOM, DESTROY_ROOM, ROOM_COUNT, SET_LAYOUT, GET_LAYOUT, ADD, REMOVE, PARTICIPANT_COUNT,
 GET_CONFIGURATION, SET_NAME, GET_NAME, SET_SEAT, GET_PLACE, SET_POSITION, SPHERICAL, SET_STATE,
 GET_STATE, SET_ALL_STATES, FLUSH, ADD_EVENT_MANAGER, CONVERTERS, INFO, INPUT_AUDIO,
 OUTPUT_AUDIO) = range(24)

# Indices into the fuzzer's tables.
LAYOUT_IDS = [1, 2, 3, 10, 20, 30, 40, 50, 60, 0, -1, 7, -2**31, 2**31 - 1]
INPUT_RATES = [48000, 48000, 16000, 8000, 24000, 32000, 44100, 96000, 0, -48000]
TEXTS = [None, "", "Alice", "Bob", "%s%n%x%s", "x" * 300, "\u00e9l\u00e8ve", "qel_control_mute_enable",
         "QEL_DEVICE_SPEAKER", "  42abc", "99999999999", "true"]
VALID_OUTPUTS = [(8000, 80), (8000, 160), (16000, 160), (16000, 320), (24000, 240), (24000, 480),
                 (24000, 256), (32000, 320), (32000, 640), (48000, 480), (48000, 960), (48000, 512),
                 (48000, 1024)]
FULL_TABLE, ROOMS_ONLY_TABLE, EMPTY_TABLE, NULL_TABLE = range(4)
REGULAR, SOURCE_ONLY, LISTENER_ONLY = 1, 2, 3


class Program:
    def __init__(self, document, output, channels=2, quality=1, from_memory=False, logging=False):
        setup = next(s for s in range(256) if s % 3 == document and bool(s & 0x10) == from_memory
                     and ((s & 0xE0) == 0xE0) == logging)
        shape = (channels - 1) | (quality - 1) << 2
        self.data = bytearray([setup, VALID_OUTPUTS.index(output), shape])

    def step(self, opcode, room=0, participant=0, *arguments):
        # The third byte (>= 16) keeps every output pointer non-null.
        self.data += bytes([opcode, room, participant, 0xFF]) + b"".join(arguments)
        return self

    def save(self, path):
        path.write_bytes(bytes(self.data))


def b(*values):
    return bytes(values)


def text(value):
    if value in TEXTS:
        return b(TEXTS.index(value))
    raw = value.encode()
    assert len(raw) <= 24 and b"\0" not in raw
    return b(0xFF, len(raw)) + raw


def rate(hz):
    return b(0, INPUT_RATES.index(hz)) if hz in INPUT_RATES else b(0xFF) + struct.pack(">i", hz)


def add(p, room, participant, name, hz=48000, channels=1, kind=REGULAR):
    # Below 200 a byte gives a valid count or type; from 200 on, any of 0-3 or 0-4.
    channels_byte = channels - 1 if channels in (1, 2) else 200 + channels
    kind_byte = kind - 1 if kind in (1, 2, 3) else 200 + kind
    return p.step(ADD, room, participant, text(name), b(channels_byte, kind_byte), rate(hz))


def layout(layout_id):
    return b(0, LAYOUT_IDS.index(layout_id))


def value(v):
    assert -2 <= v <= 101
    return b(v + 2)


def coordinate(v):
    assert v % 10 == 0 and -128 <= v // 10 <= 95
    return b((v // 10) & 0xFF)


def heading(azimuth, elevation):
    a = azimuth + 181
    return b(0, a >> 8, a & 0xFF, elevation + 91)


def seat(index):
    assert -2 <= index <= 9
    return b(index + 2)


def closed_conference():
    """Closed layouts: seats, stacking, states, layout switches, removal."""
    p = Program(document=1, output=(48000, 480))
    p.step(ADD_EVENT_MANAGER, 0, 0, b(FULL_TABLE)).step(ADD_EVENT_MANAGER, 0, 0, b(ROOMS_ONLY_TABLE))
    p.step(CREATE_ROOM, 0).step(CREATE_ROOM, 1).step(CREATE_ROOM, 0).step(ROOM_COUNT)
    for participant, name in enumerate(["Alice", "Bob", "", "%s%n%x%s", "true"]):
        add(p, 0, participant, name, kind=(REGULAR, SOURCE_ONLY, LISTENER_ONLY)[participant % 3])
    add(p, 0, 5, "Carol", hz=16000, channels=2)
    p.step(PARTICIPANT_COUNT, 0).step(GET_CONFIGURATION, 0, 5)
    p.step(SET_SEAT, 0, 0, seat(2)).step(SET_SEAT, 0, 3, seat(9)).step(SET_SEAT, 0, 1, seat(-1))
    p.step(GET_PLACE, 0, 0).step(GET_PLACE, 0, 3).step(SPHERICAL, 0, 0, b(1)).step(SPHERICAL, 0, 2, b(3))
    for control, v in [(2, 1), (5, 50), (9, 40), (10, 100), (13, 0), (14, 37), (12, 2), (7, 1)]:
        p.step(SET_STATE, 0, 0, b(control), value(v)).step(GET_STATE, 0, 0, b(control))
    p.step(SET_STATE, 0, 5, b(7), value(0)).step(SET_ALL_STATES, 0, 0, b(3), value(1))
    p.step(SET_NAME, 0, 2, text("Dave")).step(GET_NAME, 0, 2, b(0)).step(GET_NAME, 0, 1, b(3))
    p.step(SET_LAYOUT, 0, 0, layout(20)).step(SET_LAYOUT, 0, 0, layout(50))
    p.step(SET_LAYOUT, 0, 0, layout(30)).step(SET_SEAT, 0, 4, seat(3)).step(SPHERICAL, 0, 0, b(4))
    p.step(SET_LAYOUT, 0, 0, layout(60)).step(GET_LAYOUT, 0)
    p.step(REMOVE, 0, 2).step(FLUSH, 0, 1).step(PARTICIPANT_COUNT, 0).step(DESTROY_ROOM, 0)
    return p


def open_room():
    """The fallback open room: positions, headings, directions."""
    p = Program(document=0, output=(16000, 160), channels=1)
    p.step(ADD_EVENT_MANAGER, 0, 0, b(FULL_TABLE)).step(CREATE_ROOM, 3)
    for participant in range(4):
        add(p, 3, participant, "Bob", hz=(48000, 16000, 8000, 32000)[participant])
    add(p, 3, 4, "Eve", hz=44100)
    positions = [((0, 0, 0), (0, 0)), ((0, 0, 100), (180, -90)), ((-50, 20, 0), (-180, 90)),
                 ((300, -100, -200), (45, 10))]
    for participant, (xyz, (azimuth, elevation)) in enumerate(positions):
        p.step(SET_POSITION, 3, participant, *map(coordinate, xyz), heading(azimuth, elevation))
    p.step(SET_POSITION, 3, 1, coordinate(0), coordinate(0), coordinate(0), heading(181, 0))
    for listener, source in [(0, 1), (1, 0), (2, 3), (3, 2), (0, 0)]:
        p.step(SPHERICAL, 3, listener, b(source))
    p.step(SET_SEAT, 3, 1, seat(1)).step(GET_PLACE, 3, 1).step(SET_LAYOUT, 3, 0, layout(7))
    p.step(SET_ALL_STATES, 3, 0, b(8), value(1)).step(FLUSH, 3, 2).step(REMOVE, 3, 0)
    p.step(CONVERTERS, 0, 0, b(14), text("qel_control_mute_enable"), text("  42abc"), b(0, 15))
    p.step(CONVERTERS, 0, 0, b(17), text("MASTER"), text("true"), b(0, 20)).step(INFO, 3)
    return p


def headless_layouts():
    """Rooms that start without a layout, then take each of the other document's."""
    p = Program(document=2, output=(24000, 480), quality=3, from_memory=True)
    p.step(CREATE_ROOM, 2).step(GET_LAYOUT, 2)
    for participant in range(3):
        add(p, 2, participant, "Alice", hz=24000)
    p.step(SET_SEAT, 2, 0, seat(2)).step(SET_LAYOUT, 2, 0, layout(1)).step(GET_LAYOUT, 2)
    add(p, 2, 3, "Zed", hz=24000)
    add(p, 2, 4, "Zoe", hz=24000)
    p.step(SET_SEAT, 2, 4, seat(1)).step(GET_PLACE, 2, 4).step(SET_LAYOUT, 2, 0, layout(2))
    p.step(SPHERICAL, 2, 0, b(4)).step(SET_LAYOUT, 2, 0, layout(3))
    p.step(SET_POSITION, 2, 1, coordinate(10), coordinate(0), coordinate(-10), heading(90, 0))
    p.step(SPHERICAL, 2, 0, b(1)).step(REMOVE, 2, 1)
    for control, v in [(1, 1), (4, 0), (6, 1), (11, 0), (15, 100), (16, 101), (10, -1)]:
        p.step(SET_ALL_STATES, 2, 0, b(control), value(v)).step(GET_STATE, 2, 3, b(control))
    p.step(SET_NAME, 2, 3, text(None)).step(GET_NAME, 2, 3, b(4)).step(GET_CONFIGURATION, 2, 4)
    p.step(FLUSH, 2, 0).step(FLUSH, 2, 4).step(DESTROY_ROOM, 2).step(ROOM_COUNT)
    return p


def logged_edges():
    """Logging on: refused calls and their messages, extreme arguments."""
    p = Program(document=1, output=(48000, 1024), logging=True)
    p.step(ADD_EVENT_MANAGER, 0, 0, b(NULL_TABLE)).step(ADD_EVENT_MANAGER, 0, 0, b(EMPTY_TABLE))
    p.step(CREATE_ROOM, 0xF0).step(CREATE_ROOM, 0xF1).step(CREATE_ROOM, 4)  # ids -1 and INT32_MIN
    add(p, 0xF0, 0xF2, "x" * 300)
    add(p, 0xF0, 1, "Al", hz=96000)
    add(p, 0xF0, 1, "Al", channels=3)
    add(p, 4, 1, None, kind=4)
    add(p, 4, 1, None)
    add(p, 4, 2, "%s%n%x%s")
    add(p, 4, 3, "Low", hz=8000)  # no whole input block fits 1024 output frames
    p.step(SET_SEAT, 4, 1, b(0xF0)).step(SET_SEAT, 4, 1, b(0xF1)).step(SET_SEAT, 4, 2, seat(5))
    p.step(SET_STATE, 4, 1, b(0xFF) + struct.pack(">i", 99), value(1))
    p.step(SET_STATE, 4, 1, b(13), b(0xF5)).step(SET_STATE, 4, 2, b(7), value(1))
    p.step(GET_NAME, 4, 1, b(5)).step(GET_NAME, 4, 1, b(6)).step(SET_NAME, 4, 1, text("true"))
    p.step(SET_LAYOUT, 4, 0, layout(20)).step(SET_LAYOUT, 4, 0, layout(60)).step(SET_LAYOUT, 4, 0, layout(40))
    p.step(SET_POSITION, 4, 1, coordinate(-1280), coordinate(950), coordinate(0), heading(-181, 91))
    p.step(SET_POSITION, 4, 1, coordinate(-1280), coordinate(950), coordinate(0), heading(-180, -90))
    p.step(SET_POSITION, 4, 2, b(0xF1), b(0xF0), b(0xF2), heading(180, 90))  # INT32_MAX, MIN, -1
    p.step(SPHERICAL, 4, 1, b(2)).step(SPHERICAL, 4, 2, b(1)).step(SPHERICAL, 0xF0, 1, b(1))
    p.step(SET_LAYOUT, 4, 0, layout(50)).step(SPHERICAL, 4, 1, b(2)).step(SET_SEAT, 4, 2, seat(1))
    p.step(SET_LAYOUT, 4, 0, layout(30)).step(SET_SEAT, 4, 2, seat(9)).step(GET_PLACE, 4, 2)
    p.step(GET_STATE, 4, 1, b(0)).step(GET_STATE, 4, 9, b(2)).step(REMOVE, 4, 9).step(DESTROY_ROOM, 9)
    p.step(CONVERTERS, 0, 0, b(0), text("%s%n"), text("-2147483649"), b(0xFF) + struct.pack(">i", -9980))
    return p


def audio_block(samples, sample_type, frames_byte=0):
    """An input step's arguments: frame selector (< 230: the required count),
    a pattern of sample bytes repeated over the block, the sample type."""
    return b(frames_byte, len(samples) - 1) + bytes(samples) + b(sample_type)


def conference_audio():
    """Talkers of every shape feeding listeners of every shape, with bad samples."""
    p = Program(document=1, output=(16000, 160), channels=2)
    p.step(CREATE_ROOM, 0)
    add(p, 0, 0, "Alice")
    add(p, 0, 1, "Bob", hz=16000, channels=2)
    add(p, 0, 2, "Src", kind=SOURCE_ONLY)
    add(p, 0, 3, "Lis", kind=LISTENER_ONLY)
    speech = [0x90, 0xA0, 0xC0, 0xE0, 0xF0, 0x88]  # mid-range values
    bad = [0x00, 0x20, 0x21, 0x40, 0x61, 0x60]      # NaN, +-inf, denormal, +-1
    for block in range(3):
        for talker in (0, 1, 2):
            p.step(INPUT_AUDIO, 0, talker, audio_block(speech if block != 1 else bad, talker % 3))
        for listener in (0, 1, 3):
            p.step(OUTPUT_AUDIO, 0, listener, b(block % 3))
    p.step(SET_STATE, 0, 3, b(8), value(1)).step(SET_STATE, 0, 0, b(1), value(1))
    p.step(INPUT_AUDIO, 0, 3, audio_block(speech, 1)).step(INPUT_AUDIO, 0, 0, audio_block(speech, 1, 240))
    p.step(OUTPUT_AUDIO, 0, 2, b(1)).step(FLUSH, 0, 0).step(OUTPUT_AUDIO, 0, 3, b(0))
    return p


def main():
    directory = pathlib.Path(__file__).resolve().parent / "corpus" / "api_sequence"
    directory.mkdir(parents=True, exist_ok=True)
    for maker in (closed_conference, open_room, headless_layouts, logged_edges, conference_audio):
        maker().save(directory / f"{maker.__name__}.bin")


if __name__ == "__main__":
    main()
