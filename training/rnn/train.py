"""Train the recurrent suppressor's twin on feature records, export `.rnnn`.

Input: folders written by mix.py (features, targets, silent, level, starts). Each step takes
--batch random windows of --frames frames from the training sequences (a window never spans
two sequences; the states start at zero, as the suppressor's do).

Loss per frame, silent frames left out (the suppressor skips the network there):
- gains: over the bands whose target is defined (not -1), with e = sqrt(g_hat) - sqrt(g):
  10 (e^2 + e^4) + 0.01 BCE(g_hat, g) - the square on square roots is the paper's loss, the
  fourth power adds weight to large errors, the cross-entropy keeps gradients alive where a
  sigmoid saturates;
- voice probability: 0.5 BCE(vad, label), label = mix.py's voice label (clean frame within
  --label-db, default 20 dB, of its utterance's active level, or one of the 10 frames after
  such a frame).
Adam, linear warm-up and a cosine to --lr-min over the planned --total-steps, gradient norm
clipping, and every parameter clipped to [-128/256, 127/256] after each step so that the
export needs no clipping. Quantisation-aware (unless --no-quantise-aware): the forward pass
runs on the weights rounded to k / 256, as exported, with straight-through gradients, so the
trained network is the one the library runs.

    /usr/bin/python3 training/rnn/train.py --train /tmp/rnn/train --val /tmp/rnn/val \
        --total-steps 2500 --minutes 40 --out /tmp/rnn/model.rnnn \
        --checkpoint /tmp/rnn/model.ckpt [--init data/rnn_suppressor.rnnn]

A run of --total-steps may take several sessions of --minutes: with an existing --checkpoint
the same command resumes exactly (model, optimiser, step, schedule, random states). --out is
the model with the lowest validation loss so far (with --val), <out>.last the latest.
"""

import argparse
import os
import sys
import time


sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
import shared  # noqa: E402

shared.limit_threads()  # before torch loads OpenBLAS

import numpy as np  # noqa: E402
import torch  # noqa: E402

import mix  # noqa: E402
import twin  # noqa: E402

GAIN_WEIGHT = 10.0
GAIN_BCE_WEIGHT = 0.01
VAD_WEIGHT = 0.5
EPS = 1e-7


# ---- data ---------------------------------------------------------------------------------
class RecordSet:
    def __init__(self, folder, label_db):
        def arr(name):
            return np.load(os.path.join(folder, name + ".npy"), mmap_mode=None)
        self.features = arr("features").astype(np.float32)
        self.targets = arr("targets").astype(np.float32)
        self.silent = arr("silent").astype(np.float32)
        self.starts = arr("starts")
        self.label = mix.voice_label(arr("level"), label_db, starts=self.starts).astype(
            np.float32)
        self.frames = int(self.starts[-1])

    def windows(self, rng, count, length):
        """count random (start, length) windows, each inside one sequence."""
        lengths = np.diff(self.starts)
        ok = np.flatnonzero(lengths >= length)
        if ok.size == 0:
            raise SystemExit("no sequence of %d frames" % length)
        seq = rng.choice(ok, count, p=lengths[ok] / lengths[ok].sum())
        return [int(self.starts[s] + rng.integers(lengths[s] - length + 1)) for s in seq]

    def batch(self, starts, length):
        idx = np.asarray(starts)[:, None] + np.arange(length)[None, :]
        t = torch.from_numpy
        return (t(self.features[idx]), t(self.targets[idx]), t(self.silent[idx]),
                t(self.label[idx]))

    def sequences(self):
        for a, b in zip(self.starts[:-1], self.starts[1:]):
            yield self.batch([a], int(b - a))


# ---- loss and scores ----------------------------------------------------------------------
def losses(gains, vad, targets, silent, label):
    """(total, gain term, voice term), each a mean over the frames / bands that count."""
    active = (1.0 - silent).unsqueeze(-1)
    mask = (targets >= 0).float() * active
    g = targets.clamp(0.0, 1.0)
    gh = gains.clamp(EPS, 1.0 - EPS)
    e = torch.sqrt(gh) - torch.sqrt(g)
    bce = -(g * torch.log(gh) + (1.0 - g) * torch.log(1.0 - gh))
    per_band = GAIN_WEIGHT * (e * e + e ** 4) + GAIN_BCE_WEIGHT * bce
    gain_term = (per_band * mask).sum() / mask.sum().clamp_min(1.0)
    v = vad.clamp(EPS, 1.0 - EPS)
    vbce = -(label * torch.log(v) + (1.0 - label) * torch.log(1.0 - v))
    a = active.squeeze(-1)
    vad_term = (vbce * a).sum() / a.sum().clamp_min(1.0)
    return gain_term + VAD_WEIGHT * vad_term, gain_term, vad_term


def validate(model, val):
    """(loss, gain term, voice term, AUC of the voice probability over all frames)."""
    model.eval()
    tot = np.zeros(3)
    frames = 0
    vads, labels = [], []
    with torch.no_grad():
        for f, tg, s, lab in val.sequences():
            gains, vad = model(f, s)
            n = f.shape[1]
            tot += n * np.array([float(x) for x in losses(gains, vad, tg, s, lab)])
            frames += n
            vads.append(vad.numpy().ravel())
            labels.append(lab.numpy().ravel())
    model.train()
    return tuple(tot / frames) + (shared.roc_auc(np.concatenate(vads), np.concatenate(labels)),)


# ---- training -----------------------------------------------------------------------------
def export(model, state, args, val):
    twin.export(model, args.out + ".last.tmp")
    os.replace(args.out + ".last.tmp", args.out + ".last")
    if val is None:
        shared.keep_best(args.out, None, state)
        return
    # Scored on the exported (quantised) weights, as the library will run them.
    res = validate(twin.load(args.out + ".last"), val)
    best = shared.keep_best(args.out, res[0], state)
    state["history"].append((state["step"],) + res)
    print("step %d: validation loss %.4f (gains %.4f, voice %.4f), AUC %.4f%s" % (
        (state["step"],) + res + ("  (best: %s)" % args.out if best else "",)), flush=True)


def main():
    ap = argparse.ArgumentParser(description="Train the recurrent suppressor, export .rnnn.")
    ap.add_argument("--train", required=True, help="record folder of mix.py")
    ap.add_argument("--val", default=None, help="validation record folder (mix.py --split val)")
    ap.add_argument("--minutes", type=float, default=30.0, help="this session's wall time")
    ap.add_argument("--total-steps", type=int, default=2500,
                    help="planned length of the whole run (the schedule's end)")
    ap.add_argument("--session-steps", type=int, default=None,
                    help="end this session after so many steps (default: --minutes only)")
    ap.add_argument("--threads", type=int, default=1)
    ap.add_argument("--out", required=True, help="the exported .rnnn")
    ap.add_argument("--checkpoint", required=True, help="resumed from when it exists")
    ap.add_argument("--init", default=None, help="start a new run from a .rnnn file's weights")
    ap.add_argument("--batch", type=int, default=32)
    ap.add_argument("--frames", type=int, default=1000, help="frames per window")
    ap.add_argument("--lr", type=float, default=1e-3)
    ap.add_argument("--lr-min", type=float, default=5e-5)
    ap.add_argument("--warmup", type=int, default=50, help="steps of linear warm-up")
    ap.add_argument("--no-quantise-aware", action="store_true",
                    help="train on the float weights (the export then rounds them)")
    ap.add_argument("--clip", type=float, default=1.0, help="gradient norm clip")
    ap.add_argument("--save-minutes", type=float, default=5.0)
    ap.add_argument("--log-seconds", type=float, default=30.0)
    ap.add_argument("--label-db", type=float, default=mix.LABEL_BELOW_LEVEL_DB,
                    help="voice label: frame within this many dB of its utterance's level")
    ap.add_argument("--seed", type=int, default=1)
    args = ap.parse_args()

    torch.set_num_threads(args.threads)
    # The profiling executor switches the scripted GRU loop to another graph after its
    # first calls, which rounds differently: a resumed process would then differ from an
    # uninterrupted one in the last bits. The plain executor is as fast here.
    torch._C._jit_set_profiling_executor(False)
    os.makedirs(os.path.dirname(os.path.abspath(args.out)), exist_ok=True)
    data = RecordSet(args.train, args.label_db)
    val = RecordSet(args.val, args.label_db) if args.val else None
    print("training records: %d frames (%.2f h) in %d sequences%s" % (
        data.frames, data.frames / 360000.0, len(data.starts) - 1,
        "; validation %d frames (%.2f h)" % (val.frames, val.frames / 360000.0) if val else ""),
        flush=True)

    torch.manual_seed(args.seed)  # the initial weights; a resumed run restores its state
    model = twin.RnnTwin()
    opt = torch.optim.Adam(model.parameters(), lr=args.lr)
    rng = np.random.default_rng(args.seed)
    state = shared.resume_checkpoint(args.checkpoint, model, opt, rng)
    if state is None:
        if args.init:
            model = twin.load(args.init)
            opt = torch.optim.Adam(model.parameters(), lr=args.lr)
        sched = dict(lr=args.lr, lr_min=args.lr_min, warmup=args.warmup,
                     total=args.total_steps, quantise_aware=not args.no_quantise_aware)
        state = dict(step=0, sched=sched, best=float("inf"), history=[], frames=0)
        if val:
            state["start"] = validate(model, val)
            print("validation at start: loss %.4f (gains %.4f, voice %.4f), AUC %.4f" %
                  state["start"], flush=True)
    sched = state["sched"]
    model.clip_()
    model.quantise_aware(sched["quantise_aware"])

    budget = args.minutes * 60.0
    start = time.time()
    last_log = last_save = start
    acc = np.zeros(4)
    acc_n = 0
    seen = 0
    end = sched["total"] if args.session_steps is None else min(
        sched["total"], state["step"] + args.session_steps)
    while state["step"] < end and time.time() - start < budget:
        for g in opt.param_groups:
            g["lr"] = shared.learning_rate(state["step"], sched)
        f, tg, s, lab = data.batch(data.windows(rng, args.batch, args.frames), args.frames)
        gains, vad = model(f, s)
        loss, gl, vl = losses(gains, vad, tg, s, lab)
        opt.zero_grad(set_to_none=True)
        loss.backward()
        norm = torch.nn.utils.clip_grad_norm_(model.parameters(), args.clip)
        if torch.isfinite(loss) and torch.isfinite(norm):
            opt.step()
            model.clip_()
        state["step"] += 1
        state["frames"] += args.batch * args.frames
        seen += args.batch * args.frames
        acc += [float(loss), float(gl), float(vl), float(norm)]
        acc_n += 1
        now = time.time()
        if now - last_log >= args.log_seconds:
            a = acc / acc_n
            print("step %5d  %5.0f s  loss %.4f (gains %.4f, voice %.4f)  grad %.3f  lr %.2e  "
                  "%.0f frames/s" % (state["step"], now - start, a[0], a[1], a[2], a[3],
                                     opt.param_groups[0]["lr"], seen / (now - start)),
                  flush=True)
            acc[:] = 0
            acc_n = 0
            last_log = now
        if now - last_save >= args.save_minutes * 60.0:
            export(model, state, args, val)
            shared.save_checkpoint(args.checkpoint, model, opt, state, rng)
            last_save = time.time()

    export(model, state, args, val)
    shared.save_checkpoint(args.checkpoint, model, opt, state, rng)
    total = time.time() - start
    print("session done: step %d of %d in %.1f min, %d frames (%.1f h of audio) in the run, "
          "%.0f frames/s; best %s" % (state["step"], sched["total"], total / 60, state["frames"],
                                      state["frames"] / 360000.0, seen / max(total, 1e-9),
                                      args.out), flush=True)


if __name__ == "__main__":
    main()
