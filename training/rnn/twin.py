"""PyTorch twin of the recurrent suppressor's network (docs/rnn_suppressor.md, step 8).

Sequence mode over [batch, frames, 42] features:
    d        = tanh(Dense_in(features))                          42 -> 24
    vad_s    = GRU_vad(d)                                        24 -> 24
    vad      = sigmoid(Dense_vad(vad_s))                         24 -> 1
    noise_s  = GRU_noise([d, vad_s, features])                   90 -> 48
    den_s    = GRU_denoise([vad_s, noise_s, features])          114 -> 96
    gains    = sigmoid(Dense_out(den_s))                         96 -> 22
The GRU is the suppressor's, not torch.nn.GRU's: one bias per gate and the reset gate applied
to the state before the recurrent product,
    z = sig(b_z + x W_z + h U_z), r = sig(b_r + x W_r + h U_r),
    h' = z h + (1 - z) act(b_h + x W_h + (r h) U_h).
Parameters are held in the file's layout (weights [inputs, gates x neurons], gates z, r, h),
so the `.rnnn` weights are these tensors times 256.

Silent frames (the analysis found almost no energy; features all zero): the C++ network is
not run, so every GRU state keeps its value and the voice probability is 0. The twin does the
same given the silence flags, in training too, so a trained state never sees a zero feature
vector the C++ network would not be shown.
"""

from typing import List

import numpy as np
import torch
import torch.nn as nn

import rnnn

N_FEATURES = 42
N_BANDS = 22
# The network of the built-in model: the published sizes, GRUs with ReLU candidates.
DEFAULT_SIZES = (24, 24, 48, 96)
DEFAULT_ACTIVATIONS = ("tanh", "relu", "relu", "relu", "sigmoid", "sigmoid")


def fake_quantise(p, on):
    """p rounded to the export's k / 256 in the forward pass, with the gradient of p
    (straight-through), when on: training then sees the network the library will run."""
    if not on:
        return p
    return p + (torch.round(p * rnnn.SCALE) / rnnn.SCALE - p).detach()


def _act(name, x):
    if name == "tanh":
        return torch.tanh(x)
    if name == "sigmoid":
        return torch.sigmoid(x)
    return torch.relu(x)


@torch.jit.script
def gru_sequence(xw: torch.Tensor, u: torch.Tensor, keep: torch.Tensor, relu: bool,
                 h0: torch.Tensor) -> torch.Tensor:
    """States of one GRU over a sequence.

    xw: [B, T, 3n] = b + x W (precomputed for all frames); u: [n, 3n]; keep: [B, T, 1],
    1 where the frame is processed, 0 where the state is held (silent frame)."""
    n = u.size(0)
    u_zr = u[:, : 2 * n]
    u_h = u[:, 2 * n:]
    h = h0
    outs: List[torch.Tensor] = []
    # unbind, not xw[:, t]: the backward of T slices would add T full-size zero tensors.
    keeps = keep.unbind(1)
    for t, x in enumerate(xw.unbind(1)):
        zr = torch.sigmoid(x[:, : 2 * n] + torch.mm(h, u_zr))
        z = zr[:, :n]
        r = zr[:, n:]
        pre = x[:, 2 * n:] + torch.mm(r * h, u_h)
        if relu:
            c = torch.relu(pre)
        else:
            c = torch.tanh(pre)
        h_new = c + z * (h - c)
        h = h + keeps[t] * (h_new - h)
        outs.append(h)
    return torch.stack(outs, 1)


class Dense(nn.Module):
    def __init__(self, n_in, n_out, activation):
        super().__init__()
        self.activation = activation
        self.quantise = False
        self.weight = nn.Parameter(torch.empty(n_in, n_out))
        self.bias = nn.Parameter(torch.zeros(n_out))
        lim = float(np.sqrt(6.0 / (n_in + n_out)))
        nn.init.uniform_(self.weight, -lim, lim)

    def forward(self, x):
        q = self.quantise
        return _act(self.activation, torch.matmul(x, fake_quantise(self.weight, q))
                    + fake_quantise(self.bias, q))


class Gru(nn.Module):
    def __init__(self, n_in, n, activation):
        super().__init__()
        if activation not in ("tanh", "relu"):
            raise ValueError("a GRU candidate is tanh or relu, not %s" % activation)
        self.activation = activation
        self.quantise = False
        self.n = n
        self.weight = nn.Parameter(torch.empty(n_in, 3 * n))
        self.recurrent = nn.Parameter(torch.empty(n, 3 * n))
        self.bias = nn.Parameter(torch.zeros(3 * n))
        lim = float(np.sqrt(6.0 / (n_in + n)))
        nn.init.uniform_(self.weight, -lim, lim)
        with torch.no_grad():
            for g in range(3):
                q, _ = torch.linalg.qr(torch.randn(n, n))
                self.recurrent[:, g * n:(g + 1) * n] = q

    def forward(self, x, keep, h0=None):
        q = self.quantise
        xw = torch.matmul(x, fake_quantise(self.weight, q)) + fake_quantise(self.bias, q)
        if h0 is None:
            h0 = torch.zeros(x.size(0), self.n, dtype=x.dtype)
        return gru_sequence(xw, fake_quantise(self.recurrent, q), keep,
                            self.activation == "relu", h0)


class RnnTwin(nn.Module):
    def __init__(self, sizes=DEFAULT_SIZES, activations=DEFAULT_ACTIVATIONS):
        super().__init__()
        d, v, n, g = sizes
        a = activations
        self.input_dense = Dense(N_FEATURES, d, a[0])
        self.vad_gru = Gru(d, v, a[1])
        self.noise_gru = Gru(d + v + N_FEATURES, n, a[2])
        self.denoise_gru = Gru(v + n + N_FEATURES, g, a[3])
        self.denoise_output = Dense(g, N_BANDS, a[4])
        self.vad_output = Dense(v, 1, a[5])

    def layers(self):
        return [getattr(self, name) for name in rnnn.LAYERS]

    def forward(self, features, silent=None):
        """features [B, T, 42], silent [B, T] (1 = silent frame) -> (gains [B, T, 22],
        vad [B, T]); on silent frames the states hold and vad is 0 (gains there are the
        values the held states give, unused by the suppressor)."""
        if silent is None:
            silent = torch.zeros(features.shape[:2], dtype=features.dtype)
        keep = (1.0 - silent).unsqueeze(-1)
        d = self.input_dense(features)
        vad_s = self.vad_gru(d, keep)
        noise_s = self.noise_gru(torch.cat([d, vad_s, features], -1), keep)
        den_s = self.denoise_gru(torch.cat([vad_s, noise_s, features], -1), keep)
        gains = self.denoise_output(den_s)
        vad = self.vad_output(vad_s).squeeze(-1) * keep.squeeze(-1)
        return gains, vad

    def quantise_aware(self, on=True):
        """Run every layer on its exported (k / 256) weights; see fake_quantise."""
        for layer in self.layers():
            layer.quantise = on
        return self

    def clip_(self):
        """Keep every parameter exportable without clipping (rnnn.W_MIN..W_MAX)."""
        with torch.no_grad():
            for p in self.parameters():
                p.clamp_(rnnn.W_MIN, rnnn.W_MAX)


def from_layers(layers):
    """A twin holding the weights of parsed `.rnnn` layers (exactly: k / 256)."""
    rnnn.check_chain(layers)
    sizes = (layers[0].n_out, layers[1].n_out, layers[2].n_out, layers[3].n_out)
    acts = tuple(rnnn.ACTIVATIONS[l.activation] for l in layers)
    model = RnnTwin(sizes, acts)
    with torch.no_grad():
        for mod, layer in zip(model.layers(), layers):
            mod.weight.copy_(torch.from_numpy(layer.weights / rnnn.SCALE))
            mod.bias.copy_(torch.from_numpy(layer.bias / rnnn.SCALE))
            if layer.is_gru:
                mod.recurrent.copy_(torch.from_numpy(layer.recurrent / rnnn.SCALE))
    return model


def to_layers(model):
    """The twin's weights as `.rnnn` layers (quantised to k / 256)."""
    out = []
    for name, mod in zip(rnnn.LAYERS, model.layers()):
        w = mod.weight.detach().double().numpy()
        rec = mod.recurrent.detach().double().numpy() if name in rnnn.GRU_LAYERS else None
        n_out = mod.n if name in rnnn.GRU_LAYERS else w.shape[1]
        out.append(rnnn.Layer(name, w.shape[0], n_out, rnnn.ACTIVATION_CODES[mod.activation],
                              rnnn.quantise(w), rnnn.quantise(mod.bias.detach().double().numpy()),
                              None if rec is None else rnnn.quantise(rec)))
    return out


def load(path):
    return from_layers(rnnn.read(path))


def export(model, path):
    rnnn.write(path, to_layers(model))
