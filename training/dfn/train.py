"""Train the DFN twin on noisy mixtures made on the fly, export the table.

Speech: RAVDESS actors 01-18 of the data folder (19 and 20 are held out for evaluate.py).
Noise: the files of noise/, split 80/20 by file within each subfolder with a fixed seed; the
held-out list is written next to the output table. Each example is a random 2-3 s segment,
speech at a random SNR in [-5, 20] dB, scaled so that the mixture peaks between -30 and
-1 dBFS; the target is the clean speech.

Loss (DeepFilterNet's spectral loss, gamma 0.3) on the spectrum that hop t rebuilds, i.e.
frame t-4 (docs/dfn.md section 4), against the clean spectrum of frame t-4:
    mean (|Y|^0.3 - |S|^0.3)^2 + mean |Y|Y|^-0.7 - S|S|^-0.7|^2 (both x 1000).

    /usr/bin/python3 training/dfn/train.py --data /work/shared/data --minutes 35 \
        --threads 2 --out /tmp/dfn/dfn.bin --checkpoint /tmp/dfn/dfn.ckpt

With an existing --checkpoint the run resumes from it (model, optimiser, step count).
"""

import argparse
import glob
import math
import os
import sys
import time


sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
import shared  # noqa: E402

# OpenBLAS (when it is the BLAS, see README.md) reads its thread count when torch loads it.
shared.limit_threads()

import numpy as np  # noqa: E402
import soundfile as sf  # noqa: E402
import torch  # noqa: E402

import weight_table  # noqa: E402
from shared import split_noise  # noqa: E402
from dfn_twin import DfnTwin, dither, FRAME, SAMPLE_RATE, TARGET_DELAY_HOPS  # noqa: E402

TRAIN_ACTORS = range(1, 19)
EVAL_ACTORS = (19, 20)
GAMMA = 0.3
POWER_FLOOR = 1e-14      # |Y|^2 floor of the compressed loss (|Y| = 1e-7, far below speech)
LOSS_FACTOR = 1000.0


# ---- data ---------------------------------------------------------------------------------
def speech_files(data, actors):
    files = []
    for a in actors:
        files += sorted(glob.glob(os.path.join(data, "speech", "ravdess", "Actor_%02d" % a,
                                               "*.flac")))
    if not files:
        raise SystemExit("no speech files under %s/speech/ravdess" % data)
    return files


def load(path):
    """int16 samples of a 48 kHz mono file (int16 halves the memory of the cache)."""
    x, rate = sf.read(path, dtype="int16", always_2d=True)
    if rate != SAMPLE_RATE or x.shape[1] != 1:
        raise SystemExit("%s: expected 48 kHz mono" % path)
    return x[:, 0].copy()


def load_all(paths):
    return [load(p) for p in paths]


def make_mixture(rng, speech, noise, n, snr_db=None, peak_db=None):
    """One (noisy, clean) pair of n float32 samples from int16 speech and noise lists."""
    s = speech[rng.randint(len(speech))].astype(np.float32) / 32768.0
    clean = np.zeros(n, np.float32)
    if s.size >= n:
        start = rng.randint(s.size - n + 1)
        clean[:] = s[start:start + n]
        used = clean
    else:
        off = rng.randint(n - s.size + 1)
        clean[off:off + s.size] = s
        used = s
    p_speech = float(np.mean(used.astype(np.float64) ** 2))
    for _ in range(20):
        v = noise[rng.randint(len(noise))]
        if v.size >= n:
            start = rng.randint(v.size - n + 1)
            nz = v[start:start + n].astype(np.float32) / 32768.0
        else:
            nz = np.resize(np.roll(v, rng.randint(v.size)), n).astype(np.float32) / 32768.0
        p_noise = float(np.mean(nz.astype(np.float64) ** 2))
        if p_noise > 1e-9:
            break
    if snr_db is None:
        snr_db = rng.uniform(-5.0, 20.0)
    if peak_db is None:
        peak_db = rng.uniform(-30.0, -1.0)
    p_speech = max(p_speech, 1e-12)
    g = math.sqrt(p_speech / (p_noise * 10.0 ** (snr_db / 10.0))) if p_noise > 0 else 0.0
    noisy = clean + np.float32(g) * nz
    scale = 10.0 ** (peak_db / 20.0) / max(float(np.max(np.abs(noisy))), 1e-9)
    return (noisy * np.float32(scale)).astype(np.float32), (clean * np.float32(scale))


def make_batch(rng, speech, noise, batch, n):
    pairs = [make_mixture(rng, speech, noise, n) for _ in range(batch)]
    noisy = np.stack([dither(p[0]) for p in pairs])  # as the wrapper sees it
    clean = np.stack([p[1] for p in pairs])
    return torch.from_numpy(noisy), torch.from_numpy(clean)


# ---- loss ---------------------------------------------------------------------------------
def compressed(re, im):
    """|Z|^gamma and Z |Z|^(gamma-1) (re, im), with a floor on |Z|^2 against 0^-0.7."""
    power = (re * re + im * im).clamp_min(POWER_FLOOR)
    mag = power.pow(0.5 * GAMMA)
    scale = power.pow(0.5 * (GAMMA - 1.0))
    return mag, re * scale, im * scale


def spectral_loss(model, out, clean):
    """Loss of hop t's spectrum against the clean spectrum of frame t-4, for t >= 4."""
    d = TARGET_DELAY_HOPS
    with torch.no_grad():
        sr, si = model.analyse(model.frame(clean))
        s_mag, s_re, s_im = compressed(sr[:, :-d], si[:, :-d])
    y_mag, y_re, y_im = compressed(out["yr"][:, d:], out["yi"][:, d:])
    loss_mag = torch.mean((y_mag - s_mag) ** 2)
    loss_cplx = 0.5 * (torch.mean((y_re - s_re) ** 2) + torch.mean((y_im - s_im) ** 2))
    return LOSS_FACTOR * (loss_mag + loss_cplx)


# ---- training -----------------------------------------------------------------------------
def blas_gflops():
    a = torch.randn(2048, 256)
    b = torch.randn(256, 256)
    torch.mm(a, b)
    t = time.time()
    for _ in range(10):
        torch.mm(a, b)
    return 10 * 2 * 2048 * 256 * 256 / (time.time() - t) / 1e9


def heldout_path(out):
    return os.path.splitext(out)[0] + "_heldout_noise.txt"


def validation_set(data, held_noise, count=16, seconds=2.4):
    rng = np.random.RandomState(99)
    speech = load_all(speech_files(data, EVAL_ACTORS))
    noise = load_all([os.path.join(data, "noise", f) for f in held_noise])
    n = int(seconds * SAMPLE_RATE) // FRAME * FRAME
    return make_batch(rng, speech, noise, count, n)


def validate(model, val):
    model.eval()
    with torch.no_grad():
        loss = float(spectral_loss(model, model(val[0]), val[1]))
    model.train()
    return loss


def recalibrate_bn(model, batches, rng, speech, noise, batch, n):
    """Re-estimate every batch norm's running statistics as a plain average over `batches`
    training batches with the current weights: the running averages kept during training
    lag behind weights that still move, and the exported (inference) network uses them."""
    bns = [m for m in model.modules() if isinstance(m, torch.nn.BatchNorm2d)]
    for m in bns:
        m.reset_running_stats()
        m.momentum = None  # cumulative average
    model.train()
    with torch.no_grad():
        for _ in range(batches):
            model(make_batch(rng, speech, noise, batch, n)[0])
    for m in bns:
        m.momentum = 0.1


def save(model, opt, step, args, data):
    if args.bn_batches > 0:
        recalibrate_bn(model, args.bn_batches, *data)
    model.eval()
    weight_table.export(model, args.out + ".tmp")
    os.replace(args.out + ".tmp", args.out)
    model.train()
    if args.checkpoint:
        shared.save_checkpoint(args.checkpoint, model, opt, step)


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


def main():
    ap = argparse.ArgumentParser(description="Train the DFN twin and export its weight table.")
    ap.add_argument("--data", default="/work/shared/data")
    ap.add_argument("--minutes", type=float, default=30.0, help="wall-time budget")
    ap.add_argument("--threads", type=int, default=1)
    ap.add_argument("--out", required=True, help="exported table (6 071 616 bytes)")
    ap.add_argument("--checkpoint", default=None, help="resumed from when it exists")
    ap.add_argument("--batch", type=int, default=4)
    ap.add_argument("--min-seconds", type=float, default=2.0)
    ap.add_argument("--max-seconds", type=float, default=3.0)
    ap.add_argument("--lr", type=float, default=1e-3)
    ap.add_argument("--warmup", type=int, default=50, help="steps of linear warm-up")
    ap.add_argument("--clip", type=float, default=1.0, help="gradient norm clip")
    ap.add_argument("--save-minutes", type=float, default=10.0)
    ap.add_argument("--bn-batches", type=int, default=16,
                    help="batches of batch-norm recalibration before each export (0: none)")
    ap.add_argument("--log-seconds", type=float, default=30.0)
    ap.add_argument("--seed", type=int, default=1)
    args = ap.parse_args()

    torch.set_num_threads(args.threads)
    torch.manual_seed(args.seed)
    blas = blas_gflops()
    print("matrix product speed: %.1f GFLOP/s%s" % (
        blas, "  (slow: the reference BLAS? see README.md for OpenBLAS)" if blas < 8 else ""),
        flush=True)
    rng = np.random.RandomState(args.seed)
    os.makedirs(os.path.dirname(os.path.abspath(args.out)), exist_ok=True)

    train_noise, held_noise = split_noise(args.data)
    with open(heldout_path(args.out), "w") as f:
        f.write("".join(n + "\n" for n in held_noise))
    t0 = time.time()
    speech = load_all(speech_files(args.data, TRAIN_ACTORS))
    noise = load_all([os.path.join(args.data, "noise", f) for f in train_noise])
    val = validation_set(args.data, held_noise)
    print("data: %d speech files (%.1f min), %d noise files (%.1f min), %d held-out noise "
          "files (%s); loaded in %.0f s" % (
              len(speech), sum(s.size for s in speech) / SAMPLE_RATE / 60, len(noise),
              sum(v.size for v in noise) / SAMPLE_RATE / 60, len(held_noise),
              heldout_path(args.out), time.time() - t0), flush=True)

    model = DfnTwin()
    pass_through_init(model)
    opt = torch.optim.Adam(model.parameters(), lr=args.lr)
    step = shared.resume_checkpoint(args.checkpoint, model, opt)
    model.train()
    print("validation loss at start: %.4f" % validate(model, val), flush=True)

    # Batch-norm recalibration data: its own random stream, 2.4 s segments.
    bn_data = (np.random.RandomState(args.seed + 1000), speech, noise, args.batch,
               int(2.4 * SAMPLE_RATE) // FRAME * FRAME)
    budget = args.minutes * 60.0
    start = time.time()
    last_log = last_save = start
    acc_loss = acc_norm = 0.0
    acc_n = 0
    audio_s = 0.0
    while True:
        now = time.time()
        elapsed = now - start
        if elapsed >= budget:
            break
        # Warm-up by steps, then a cosine decay over this run's wall-time budget to 5 %.
        warm = min(1.0, (step + 1) / args.warmup)
        decay = 0.05 + 0.95 * 0.5 * (1.0 + math.cos(math.pi * elapsed / budget))
        for g in opt.param_groups:
            g["lr"] = args.lr * warm * decay

        seconds = rng.uniform(args.min_seconds, args.max_seconds)
        n = max(1, int(seconds * SAMPLE_RATE) // FRAME) * FRAME
        noisy, clean = make_batch(rng, speech, noise, args.batch, n)
        out = model(noisy)
        loss = spectral_loss(model, out, clean)
        opt.zero_grad(set_to_none=True)
        loss.backward()
        norm = torch.nn.utils.clip_grad_norm_(model.parameters(), args.clip)
        if torch.isfinite(loss) and torch.isfinite(norm):
            opt.step()
        step += 1
        acc_loss += float(loss)
        acc_norm += float(norm)
        acc_n += 1
        audio_s += args.batch * n / SAMPLE_RATE

        now = time.time()
        if now - last_log >= args.log_seconds:
            print("step %6d  %6.0f s  loss %.4f  grad norm %.3f  lr %.2e  %.1f s audio/s" % (
                step, now - start, acc_loss / acc_n, acc_norm / acc_n,
                opt.param_groups[0]["lr"], audio_s / (now - start)), flush=True)
            acc_loss = acc_norm = 0.0
            acc_n = 0
            last_log = now
        if now - last_save >= args.save_minutes * 60.0:
            save(model, opt, step, args, bn_data)
            print("saved %s; validation loss %.4f" % (args.out, validate(model, val)),
                  flush=True)
            last_save = time.time()

    save(model, opt, step, args, bn_data)
    total = time.time() - start
    print("done: %d steps in %.0f s, %.1f s of audio per second; validation loss %.4f; "
          "table %s" % (step, total, audio_s / total, validate(model, val), args.out),
          flush=True)


if __name__ == "__main__":
    main()
