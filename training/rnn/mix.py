"""Mixtures for the recurrent suppressor, and their feature records.

Speech and noise: the train, val or eval split of training/mixing.py (disjoint speakers and
noise files; the same splits as the DFN canceller's, so both models are scored on speech and
noise neither has heard).

A training sequence (default 60 s) is built as
- speech track: utterances separated by gaps (60 % 0-0.5 s, 30 % 0.5-2 s, 10 % 2-6 s),
  each utterance normalised to its active level, then set to the sequence's speech level
  (uniform -45..-10 dBFS, full scale = 1.0) plus +-3 dB per utterance; the absolute level
  matters because the features are log energies in the 16-bit range;
- noise track: pieces of 3-20 s, each normalised to unit power, with 20 ms cross-fades; a
  piece is a random noise file (random offset, looped when short), or, in training sets,
  25 % of the time generated noise (white, pink, brown, mains hum, fan) and 15 % babble of
  the split's speakers (training/mixing.py; --generated, --babble);
- in training sets 30 % (--room) of the utterances are played in a simulated room
  (mixing.room_response); the clean track, and so the target gains, keep the dry speech;
- segments of 4-15 s, each with its own SNR (uniform -5..25 dB against the speech level),
  10 % of them clean-only (no noise) and 10 % noise-only (no utterance starts there);
  the noise gain ramps over 50 ms between segments;
- a random second-order filter (1 + r1 z^-1 + r2 z^-2) / (1 + r3 z^-1 + r4 z^-2),
  r uniform in [-3/8, 3/8], on the speech and another on the noise (a gentle tilt, always
  stable);
- in 30 % of the sequences a second noise track, 0-10 dB below the first, adds to it;
- the mixture is scaled down (both tracks) if it would peak above 0.99.

Speech level of a frame (480 samples): the clean frame's energy relative to the active level
of the utterance it belongs to, in dB (-100 in the gaps). The active level of an utterance is
the mean power of its frames within 40 dB of its loudest frame. The voice label
(voice_label) is 1 on a frame within LABEL_BELOW_LEVEL_DB (20 dB) of that level and on the
LABEL_HANGOVER (10) frames after one; README.md says why.

The feature tool (tools/rnn_features, `quelora_rnn_features`) turns each (noisy, clean) pair
into records of 89 float32 per frame (docs/rnn_suppressor.md). A training set is stored as
.npy arrays under --out: features [N, 42], targets [N, 22] (-1 = undefined band), silent
[N], level [N], starts (first frame of every sequence, plus N).

    /usr/bin/python3 training/rnn/mix.py --data /work/shared/data --hours 12 --out /tmp/rnn/train
    /usr/bin/python3 training/rnn/mix.py --split val --hours 0.25 --seed 2 --out /tmp/rnn/val
"""

import argparse
import glob
import os
import shutil
import subprocess
import sys
import tempfile
import time

import numpy as np
import scipy.signal

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
import mixing  # noqa: E402

SAMPLE_RATE = 48000
FRAME = 480
RECORD = 89
LABEL_BELOW_LEVEL_DB = 20.0
LABEL_HANGOVER = 10
GAP_LEVEL_DB = -100.0
# Fractions of the training sets' utterances played in a room, and of their noise pieces that
# are generated noise or babble (--room, --generated, --babble).
AUGMENT = {"room": 0.3, "generated": 0.25, "babble": 0.15}
ACTIVE_WITHIN_DB = 40.0
TOOL = "quelora_rnn_features"
REPO = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))


# ---- files --------------------------------------------------------------------------------
def load_pool(data, split):
    """(speech, noise) float32 signals of a split of training/mixing.py."""
    pool = mixing.Pool(data, split)
    return ([x.astype(np.float32) / 32768.0 for x in pool.speech],
            [x.astype(np.float32) / 32768.0 for x in pool.noise])


# ---- levels -------------------------------------------------------------------------------
def frame_power(x):
    n = x.size // FRAME
    return np.mean(x[:n * FRAME].astype(np.float64).reshape(n, FRAME) ** 2, axis=1)


def active_power(x):
    p = frame_power(x)
    if p.size == 0 or p.max() <= 0:
        return 0.0
    return float(np.mean(p[p > p.max() * 10.0 ** (-ACTIVE_WITHIN_DB / 10.0)]))


def voice_label(level, below_db=LABEL_BELOW_LEVEL_DB, hangover=LABEL_HANGOVER, starts=None):
    """1 on frames within below_db of their utterance's level and on the `hangover` frames
    after each such frame, within each sequence (starts: first frames, plus the end)."""
    level = np.asarray(level)
    if starts is None:
        starts = [0, level.size]
    out = np.zeros(level.size, np.uint8)
    for a, b in zip(starts[:-1], starts[1:]):
        loud = np.concatenate([[0], np.cumsum(level[a:b] > -below_db)])
        t = np.arange(b - a)
        out[a:b] = loud[t + 1] > loud[np.maximum(t - hangover, 0)]
    return out


def random_filter(rng):  # noqa: E302
    r = rng.uniform(-0.375, 0.375, 4)
    return np.array([1.0, r[0], r[1]]), np.array([1.0, r[2], r[3]])


# ---- one sequence -------------------------------------------------------------------------
def speech_track(rng, speech, n, level_db, mute, reverb=False):
    """(track, reverberant track, utterance spans) with utterances at level_db +- 3 dB; none
    starts where mute. With reverb, 30 % of the utterances sound in a simulated room in the
    second track (their tails may run into the next utterance, as in a room)."""
    raw = np.zeros(n, np.float64)
    wet = np.zeros(n, np.float64)
    spans = []
    pos = 0
    while True:
        u = rng.random()
        gap = rng.uniform(0, 0.5) if u < 0.6 else rng.uniform(0.5, 2) if u < 0.9 else \
            rng.uniform(2, 6)
        pos += int(gap * SAMPLE_RATE)
        s = speech[rng.integers(len(speech))]
        if pos + s.size > n:
            break
        if mute[pos]:
            continue
        raw[pos:pos + s.size] = s
        if reverb and rng.random() < AUGMENT["room"]:
            w = scipy.signal.fftconvolve(s, mixing.room_response(rng)[0])[:n - pos]
            wet[pos:pos + w.size] += w
        else:
            wet[pos:pos + s.size] += s
        spans.append((pos, pos + s.size, level_db + rng.uniform(-3, 3)))
        pos += s.size
    return raw, wet, spans


def noise_piece(rng, noise, speech, size, extras):
    u = rng.random() if extras else 0.0
    if u >= 1.0 - AUGMENT["babble"]:
        return mixing.babble(rng, speech, size).astype(np.float64)
    if u >= 1.0 - AUGMENT["babble"] - AUGMENT["generated"]:
        kind = mixing.GENERATED[rng.integers(len(mixing.GENERATED))]
        return mixing.generated_noise(rng, size, kind).astype(np.float64)
    v = noise[rng.integers(len(noise))]
    return np.resize(np.roll(v, -rng.integers(v.size)), size).astype(np.float64)


def noise_track(rng, noise, n, speech=None, extras=False):
    out = np.zeros(n, np.float64)
    fade = int(0.02 * SAMPLE_RATE)
    ramp = np.linspace(0.0, 1.0, fade)
    pos = 0
    while pos < n:
        length = min(int(rng.uniform(3, 20) * SAMPLE_RATE), n - pos)
        for _ in range(50):
            piece = noise_piece(rng, noise, speech, length + fade, extras)
            p = np.mean(piece ** 2)
            if p > 1e-10:
                break
        piece /= np.sqrt(p)
        piece[:fade] *= ramp
        piece[-fade:] *= ramp[::-1]
        end = min(n, pos + piece.size)
        out[pos:end] += piece[:end - pos]
        pos += length
    return out


def make_sequence(rng, speech, noise, seconds, snr_db=None, level_db=None, segments=True):
    """(noisy, clean, level) for one sequence: float32 signals of whole frames and the
    speech level of every frame (dB against its utterance's active level, GAP_LEVEL_DB in
    the gaps). snr_db / level_db fixed when given; segments=False: one SNR, one noise file,
    no clean-only or noise-only segments, no room, no generated noise (the evaluation
    mixtures)."""
    n = int(seconds * SAMPLE_RATE) // FRAME * FRAME
    if level_db is None:
        level_db = rng.uniform(-45.0, -10.0)
    # Segments with their own noise level relative to the speech level (linear gains).
    noise_gain = np.zeros(n)
    mute = np.zeros(n, bool)
    pos = 0
    while pos < n:
        end = min(n, pos + int(rng.uniform(4, 15) * SAMPLE_RATE)) if segments else n
        kind = rng.random() if segments else 0.5
        snr = snr_db if snr_db is not None else rng.uniform(-5.0, 25.0)
        noise_gain[pos:end] = 0.0 if kind < 0.1 else 10.0 ** ((level_db - snr) / 20.0)
        mute[pos:end] = kind > 0.9
        pos = end
    ramp = int(0.05 * SAMPLE_RATE)
    c = np.cumsum(np.pad(noise_gain, (ramp // 2 + 1, ramp - ramp // 2 - 1), "edge"))
    noise_gain = (c[ramp:] - c[:-ramp]) / ramp  # moving average: 50 ms ramps

    raw, wet, spans = speech_track(rng, speech, n, level_db, mute, reverb=segments)
    speech_filter = random_filter(rng)
    clean = scipy.signal.lfilter(*speech_filter, raw)
    wet = scipy.signal.lfilter(*speech_filter, wet)
    ref = np.full(n // FRAME, -np.inf)
    for a, b, lvl in spans:
        p = active_power(clean[a:b])
        if p <= 0:
            continue
        g = 10.0 ** (lvl / 20.0) / np.sqrt(p)
        clean[a:b] *= g
        wet[a:b] *= g  # a tail past b keeps its utterance's gain only up to b: negligible
        ref[a // FRAME:(b + FRAME - 1) // FRAME] = lvl
    nz = noise_track(rng, noise, n, speech, extras=segments)
    if segments and rng.random() < 0.3:
        nz += noise_track(rng, noise, n, speech, extras=True) * 10.0 ** (-rng.uniform(0, 10) / 20.0)
    nz = scipy.signal.lfilter(*random_filter(rng), nz) * noise_gain
    noisy = wet + nz
    peak = np.max(np.abs(noisy))
    scale = 0.99 / peak if peak > 0.99 else 1.0
    clean *= scale
    noisy *= scale
    energy_db = 10.0 * np.log10(frame_power(clean) + 1e-30) - 20.0 * np.log10(scale)
    level = np.where(np.isfinite(ref), np.maximum(energy_db - ref, GAP_LEVEL_DB), GAP_LEVEL_DB)
    return noisy.astype(np.float32), clean.astype(np.float32), level.astype(np.float32)


# ---- the feature tool ---------------------------------------------------------------------
def feature_tool(path=None):
    """The feature tool: `path`, else one on PATH, else the release build of `make build`."""
    if path:
        return path
    found = shutil.which(TOOL) or os.path.join(REPO, "build", "tools", "rnn_features", TOOL)
    if not os.access(found, os.X_OK):
        raise SystemExit("%s not found: build it (cmake --build BUILD --target %s) and pass "
                         "--tool" % (TOOL, TOOL))
    return found


def records(tool, noisy, clean, model=None, workdir=None):
    """[frames, 89] float32 records of the feature tool for one (noisy, clean) pair."""
    with tempfile.TemporaryDirectory(dir=workdir) as d:
        paths = [os.path.join(d, n) for n in ("noisy.f32", "clean.f32", "out.f32")]
        noisy.astype("<f4").tofile(paths[0])
        clean.astype("<f4").tofile(paths[1])
        cmd = [tool, "--noisy", paths[0], "--clean", paths[1], "--out", paths[2]]
        if model:
            cmd += ["--model", model]
        run = subprocess.run(cmd, capture_output=True, text=True)
        if run.returncode != 0:
            raise RuntimeError("%s failed: %s" % (" ".join(cmd), run.stderr.strip()))
        rec = np.fromfile(paths[2], dtype="<f4")
    if rec.size % RECORD:
        raise RuntimeError("feature tool output is not whole 89-float records")
    return rec.reshape(-1, RECORD)


def build_set(args):
    AUGMENT.update(room=args.room, generated=args.generated, babble=args.babble)
    tool = feature_tool(args.tool)
    rng = np.random.default_rng(args.seed)
    t0 = time.time()
    speech, noise = load_pool(args.data, args.split)
    print("pool: %d speech files (%.1f min), %d noise files (%.1f min), loaded in %.0f s" % (
        len(speech), sum(s.size for s in speech) / SAMPLE_RATE / 60, len(noise),
        sum(v.size for v in noise) / SAMPLE_RATE / 60, time.time() - t0), flush=True)
    count = int(np.ceil(args.hours * 3600.0 / args.seconds))
    parts = {k: [] for k in ("features", "targets", "silent", "level")}
    starts = [0]
    t0 = time.time()
    for i in range(count):
        noisy, clean, level = make_sequence(rng, speech, noise, args.seconds)
        rec = records(tool, noisy, clean, workdir=args.tmp)
        f = min(len(rec), len(level))
        parts["features"].append(rec[:f, :42])
        parts["targets"].append(rec[:f, 42:64])
        parts["silent"].append(rec[:f, 65].astype(np.uint8))
        parts["level"].append(level[:f])
        starts.append(starts[-1] + f)
        if (i + 1) % 20 == 0 or i + 1 == count:
            print("%d/%d sequences, %d frames, %.0f s" % (i + 1, count, starts[-1],
                                                          time.time() - t0), flush=True)
    os.makedirs(args.out, exist_ok=True)
    for k, v in parts.items():
        np.save(os.path.join(args.out, k + ".npy"), np.concatenate(v))
    np.save(os.path.join(args.out, "starts.npy"), np.array(starts, np.int64))
    lab = voice_label(np.concatenate(parts["level"]), starts=starts)
    sil = np.concatenate(parts["silent"])
    print("wrote %s: %d frames (%.2f h), voice label 1 on %.1f %%, silent %.1f %%" % (
        args.out, starts[-1], starts[-1] * FRAME / SAMPLE_RATE / 3600, 100 * lab.mean(),
        100 * sil.mean()), flush=True)


def main():
    ap = argparse.ArgumentParser(description="Training mixtures and their feature records.")
    ap.add_argument("--data", default="/work/shared/data")
    ap.add_argument("--out", required=True, help="folder for the .npy arrays")
    ap.add_argument("--hours", type=float, default=12.0)
    ap.add_argument("--seconds", type=float, default=60.0, help="length of one sequence")
    ap.add_argument("--tool", default=None, help="the feature tool (default: see feature_tool)")
    ap.add_argument("--tmp", default=None, help="folder for the raw intermediate files")
    ap.add_argument("--split", choices=mixing.SPLITS, default="train",
                    help="whose speech and noise to mix (val: the validation set of train.py)")
    ap.add_argument("--room", type=float, default=AUGMENT["room"],
                    help="fraction of utterances in a simulated room (training sets)")
    ap.add_argument("--generated", type=float, default=AUGMENT["generated"],
                    help="fraction of noise pieces that are generated noise (training sets)")
    ap.add_argument("--babble", type=float, default=AUGMENT["babble"],
                    help="fraction of noise pieces that are babble (training sets)")
    ap.add_argument("--seed", type=int, default=1)
    build_set(ap.parse_args())


if __name__ == "__main__":
    sys.exit(main())
