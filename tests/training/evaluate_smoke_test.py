"""Runs the noise cancellers' evaluation command end to end on a tiny data folder made here:
espeak-ng sentences as the evaluation speakers, generated noise as the noise files, and the
library's own suppressor model standing in for the community models. Checks that the
report and plot are written, that the library's latency is removed (the canceller then
improves on the noisy input at 0 dB), that arnndn's measured delay is its 480 samples and
that arnndn running our model at our level scores as our suppressor does.

    evaluate_smoke_test.py REPO TOOLS_DIR
Exit 77 (skipped) where numpy, scipy, soundfile, matplotlib, espeak-ng or ffmpeg is missing.
"""

import os
import re
import shutil
import subprocess
import sys
import tempfile

try:
    import matplotlib  # noqa: F401
    import tiny_data
except ImportError as e:
    print("skipped: %s" % e)
    sys.exit(77)

def main():
    repo, tools = sys.argv[1], sys.argv[2]
    for exe in ("espeak-ng", "ffmpeg"):
        if not shutil.which(exe):
            print("skipped: no %s" % exe)
            return 77
    with tempfile.TemporaryDirectory() as tmp:
        data = os.path.join(tmp, "data")
        tiny_data.make(data, actors=(19, 20))
        models = os.path.join(tmp, "models")
        os.makedirs(models)
        shutil.copy(os.path.join(repo, "data", "rnn_suppressor.rnnn"),
                    os.path.join(models, "ours.rnnn"))
        report = os.path.join(tmp, "report.md")
        png = os.path.join(tmp, "plot.png")
        wavs = os.path.join(tmp, "wavs")
        cmd = ["/usr/bin/python3", os.path.join(repo, "training", "evaluate.py"), "--data", data,
               "--tools", tools, "--community", models, "--count", "2", "--seconds", "3",
               "--snrs", "0,20", "--report", report, "--plot", png, "--wavs", wavs]
        subprocess.run(cmd, check=True, stdout=subprocess.DEVNULL)
        text = open(report).read()
        failures = []
        with open(png, "rb") as f:
            if f.read(8) != b"\x89PNG\r\n\x1a\n":
                failures.append("the plot is not a PNG")
        rows = {}
        for line in text.splitlines():
            m = re.match(r"\| (DFN canceller|light suppressor|arnndn ours|arnndn ours \(16-bit "
                         r"level\)) \| ([-+\d.]+) \| "
                         r"([-+\d.]+) \| ([-+\d.]+) \|$", line)
            if m and m.group(1) not in rows:
                rows[m.group(1)] = [float(m.group(k)) for k in (2, 3, 4)]
        if len(rows) != 4:
            failures.append("improvement rows missing: %s" % sorted(rows))
        elif rows["DFN canceller"][0] < 1.0:  # a misaligned output scores far below 0
            failures.append("DFN canceller improves 0 dB mixtures by only %+.2f dB"
                            % rows["DFN canceller"][0])
        elif abs(rows["light suppressor"][0] - rows["arnndn ours (16-bit level)"][0]) > 1.0:
            # The same model at the same level: only the pitch search's rounding differs.
            failures.append("the suppressor and arnndn on its model disagree: %s" % rows)
        if "ours 480" not in text or "ours (16-bit level) 480" not in text:
            failures.append("arnndn's delay is not the 480 samples of its frame")
        auc = re.search(r"ROC AUC over all \d+ frames: \*\*([\d.]+)\*\*", text)
        if not auc or not 0.5 < float(auc.group(1)) <= 1.0:
            failures.append("voice probability AUC missing or at chance: %s" % (
                auc.group(1) if auc else None))
        if len([f for f in os.listdir(wavs) if f.endswith(".wav")]) < 4:
            failures.append("fewer than four listening files")
        for f in failures:
            print("FAIL: " + f)
        if failures:
            print(text)
        return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
