"""Data splits and noisy-speech examples, shared by both trainers and by the evaluation.

Splits (disjoint speakers and noise files):
- train: RAVDESS actors 01-16 and every vctk-p239 file; noise: 80 % of the files of each
  noise subfolder (fixed seed, `shared.split_noise`), plus generated noise and babble made
  from training speakers;
- val (model selection only): actors 17 and 18; half of the held-out noise files of each
  subfolder;
- eval (the reported figures): actors 19 and 20; the other held-out noise files.

An example (`Mixer.example`) is a (noisy, target) pair of float32 signals:
- speech: one utterance at a random offset (cropped when longer), a random gentle
  second-order filter ("EQ"); in 30 % of the examples it is played in a simulated room
  (`room_response`), and the target keeps only the direct sound;
- noise: one to three sources (60 %, 30 %, 10 %), each a noise file segment (looped when
  short), generated noise (white, pink, brown, mains hum, fan) or babble of 3-6 other
  utterances, each with its own filter, the second and third 0-12 dB below the first;
- SNR (speech power over the utterance against the summed noise): 70 % uniform in
  [0, 15] dB, 15 % in [-5, 0], 15 % in [20, 40]; 5 % of the examples are clean only and
  5 % noise only;
- the mixture is scaled to peak uniformly in [-35, -1] dBFS; the target by the same factor.

Randomness comes only from the `numpy.random.Generator` passed in, so a trainer that saves
its generator's state resumes the exact stream of examples.
"""

import glob
import math
import os

import numpy as np
import scipy.signal
import soundfile as sf

import shared

SAMPLE_RATE = 48000
SPLITS = ("train", "val", "eval")
ACTORS = {"train": range(1, 17), "val": (17, 18), "eval": (19, 20)}
GENERATED = ("white", "pink", "brown", "hum", "fan")


# ---- files --------------------------------------------------------------------------------
def speech_files(data, split):
    files = []
    for a in ACTORS[split]:
        files += sorted(glob.glob(os.path.join(data, "speech", "ravdess", "Actor_%02d" % a,
                                               "*.flac")))
    if split == "train":
        files += sorted(glob.glob(os.path.join(data, "speech", "vctk-p239", "*.flac")))
    if not files:
        raise SystemExit("no speech files under %s/speech" % data)
    return files


def noise_files(data, split):
    """Noise files of a split, relative to data/noise. The held-out files of each subfolder
    alternate between eval and val in name order, so both see every kind of noise that has
    more than one held-out file."""
    train, held = shared.split_noise(data)
    if split == "train":
        return train
    groups = {}
    for f in held:
        groups.setdefault(os.path.dirname(f), []).append(f)
    pick = 0 if split == "eval" else 1
    return sorted(f for g in groups.values() for i, f in enumerate(sorted(g)) if i % 2 == pick)


def load(path):
    """int16 samples of a 48 kHz mono file (int16 halves the memory of the cache)."""
    x, rate = sf.read(path, dtype="int16", always_2d=True)
    if rate != SAMPLE_RATE or x.shape[1] != 1:
        raise SystemExit("%s: expected 48 kHz mono" % path)
    return x[:, 0].copy()


class Pool:
    """The decoded speech and noise of one split."""

    def __init__(self, data, split):
        self.split = split
        self.speech = [load(p) for p in speech_files(data, split)]
        self.noise_names = noise_files(data, split)
        self.noise = [load(os.path.join(data, "noise", f)) for f in self.noise_names]

    def describe(self):
        return "%s: %d speech files (%.1f min), %d noise files (%.1f min)" % (
            self.split, len(self.speech), sum(s.size for s in self.speech) / SAMPLE_RATE / 60,
            len(self.noise), sum(v.size for v in self.noise) / SAMPLE_RATE / 60)


# ---- signal pieces ------------------------------------------------------------------------
def power(x):
    return float(np.mean(np.square(x, dtype=np.float64))) if x.size else 0.0


def segment(rng, x, n):
    """n float32 samples of x (int16, or float in [-1, 1)) from a random offset, looped when x
    is short."""
    scale = np.float32(1.0 / 32768.0 if x.dtype == np.int16 else 1.0)
    if x.size >= n:
        start = int(rng.integers(x.size - n + 1))
        return x[start:start + n].astype(np.float32) * scale
    return np.resize(np.roll(x, int(rng.integers(x.size))), n).astype(np.float32) * scale


def random_filter(rng, x):
    """A gentle random tilt: (1 + r1 z^-1 + r2 z^-2) / (1 + r3 z^-1 + r4 z^-2), r uniform in
    [-3/8, 3/8] (both polynomials have their roots inside the unit circle)."""
    r = rng.uniform(-0.375, 0.375, 4)
    return scipy.signal.lfilter([1.0, r[0], r[1]], [1.0, r[2], r[3]], x).astype(np.float32)


def shaped_noise(rng, n, slope_db_per_octave):
    """Gaussian noise with a power slope in dB per octave (0 white, -3 pink, -6 brown),
    flat below 20 Hz so that brown noise has no infinite bass."""
    spectrum = rng.standard_normal(n // 2 + 1) + 1j * rng.standard_normal(n // 2 + 1)
    f = np.maximum(np.fft.rfftfreq(n, 1.0 / SAMPLE_RATE), 20.0)
    spectrum *= (f / 1000.0) ** (slope_db_per_octave / 20.0 / math.log10(2.0))
    return np.fft.irfft(spectrum, n).astype(np.float32)


def generated_noise(rng, n, kind):
    t = np.arange(n) / SAMPLE_RATE
    if kind == "white":
        return rng.standard_normal(n).astype(np.float32)
    if kind == "pink":
        return shaped_noise(rng, n, -3.0)
    if kind == "brown":
        return shaped_noise(rng, n, -6.0)
    if kind == "hum":
        # Mains hum: odd and even harmonics of 50 or 60 Hz with random levels and a little
        # broadband noise under them.
        f0 = 50.0 if rng.random() < 0.5 else 60.0
        y = np.zeros(n)
        for k in range(1, int(rng.integers(4, 16))):
            y += rng.uniform(0.05, 1.0) / k * np.sin(2 * np.pi * f0 * k * t + rng.uniform(0, 6.3))
        return (y + 0.02 * rng.standard_normal(n)).astype(np.float32)
    # Fan: low-passed noise, slowly modulated, with a blade tone and its harmonics.
    cutoff = rng.uniform(300.0, 3000.0)
    b, a = scipy.signal.butter(2, cutoff / (SAMPLE_RATE / 2))
    y = scipy.signal.lfilter(b, a, rng.standard_normal(n))
    y *= 1.0 + 0.2 * np.sin(2 * np.pi * rng.uniform(0.2, 2.0) * t)
    blade = rng.uniform(80.0, 400.0)
    for k in range(1, 4):
        y += rng.uniform(0.0, 0.3) / k * np.sin(2 * np.pi * blade * k * t + rng.uniform(0, 6.3))
    return y.astype(np.float32)


def babble(rng, speech, n):
    """3-6 utterances of the pool's speakers, each at a random offset and level, looped."""
    y = np.zeros(n, np.float32)
    for _ in range(int(rng.integers(3, 7))):
        s = segment(rng, speech[int(rng.integers(len(speech)))], n)
        y += s / math.sqrt(max(power(s), 1e-10)) * np.float32(10.0 ** (rng.uniform(-6, 0) / 20))
    return y


def room_response(rng):
    """A simulated room: the direct sound (1 at index 0), a few early reflections within
    the first 20 ms, and an exponentially decaying noise tail whose high frequencies die
    faster (RT60 0.2-0.9 s at low frequencies), starting 2.5-10 ms after the direct sound.
    Returns (response, direct-to-reverberant ratio in dB)."""
    rt60 = rng.uniform(0.2, 0.9)
    n = int(rt60 * SAMPLE_RATE)
    h = np.zeros(n)
    start = int(rng.uniform(0.0025, 0.010) * SAMPLE_RATE)
    t = np.arange(n - start) / SAMPLE_RATE
    tail = rng.standard_normal(n - start) * 10.0 ** (-3.0 * t / rt60)
    bright = scipy.signal.lfilter([1.0], [1.0, -0.5], rng.standard_normal(n - start))
    tail_hf = scipy.signal.lfilter([1.0, -1.0], [1.0], bright) * 10.0 ** (-6.0 * t / rt60)
    drr = rng.uniform(-3.0, 12.0)
    late = tail + 0.5 * tail_hf
    late *= math.sqrt(10.0 ** (-drr / 10.0) / max(float(np.sum(late * late)), 1e-20))
    h[start:] = late
    for _ in range(int(rng.integers(2, 7))):
        h[int(rng.integers(start, min(n, int(0.02 * SAMPLE_RATE))))] += rng.uniform(-0.5, 0.5)
    h[0] = 1.0
    return h.astype(np.float32), drr


# ---- examples -----------------------------------------------------------------------------
class Mixer:
    def __init__(self, pool, generated=True, reverb=True):
        """generated: use generated noise and babble besides the pool's noise files;
        reverb: play some speech in simulated rooms. The evaluation turns both off, so its
        figures are on real held-out noise only."""
        self.pool = pool
        self.generated = generated
        self.reverb = reverb

    def noise_source(self, rng, n):
        u = rng.random() if self.generated else 0.0
        if u < 0.6:
            for _ in range(20):
                v = segment(rng, self.pool.noise[int(rng.integers(len(self.pool.noise)))], n)
                if power(v) > 1e-9:
                    return v
            return v
        if u < 0.85:
            return generated_noise(rng, n, GENERATED[int(rng.integers(len(GENERATED)))])
        return babble(rng, self.pool.speech, n)

    def speech(self, rng, n):
        """(reverberant speech, its direct part) over n samples, and the utterance span."""
        s = self.pool.speech[int(rng.integers(len(self.pool.speech)))].astype(np.float32)
        s /= 32768.0
        clean = np.zeros(n, np.float32)
        if s.size >= n:
            start = int(rng.integers(s.size - n + 1))
            clean[:] = s[start:start + n]
            span = (0, n)
        else:
            off = int(rng.integers(n - s.size + 1))
            clean[off:off + s.size] = s
            span = (off, off + s.size)
        clean = random_filter(rng, clean) if self.generated else clean
        wet = clean
        if self.reverb and rng.random() < 0.3:
            h, _ = room_response(rng)
            wet = scipy.signal.fftconvolve(clean, h)[:n].astype(np.float32)
        return wet, clean, span

    @staticmethod
    def draw_snr(rng):
        u = rng.random()
        if u < 0.7:
            return rng.uniform(0.0, 15.0)
        if u < 0.85:
            return rng.uniform(-5.0, 0.0)
        return rng.uniform(20.0, 40.0)

    def example(self, rng, n, snr_db=None, peak_db=None, kind=None):
        """(noisy, target) float32 of n samples. kind: None (drawn), "mix", "clean" or
        "noise"; snr_db and peak_db are drawn when None."""
        if kind is None:
            u = rng.random() if self.generated else 1.0
            kind = "clean" if u < 0.05 else "noise" if u < 0.1 else "mix"
        if snr_db is None:
            snr_db = self.draw_snr(rng)
        if peak_db is None:
            peak_db = rng.uniform(-35.0, -1.0)
        wet, clean, span = self.speech(rng, n)
        count = 1 if not self.generated else 1 + int(rng.choice(3, p=[0.6, 0.3, 0.1]))
        noise = np.zeros(n, np.float32)
        for i in range(count):
            v = self.noise_source(rng, n)
            v = random_filter(rng, v) if self.generated else v
            level = 0.0 if i == 0 else -rng.uniform(0.0, 12.0)
            noise += v * np.float32(10.0 ** (level / 20.0) / math.sqrt(max(power(v), 1e-12)))
        if kind == "clean":
            noise[:] = 0.0
        p_speech = max(power(wet[span[0]:span[1]]), 1e-12)
        g = math.sqrt(p_speech / (max(power(noise), 1e-12) * 10.0 ** (snr_db / 10.0)))
        if kind == "noise":
            wet = np.zeros(n, np.float32)
            clean = np.zeros(n, np.float32)
            g = 1.0
        noisy = wet + np.float32(g) * noise
        scale = np.float32(10.0 ** (peak_db / 20.0) / max(float(np.max(np.abs(noisy))), 1e-9))
        return (noisy * scale).astype(np.float32), (clean * scale).astype(np.float32)
