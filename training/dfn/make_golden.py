"""Golden fixtures of the C++ DFN noise canceller test (docs/dfn.md section 7).

Loads the portable random table (docs/dfn.md section 6) into a fresh DfnTwin, checks that
export gives back the same bytes, and runs the whole-signal canceller (frame length 480) in
float64 on a deterministic 0.5 s test signal. Writes into tests/data/dfn/:

    golden_input.f32    24000 float32 LE: the test signal (before dither)
    golden_output.f32   24000 float32 LE: the canceller's output (float64 run, rounded)
    golden_hops.f32     12 x 480 float32 LE: raw outputs of hops 0..11 (before muting and
                        overlap-add)
    golden_hop5.json    intermediates of hop 5 (see README.md there)

    /usr/bin/python3 training/dfn/make_golden.py [--out DIR]

Re-running gives byte-identical files.
"""

import argparse
import json
import os
import tempfile

import numpy as np
import torch

import weight_table
from dfn_twin import DfnTwin, process_signal_details, SAMPLE_RATE

N_SAMPLES = 24000
N_HOPS_SAVED = 12
DEBUG_HOP = 5
HERE = os.path.dirname(os.path.abspath(__file__))
DEFAULT_OUT = os.path.normpath(os.path.join(HERE, "..", "..", "tests", "data", "dfn"))


def test_signal():
    """0.5 s at 48 kHz: chirp + harmonics + seeded white noise (about -20 dBFS RMS), a stretch
    of exact digital silence and a near-full-scale burst."""
    n = np.arange(N_SAMPLES, dtype=np.float64)
    t = n / SAMPLE_RATE
    dur = N_SAMPLES / SAMPLE_RATE
    f0, f1 = 100.0, 8000.0
    chirp = 0.05 * np.sin(2 * np.pi * (f0 * t + 0.5 * (f1 - f0) / dur * t * t))
    harmonics = sum(0.03 / k * np.sin(2 * np.pi * 220.0 * k * t + 0.3 * k) for k in range(1, 7))
    noise = 0.07 * np.random.RandomState(20240501).standard_normal(N_SAMPLES)
    x = chirp + harmonics + noise
    x[9600:12000] = 0.0                                            # exact digital silence
    burst = slice(16800, 18240)
    x[burst] = 0.99 * np.sin(2 * np.pi * 1000.0 * t[burst])         # near full scale
    x = np.clip(x, -1.0, 1.0)
    return x.astype(np.float32)


def build():
    """Everything make_golden writes, as {file name: bytes}."""
    torch.set_num_threads(1)
    table = weight_table.portable_random_table()
    table_bytes = table.astype("<f4").tobytes()
    model = DfnTwin()
    with tempfile.TemporaryDirectory() as tmp:
        path = os.path.join(tmp, "portable.bin")
        with open(path, "wb") as f:
            f.write(table_bytes)
        weight_table.import_(model, path)
        weight_table.export(model, os.path.join(tmp, "again.bin"))
        with open(os.path.join(tmp, "again.bin"), "rb") as f:
            if f.read() != table_bytes:
                raise SystemExit("export(import(table)) differs from the table")
    model.eval().double()

    x = test_signal()
    d = process_signal_details(model, x)
    out = d["output"].astype(np.float32)
    hops = d["hops"][0, :N_HOPS_SAVED].numpy().astype(np.float32)
    h = DEBUG_HOP
    # The encoder inputs of hop h are the feature frames h-2, h-1, h (zeros before frame 0).
    erb = d["erb_feat"][0, 0, max(0, h - 2):h + 1].numpy()          # [3][32]
    cplx = d["cplx_feat"][0, :, max(0, h - 2):h + 1].numpy()        # [2][3][96]
    assert erb.shape == (3, 32) and cplx.shape == (2, 3, 96)
    hop5 = {
        "hop": h,
        "gains": [float(v) for v in d["gains"][0, h].numpy().reshape(-1)],
        "coefficients": [float(v) for v in d["coefs"][0, h].numpy().reshape(-1)],
        "erb_features": [float(v) for v in erb.reshape(-1)],
        "complex_features": [float(v) for v in cplx.reshape(-1)],
    }
    assert len(hop5["gains"]) == 32 and len(hop5["coefficients"]) == 960
    assert len(hop5["erb_features"]) == 96 and len(hop5["complex_features"]) == 576
    return {
        "golden_input.f32": x.astype("<f4").tobytes(),
        "golden_output.f32": out.astype("<f4").tobytes(),
        "golden_hops.f32": hops.astype("<f4").tobytes(),
        "golden_hop5.json": (json.dumps(hop5, indent=1) + "\n").encode(),
    }, d


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--out", default=DEFAULT_OUT)
    args = ap.parse_args()
    files, d = build()
    os.makedirs(args.out, exist_ok=True)
    for name, data in files.items():
        with open(os.path.join(args.out, name), "wb") as f:
            f.write(data)
    y = d["output"]
    print("wrote %s: %s" % (args.out, ", ".join(sorted(files))))
    print("output: peak %.6f, samples at +-1: %d, rms %.6f"
          % (np.abs(y).max(), int(np.sum(np.abs(y) >= 1.0)), np.sqrt(np.mean(y * y))))


if __name__ == "__main__":
    main()
