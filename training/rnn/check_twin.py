"""Self-check of the twin and the `.rnnn` io (not part of CI).

    /usr/bin/python3 training/rnn/check_twin.py [--model extra.rnnn ...] [--tool PATH]

1. Every community model in data/rnnoise-models (and every --model) reads and writes back
   byte for byte, and survives the trip through the twin (from_layers -> to_layers).
2. The C++ network and the twin agree: held-out mixtures (two sequences of 30 s, 6000
   frames) go through the feature tool with each model; the twin (float64) runs the tool's
   features with the tool's silence flags, and its band gains and voice probability must
   match the tool's columns 66..88 within 1e-4 on every non-silent frame; on silent frames
   the tool must report gains 1 and voice 0.
"""

import argparse
import glob
import os
import sys

import numpy as np
import torch

import mix
import rnnn
import twin

TOLERANCE = 1e-4
FAILURES = []


def check(name, ok, detail=""):
    print("%-60s %s %s" % (name, "ok" if ok else "FAILED", detail), flush=True)
    if not ok:
        FAILURES.append(name)


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--data", default="/work/shared/data")
    ap.add_argument("--model", action="append", default=[], help="a further .rnnn to check")
    ap.add_argument("--tool", default=None)
    ap.add_argument("--seconds", type=float, default=30.0)
    args = ap.parse_args()
    torch.set_num_threads(1)

    models = sorted(glob.glob(os.path.join(args.data, "rnnoise-models", "*.rnnn"))) + args.model
    if not models:
        raise SystemExit("no .rnnn files found")
    for path in models:
        with open(path, "rb") as f:
            raw = f.read()
        layers = rnnn.parse(raw.decode("ascii"))
        text = rnnn.format_text(twin.to_layers(twin.from_layers(layers))).encode("ascii")
        check("round trip %s" % os.path.basename(path),
              rnnn.format_text(layers).encode("ascii") == raw and text == raw)

    tool = mix.feature_tool(args.tool)
    speech, noise = mix.load_pool(args.data, "eval")
    rng = np.random.default_rng(11)
    pairs = [mix.make_sequence(rng, speech, noise, args.seconds, snr_db=snr)
             for snr in (0.0, 15.0)]
    for path in models:
        model = twin.load(path).double().eval()
        worst_g = worst_v = 0.0
        frames = silent_frames = 0
        silent_ok = True
        for noisy, clean, _ in pairs:
            rec = mix.records(tool, noisy, clean, model=path).astype(np.float64)
            f = torch.from_numpy(rec[None, :, :42])
            s = torch.from_numpy(rec[None, :, 65])
            with torch.no_grad():
                gains, vad = model(f, s)
            live = rec[:, 65] == 0
            worst_g = max(worst_g, float(np.abs(gains[0].numpy()[live] - rec[live, 66:88]).max()))
            worst_v = max(worst_v, float(np.abs(vad[0].numpy()[live] - rec[live, 88]).max()))
            silent_ok &= bool(np.all(rec[~live, 66:88] == 1) and np.all(rec[~live, 88] == 0))
            frames += rec.shape[0]
            silent_frames += int((~live).sum())
        name = os.path.basename(path)
        check("twin = C++ network, %s (%d frames, %d silent)" % (name, frames, silent_frames),
              worst_g < TOLERANCE and worst_v < TOLERANCE and silent_ok,
              "max |gain diff| %.2e, max |voice diff| %.2e" % (worst_g, worst_v))
    print("%d failure(s)" % len(FAILURES))
    return 1 if FAILURES else 0


if __name__ == "__main__":
    sys.exit(main())
