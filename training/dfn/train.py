"""Train the DFN twin on noisy examples made on the fly (training/mixing.py), export the table.

One planned run of --total-steps steps, done in as many sessions as it takes: every session
trains for --minutes, then saves a checkpoint holding the model, the optimiser, the step, the
schedule and every random state, so that the next session (same command) continues the same
learning-rate curve and the same stream of examples, never replaying one.

    /usr/bin/python3 training/dfn/train.py --data /work/shared/data --total-steps 6000 \
        --minutes 60 --out /tmp/dfn/dfn.bin --checkpoint /tmp/dfn/dfn.ckpt \
        [--init-table data/dfn_weights.bin]

Loss, both on the output that hop t rebuilds (frame t-4, docs/dfn.md section 4) against
the target delayed to match:
- the per-frame spectral loss (gamma 0.3) on the 480-point spectra:
      1000 (mean (|Y|^0.3 - |S|^0.3)^2 + mean |Y|Y|^-0.7 - S|S|^-0.7|^2);
- the same compressed loss on the overlap-added output signal, at 512, 1024 and 2048 points
  (Hann, hop 1/4), x --mr-weight each: the fine resolutions see the noise left between the
  harmonics, which is what the deep filter is there to remove.

AdamW (weight decay on matrices and kernels only), linear warm-up over --warmup steps, then
a cosine to --lr-min at --total-steps. Before every export the batch norms' running
statistics are re-estimated with the current weights. --out is the table with the lowest
validation loss so far (the validation split's speakers and noise, 32 fixed examples);
<out>.last is the latest.
"""

import argparse
import os
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
import shared  # noqa: E402

# OpenBLAS (when it is the BLAS, see README.md) reads its thread count when torch loads it.
shared.limit_threads()

import numpy as np  # noqa: E402
import torch  # noqa: E402

import mixing  # noqa: E402
import weight_table  # noqa: E402
from dfn_twin import (DfnTwin, dither, overlap_add, FRAME, SAMPLE_RATE,  # noqa: E402
                      TARGET_DELAY_HOPS, DRY_DELAY)

GAMMA = 0.3
POWER_FLOOR = 1e-14      # |Y|^2 floor of the compressed loss (|Y| = 1e-7, far below speech)
LOSS_FACTOR = 1000.0
RESOLUTIONS = (512, 1024, 2048)
VAL_COUNT = 32
VAL_SECONDS = 3.0
VAL_SEED = 99


# ---- data ---------------------------------------------------------------------------------
def make_batch(rng, mixer, batch, n):
    pairs = [mixer.example(rng, n) for _ in range(batch)]
    noisy = np.stack([dither(p[0]) for p in pairs])  # as the wrapper sees it
    clean = np.stack([p[1] for p in pairs])
    return torch.from_numpy(noisy), torch.from_numpy(clean)


def frames(seconds):
    return max(1, int(seconds * SAMPLE_RATE) // FRAME) * FRAME


# ---- loss ---------------------------------------------------------------------------------
def compressed(re, im):
    """|Z|^gamma and Z |Z|^(gamma-1) (re, im), with a floor on |Z|^2 against 0^-0.7."""
    power = (re * re + im * im).clamp_min(POWER_FLOOR)
    mag = power.pow(0.5 * GAMMA)
    scale = power.pow(0.5 * (GAMMA - 1.0))
    return mag, re * scale, im * scale


def compressed_loss(yr, yi, sr, si):
    y_mag, y_re, y_im = compressed(yr, yi)
    s_mag, s_re, s_im = compressed(sr, si)
    return LOSS_FACTOR * (torch.mean((y_mag - s_mag) ** 2)
                          + 0.5 * (torch.mean((y_re - s_re) ** 2) + torch.mean((y_im - s_im) ** 2)))


def spectral_loss(model, out, clean):
    """Loss of hop t's spectrum against the clean spectrum of frame t-4, for t >= 4."""
    d = TARGET_DELAY_HOPS
    with torch.no_grad():
        sr, si = model.analyse(model.frame(clean))
    return compressed_loss(out["yr"][:, d:], out["yi"][:, d:], sr[:, :-d].detach(),
                           si[:, :-d].detach())


def multi_resolution_loss(model, out, clean):
    """The compressed loss between STFTs of the output signal and of the target, at every
    resolution of RESOLUTIONS (summed)."""
    y = overlap_add(model.hop_outputs(out["yr"], out["yi"]))[:, DRY_DELAY:]
    s = clean[:, :-DRY_DELAY]
    total = 0.0
    for n_fft in RESOLUTIONS:
        window = torch.hann_window(n_fft, dtype=y.dtype)
        # The frame spectra's normalisation (docs/dfn.md section 2), so that every
        # resolution weighs about as much as the per-frame term.
        norm = (n_fft // 4) / n_fft / float(torch.sum(window * window))
        ys = torch.stft(y, n_fft, n_fft // 4, window=window, return_complex=True) * norm
        with torch.no_grad():
            ss = torch.stft(s, n_fft, n_fft // 4, window=window, return_complex=True) * norm
        total = total + compressed_loss(ys.real, ys.imag, ss.real, ss.imag)
    return total


def losses(model, noisy, clean, mr_weight):
    out = model(noisy)
    frame_term = spectral_loss(model, out, clean)
    mr = multi_resolution_loss(model, out, clean) if mr_weight > 0 else torch.zeros(())
    return frame_term + mr_weight * mr, frame_term, mr


# ---- optimiser ----------------------------------------------------------------------------
def param_groups(model, weight_decay):
    decay = [p for p in model.parameters() if p.dim() > 1]
    rest = [p for p in model.parameters() if p.dim() <= 1]
    return [{"params": decay, "weight_decay": weight_decay}, {"params": rest, "weight_decay": 0.0}]


def blas_gflops():
    a = torch.randn(2048, 256)
    b = torch.randn(256, 256)
    torch.mm(a, b)
    t = time.time()
    for _ in range(10):
        torch.mm(a, b)
    return 10 * 2 * 2048 * 256 * 256 / (time.time() - t) / 1e9


def validation_set(pool):
    rng = np.random.default_rng(VAL_SEED)
    return make_batch(rng, mixing.Mixer(pool), VAL_COUNT, frames(VAL_SECONDS))


def validate(model, val, mr_weight):
    model.eval()
    with torch.no_grad():
        loss = float(losses(model, val[0], val[1], mr_weight)[0])
    model.train()
    return loss


def recalibrate_bn(model, mixer, seed, batch, batches=16):
    """Re-estimate every batch norm's running statistics as a plain average over `batches`
    training batches with the current weights: the running averages kept during training
    lag behind weights that still move, and the exported (inference) network uses them.
    The examples come from their own generator (seeded by the step), so the training
    stream is untouched."""
    rng = np.random.default_rng(seed)
    bns = [m for m in model.modules() if isinstance(m, torch.nn.BatchNorm2d)]
    for m in bns:
        m.reset_running_stats()
        m.momentum = None  # cumulative average
    model.train()
    with torch.no_grad():
        for _ in range(batches):
            model(make_batch(rng, mixer, batch, frames(2.4))[0])
    for m in bns:
        m.momentum = 0.1


def pass_through_init(model):
    """Start near the identity instead of a random filter: band gains near 1 (the ERB output
    batch norm's shift +4, sigmoid 0.98) and deep-filter coefficients near a unit centre tap
    (the DF path batch norm puts 1 on channel 4 = tap 2 real and little elsewhere; the DF output
    layer starts small, so tanh adds little). A short run then only has to learn what to take
    away, and never starts below the noisy input's quality."""
    with torch.no_grad():
        model.erb_dec_out_bn.bias.fill_(4.0)
        model.df_dec_path_bn.weight.fill_(0.05)
        model.df_dec_path_bn.bias.fill_(0.0)
        model.df_dec_path_bn.bias[4] = 1.0
        model.df_dec_out.weight.mul_(0.1)


def export(model, mixer, state, args, val):
    """Writes <out>.last, and --out too when the validation loss is the lowest so far."""
    if args.bn_batches > 0:
        recalibrate_bn(model, mixer, args.seed * 1000003 + state["step"], args.batch,
                       args.bn_batches)
    loss = validate(model, val, state["sched"]["mr_weight"])
    model.eval()
    weight_table.export(model, args.out + ".last.tmp")
    os.replace(args.out + ".last.tmp", args.out + ".last")
    model.train()
    best = shared.keep_best(args.out, loss, state)
    state["history"].append((state["step"], loss))
    print("step %d: validation loss %.4f%s" % (state["step"], loss,
                                                "  (best: %s)" % args.out if best else ""),
          flush=True)


def main():
    ap = argparse.ArgumentParser(description="Train the DFN twin and export its weight table.")
    ap.add_argument("--data", default="/work/shared/data")
    ap.add_argument("--minutes", type=float, default=30.0, help="this session's wall time")
    ap.add_argument("--total-steps", type=int, default=6000,
                    help="planned length of the whole run (the schedule's end)")
    ap.add_argument("--session-steps", type=int, default=None,
                    help="end this session after so many steps (default: --minutes only)")
    ap.add_argument("--threads", type=int, default=1)
    ap.add_argument("--out", required=True, help="exported table (6 071 616 bytes)")
    ap.add_argument("--checkpoint", required=True, help="resumed from when it exists")
    ap.add_argument("--init-table", default=None,
                    help="start a new run from this table instead of the pass-through start")
    ap.add_argument("--batch", type=int, default=4)
    ap.add_argument("--min-seconds", type=float, default=2.0)
    ap.add_argument("--max-seconds", type=float, default=3.0)
    ap.add_argument("--lr", type=float, default=1e-3)
    ap.add_argument("--lr-min", type=float, default=1e-5)
    ap.add_argument("--warmup", type=int, default=100, help="steps of linear warm-up")
    ap.add_argument("--weight-decay", type=float, default=0.01)
    ap.add_argument("--mr-weight", type=float, default=0.5,
                    help="weight of each multi-resolution STFT term")
    ap.add_argument("--clip", type=float, default=1.0, help="gradient norm clip")
    ap.add_argument("--save-minutes", type=float, default=10.0)
    ap.add_argument("--bn-batches", type=int, default=16,
                    help="batches of batch-norm recalibration before each export (0: none)")
    ap.add_argument("--log-seconds", type=float, default=60.0)
    ap.add_argument("--seed", type=int, default=1)
    args = ap.parse_args()

    torch.set_num_threads(args.threads)
    blas = blas_gflops()
    print("matrix product speed: %.1f GFLOP/s%s" % (
        blas, "  (slow: the reference BLAS? see README.md for OpenBLAS)" if blas < 8 else ""),
        flush=True)
    os.makedirs(os.path.dirname(os.path.abspath(args.out)), exist_ok=True)

    t0 = time.time()
    train_pool = mixing.Pool(args.data, "train")
    val_pool = mixing.Pool(args.data, "val")
    mixer = mixing.Mixer(train_pool)
    val = validation_set(val_pool)
    print("data: %s; %s; loaded in %.0f s" % (train_pool.describe(), val_pool.describe(),
                                               time.time() - t0), flush=True)

    torch.manual_seed(args.seed)  # the initial weights; a resumed run restores its state
    model = DfnTwin()
    opt = torch.optim.AdamW(param_groups(model, args.weight_decay), lr=args.lr)
    rng = np.random.default_rng(args.seed)
    state = shared.resume_checkpoint(args.checkpoint, model, opt, rng)
    if state is None:
        if args.init_table:
            weight_table.import_(model, args.init_table)
            print("initial weights: %s" % args.init_table, flush=True)
        else:
            pass_through_init(model)
        sched = dict(lr=args.lr, lr_min=args.lr_min, warmup=args.warmup,
                     total=args.total_steps, mr_weight=args.mr_weight)
        state = dict(step=0, sched=sched, best=float("inf"), history=[], audio_s=0.0)
        state["start_loss"] = validate(model, val, args.mr_weight)
        print("validation loss at start: %.4f" % state["start_loss"], flush=True)
    sched = state["sched"]
    model.train()

    budget = args.minutes * 60.0
    start = time.time()
    last_log = last_save = start
    acc = np.zeros(4)
    acc_n = 0
    session_audio = 0.0
    end = sched["total"] if args.session_steps is None else min(
        sched["total"], state["step"] + args.session_steps)
    while state["step"] < end and time.time() - start < budget:
        for g in opt.param_groups:
            g["lr"] = shared.learning_rate(state["step"], sched)
        n = frames(rng.uniform(args.min_seconds, args.max_seconds))
        noisy, clean = make_batch(rng, mixer, args.batch, n)
        loss, frame_term, mr = losses(model, noisy, clean, sched["mr_weight"])
        opt.zero_grad(set_to_none=True)
        loss.backward()
        norm = torch.nn.utils.clip_grad_norm_(model.parameters(), args.clip)
        if torch.isfinite(loss) and torch.isfinite(norm):
            opt.step()
        state["step"] += 1
        state["audio_s"] += args.batch * n / SAMPLE_RATE
        session_audio += args.batch * n / SAMPLE_RATE
        acc += (float(loss), float(frame_term), float(mr), float(norm))
        acc_n += 1

        now = time.time()
        if now - last_log >= args.log_seconds:
            a = acc / acc_n
            print("step %6d  %6.0f s  loss %.4f (frames %.4f, resolutions %.4f)  grad norm %.3f"
                  "  lr %.2e  %.1f s audio/s" % (state["step"], now - start, a[0], a[1], a[2],
                                                 a[3], opt.param_groups[0]["lr"],
                                                 session_audio / (now - start)), flush=True)
            acc[:] = 0.0
            acc_n = 0
            last_log = now
        if now - last_save >= args.save_minutes * 60.0:
            export(model, mixer, state, args, val)
            shared.save_checkpoint(args.checkpoint, model, opt, state, rng)
            last_save = time.time()

    export(model, mixer, state, args, val)
    shared.save_checkpoint(args.checkpoint, model, opt, state, rng)
    total = time.time() - start
    print("session done: step %d of %d, %.0f s, %.1f s of audio per second (%.2f h of audio "
          "in the run); best validation loss %.4f; table %s" % (
              state["step"], sched["total"], total, session_audio / max(total, 1e-9),
              state["audio_s"] / 3600, state["best"], args.out), flush=True)


if __name__ == "__main__":
    main()
