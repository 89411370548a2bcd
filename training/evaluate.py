"""Score both noise cancellers and FFmpeg's arnndn on the evaluation split; write the report.

Mixtures: the eval split of training/mixing.py (RAVDESS actors 19 and 20 and noise files
that neither trainer nor the validation ever uses), --count mixtures of --seconds at each
SNR of --snrs; one noise file per mixture, no simulated room, no generated noise; the same
utterance, noise segment and level at every SNR (fixed seed), so the SNRs differ in the
noise gain only.

Systems, every one run whole on each mixture:
- the DFN canceller and the light suppressor as the library runs them
  (`quelora_denoise_file`, with the compiled-in weights or --dfn-table / --suppressor);
- `ffmpeg -af arnndn=m=MODEL` with every `.rnnn` of --community (the outside baseline).
Each output is aligned with the clean speech (the library's tool removes its latency;
arnndn's delay is measured once, by cross-correlation, and removed), and scored by SI-SDR
against the clean speech. The improvement is output SI-SDR minus input SI-SDR.

Voice probability: ROC AUC of the suppressor's per-frame probability against the frames
where the clean speech is within 20 dB of its utterance's active level (with 10 frames of
hangover; training/rnn/mix.py's label), over all frames of all mixtures.

    /usr/bin/python3 training/evaluate.py --data /work/shared/data --tools BUILD/tools \\
        --report docs/noise_cancellers.md --plot docs/noise_cancellers.png \\
        --wavs /tmp/eval-wavs [--dfn-table T.bin] [--suppressor M.rnnn]
"""

import argparse
import glob
import os
import shutil
import subprocess
import sys
import tempfile
import time

import numpy as np
import scipy.signal
import soundfile as sf

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "rnn"))
import mixing  # noqa: E402
import shared  # noqa: E402
import mix  # noqa: E402  (the voice label and levels)

FRAME = 480
SEED = 7
SIXTEEN_BIT = 32768.0 / 960.0
SPLIT_NAMES = {"eval": "evaluation", "val": "validation"}


def si_sdr(est, ref):
    est = est.astype(np.float64) - np.mean(est)
    ref = ref.astype(np.float64) - np.mean(ref)
    a = np.dot(est, ref) / max(np.dot(ref, ref), 1e-20)
    target = a * ref
    err = est - target
    return 10.0 * np.log10(max(np.dot(target, target), 1e-20) / max(np.dot(err, err), 1e-20))


def voice_label(clean):
    """mix.py's voice label of every 480-sample frame of one utterance's clean signal."""
    p = mix.frame_power(clean)
    active = mix.active_power(clean)
    level = np.where(p > 0, 10.0 * np.log10(np.maximum(p, 1e-30) / max(active, 1e-30)),
                     mix.GAP_LEVEL_DB)
    return mix.voice_label(np.maximum(level, mix.GAP_LEVEL_DB))


def mixtures(data, snrs, count, seconds, split="eval"):
    pool = mixing.Pool(data, split)
    mixer = mixing.Mixer(pool, generated=False, reverb=False)
    n = int(seconds * mixing.SAMPLE_RATE) // FRAME * FRAME
    out = []
    for i in range(count):
        for snr in snrs:
            rng = np.random.default_rng(SEED * 100003 + i)  # same segment at every SNR
            noisy, clean = mixer.example(rng, n, snr_db=snr, kind="mix")
            out.append(dict(index=i, snr=snr, noisy=noisy, clean=clean))
    return pool, out


# ---- systems ------------------------------------------------------------------------------
class Library:
    """One of the library's cancellers through quelora_denoise_file."""

    def __init__(self, tool, canceller, weights, workdir):
        self.tool, self.canceller, self.weights, self.workdir = tool, canceller, weights, workdir

    def run(self, x):
        paths = [os.path.join(self.workdir, n) for n in ("in.f32", "out.f32", "voice.f32")]
        x.astype("<f4").tofile(paths[0])
        cmd = [self.tool, "--canceller", self.canceller, "--in", paths[0], "--out", paths[1]]
        if self.weights:
            cmd += ["--weights", self.weights]
        if self.canceller == "suppressor":
            cmd += ["--voice", paths[2]]
        subprocess.run(cmd, check=True)
        voice = np.fromfile(paths[2], "<f4") if self.canceller == "suppressor" else None
        return np.fromfile(paths[1], "<f4"), voice


class Arnndn:
    """FFmpeg's arnndn filter with one model file; its delay is found by align().

    arnndn feeds its float samples to the network's analysis as they come, with a transform
    960 times larger than the 16-bit original's, so its features are those of the original
    on a signal 32768 / 960 times (31 dB) quieter than the 16-bit scaling of ours. With
    gain = 32768 / 960 the input is raised by that much (and the output lowered), which runs
    the models at the level they were trained at; the report gives both."""

    def __init__(self, model, workdir, gain=1.0):
        self.model, self.workdir, self.gain = model, workdir, gain
        self.delay = 0

    def raw(self, x):
        src = os.path.join(self.workdir, "a_in.f32")
        dst = os.path.join(self.workdir, "a_out.f32")
        (x * np.float32(self.gain)).astype("<f4").tofile(src)
        subprocess.run(["ffmpeg", "-nostdin", "-v", "error", "-y", "-f", "f32le", "-ar", "48000",
                        "-ac", "1", "-i", src, "-af", "arnndn=m=" + self.model, "-f", "f32le",
                        dst], check=True)
        return np.fromfile(dst, "<f4") / np.float32(self.gain)

    def align(self, mixes):
        """The lag (0..2400 samples) that maximises the output's correlation with the clean
        speech, summed over the highest-SNR mixtures."""
        top = max(m["snr"] for m in mixes)
        corr = np.zeros(2401)
        for m in mixes:
            if m["snr"] != top:
                continue
            y = self.raw(m["noisy"]).astype(np.float64)
            c = m["clean"].astype(np.float64)
            full = scipy.signal.correlate(y, c, mode="full", method="fft")
            corr += full[c.size - 1:c.size - 1 + corr.size]  # y[k + lag] c[k] for lag >= 0
        self.delay = int(np.argmax(corr))

    def run(self, x):
        y = self.raw(x)
        y = np.concatenate([y[self.delay:], np.zeros(self.delay, np.float32)])
        return y[:x.size], None


# ---- report -------------------------------------------------------------------------------
def score(system, mixes, keep_wavs=None):
    res = []
    for k, m in enumerate(mixes):
        y, voice = system.run(m["noisy"])
        n = min(y.size, m["clean"].size)
        res.append(dict(snr=m["snr"], input=si_sdr(m["noisy"][:n], m["clean"][:n]),
                        output=si_sdr(y[:n], m["clean"][:n]), voice=voice))
        if keep_wavs is not None and k < keep_wavs[1]:
            sf.write(os.path.join(keep_wavs[0], "%02d_%gdB_%s.wav" % (m["index"], m["snr"],
                                                                     keep_wavs[2])), y, 48000)
    return res


def by_snr(res, snrs, key):
    return [float(np.mean([r[key] for r in res if r["snr"] == s])) for s in snrs]


def plot(path, snrs, rows):
    import matplotlib

    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    fig, ax = plt.subplots(figsize=(9.5, 4.8), dpi=110)
    colours = {}
    for name, imp, style in rows:
        # One colour per model, dashed as FFmpeg runs it and dotted at the 16-bit level.
        key = name.split(" (")[0]
        colour = colours.setdefault(key, "C%d" % len(colours))
        ax.plot(snrs, imp, style, label=name, color="k" if name == "noisy input" else colour,
                linewidth=2 if style.startswith("-o") or style.startswith("-s") else 1.2)
    ax.set_xlabel("input SNR (dB)")
    ax.set_ylabel("SI-SDR improvement (dB)")
    ax.set_xticks(snrs)
    ax.grid(alpha=0.3)
    ax.legend(fontsize=8, loc="upper left", bbox_to_anchor=(1.01, 1.0))
    ax.set_title("Held-out speakers and noise, 48 kHz")
    fig.tight_layout()
    fig.savefig(path)


def main():
    ap = argparse.ArgumentParser(description="Score the noise cancellers; write the report.")
    ap.add_argument("--data", default="/work/shared/data")
    ap.add_argument("--tools", required=True,
                    help="folder holding quelora_denoise_file (searched below it too)")
    ap.add_argument("--dfn-table", default=None, help="default: the compiled-in table")
    ap.add_argument("--suppressor", default=None, help="default: the compiled-in model")
    ap.add_argument("--community", default=None,
                    help="folder of arnndn models (default: <data>/rnnoise-models)")
    ap.add_argument("--split", choices=("eval", "val"), default="eval",
                    help="val: the validation split, for choosing between weight files")
    ap.add_argument("--snrs", default="0,5,10,15,20")
    ap.add_argument("--count", type=int, default=24, help="mixtures per SNR")
    ap.add_argument("--seconds", type=float, default=4.0)
    ap.add_argument("--report", required=True, help="markdown report to write")
    ap.add_argument("--plot", required=True, help="PNG to write")
    ap.add_argument("--wavs", default=None, help="folder for a few before/after WAV files")
    args = ap.parse_args()

    t0 = time.time()
    tool = shutil.which("quelora_denoise_file", path=args.tools) or next(
        iter(glob.glob(os.path.join(args.tools, "**", "quelora_denoise_file"), recursive=True)),
        None)
    if not tool:
        raise SystemExit("quelora_denoise_file not found under %s" % args.tools)
    snrs = [float(s) for s in args.snrs.split(",")]
    community = sorted(glob.glob(os.path.join(args.community or os.path.join(
        args.data, "rnnoise-models"), "*.rnnn")))
    pool, mixes = mixtures(args.data, snrs, args.count, args.seconds, args.split)
    if args.wavs:
        os.makedirs(args.wavs, exist_ok=True)
        for m in mixes[:len(snrs) * 2]:
            for what in ("noisy", "clean"):
                sf.write(os.path.join(args.wavs, "%02d_%gdB_%s.wav" % (m["index"], m["snr"],
                                                                      what)), m[what], 48000)

    with tempfile.TemporaryDirectory() as work:
        systems = [("DFN canceller", Library(tool, "dfn", args.dfn_table, work), "dfn"),
                   ("light suppressor", Library(tool, "suppressor", args.suppressor, work),
                    "suppressor")]
        for gain, suffix in ((1.0, ""), (SIXTEEN_BIT, " (16-bit level)")):
            for path in community:
                a = Arnndn(path, work, gain)
                a.align(mixes)
                name = os.path.splitext(os.path.basename(path))[0]
                systems.append(("arnndn %s%s" % (name, suffix), a,
                                "arnndn_%s%s" % (name, "_16bit" if suffix else "")))
        results = []
        for name, system, tag in systems:
            wavs = (args.wavs, len(snrs) * 2, tag) if args.wavs else None
            results.append((name, score(system, mixes, wavs), system))

    noisy_abs = by_snr(results[0][1], snrs, "input")
    voice = np.concatenate([r["voice"] for r in results[1][1]])
    labels = np.concatenate([voice_label(m["clean"])[:r["voice"].size]
                             for m, r in zip(mixes, results[1][1])])
    auc = shared.roc_auc(voice, labels)
    auc_snr = [shared.roc_auc(np.concatenate([r["voice"] for r in results[1][1] if r["snr"] == s]),
                       np.concatenate([voice_label(m["clean"])[:r["voice"].size]
                                       for m, r in zip(mixes, results[1][1])
                                       if m["snr"] == s])) for s in snrs]

    table = []
    for name, res, system in results:
        out = by_snr(res, snrs, "output")
        table.append((name, out, [o - i for o, i in zip(out, noisy_abs)]))
    avg_span = [k for k, s in enumerate(snrs) if 0 <= s <= 15]

    lines = ["# Noise cancellers on held-out speech and noise", "",
             "Written by `training/evaluate.py` (the command is in `training/README.md`); do not "
             "edit by hand.", "",
             "- **Mixtures:** %d per SNR, %.1f s each, 48 kHz: speech of the %s speakers "
             "(%d files), one of %d %s noise files (%s) per mixture, the same utterance, "
             "noise segment and level at every SNR.%s" % (
                 args.count, args.seconds, SPLIT_NAMES[args.split], len(pool.speech),
                 len(pool.noise), SPLIT_NAMES[args.split],
                 ", ".join(os.path.basename(n) for n in pool.noise_names),
                 " Neither the training nor the model selection used these speakers or noise "
                 "files." if args.split == "eval" else " This is the validation split: "
                 "figures for choosing weights, not for reporting."),
             "- **Weights:** DFN table %s; suppressor model %s." % (
                 "`%s`" % args.dfn_table if args.dfn_table else "compiled in",
                 "`%s`" % args.suppressor if args.suppressor else "compiled in"),
             "- **Scores:** SI-SDR of each whole system's output against the clean speech "
             "(latency removed); improvement = output minus input. arnndn runs through FFmpeg "
             "with each community model; delays found: %s" % ", ".join(
                 "%s %d" % (n[len("arnndn "):], s.delay) for n, _, s in results[2:]) +
             " samples. arnndn as FFmpeg runs it sees its float samples as they come, which "
             "its network weighs like a 16-bit signal 31 dB quieter than ours sees; the rows "
             "marked 16-bit level raise its input by those 31 dB (and lower the output back), "
             "as the models' own training had it." if results[2:]
             else "- **Scores:** SI-SDR of each whole system's output against the clean speech "
                  "(latency removed); improvement = output minus input.",
             "", "## SI-SDR improvement (dB)", "",
             "| system | " + " | ".join("%g dB" % s for s in snrs) +
             " | mean over 0-15 dB |",
             "|---|" + "---|" * (len(snrs) + 1)]
    lines.append("| noisy input (SI-SDR) | " + " | ".join("%.2f" % v for v in noisy_abs) +
                 " | |")
    for name, out, imp in table:
        mean = np.mean([imp[k] for k in avg_span]) if avg_span else float("nan")
        lines.append("| %s | %s | %+.2f |" % (name, " | ".join("%+.2f" % v for v in imp), mean))
    lines += ["", "## Output SI-SDR (dB)", "",
              "| system | " + " | ".join("%g dB" % s for s in snrs) + " |",
              "|---|" + "---|" * len(snrs)]
    for name, out, imp in table:
        lines.append("| %s | %s |" % (name, " | ".join("%.2f" % v for v in out)))
    lines += ["", "## Voice probability (light suppressor)", "",
              "ROC AUC over all %d frames: **%.3f**; per SNR: %s." % (
                  voice.size, auc, ", ".join("%g dB %.3f" % (s, a) for s, a in zip(snrs, auc_snr))),
              "", "![SI-SDR improvement per SNR](%s)" % os.path.basename(args.plot), "",
              "Evaluation took %.0f s." % (time.time() - t0), ""]
    with open(args.report, "w") as f:
        f.write("\n".join(lines))
    styles = ["-o", "-s"] + ["--"] * len(community) + [":"] * len(community)
    plot(args.plot, snrs, [("noisy input", [0.0] * len(snrs), ":")] +
         [(name, imp, st) for (name, out, imp), st in zip(table, styles)])
    print("\n".join(lines))


if __name__ == "__main__":
    main()
