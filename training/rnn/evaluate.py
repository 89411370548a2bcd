"""Score `.rnnn` models on held-out mixtures: voice-probability AUC and denoising.

Mixtures (mix.py, held-out speech and noise only): --count sequences of --seconds at each
SNR of 0, 5, 10 and 20 dB (the same speech, noise, filters and level at every SNR; speech
level uniform in -45..-10 dBFS; no clean-only or noise-only segments), fixed seed. Each
mixture runs through the feature tool with each model, so every figure is the C++ network's.

- AUC: ROC area of the voice probability (column 88; 0 on silent frames, as the suppressor
  reports it) against mix.py's voice label (frame within 20 dB of its utterance's active
  level, with a 10-frame hangover), per SNR and over all frames; and over all frames with
  the looser 30 dB label (same hangover).
- Denoising: the model's band gains (columns 66..87) applied the way the suppressor applies
  them - at most a 0.6 fall per frame, interpolated over the bins, bins from 400 (20 kHz)
  up removed, silent frames passed - to the 960-point windowed spectra of the high-passed
  speech and noise separately (the gains are fixed by the noisy analysis, so the output is
  the sum of the two), then overlap-added. The pitch filter (step 9 of docs/rnn_suppressor.md)
  is left out, its inputs are not in the records; README.md compares this score with the
  whole suppressor's output. The reference
  is the same chain with all gains 1 (the high-passed clean speech, 480 samples late).
  Reported: SI-SDR of the noisy input and of the output, and the noise and speech
  attenuation in dB (energy of the noise / speech component before over after).

    /usr/bin/python3 training/rnn/evaluate.py --model data/rnn_suppressor.rnnn \
        --model /work/shared/data/rnnoise-models/sh.rnnn ...
    /usr/bin/python3 training/rnn/evaluate.py --community --model data/rnn_suppressor.rnnn
"""

import argparse
import glob
import os
import sys

import numpy as np
import scipy.signal

import mix
from train import roc_auc

SNRS = (0.0, 5.0, 10.0, 20.0)
FRAME = mix.FRAME
WINDOW = 2 * FRAME
BAND_EDGES = np.array([0, 1, 2, 3, 4, 5, 6, 7, 8, 10, 12, 14, 16, 20, 24, 28, 34, 40, 48, 60,
                       78, 100])
HIGHPASS = ([1.0, -2.0, 1.0], [1.0, -1.99599, 0.99600])


def window():
    i = np.arange(FRAME)
    half = np.sin(0.5 * np.pi * np.sin(0.5 * np.pi * (i + 0.5) / FRAME) ** 2)
    return np.concatenate([half, half[::-1]])


def interpolation_matrix():
    """[481 bins, 22 bands]: bin gain = triangular mix of the two nearest band gains."""
    m = np.zeros((FRAME + 1, len(BAND_EDGES)))
    for b in range(len(BAND_EDGES) - 1):
        size = 4 * (BAND_EDGES[b + 1] - BAND_EDGES[b])
        for j in range(size):
            frac = j / size
            m[4 * BAND_EDGES[b] + j, b] = 1 - frac
            m[4 * BAND_EDGES[b] + j, b + 1] = frac
    return m


def spectra(x):
    """Windowed spectra of frames k = 0..F-1 (previous hop + hop k), high-passed first."""
    y = scipy.signal.lfilter(*HIGHPASS, x.astype(np.float64))
    f = y.size // FRAME
    padded = np.concatenate([np.zeros(FRAME), y[:f * FRAME]])
    idx = np.arange(f)[:, None] * FRAME + np.arange(WINDOW)[None, :]
    return np.fft.rfft(padded[idx] * window(), axis=1)


def synthesise(spectrum):
    frames = np.fft.irfft(spectrum, WINDOW, axis=1) * window()
    out = np.zeros((spectrum.shape[0] + 1) * FRAME)
    for k, fr in enumerate(frames):
        out[k * FRAME:k * FRAME + WINDOW] += fr
    return out[:spectrum.shape[0] * FRAME]


def bin_gains(rec):
    """Per-frame bin gains as the suppressor applies them (pitch filter aside)."""
    interp = interpolation_matrix()
    last = np.zeros(22)
    out = np.ones((rec.shape[0], FRAME + 1))
    for k, r in enumerate(rec):
        if r[65]:
            continue
        g = np.maximum(r[66:88].astype(np.float64), 0.6 * last)
        last = g
        out[k] = interp @ g
    return out


def si_sdr(est, ref):
    a = np.dot(est, ref) / max(np.dot(ref, ref), 1e-30)
    err = est - a * ref
    return 10 * np.log10(max(np.dot(a * ref, a * ref), 1e-30) / max(np.dot(err, err), 1e-30))


AUC_LOOSE_DB = 30.0


def mixtures(data, count, seconds, seed):
    speech, noise = mix.load_pool(data, held_out=True)
    out = []
    for i in range(count):
        for snr in SNRS:
            rng = np.random.RandomState(seed * 1009 + i)
            noisy, clean, level = mix.make_sequence(rng, speech, noise, seconds, snr_db=snr,
                                                    segments=False)
            out.append((snr, noisy, clean, level))
    return out


def score(tool, model, mixes):
    """{snr: dict of lists} of per-mixture figures, and the AUC over all frames with the
    20 dB and the 30 dB label."""
    res = {}
    pooled = ([], [], [])
    for snr, noisy, clean, level in mixes:
        rec = mix.records(tool, noisy, clean, model=model)
        lev = level[:rec.shape[0]]
        lab = mix.voice_label(lev)
        s_spectra, n_spectra = spectra(clean), spectra(noisy - clean)
        g = bin_gains(rec)
        s_ref, n_ref = synthesise(s_spectra), synthesise(n_spectra)
        s_out, n_out = synthesise(s_spectra * g), synthesise(n_spectra * g)
        r = res.setdefault(snr, {"vad": [], "label": [], "noisy": [], "out": [], "nr": [],
                                 "sa": []})
        r["vad"].append(rec[:, 88])
        r["label"].append(lab)
        r["noisy"].append(si_sdr(s_ref + n_ref, s_ref))
        r["out"].append(si_sdr(s_out + n_out, s_ref))
        r["nr"].append(10 * np.log10(np.sum(n_ref ** 2) / max(np.sum(n_out ** 2), 1e-30)))
        r["sa"].append(10 * np.log10(np.sum(s_ref ** 2) / max(np.sum(s_out ** 2), 1e-30)))
        pooled[0].append(rec[:, 88])
        pooled[1].append(lab)
        pooled[2].append(mix.voice_label(lev, AUC_LOOSE_DB))
    vad = np.concatenate(pooled[0])
    return res, (roc_auc(vad, np.concatenate(pooled[1])), roc_auc(vad, np.concatenate(pooled[2])))


def main():
    ap = argparse.ArgumentParser(description="AUC and denoising of .rnnn models.")
    ap.add_argument("--data", default="/work/shared/data")
    ap.add_argument("--model", action="append", default=[], help=".rnnn file (repeatable)")
    ap.add_argument("--community", action="store_true",
                    help="also the five models of data/rnnoise-models")
    ap.add_argument("--tool", default=None)
    ap.add_argument("--count", type=int, default=8, help="mixtures per SNR")
    ap.add_argument("--seconds", type=float, default=30.0)
    ap.add_argument("--seed", type=int, default=7)
    args = ap.parse_args()
    models = list(args.model)
    if args.community:
        models += sorted(glob.glob(os.path.join(args.data, "rnnoise-models", "*.rnnn")))
    if not models:
        raise SystemExit("no model: pass --model and/or --community")
    tool = mix.feature_tool(args.tool)
    mixes = mixtures(args.data, args.count, args.seconds, args.seed)
    share = [np.mean(np.concatenate([mix.voice_label(l, db) for _, _, _, l in mixes]))
             for db in (mix.LABEL_BELOW_LEVEL_DB, AUC_LOOSE_DB)]
    print("%d mixtures of %.0f s per SNR (held-out speech and noise), voice label 1 on "
          "%.0f %% of the frames (%.0f %% with the 30 dB label)\n" % (
              args.count, args.seconds, 100 * share[0], 100 * share[1]))
    rows = []
    for m in models:
        res, pooled = score(tool, m, mixes)
        rows.append((os.path.basename(m), res, pooled))
        print("scored %s" % m, file=sys.stderr, flush=True)

    print("Voice probability, ROC AUC against the voice label\n")
    print("| model | all | all, 30 dB label | " + " | ".join("%g dB" % s for s in SNRS) + " |")
    print("|---" * (3 + len(SNRS)) + "|")
    for name, res, (auc, auc_loose) in rows:
        aucs = [roc_auc(np.concatenate(res[s]["vad"]), np.concatenate(res[s]["label"]))
                for s in SNRS]
        print("| %s | %.4f | %.4f | %s |" % (name, auc, auc_loose,
                                            " | ".join("%.4f" % a for a in aucs)))

    print("\nDenoising: SI-SDR (dB) of the noisy input -> the output, per input SNR; noise and "
          "speech attenuation (dB), mean over all mixtures\n")
    print("| model | " + " | ".join("%g dB" % s for s in SNRS) + " | mean gain | noise att. | "
          "speech att. |")
    print("|---" * (4 + len(SNRS)) + "|")
    for name, res, _ in rows:
        sdr = ["%.2f -> %.2f" % (np.mean(res[s]["noisy"]), np.mean(res[s]["out"])) for s in SNRS]
        gain = np.mean([o - i for s in SNRS for i, o in zip(res[s]["noisy"], res[s]["out"])])
        nr = np.mean([v for s in SNRS for v in res[s]["nr"]])
        sa = np.mean([v for s in SNRS for v in res[s]["sa"]])
        print("| %s | %s | %+.2f | %.1f | %.1f |" % (name, " | ".join(sdr), gain, nr, sa))

if __name__ == "__main__":
    main()
