"""Read and write `.rnnn` model files, and move weights between them and the twin.

The format (docs/rnn_suppressor.md): the line `rnnoise-nu model file version 1`, then six
layers in the order input_dense, vad_gru, noise_gru, denoise_gru, denoise_output,
vad_output. Each layer: a line `nb_inputs nb_neurons activation` (0 tanh, 1 sigmoid,
2 relu); a dense layer then has a line of nb_inputs x nb_neurons weights and a line of
nb_neurons biases; a GRU layer a line of nb_inputs x 3 nb_neurons input weights, a line of
nb_neurons x 3 nb_neurons recurrent weights and a line of 3 nb_neurons biases. Numbers are
integers in [-128, 127], each worth 1/256; weight (input j, neuron i) sits at
j * stride + i (stride nb_neurons, or 3 nb_neurons for a GRU, whose gates z, r, h sit at
column offsets 0, n, 2n).

The library compiles this very text in (src/denoise/rnn_model_data.cpp embeds
data/rnn_suppressor.rnnn unchanged), so `write` is the exporter of the built-in model too.

    /usr/bin/python3 training/rnn/rnnn.py FILE.rnnn ...   # summary and round-trip check
"""

import sys
from dataclasses import dataclass
from typing import Optional

import numpy as np

HEADER = "rnnoise-nu model file version 1"
LAYERS = ("input_dense", "vad_gru", "noise_gru", "denoise_gru", "denoise_output", "vad_output")
GRU_LAYERS = ("vad_gru", "noise_gru", "denoise_gru")
ACTIVATIONS = {0: "tanh", 1: "sigmoid", 2: "relu"}
ACTIVATION_CODES = {v: k for k, v in ACTIVATIONS.items()}
SCALE = 256.0
Q_MIN, Q_MAX = -128, 127
# The range a trained parameter is kept in so that its export needs no clipping.
W_MIN, W_MAX = Q_MIN / SCALE, Q_MAX / SCALE


@dataclass
class Layer:
    name: str
    n_in: int
    n_out: int
    activation: int
    weights: np.ndarray                 # int, [n_in, n_out] or [n_in, 3 n_out]
    bias: np.ndarray                    # int, [n_out] or [3 n_out]
    recurrent: Optional[np.ndarray] = None  # int, [n_out, 3 n_out] (GRU only)

    @property
    def is_gru(self):
        return self.name in GRU_LAYERS


def _numbers(line, where, count):
    try:
        values = np.array([int(t) for t in line.split()], dtype=np.int64)
    except ValueError:
        raise ValueError("%s: not a line of integers" % where) from None
    if values.size != count:
        raise ValueError("%s: %d numbers, expected %d" % (where, values.size, count))
    if values.size and (values.min() < Q_MIN or values.max() > Q_MAX):
        raise ValueError("%s: a number outside [-128, 127]" % where)
    return values


def parse(text):
    """The six layers of a `.rnnn` text; ValueError naming the line on any fault."""
    lines = text.split("\n")
    if lines and lines[-1] == "":
        lines.pop()
    if not lines or lines[0].strip() != HEADER:
        raise ValueError("line 1: expected '%s'" % HEADER)
    pos = 1
    layers = []

    def take(what):
        nonlocal pos
        if pos >= len(lines):
            raise ValueError("line %d: missing %s" % (pos + 1, what))
        pos += 1
        return lines[pos - 1], "line %d (%s)" % (pos, what)

    for name in LAYERS:
        line, where = take(name + " header")
        head = line.split()
        if len(head) != 3 or not all(t.lstrip("-").isdigit() for t in head):
            raise ValueError("%s: expected 'nb_inputs nb_neurons activation'" % where)
        n_in, n_out, act = (int(t) for t in head)
        if n_in <= 0 or n_out <= 0 or act not in ACTIVATIONS:
            raise ValueError("%s: bad sizes or activation" % where)
        gates = 3 if name in GRU_LAYERS else 1
        w = _numbers(*take(name + " weights"), n_in * gates * n_out).reshape(n_in, gates * n_out)
        rec = None
        if gates == 3:
            rec = _numbers(*take(name + " recurrent weights"), n_out * 3 * n_out)
            rec = rec.reshape(n_out, 3 * n_out)
        b = _numbers(*take(name + " biases"), gates * n_out)
        layers.append(Layer(name, n_in, n_out, act, w, b, rec))
    if pos != len(lines):
        raise ValueError("line %d: text after the last layer" % (pos + 1))
    check_chain(layers)
    return layers


def check_chain(layers):
    """The sizes must chain as the network wires its layers (step 8 of
    docs/rnn_suppressor.md, twin.py)."""
    d, vad, noise, den, out, vout = layers
    want = {
        "input_dense": (42, d.n_out),
        "vad_gru": (d.n_out, vad.n_out),
        "noise_gru": (d.n_out + vad.n_out + 42, noise.n_out),
        "denoise_gru": (vad.n_out + noise.n_out + 42, den.n_out),
        "denoise_output": (den.n_out, 22),
        "vad_output": (vad.n_out, 1),
    }
    for layer in layers:
        if (layer.n_in, layer.n_out) != want[layer.name]:
            raise ValueError("%s: %d -> %d does not chain (expected %d -> %d)" % (
                layer.name, layer.n_in, layer.n_out, *want[layer.name]))


def format_text(layers):
    out = [HEADER]
    for layer in layers:
        out.append("%d %d %d" % (layer.n_in, layer.n_out, layer.activation))
        rows = [layer.weights] + ([layer.recurrent] if layer.is_gru else []) + [layer.bias]
        out += [" ".join(str(int(v)) for v in np.asarray(r).ravel()) for r in rows]
    return "\n".join(out) + "\n"


def read(path):
    with open(path, "r", encoding="ascii") as f:
        return parse(f.read())


def write(path, layers):
    check_chain(layers)
    with open(path, "w", encoding="ascii", newline="\n") as f:
        f.write(format_text(layers))


def quantise(values):
    """round(256 v), clipped to [-128, 127] (the trainer keeps v within [W_MIN, W_MAX])."""
    return np.clip(np.round(np.asarray(values, dtype=np.float64) * SCALE), Q_MIN, Q_MAX).astype(
        np.int64)


def summary(layers):
    return ", ".join("%s %d->%d %s" % (l.name, l.n_in, l.n_out, ACTIVATIONS[l.activation])
                     for l in layers)


def main(paths):
    bad = 0
    for p in paths:
        with open(p, "rb") as f:
            raw = f.read()
        layers = parse(raw.decode("ascii"))
        same = format_text(layers).encode("ascii") == raw
        bad += not same
        print("%s: %s; round trip %s" % (p, summary(layers), "byte-exact" if same else "DIFFERS"))
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
