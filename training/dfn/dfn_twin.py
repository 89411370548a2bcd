"""PyTorch twin of the DFN noise canceller (its design: docs/dfn.md).

The C++ model runs one hop per call; this twin runs whole sequences at once with causal
time padding, so that the same network can be trained on batches and used to produce the
golden fixtures of the C++ test. Every step follows docs/dfn.md sections 2 to 5 literally:
a change here is a change to the C++ code and makes every exported table obsolete.

Sub-modules are named after the rows of the weight table (weight_table.py maps the 48 rows
to them, in order).
"""

import math

import numpy as np
import torch
import torch.nn as nn
import torch.nn.functional as F

SAMPLE_RATE = 48000
FRAME = 480            # transform size and block length of the wrapper
HOP = 240
BINS = 241
ERB_BANDS = 32
DF_BINS = 96
DF_ORDER = 5
TARGET_DELAY_HOPS = 4  # hop t rebuilds frame t - 4 (docs/dfn.md section 4)
DF_LOOKBACK = 6        # the deep filter's oldest tap is frame t - 6
DRY_DELAY = 1200
ALPHA = 0.995
# The ERB band widths: what erb_widths_constructed() computes, written out.
ERB_WIDTHS = [2] * 20 + [6, 8, 9, 10, 12, 14, 16, 18, 21, 25, 28, 34]
assert len(ERB_WIDTHS) == ERB_BANDS and sum(ERB_WIDTHS) == BINS


def erb_widths_constructed():
    """The band-width construction, step by step (checked against ERB_WIDTHS)."""
    def erb(f):
        return 9.265 * math.log(1.0 + f / (24.7 * 9.265))

    def inv(e):
        return (math.exp(e / 9.265) - 1.0) * 228.8455

    step = 9.265 * math.log(105.87424922054399) / ERB_BANDS
    assert abs(erb(24000.0) - step * ERB_BANDS) < 1e-9
    widths, prev, carry = [], 0, 0
    for i in range(1, ERB_BANDS + 1):
        edge = int(round(inv(i * step) / 100.0))
        width = edge - prev - carry
        prev = edge
        if width < 2:
            carry = 2 - width
            width = 2
        else:
            carry = 0
        widths.append(width)
    widths[-1] += 1
    excess = sum(widths) - BINS
    if excess > 0:
        widths[-1] -= excess
    return widths


def vorbis_window():
    n = np.arange(FRAME, dtype=np.float64)
    return np.sin(0.5 * np.pi * np.sin(np.pi * (n + 0.5) / FRAME) ** 2)


def dither(x):
    """The wrapper's dither (the block routine's first step), float32, state from creation.

    x: float32 array of whole 480-sample blocks. Returns a dithered copy."""
    x = np.array(x, dtype=np.float32, copy=True)
    if x.ndim != 1 or x.size % FRAME != 0:
        raise ValueError("dither: a 1-D signal of whole 480-sample blocks is required")
    step = np.float32(2.0 ** -18)
    state = 2
    for block in range(x.size // FRAME):
        for pos in (12, 140, 268, 396):
            state = (3 * state + 20) % 256
            x[block * FRAME + pos] += np.float32((state % 3) - 1) * step
    return x


class GroupedLinear(nn.Module):
    """Grouped linear layer: y[g*O/G + j] = sum_i x[g*I/G + i] W[g][i][j], no bias."""

    def __init__(self, input_size, output_size, groups=8):
        super().__init__()
        assert input_size % groups == 0 and output_size % groups == 0
        self.groups = groups
        self.ig = input_size // groups
        self.og = output_size // groups
        bound = 1.0 / math.sqrt(self.ig)
        self.weight = nn.Parameter(torch.empty(groups, self.ig, self.og).uniform_(-bound, bound))

    def forward(self, x):
        lead = x.shape[:-1]
        xg = x.reshape(*lead, self.groups, self.ig)
        y = torch.einsum("...gi,gio->...go", xg, self.weight)
        return y.reshape(*lead, self.groups * self.og)


def _conv(cin, cout, kt, kf, stride_f=1, groups=1):
    # Frequency padding floor(Kf/2) on both sides; time padding is applied causally by hand.
    return nn.Conv2d(cin, cout, (kt, kf), stride=(1, stride_f), padding=(0, kf // 2),
                     groups=groups, bias=False)


def _bn(c):
    return nn.BatchNorm2d(c, eps=1e-5)


def _conv_t():
    return nn.ConvTranspose2d(64, 64, (1, 3), stride=(1, 2), padding=(0, 1),
                              output_padding=(0, 1), groups=64, bias=False)


def _gru():
    return nn.GRU(256, 256, batch_first=True)


def _pad_time(x, before):
    """Causal zero padding of a [B, C, T, F] map: `before` frames ahead of t = 0."""
    return F.pad(x, (0, 0, before, 0))


class DfnTwin(nn.Module):
    def __init__(self):
        super().__init__()
        # ERB encoder (rows 1-11)
        self.erb_conv0 = _conv(1, 64, 3, 3)
        self.erb_conv0_bn = _bn(64)
        self.erb_conv1_dw = _conv(64, 64, 1, 3, stride_f=2, groups=64)
        self.erb_conv1_pw = _conv(64, 64, 1, 1)
        self.erb_conv1_bn = _bn(64)
        self.erb_conv2_dw = _conv(64, 64, 1, 3, stride_f=2, groups=64)
        self.erb_conv2_pw = _conv(64, 64, 1, 1)
        self.erb_conv2_bn = _bn(64)
        self.erb_conv3_dw = _conv(64, 64, 1, 3, stride_f=1, groups=64)
        self.erb_conv3_pw = _conv(64, 64, 1, 1)
        self.erb_conv3_bn = _bn(64)
        # DF encoder (rows 12-17)
        self.df_conv0 = _conv(2, 64, 3, 3, groups=2)
        self.df_conv0_pw = _conv(64, 64, 1, 1)
        self.df_conv0_bn = _bn(64)
        self.df_conv1_dw = _conv(64, 64, 1, 3, stride_f=2, groups=64)
        self.df_conv1_pw = _conv(64, 64, 1, 1)
        self.df_conv1_bn = _bn(64)
        # Embedding (rows 18-23)
        self.df_emb = GroupedLinear(3072, 512)
        self.emb_in = GroupedLinear(1024, 256)
        self.emb_gru1 = _gru()
        self.emb_mid = GroupedLinear(256, 256)
        self.emb_gru2 = _gru()
        self.emb_out = GroupedLinear(256, 512)
        # ERB decoder (rows 24-42)
        self.erb_dec_path3 = _conv(64, 64, 1, 1, groups=64)
        self.erb_dec_path3_bn = _bn(64)
        self.erb_dec_conv3_dw = _conv(64, 64, 1, 3, groups=64)
        self.erb_dec_conv3_pw = _conv(64, 64, 1, 1)
        self.erb_dec_conv3_bn = _bn(64)
        self.erb_dec_path2 = _conv(64, 64, 1, 1, groups=64)
        self.erb_dec_path2_bn = _bn(64)
        self.erb_dec_up2_dw = _conv_t()
        self.erb_dec_up2_pw = _conv(64, 64, 1, 1)
        self.erb_dec_up2_bn = _bn(64)
        self.erb_dec_path1 = _conv(64, 64, 1, 1, groups=64)
        self.erb_dec_path1_bn = _bn(64)
        self.erb_dec_up1_dw = _conv_t()
        self.erb_dec_up1_pw = _conv(64, 64, 1, 1)
        self.erb_dec_up1_bn = _bn(64)
        self.erb_dec_path0 = _conv(64, 64, 1, 1, groups=64)
        self.erb_dec_path0_bn = _bn(64)
        self.erb_dec_out = _conv(64, 1, 1, 3)
        self.erb_dec_out_bn = _bn(1)
        # DF decoder (rows 43-48)
        self.df_dec_path = _conv(64, 10, 5, 1, groups=2)
        self.df_dec_path_pw = _conv(10, 10, 1, 1)
        self.df_dec_path_bn = _bn(10)
        self.df_dec_in = GroupedLinear(256, 256)
        self.df_dec_gru = _gru()
        self.df_dec_out = GroupedLinear(256, 960)

        # Fixed signal-processing constants (not part of the weight table). Kept in float64
        # and rounded to the model's dtype on use, so that model.double() computes with the
        # exact constants rather than float32-rounded ones.
        w = vorbis_window()
        self._consts = {
            "window": w,
            "wnorm": np.float64(HOP / FRAME / float(np.sum(w * w))),
            "erb_state0": np.linspace(-60.0, -90.0, ERB_BANDS),
            "unit_state0": np.linspace(0.001, 0.0001, DF_BINS),
            "alpha": np.float64(ALPHA),
        }
        band_of_bin = np.repeat(np.arange(ERB_BANDS), ERB_WIDTHS)
        self.register_buffer("band_of_bin", torch.from_numpy(band_of_bin).long(), persistent=False)

    def const(self, name):
        return torch.as_tensor(self._consts[name], dtype=self.dtype,
                               device=self.erb_conv0.weight.device)

    @property
    def dtype(self):
        return self.erb_conv0.weight.dtype

    # ---- docs/dfn.md section 5: framing ------------------------------------------------
    @staticmethod
    def frame(x):
        """x [B, N] (N a multiple of 240) -> hops [B, N/240, 480]: 240 zeros prefix, hop 240."""
        b, n = x.shape
        assert n % HOP == 0
        xp = F.pad(x, (HOP, 0))
        return xp.unfold(1, FRAME, HOP)

    # ---- docs/dfn.md section 2: spectra and features -------------------------------------
    def analyse(self, hops):
        """hops [B, T, 480] -> (re, im) of X [B, T, 241] each."""
        spectrum = torch.fft.rfft(hops * self.const("window"), dim=-1) * self.const("wnorm")
        return spectrum.real.contiguous(), spectrum.imag.contiguous()

    @torch.no_grad()
    def features(self, xr, xi):
        """ERB features [B, 1, T, 32] and complex features [B, 2, T, 96] of spectra [B, T, 241].

        The normalisation recursions run frame by frame in the model's dtype, in the order of
        operations of docs/dfn.md section 2."""
        bsz, t_len, _ = xr.shape
        power = xr * xr + xi * xi
        bands = []
        start = 0
        for width in ERB_WIDTHS:
            bands.append(power[:, :, start:start + width].mean(dim=-1))
            start += width
        db = 10.0 * torch.log10(torch.stack(bands, dim=-1) + 1e-10)
        alpha = self.const("alpha")
        one_minus = 1.0 - alpha
        state = self.const("erb_state0").expand(bsz, ERB_BANDS)
        erb_feat = torch.empty_like(db)
        for t in range(t_len):
            state = db[:, t] * one_minus + state * alpha
            erb_feat[:, t] = (db[:, t] - state) / 40.0

        cr = xr[:, :, :DF_BINS]
        ci = xi[:, :, :DF_BINS]
        mag = torch.sqrt(cr * cr + ci * ci)
        unit = self.const("unit_state0").expand(bsz, DF_BINS)
        cplx_feat = torch.empty(bsz, 2, t_len, DF_BINS, dtype=xr.dtype, device=xr.device)
        for t in range(t_len):
            unit = mag[:, t] * one_minus + unit * alpha
            root = torch.sqrt(unit)
            cplx_feat[:, 0, t] = cr[:, t] / root
            cplx_feat[:, 1, t] = ci[:, t] / root
        return erb_feat.unsqueeze(1), cplx_feat

    # ---- docs/dfn.md section 3: the network ---------------------------------------------
    def network(self, erb_feat, cplx_feat):
        """erb_feat [B,1,T,32], cplx_feat [B,2,T,96] -> gains [B,T,32], coefs [B,T,96,5,2]."""
        relu = F.relu
        e0 = relu(self.erb_conv0_bn(self.erb_conv0(_pad_time(erb_feat, 2))))
        e1 = relu(self.erb_conv1_bn(self.erb_conv1_pw(self.erb_conv1_dw(e0))))
        e2 = relu(self.erb_conv2_bn(self.erb_conv2_pw(self.erb_conv2_dw(e1))))
        e3 = relu(self.erb_conv3_bn(self.erb_conv3_pw(self.erb_conv3_dw(e2))))

        c0 = relu(self.df_conv0_bn(self.df_conv0_pw(self.df_conv0(_pad_time(cplx_feat, 2)))))
        c1 = relu(self.df_conv1_bn(self.df_conv1_pw(self.df_conv1_dw(c0))))

        bsz, _, t_len, _ = e0.shape
        df_emb = relu(self.df_emb(c1.permute(0, 2, 3, 1).reshape(bsz, t_len, 48 * 64)))
        joined = torch.cat([e3.permute(0, 2, 3, 1).reshape(bsz, t_len, 8 * 64), df_emb], dim=-1)
        h1, _ = self.emb_gru1(relu(self.emb_in(joined)))
        x = relu(self.emb_mid(h1))
        g2, _ = self.emb_gru2(x)
        emb = g2 + x

        d = relu(self.emb_out(emb)).reshape(bsz, t_len, 8, 64).permute(0, 3, 1, 2)
        d3 = relu(self.erb_dec_path3_bn(self.erb_dec_path3(e3))) + d
        d3 = relu(self.erb_dec_conv3_bn(self.erb_dec_conv3_pw(self.erb_dec_conv3_dw(d3))))
        d2 = relu(self.erb_dec_path2_bn(self.erb_dec_path2(e2))) + d3
        d2 = relu(self.erb_dec_up2_bn(self.erb_dec_up2_pw(self.erb_dec_up2_dw(d2))))
        d1 = relu(self.erb_dec_path1_bn(self.erb_dec_path1(e1))) + d2
        d1 = relu(self.erb_dec_up1_bn(self.erb_dec_up1_pw(self.erb_dec_up1_dw(d1))))
        d0 = relu(self.erb_dec_path0_bn(self.erb_dec_path0(e0))) + d1
        gains = torch.sigmoid(self.erb_dec_out_bn(self.erb_dec_out(d0)))[:, 0]

        p = relu(self.df_dec_path_bn(self.df_dec_path_pw(self.df_dec_path(_pad_time(c0, 4)))))
        p = p.permute(0, 2, 3, 1)  # [B, T, 96 bins, 10 channels]
        y = relu(self.df_dec_in(h1))
        g3, _ = self.df_dec_gru(y)
        coefs = torch.tanh(self.df_dec_out(g3 + y)).reshape(bsz, t_len, DF_BINS, 10) + p
        return gains, coefs.reshape(bsz, t_len, DF_BINS, DF_ORDER, 2)

    # ---- docs/dfn.md section 4: mask and deep filter ------------------------------------
    def enhance_spectra(self, xr, xi, gains, coefs):
        """Spectrum Y_t [B, T, 241] (re, im) rebuilt by hop t, i.e. an estimate of frame t-4."""
        pad = (0, 0, DF_LOOKBACK, 0)
        xrp = F.pad(xr, pad)  # padded index t + j holds frame t - 6 + j
        xip = F.pad(xi, pad)
        t_len = xr.shape[1]
        centre = DF_LOOKBACK - TARGET_DELAY_HOPS  # frame t - 4
        tr = xrp[:, centre:centre + t_len, DF_BINS:]
        ti = xip[:, centre:centre + t_len, DF_BINS:]
        g = gains[:, :, self.band_of_bin[DF_BINS:]]
        yr_hi = g * tr
        yi_hi = g * ti
        yr_lo = 0.0
        yi_lo = 0.0
        for i in range(DF_ORDER):
            ar = xrp[:, i:i + t_len, :DF_BINS]
            ai = xip[:, i:i + t_len, :DF_BINS]
            cr = coefs[:, :, :, i, 0]
            ci = coefs[:, :, :, i, 1]
            yr_lo = yr_lo + (cr * ar - ci * ai)
            yi_lo = yi_lo + (cr * ai + ci * ar)
        return torch.cat([yr_lo, yr_hi], dim=-1), torch.cat([yi_lo, yi_hi], dim=-1)

    def forward(self, x):
        """x [B, N] noisy signal (N a multiple of 240, dither already applied if wanted).

        Returns a dict: 'xr','xi' noisy spectra [B,T,241]; 'erb_feat' [B,1,T,32];
        'cplx_feat' [B,2,T,96]; 'gains' [B,T,32]; 'coefs' [B,T,96,5,2]; 'yr','yi' the
        enhanced spectra [B,T,241], Y_t estimating frame t-4."""
        with torch.no_grad():
            xr, xi = self.analyse(self.frame(x))
            erb_feat, cplx_feat = self.features(xr, xi)
        gains, coefs = self.network(erb_feat, cplx_feat)
        yr, yi = self.enhance_spectra(xr, xi, gains, coefs)
        return dict(xr=xr, xi=xi, erb_feat=erb_feat, cplx_feat=cplx_feat, gains=gains,
                    coefs=coefs, yr=yr, yi=yi)

    # ---- docs/dfn.md sections 4 and 5: synthesis and overlap-add ------------------------
    def hop_outputs(self, yr, yi):
        """480-sample outputs of every hop: irfft(Y, 480) * 480 * w (imaginary parts of the
        DC and Nyquist bins are ignored, as torch.fft.irfft does)."""
        return torch.fft.irfft(torch.complex(yr, yi), n=FRAME, dim=-1) * FRAME * self.const("window")


def overlap_add(hops):
    """hops [B, T, 480] placed at 240 j -> the first 240 T samples [B, 240 T]."""
    first = hops[:, :, :HOP]
    tail = F.pad(hops[:, :-1, HOP:], (0, 0, 1, 0))
    return (first + tail).reshape(hops.shape[0], -1)


def process_signal_details(model, x):
    """The C++ noise_canceller (frame length 480) on a whole signal, with intermediates.

    x: float32 array of whole 480-sample blocks. The model runs in its own dtype (call
    model.double() for the golden fixtures) and should be in eval() mode."""
    xd = dither(x)
    n = xd.size
    with torch.no_grad():
        xt = torch.from_numpy(xd.astype(np.float64)).to(model.dtype)[None]
        out = model(xt)
        hops = model.hop_outputs(out["yr"], out["yi"])
        muted = hops.clone()
        muted[:, :2] = 0.0  # the first block's two hops (frame_count < 3)
        y = overlap_add(muted)[:, :n].clamp(-1.0, 1.0)
    out["hops"] = hops
    out["dithered"] = xd
    out["output"] = y[0].numpy()
    return out


def process_signal(model, x):
    """The C++ noise_canceller::process with frame length 480 over a whole float32 signal."""
    return process_signal_details(model, x)["output"]
