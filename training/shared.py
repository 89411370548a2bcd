"""What the training folders share.

- `limit_threads()`: the BLAS and OpenMP thread counts, from the script's `--threads` (default
  1). OpenBLAS reads them when torch loads it, so call this before numpy and torch are imported.
- `save_checkpoint` / `resume_checkpoint`: model, optimiser and step count in one file, written
  beside it and renamed into place, so that an interrupted run never leaves half a checkpoint.
- `split_noise(data)`: the noise files of the data folder split into training and held-out
  files, 20 % of each subfolder held out with a fixed seed. Every network is trained and scored
  on the same split, so held-out figures of different models compare.

A script in a subfolder imports it after putting this folder on the path:

    sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
"""

import glob
import os
import sys

NOISE_SPLIT_SEED = 20240613
HELD_OUT_FRACTION = 0.2


def _threads_from_argv():
    for i, a in enumerate(sys.argv):
        if a == "--threads" and i + 1 < len(sys.argv):
            return sys.argv[i + 1]
        if a.startswith("--threads="):
            return a.split("=", 1)[1]
    return "1"


def limit_threads():
    threads = _threads_from_argv()
    os.environ.setdefault("OPENBLAS_NUM_THREADS", threads)
    os.environ.setdefault("OMP_NUM_THREADS", threads)


def split_noise(data):
    """(train, held_out) noise files, relative to data/noise."""
    import numpy as np  # after limit_threads() in the scripts that train

    root = os.path.join(data, "noise")
    files = sorted(os.path.relpath(p, root)
                   for p in glob.glob(os.path.join(root, "**", "*.flac"), recursive=True))
    if not files:
        raise SystemExit("no noise files under %s" % root)
    groups = {}
    for f in files:
        groups.setdefault(os.path.dirname(f), []).append(f)
    rng = np.random.RandomState(NOISE_SPLIT_SEED)
    train, held = [], []
    for folder in sorted(groups):
        g = list(groups[folder])
        rng.shuffle(g)
        k = max(1, int(round(HELD_OUT_FRACTION * len(g))))
        held += g[:k]
        train += g[k:]
    return sorted(train), sorted(held)


def save_checkpoint(path, model, opt, step):
    import torch

    torch.save({"model": model.state_dict(), "opt": opt.state_dict(), "step": step},
               path + ".tmp")
    os.replace(path + ".tmp", path)


def resume_checkpoint(path, model, opt):
    """Loads an existing checkpoint into model and opt; returns its step count (0 without one)."""
    import torch

    if not path or not os.path.exists(path):
        return 0
    ck = torch.load(path)
    model.load_state_dict(ck["model"])
    opt.load_state_dict(ck["opt"])
    print("resumed from %s at step %d" % (path, ck["step"]), flush=True)
    return ck["step"]
