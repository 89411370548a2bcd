"""A tiny stand-in for the training data folder, for the tests of the training scripts: CI
has neither the speech nor the noise recordings."""

import os
import subprocess
import tempfile

import numpy as np
import scipy.signal
import soundfile as sf

SENTENCES = ["The quick brown fox jumps over the lazy dog.",
             "Please call me back when the meeting is over.",
             "We will need three more chairs in the small room.",
             "It was raining when the train finally arrived."]


def speech(path, text, voice):
    raw = subprocess.run(["espeak-ng", "-v", voice, "--stdout", text], check=True,
                         capture_output=True).stdout
    # espeak-ng writes a 22050 Hz 16-bit WAV; the pool wants 48 kHz FLAC.
    with tempfile.NamedTemporaryFile(suffix=".wav") as f:
        f.write(raw)
        f.flush()
        x, rate = sf.read(f.name)
    y = scipy.signal.resample_poly(x, 320, 147)
    sf.write(path, 0.5 * y / np.max(np.abs(y)), 48000, subtype="PCM_16")


def make(root, actors, noise_files=3):
    """RAVDESS-style folders for `actors` (espeak-ng voices, male for odd numbers as in
    RAVDESS) and two noise subfolders of `noise_files` generated files each."""
    rng = np.random.default_rng(5)
    for actor in actors:
        voice = "en+m%d" % (1 + actor % 7) if actor % 2 else "en+f%d" % (1 + actor % 4)
        d = os.path.join(root, "speech", "ravdess", "Actor_%02d" % actor)
        os.makedirs(d)
        for i, text in enumerate(SENTENCES):
            speech(os.path.join(d, "%02d.flac" % i), text, voice)
    for folder in ("hiss", "rumble"):
        d = os.path.join(root, "noise", folder)
        os.makedirs(d)
        for i in range(noise_files):
            x = rng.standard_normal(48000 * 3)
            if folder == "rumble":
                x = scipy.signal.lfilter([1.0], [1.0, -0.95], x)
            sf.write(os.path.join(d, "%d.flac" % i), 0.3 * x / np.max(np.abs(x)), 48000,
                     subtype="PCM_16")
