"""Self-check of the DFN twin (not part of CI): /usr/bin/python3 training/dfn/test_twin.py

The centre piece is a second, hop-by-hop implementation in numpy written from docs/dfn.md
the way the C++ code is structured (one hop per call, histories, block routine with
previous_input / overlap / frame_count), reading the flat weight table in order with
hand-written shapes. It must agree with the twin's sequence mode (float64) to rounding; this
checks the causal padding, the feature recursions, the lookahead, the framing and the table
order at once.
"""

import os
import sys
import tempfile

import numpy as np
import torch

import weight_table as wt
from dfn_twin import (DfnTwin, GroupedLinear, dither, erb_widths_constructed, ERB_WIDTHS,
                      process_signal, process_signal_details, vorbis_window)

torch.set_num_threads(1)
FAILURES = []


def check(name, ok, detail=""):
    print("%-58s %s %s" % (name, "ok" if ok else "FAILED", detail))
    if not ok:
        FAILURES.append(name)


# ---------------------------------------------------------------------------------------
# Reference, hop by hop, float64, straight from the flat table.
# ---------------------------------------------------------------------------------------
class Reader:
    def __init__(self, table):
        self.t = np.asarray(table, dtype=np.float64)
        self.i = 0

    def take(self, *shape):
        n = int(np.prod(shape))
        out = self.t[self.i:self.i + n].reshape(shape)
        self.i += n
        return out

    def bn(self, c):
        return [self.take(c) for _ in range(4)]

    def gru(self):
        return [self.take(256, 256) for _ in range(6)] + [self.take(256) for _ in range(6)]


def conv(x, w, stride=1, groups=1):
    """x [Cin][T][F] with T == Kt -> [Cout][Fout]; frequency padding Kf // 2, no bias."""
    cout, cin_g, kt, kf = w.shape
    cin, t_len, f_len = x.shape
    assert t_len == kt
    p = kf // 2
    xp = np.zeros((cin, t_len, f_len + 2 * p))
    xp[:, :, p:p + f_len] = x
    fout = (f_len + 2 * p - kf) // stride + 1
    cout_g = cout // groups
    y = np.zeros((cout, fout))
    for co in range(cout):
        g = co // cout_g
        for f in range(fout):
            patch = xp[g * cin_g:(g + 1) * cin_g, :, f * stride:f * stride + kf]
            y[co, f] = np.sum(patch * w[co])
    return y


def conv_t(x, w, stride=2, pad=1, out_pad=1):
    """Depthwise transposed convolution, scatter form: x [64][F], w [64][1][1][K]."""
    c, f_len = x.shape
    k = w.shape[3]
    fout = stride * (f_len - 1) + k - 2 * pad + out_pad
    y = np.zeros((c, fout))
    for ch in range(c):
        for i in range(f_len):
            for j in range(k):
                o = i * stride + j - pad
                if 0 <= o < fout:
                    y[ch, o] += w[ch, 0, 0, j] * x[ch, i]
    return y


def bn(x, p):
    gamma, beta, mean, var = p
    shape = (-1,) + (1,) * (x.ndim - 1)
    return (x - mean.reshape(shape)) * (gamma / np.sqrt(var + 1e-5)).reshape(shape) \
        + beta.reshape(shape)


def relu(x):
    return np.maximum(x, 0.0)


def sigmoid(x):
    return 1.0 / (np.exp(-x) + 1.0)


def glin(x, w):
    g, ig, og = w.shape
    return np.concatenate([x[k * ig:(k + 1) * ig] @ w[k] for k in range(g)])


class Gru:
    def __init__(self, p):
        self.p = p
        self.h = np.zeros(256)

    def __call__(self, x):
        w_ir, w_iz, w_in, w_hr, w_hz, w_hn, b_ir, b_iz, b_in, b_hr, b_hz, b_hn = self.p
        h = self.h
        r = sigmoid(w_ir @ x + b_ir + w_hr @ h + b_hr)
        z = sigmoid(w_iz @ x + b_iz + w_hz @ h + b_hz)
        n = np.tanh(w_in @ x + b_in + r * (w_hn @ h + b_hn))
        self.h = (1 - z) * n + z * h
        return self.h.copy()


class ReferenceModel:
    def __init__(self, table):
        r = Reader(table)
        self.erb = [r.take(64, 1, 3, 3), r.bn(64),
                    r.take(64, 1, 1, 3), r.take(64, 64, 1, 1), r.bn(64),
                    r.take(64, 1, 1, 3), r.take(64, 64, 1, 1), r.bn(64),
                    r.take(64, 1, 1, 3), r.take(64, 64, 1, 1), r.bn(64)]
        self.df = [r.take(64, 1, 3, 3), r.take(64, 64, 1, 1), r.bn(64),
                   r.take(64, 1, 1, 3), r.take(64, 64, 1, 1), r.bn(64)]
        self.df_emb = r.take(8, 384, 64)
        self.emb_in = r.take(8, 128, 32)
        self.gru1 = Gru(r.gru())
        self.emb_mid = r.take(8, 32, 32)
        self.gru2 = Gru(r.gru())
        self.emb_out = r.take(8, 32, 64)
        self.dec = {}
        self.dec["path3"] = (r.take(64, 1, 1, 1), r.bn(64))
        self.dec["conv3"] = (r.take(64, 1, 1, 3), r.take(64, 64, 1, 1), r.bn(64))
        self.dec["path2"] = (r.take(64, 1, 1, 1), r.bn(64))
        self.dec["up2"] = (r.take(64, 1, 1, 3), r.take(64, 64, 1, 1), r.bn(64))
        self.dec["path1"] = (r.take(64, 1, 1, 1), r.bn(64))
        self.dec["up1"] = (r.take(64, 1, 1, 3), r.take(64, 64, 1, 1), r.bn(64))
        self.dec["path0"] = (r.take(64, 1, 1, 1), r.bn(64))
        self.dec["out"] = (r.take(1, 64, 1, 3), r.bn(1))
        self.dfp = (r.take(10, 32, 5, 1), r.take(10, 10, 1, 1), r.bn(10))
        self.df_in = r.take(8, 32, 32)
        self.gru3 = Gru(r.gru())
        self.df_out = r.take(8, 32, 120)
        assert r.i == wt.TABLE_FLOATS

        self.w = vorbis_window()
        self.wnorm = 240.0 / 480.0 / np.sum(self.w ** 2)
        self.erb_state = np.linspace(-60.0, -90.0, 32)
        self.unit_state = np.linspace(0.001, 0.0001, 96)
        self.erb_hist = np.zeros((1, 3, 32))
        self.cplx_hist = np.zeros((2, 3, 96))
        self.spectra = np.zeros((7, 241), dtype=complex)      # t-6 .. t
        self.dfp_hist = np.zeros((64, 5, 96))                 # t-4 .. t
        self.band = np.repeat(np.arange(32), ERB_WIDTHS)
        self.last = {}

    def hop(self, window):
        X = np.fft.rfft(window * self.w) * self.wnorm
        self.spectra = np.roll(self.spectra, -1, axis=0)
        self.spectra[-1] = X
        power = np.abs(X) ** 2
        bands, s = [], 0
        for wdt in ERB_WIDTHS:
            bands.append(np.mean(power[s:s + wdt]))
            s += wdt
        db = 10 * np.log10(np.array(bands) + 1e-10)
        self.erb_state = db * (1 - 0.995) + self.erb_state * 0.995
        self.erb_hist = np.roll(self.erb_hist, -1, axis=1)
        self.erb_hist[0, 2] = (db - self.erb_state) / 40
        self.unit_state = np.abs(X[:96]) * (1 - 0.995) + self.unit_state * 0.995
        self.cplx_hist = np.roll(self.cplx_hist, -1, axis=1)
        self.cplx_hist[0, 2] = X[:96].real / np.sqrt(self.unit_state)
        self.cplx_hist[1, 2] = X[:96].imag / np.sqrt(self.unit_state)

        E = self.erb
        e0 = relu(bn(conv(self.erb_hist, E[0]), E[1]))
        e1 = relu(bn(conv(conv(e0[:, None], E[2], 2, 64)[:, None], E[3]), E[4]))
        e2 = relu(bn(conv(conv(e1[:, None], E[5], 2, 64)[:, None], E[6]), E[7]))
        e3 = relu(bn(conv(conv(e2[:, None], E[8], 1, 64)[:, None], E[9]), E[10]))
        D = self.df
        c0 = relu(bn(conv(conv(self.cplx_hist, D[0], 1, 2)[:, None], D[1]), D[2]))
        self.dfp_hist = np.roll(self.dfp_hist, -1, axis=1)
        self.dfp_hist[:, 4] = c0
        c1 = relu(bn(conv(conv(c0[:, None], D[3], 2, 64)[:, None], D[4]), D[5]))

        df_emb = relu(glin(c1.T.reshape(-1), self.df_emb))
        joined = np.concatenate([e3.T.reshape(-1), df_emb])
        h1 = self.gru1(relu(glin(joined, self.emb_in)))
        x = relu(glin(h1, self.emb_mid))
        emb = self.gru2(x) + x
        d = relu(glin(emb, self.emb_out)).reshape(8, 64).T

        P = self.dec

        def path(name, e):
            return relu(bn(conv(e[:, None], P[name][0], 1, 64), P[name][1]))

        d3 = path("path3", e3) + d
        d3 = relu(bn(conv(conv(d3[:, None], P["conv3"][0], 1, 64)[:, None], P["conv3"][1]),
                     P["conv3"][2]))
        d2 = path("path2", e2) + d3
        d2 = relu(bn(conv(conv_t(d2, P["up2"][0])[:, None], P["up2"][1]), P["up2"][2]))
        d1 = path("path1", e1) + d2
        d1 = relu(bn(conv(conv_t(d1, P["up1"][0])[:, None], P["up1"][1]), P["up1"][2]))
        d0 = path("path0", e0) + d1
        gains = sigmoid(bn(conv(d0[:, None], P["out"][0]), P["out"][1]))[0]

        p = relu(bn(conv(conv(self.dfp_hist, self.dfp[0], 1, 2)[:, None], self.dfp[1]),
                    self.dfp[2])).T                        # [96][10]
        y = relu(glin(h1, self.df_in))
        coefs = np.tanh(glin(self.gru3(y) + y, self.df_out)).reshape(96, 10) + p
        c = coefs.reshape(96, 5, 2)
        C = c[:, :, 0] + 1j * c[:, :, 1]

        Y = gains[self.band] * self.spectra[2]             # frame t - 4
        Y[:96] = np.sum(C * self.spectra[0:5, :96].T, axis=1)  # frames t-6 .. t-2
        out = np.fft.irfft(Y, 480) * 480 * self.w
        self.last = dict(gains=gains, coefs=coefs.reshape(-1), erb=self.erb_hist.copy(),
                         cplx=self.cplx_hist.copy())
        return out


def reference_canceller(table, x, keep_hop=None):
    """The canceller's block routine around the reference model, frame length 480."""
    model = ReferenceModel(table)
    previous = np.zeros(480)
    overlap = np.zeros(240)
    frame_count = 0
    state = 2
    out = np.zeros(x.size)
    hops, kept = [], None
    for b in range(x.size // 480):
        block = np.array(x[b * 480:(b + 1) * 480], dtype=np.float32)
        for pos in (12, 140, 268, 396):
            state = (3 * state + 20) % 256
            block[pos] += np.float32(((state % 3) - 1) * 2.0 ** -18)
        block = block.astype(np.float64)
        window_in = np.concatenate([previous[240:], block[:240]])
        frame_count += 1
        out_a = model.hop(window_in)
        hops.append(out_a.copy())
        if len(hops) - 1 == keep_hop:
            kept = model.last
        if frame_count < 3:
            out_a[:] = 0
        frame_count += 1
        out_b = model.hop(block)
        hops.append(out_b.copy())
        if len(hops) - 1 == keep_hop:
            kept = model.last
        if frame_count < 3:
            out_b[:] = 0
        previous = block
        y = np.concatenate([overlap + out_a[:240], out_a[240:] + out_b[:240]])
        overlap = out_b[240:].copy()
        out[b * 480:(b + 1) * 480] = np.clip(y, -1.0, 1.0)
    return out, np.array(hops), kept


# ---------------------------------------------------------------------------------------
def main():
    # Layout and table.
    entries = wt.layout()
    check("layout: 1 517 904 floats in %d tensors" % len(entries),
          entries[-1].offset + entries[-1].count == wt.TABLE_FLOATS)
    check("ERB band widths from their construction",
          erb_widths_constructed() == ERB_WIDTHS)
    w = vorbis_window()
    check("Vorbis window: sum w^2 = 240, w^2[n] + w^2[n+240] = 1",
          abs(np.sum(w * w) - 240) < 1e-9 and np.allclose(w[:240] ** 2 + w[240:] ** 2, 1))
    u0 = wt.splitmix_uniform(1)[0]
    check("SplitMix64 of index 0 = 0xE220A8397B1DCDAF (seed-0 stream)",
          u0 == (0xE220A8397B1DCDAF >> 40) / 2.0 ** 24)
    table = wt.portable_random_table()

    with tempfile.TemporaryDirectory() as tmp:
        torch.manual_seed(1)
        m1 = DfnTwin()
        for mod in m1.modules():   # give the BN statistics non-default values
            if isinstance(mod, torch.nn.BatchNorm2d):
                mod.running_mean.uniform_(-1, 1)
                mod.running_var.uniform_(0.5, 2)
        p1 = os.path.join(tmp, "a.bin")
        wt.export(m1, p1)
        check("export writes 6 071 616 bytes", os.path.getsize(p1) == wt.TABLE_BYTES)
        m2 = wt.import_(DfnTwin(), p1)
        same = all(torch.equal(a, b) for (ka, a), (kb, b) in
                   zip(m1.state_dict().items(), m2.state_dict().items())
                   if "num_batches" not in ka)
        check("import_(export(model)) restores every tensor exactly", same)
        p2 = os.path.join(tmp, "b.bin")
        wt.export(m2, p2)
        check("export(import_(table)) gives the same bytes",
              open(p1, "rb").read() == open(p2, "rb").read())
        # GRU gate split: weight_ih_l0 rows 256..511 are W_iz.
        e = [x for x in entries if x.module == "emb_gru1"][1]
        arr = wt.to_array(m1)
        check("GRU W_iz sits where the layout says",
              np.array_equal(arr[e.offset:e.offset + e.count],
                             m1.emb_gru1.weight_ih_l0[256:512].detach().numpy().reshape(-1)))

    gl = GroupedLinear(24, 16, groups=8)
    xg = torch.randn(24)
    ref = torch.cat([xg[g * 3:(g + 1) * 3] @ gl.weight[g] for g in range(8)])
    check("GroupedLinear matches the formula of docs/dfn.md", torch.allclose(gl(xg), ref))

    # Twin against the hop-by-hop reference (float64), portable random table.
    model = wt.from_array(DfnTwin(), table).eval().double()
    rng = np.random.RandomState(7)
    x = (0.1 * rng.standard_normal(480 * 12)).astype(np.float32)
    x[1000:2500] = 0.0
    x[4000:4400] = (0.95 * np.sin(np.arange(400) * 0.07)).astype(np.float32)
    d = process_signal_details(model, x)
    ref_out, ref_hops, kept = reference_canceller(table, x, keep_hop=5)
    twin_hops = d["hops"][0].numpy()
    err_h = np.abs(twin_hops - ref_hops).max()
    err_o = np.abs(d["output"] - ref_out).max()
    check("twin hop outputs == hop-by-hop reference", err_h < 1e-10, "max err %.2e" % err_h)
    check("twin output == reference block routine", err_o < 1e-10, "max err %.2e" % err_o)
    err_g = np.abs(d["gains"][0, 5].numpy() - kept["gains"]).max()
    err_c = np.abs(d["coefs"][0, 5].numpy().reshape(-1) - kept["coefs"]).max()
    err_e = np.abs(d["erb_feat"][0, 0, 3:6].numpy() - kept["erb"][0]).max()
    err_x = np.abs(d["cplx_feat"][0, :, 3:6].numpy() - kept["cplx"]).max()
    check("hop 5 gains, coefficients, features == reference",
          max(err_g, err_c, err_e, err_x) < 1e-10,
          "%.1e %.1e %.1e %.1e" % (err_g, err_c, err_e, err_x))

    # Float32 twin against float64 twin.
    m32 = wt.from_array(DfnTwin(), table).eval()
    err32 = np.abs(process_signal(m32, x) - d["output"]).max()
    check("float32 twin within 1e-5 of float64", err32 < 1e-5, "max err %.2e" % err32)

    # Causality: the output of a prefix does not depend on what follows.
    short = process_signal(model, x[:480 * 6])
    # Equal to float64 rounding: with OpenBLAS the products' blocking, and so
    # their last bits, depend on the sequence length.
    err_c = np.abs(short - d["output"][:480 * 6]).max()
    check("causal: output of the first 6 blocks unchanged by later input", err_c < 1e-12,
          "max err %.1e" % err_c)

    # Identity network: gains 1, centre tap 1 -> input delayed by 1200 samples.
    class Identity(DfnTwin):
        def network(self, erb_feat, cplx_feat):
            b, _, t, _ = erb_feat.shape
            gains = torch.ones(b, t, 32, dtype=erb_feat.dtype)
            coefs = torch.zeros(b, t, 96, 5, 2, dtype=erb_feat.dtype)
            coefs[:, :, :, 2, 0] = 1.0
            return gains, coefs
    ident = Identity().eval().double()
    y = process_signal(ident, x)
    xd = dither(x).astype(np.float64)
    err_i = max(np.abs(y[1200:] - xd[:-1200]).max(), np.abs(y[:1200]).max())
    check("identity mask and filter = input delayed by 1200", err_i < 1e-12,
          "max err %.2e" % err_i)

    # Dither: all-zero input gets +-2^-18 at 12, 140, 268, 396 only.
    z = dither(np.zeros(960, np.float32))
    nz = np.nonzero(z)[0]
    check("dither touches only positions 12, 140, 268, 396 of each block",
          set(nz) <= {12, 140, 268, 396, 492, 620, 748, 876}
          and np.all(np.abs(z[nz]) == np.float32(2.0 ** -18)))

    # The golden fixtures on disk equal a fresh run.
    import make_golden
    files, _ = make_golden.build()
    # The float32 files byte for byte; the float64 JSON values to 1e-12 (their
    # last digits follow the BLAS in use: reference BLAS or OpenBLAS).
    import json
    same = True
    for n, data in files.items():
        path = os.path.join(make_golden.DEFAULT_OUT, n)
        if not os.path.exists(path):
            same = False
            continue
        stored = open(path, "rb").read()
        if n.endswith(".json"):
            a, b = json.loads(stored), json.loads(data)
            same = same and a.keys() == b.keys() and all(
                np.abs(np.asarray(a[k], np.float64) - np.asarray(b[k], np.float64)).max() < 1e-12
                for k in a)
        else:
            same = same and stored == data
    check("tests/data/dfn golden files equal a fresh make_golden run", same)

    print("\n%d failure(s)" % len(FAILURES))
    return 1 if FAILURES else 0


if __name__ == "__main__":
    sys.exit(main())
