"""Both trainers resume exactly: a run of four steps and the same run stopped after two and
resumed for two more export bit-identical weights (model, optimiser, schedule and every
random state come back from the checkpoint, so no example is replayed or skipped). On a tiny
data folder made here.

    resume_test.py REPO TOOLS_DIR
Exit 77 (skipped) where PyTorch (scripts/bootstrap training) or espeak-ng is missing.
"""

import filecmp
import os
import shutil
import subprocess
import sys
import tempfile

try:
    import torch  # noqa: F401
    import tiny_data
except ImportError as e:
    print("skipped: %s" % e)
    sys.exit(77)

PYTHON = "/usr/bin/python3"


def run(cmd, log):
    with open(log, "a") as f:
        subprocess.run(cmd, check=True, stdout=f, stderr=subprocess.STDOUT)


def same_state(a, b):
    """Whether two checkpoints hold the same float weights and optimiser moments."""
    ca, cb = torch.load(a), torch.load(b)
    tensors = lambda ck: list(ck["model"].values()) + [  # noqa: E731
        t for s in ck["opt"]["state"].values() for t in s.values() if torch.is_tensor(t)]
    ta, tb = tensors(ca), tensors(cb)
    return len(ta) == len(tb) and all(torch.equal(x, y) for x, y in zip(ta, tb))


def twice(train_cmd, out_flag, out_name, tmp):
    """Exports of the whole run and of the split run (paths of their .last files; their
    checkpoints are beside them, .last replaced by .ckpt)."""
    lasts = []
    for name, sessions in (("whole", [None]), ("split", [2, None])):
        out = os.path.join(tmp, name + out_name)
        for steps in sessions:
            cmd = train_cmd + [out_flag, out, "--checkpoint", out + ".ckpt"]
            run(cmd + (["--session-steps", str(steps)] if steps else []),
                os.path.join(tmp, "log.txt"))
        lasts.append(out + ".last")
    return lasts


def main():
    repo, tools = sys.argv[1], sys.argv[2]
    if not shutil.which("espeak-ng"):
        print("skipped: no espeak-ng")
        return 77
    feature_tool = os.path.join(tools, "rnn_features", "quelora_rnn_features")
    failures = []
    with tempfile.TemporaryDirectory() as tmp:
        data = os.path.join(tmp, "data")
        tiny_data.make(data, actors=range(1, 19), noise_files=10)

        dfn = [PYTHON, os.path.join(repo, "training", "dfn", "train.py"), "--data", data,
               "--total-steps", "4", "--warmup", "2", "--batch", "2", "--min-seconds", "0.5",
               "--max-seconds", "0.8", "--bn-batches", "1"]
        a, b = twice(dfn, "--out", "dfn.bin", tmp)
        if not filecmp.cmp(a, b, shallow=False):
            failures.append("the resumed DFN run exported other weights")
        if not same_state(a[:-5] + ".ckpt", b[:-5] + ".ckpt"):
            failures.append("the resumed DFN run ended in another training state")

        records = os.path.join(tmp, "records")
        run([PYTHON, os.path.join(repo, "training", "rnn", "mix.py"), "--data", data,
             "--tool", feature_tool, "--hours", "0.02", "--seconds", "12", "--out", records],
            os.path.join(tmp, "log.txt"))
        rnn = [PYTHON, os.path.join(repo, "training", "rnn", "train.py"), "--train", records,
               "--val", records, "--total-steps", "4", "--warmup", "2", "--batch", "4",
               "--frames", "100", "--init", os.path.join(repo, "data", "rnn_suppressor.rnnn")]
        a, b = twice(rnn, "--out", "rnn.rnnn", tmp)
        if not filecmp.cmp(a, b, shallow=False):
            failures.append("the resumed suppressor run exported another model")
        # The export rounds to 1/256, which hides small differences: the float weights
        # and the optimiser's moments must agree too.
        if not same_state(a[:-5] + ".ckpt", b[:-5] + ".ckpt"):
            failures.append("the resumed suppressor run ended in another training state")
        if filecmp.cmp(a, os.path.join(repo, "data", "rnn_suppressor.rnnn"), shallow=False):
            failures.append("four suppressor steps changed nothing: the test would not see "
                            "a resume that restarts")
        if failures:
            print(open(os.path.join(tmp, "log.txt")).read())
    for f in failures:
        print("FAIL: " + f)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
