"""Evaluate a DFN weight table on held-out mixtures (SI-SDR).

Mixtures: speech of RAVDESS actors 19 and 20 (never trained on), noise from the held-out
list that train.py wrote next to its table (or the same deterministic split recomputed),
3 s each, at SNRs of 0, 5 and 10 dB (the same speech and noise segment at each SNR), fixed
seed. Every mixture runs through process_signal (the whole-signal C++ canceller, frame
length 480) in float32. The enhanced signal is delayed by 1200 samples, so SI-SDR compares
enhanced[1200:] with clean[:-1200]; the noisy mixture is compared without a shift. The
portable random table (docs/dfn.md section 6) is scored too, as a floor.

    /usr/bin/python3 training/dfn/evaluate.py --table /tmp/dfn/dfn.bin [--count 24]
"""

import argparse
import os

import numpy as np
import torch

import weight_table
from dfn_twin import DfnTwin, process_signal, DRY_DELAY, FRAME, SAMPLE_RATE
from train import (EVAL_ACTORS, heldout_path, load_all, make_mixture, speech_files,
                   split_noise)

SNRS = (0.0, 5.0, 10.0)


def si_sdr(est, ref):
    est = est.astype(np.float64) - np.mean(est)
    ref = ref.astype(np.float64) - np.mean(ref)
    a = np.dot(est, ref) / max(np.dot(ref, ref), 1e-20)
    target = a * ref
    err = est - target
    return 10.0 * np.log10(max(np.dot(target, target), 1e-20) / max(np.dot(err, err), 1e-20))


def mixtures(data, held_noise, count, seconds, seed):
    speech = load_all(speech_files(data, EVAL_ACTORS))
    noise = load_all([os.path.join(data, "noise", f) for f in held_noise])
    n = int(seconds * SAMPLE_RATE) // FRAME * FRAME
    out = []
    for i in range(count):
        for snr in SNRS:
            rng = np.random.RandomState(seed * 100003 + i)  # same segment at every SNR
            noisy, clean = make_mixture(rng, speech, noise, n, snr_db=snr)
            out.append((snr, noisy, clean))
    return out


def score(model, mixes):
    """{snr: [(noisy SI-SDR, enhanced SI-SDR)]} for a model (None: noisy only)."""
    res = {}
    for snr, noisy, clean in mixes:
        base = si_sdr(noisy, clean)
        enh = None
        if model is not None:
            y = process_signal(model, noisy)
            enh = si_sdr(y[DRY_DELAY:], clean[:-DRY_DELAY])
        res.setdefault(snr, []).append((base, enh))
    return res


def main():
    ap = argparse.ArgumentParser(description="SI-SDR of a DFN table on held-out mixtures.")
    ap.add_argument("--data", default="/work/shared/data")
    ap.add_argument("--table", required=True, help="exported table (train.py --out)")
    ap.add_argument("--heldout-noise", default=None,
                    help="list of held-out noise files (default: next to --table, else the "
                         "split of train.py)")
    ap.add_argument("--count", type=int, default=24, help="mixtures per SNR")
    ap.add_argument("--seconds", type=float, default=3.0)
    ap.add_argument("--seed", type=int, default=7)
    args = ap.parse_args()
    torch.set_num_threads(1)

    listing = args.heldout_noise or heldout_path(args.table)
    if os.path.exists(listing):
        with open(listing) as f:
            held = [line.strip() for line in f if line.strip()]
    else:
        held = split_noise(args.data)[1]
    mixes = mixtures(args.data, held, args.count, args.seconds, args.seed)

    trained = weight_table.import_(DfnTwin(), args.table).eval()
    rand = weight_table.from_array(DfnTwin(), weight_table.portable_random_table()).eval()
    r_tr = score(trained, mixes)
    r_rd = score(rand, mixes)

    print("%d mixtures per SNR, %.1f s each; speech: actors %s; noise: %d held-out files\n" % (
        args.count, args.seconds, ", ".join("%02d" % a for a in EVAL_ACTORS), len(held)))
    print("| SNR (dB) | noisy SI-SDR | enhanced SI-SDR | improvement | random table SI-SDR |")
    print("|---|---|---|---|---|")
    rows = [(("%g" % s), [s]) for s in SNRS] + [("mean", list(SNRS))]
    for label, snrs in rows:
        noisy = np.mean([b for s in snrs for b, _ in r_tr[s]])
        enh = np.mean([e for s in snrs for _, e in r_tr[s]])
        rnd = np.mean([e for s in snrs for _, e in r_rd[s]])
        print("| %s | %.2f | %.2f | %+.2f | %.2f |" % (label, noisy, enh, enh - noisy, rnd))


if __name__ == "__main__":
    main()
