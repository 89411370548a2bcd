"""What the training folders share.

- `limit_threads()`: the BLAS and OpenMP thread counts, from the script's `--threads` (default
  1). OpenBLAS reads them when torch loads it, so call this before numpy and torch are imported.
- `save_checkpoint` / `resume_checkpoint`: model, optimiser, the trainer's state (step,
  schedule, ...), the torch and numpy random states in one file, written beside it and renamed
  into place, so that an interrupted run never leaves half a checkpoint, and a resumed run
  continues the same stream of examples and the same learning-rate curve.
- `learning_rate(step, sched)`: warm-up and cosine over the run's planned total steps.
- `keep_best`: the exported weights with the lowest validation loss of a run.
- `roc_auc(score, label)`: the voice probability's score, in training and in the evaluation.
- `split_noise(data)`: the noise files of the data folder split into training and held-out
  files, 20 % of each subfolder held out with a fixed seed. Every network is trained and scored
  on the same split, so held-out figures of different models compare.

A script in a subfolder imports it after putting this folder on the path:

    sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
"""

import glob
import math
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


def learning_rate(step, sched):
    """Linear warm-up to sched['lr'] over sched['warmup'] steps, then a cosine to
    sched['lr_min'] at sched['total'] steps. The schedule lives in the checkpoint, so a
    resumed run keeps the curve it was started with."""
    if step < sched["warmup"]:
        return sched["lr"] * (step + 1) / sched["warmup"]
    span = max(1, sched["total"] - sched["warmup"])
    p = min(1.0, (step - sched["warmup"]) / span)
    return sched["lr_min"] + (sched["lr"] - sched["lr_min"]) * 0.5 * (1.0 + math.cos(math.pi * p))


def keep_best(out, loss, state):
    """After a trainer wrote its latest weights to <out>.last: copies them over `out` when
    `loss` is the lowest validation loss of the run so far (always when loss is None, a run
    without validation). Returns whether it did."""
    import shutil

    best = loss is None or loss < state["best"]
    if best:
        if loss is not None:
            state["best"] = loss
        shutil.copyfile(out + ".last", out + ".tmp")
        os.replace(out + ".tmp", out)
    return best


def save_checkpoint(path, model, opt, state, rng):
    """state: the trainer's own values (step, schedule, ...); rng: its numpy Generator."""
    import torch

    ck = dict(state, model=model.state_dict(), opt=opt.state_dict(),
              torch_rng=torch.get_rng_state(), rng=rng.bit_generator.state)
    torch.save(ck, path + ".tmp")
    os.replace(path + ".tmp", path)


def resume_checkpoint(path, model, opt, rng):
    """Loads an existing checkpoint into model, opt, the torch generator and rng (a numpy
    Generator); returns the trainer's state, or None without a checkpoint."""
    import torch

    if not path or not os.path.exists(path):
        return None
    ck = torch.load(path)
    model.load_state_dict(ck.pop("model"))
    opt.load_state_dict(ck.pop("opt"))
    torch.set_rng_state(ck.pop("torch_rng"))
    rng.bit_generator.state = ck.pop("rng")
    print("resumed %s at step %d of %d" % (path, ck["step"], ck["sched"]["total"]), flush=True)
    return ck


def roc_auc(score, label):
    """Area under the ROC curve (Mann-Whitney: ties count half)."""
    import numpy as np
    import scipy.stats

    score = np.asarray(score, np.float64)
    label = np.asarray(label, bool)
    pos, neg = int(label.sum()), int((~label).sum())
    if pos == 0 or neg == 0:
        return float("nan")
    ranks = scipy.stats.rankdata(score)
    return float((ranks[label].sum() - pos * (pos + 1) / 2.0) / (pos * neg))
