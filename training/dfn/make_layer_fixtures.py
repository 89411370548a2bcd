#!/usr/bin/python3
"""Layer-by-layer reference fixtures for the C++ layers of the DFN network.

Each case builds one layer kind from torch.nn modules with float32 weights
and inputs drawn from a fixed seed, evaluates it in float64, and writes
tests/data/dfn/layers/<case>.json:

  kind     conv2d | conv_transpose2d | batch_norm | grouped_linear | gru
  args     the C++ constructor's integer arguments, by parameter name
  weights  flat, in the element order of docs/dfn.md section 1 (batch norm:
           gamma, beta, mean, variance; GRU: the 12 tensors in table order)
  input    flat [channel][time][frequency] (GRU: "inputs", one list per step)
  output   flat float64 reference (GRU: "outputs", the hidden state per step)

Weights and inputs are float32 values written with 9 significant digits
(exact); outputs are float64 written with repr. The script is deterministic:
rerunning it rewrites identical files.

Run from anywhere: /usr/bin/python3 training/dfn/make_layer_fixtures.py
"""

import math
import pathlib

import torch
import torch.nn.functional as F

torch.set_num_threads(1)

OUT_DIR = pathlib.Path(__file__).resolve().parents[2] / "tests" / "data" / "dfn" / "layers"


def f32(shape, gen, scale=1.0):
    """Uniform(-scale, scale) float32 values."""
    return ((torch.rand(shape, generator=gen, dtype=torch.float32) * 2 - 1) * scale).float()


def fmt32(values):
    return "[" + ",".join("%.9g" % v for v in values) + "]"


def fmt64(values):
    return "[" + ",".join(repr(float(v)) for v in values) + "]"


def flat32(t):
    t = t.detach().to(torch.float32).reshape(-1)
    return [float(v) for v in t.tolist()]


def flat64(t):
    return [float(v) for v in t.detach().to(torch.float64).reshape(-1).tolist()]


def write_case(name, kind, args, weights, input_key, inputs, output_key, outputs):
    """inputs / outputs: one flat list, or (GRU) a list of flat lists."""
    parts = ['{\n"kind": "%s",\n' % kind]
    parts.append('"args": {' + ", ".join('"%s": %d' % (k, v) for k, v in args.items()) + "},\n")
    parts.append('"weights": ' + fmt32(weights) + ",\n")
    if inputs and isinstance(inputs[0], list):
        parts.append('"%s": [' % input_key + ",\n".join(fmt32(s) for s in inputs) + "],\n")
        parts.append('"%s": [' % output_key + ",\n".join(fmt64(s) for s in outputs) + "]\n")
    else:
        parts.append('"%s": ' % input_key + fmt32(inputs) + ",\n")
        parts.append('"%s": ' % output_key + fmt64(outputs) + "\n")
    parts.append("}\n")
    (OUT_DIR / (name + ".json")).write_text("".join(parts))


def conv2d_case(name, gen, t, f, cin, kt, kf, stride, cout, pad_before, pad_after, groups):
    conv = torch.nn.Conv2d(cin, cout, (kt, kf), stride=(1, stride), padding=(0, kf // 2),
                           groups=groups, bias=False)
    fan_in = cin // groups * kt * kf
    with torch.no_grad():
        conv.weight.copy_(f32(conv.weight.shape, gen, 1.0 / math.sqrt(fan_in)))
    x = f32((1, cin, t, f), gen)
    conv64 = conv.double()
    with torch.no_grad():
        y = conv64(F.pad(x.double(), (0, 0, pad_before, pad_after)))
    args = dict(time_length=t, freq_length=f, in_channels=cin, kernel_time=kt, kernel_freq=kf,
                freq_stride=stride, out_channels=cout, time_pad_before=pad_before,
                time_pad_after=pad_after, groups=groups)
    write_case(name, "conv2d", args, flat32(conv.weight), "input", flat32(x), "output", flat64(y))


def conv_transpose2d_case(name, gen, f, cin, kf, pad_f, out_pad_f, stride_f, cout, groups):
    conv = torch.nn.ConvTranspose2d(cin, cout, (1, kf), stride=(1, stride_f), padding=(0, pad_f),
                                    output_padding=(0, out_pad_f), groups=groups, bias=False)
    fan_in = cout // groups * kf
    with torch.no_grad():
        conv.weight.copy_(f32(conv.weight.shape, gen, 1.0 / math.sqrt(fan_in)))
    x = f32((1, cin, 1, f), gen)
    with torch.no_grad():
        y = conv.double()(x.double())
    args = dict(in_time=1, in_freq=f, in_channels=cin, kernel_time=1, kernel_freq=kf, pad_time=0,
                pad_freq=pad_f, out_pad_time=0, out_pad_freq=out_pad_f, stride_time=1,
                stride_freq=stride_f, out_channels=cout, groups=groups)
    write_case(name, "conv_transpose2d", args, flat32(conv.weight), "input", flat32(x), "output",
               flat64(y))


def batch_norm_case(name, gen, channels, t, f):
    bn = torch.nn.BatchNorm2d(channels)
    with torch.no_grad():
        bn.weight.copy_(0.75 + 0.5 * torch.rand(channels, generator=gen))
        bn.bias.copy_(f32(channels, gen, 0.2))
        bn.running_mean.copy_(f32(channels, gen, 0.2))
        var = 0.5 * torch.rand(channels, generator=gen)
        var[0] = 0.0  # edge case: a zero variance divides by sqrt(1e-5), eps alone
        bn.running_var.copy_(var)
    bn.eval()
    x = f32((1, channels, t, f), gen)
    with torch.no_grad():
        y = bn.double()(x.double())
    weights = flat32(bn.weight) + flat32(bn.bias) + flat32(bn.running_mean) + \
        flat32(bn.running_var)
    args = dict(channels=channels, time_length=t, freq_length=f)
    write_case(name, "batch_norm", args, weights, "input", flat32(x), "output", flat64(y))


def grouped_linear_case(name, gen, input_size, output_size, groups):
    gi, go = input_size // groups, output_size // groups
    w = f32((groups, gi, go), gen, 1.0 / math.sqrt(gi))
    x = f32(input_size, gen)
    y = torch.einsum("gi,gij->gj", x.double().reshape(groups, gi), w.double()).reshape(-1)
    args = dict(input_size=input_size, output_size=output_size, groups=groups)
    write_case(name, "grouped_linear", args, flat32(w), "input", flat32(x), "output", flat64(y))


def gru_case(name, gen, input_size, hidden_size, steps):
    gru = torch.nn.GRU(input_size, hidden_size)
    bound = 1.0 / math.sqrt(hidden_size)
    with torch.no_grad():
        for p in gru.parameters():
            p.copy_(f32(p.shape, gen, bound))
    x = f32((steps, 1, input_size), gen)
    with torch.no_grad():
        y, _ = gru.double()(x.double())  # hidden state starts at zero
    h = hidden_size
    w_ih, w_hh = gru.weight_ih_l0.detach(), gru.weight_hh_l0.detach()
    b_ih, b_hh = gru.bias_ih_l0.detach(), gru.bias_hh_l0.detach()
    # Table order: W_ir, W_iz, W_in, W_hr, W_hz, W_hn, b_ir, ..., b_hn.
    weights = flat32(w_ih) + flat32(w_hh) + flat32(b_ih) + flat32(b_hh)
    assert len(weights) == 3 * h * input_size + 3 * h * h + 6 * h
    args = dict(input_size=input_size, hidden_size=hidden_size)
    write_case(name, "gru", args, weights, "inputs", [flat32(x[s]) for s in range(steps)],
               "outputs", [flat64(y[s]) for s in range(steps)])


def main():
    OUT_DIR.mkdir(parents=True, exist_ok=True)
    gen = torch.Generator().manual_seed(20240517)
    # The weight table's rows (time, freq, Cin, Kt, Kf, stride, Cout, pad before/after, groups);
    # the DF-side maps get fewer frequency bins than the model's 96 to keep
    # the files small (the bin count only sets the number of output positions).
    conv2d_case("conv_erb0_3x3", gen, 3, 32, 1, 3, 3, 1, 64, 0, 0, 1)              # row 1
    conv2d_case("conv_df0_3x3_groups2", gen, 3, 48, 2, 3, 3, 1, 64, 0, 0, 2)       # row 12, 48 bins
    conv2d_case("conv_depthwise_1x3_stride2", gen, 1, 32, 64, 1, 3, 2, 64, 0, 0, 64)  # row 3
    conv2d_case("conv_depthwise_1x3_stride1", gen, 1, 8, 64, 1, 3, 1, 64, 0, 0, 64)   # row 9
    conv2d_case("conv_pointwise_64", gen, 1, 16, 64, 1, 1, 1, 64, 0, 0, 1)         # row 4
    conv2d_case("conv_dfpath_5x1_groups2", gen, 5, 12, 64, 5, 1, 1, 10, 0, 0, 2)   # row 43, 12 bins
    conv2d_case("conv_path_1x1_groups64", gen, 1, 8, 64, 1, 1, 1, 64, 0, 0, 64)    # row 24
    conv2d_case("conv_output_1x3_to1", gen, 1, 32, 64, 1, 3, 1, 1, 0, 0, 1)        # row 41
    # Not in the model: time padding on both sides, stride 3, an even kernel.
    conv2d_case("conv_time_padding", gen, 2, 10, 4, 3, 3, 1, 6, 2, 1, 2)
    conv2d_case("conv_stride3_even_kernel", gen, 2, 11, 3, 2, 4, 3, 5, 1, 0, 1)
    conv_transpose2d_case("convt_depthwise_8to16", gen, 8, 64, 3, 1, 1, 2, 64, 64)  # row 31
    conv_transpose2d_case("convt_groups2_4to6", gen, 7, 4, 3, 1, 1, 2, 6, 2)
    conv_transpose2d_case("convt_stride3_k5", gen, 5, 3, 5, 2, 2, 3, 2, 1)
    batch_norm_case("batch_norm_64x16", gen, 64, 1, 16)                             # row 5
    grouped_linear_case("grouped_linear_256to256", gen, 256, 256, 8)                # row 21
    grouped_linear_case("grouped_linear_64to96", gen, 64, 96, 8)  # per group 8 in, 12 out
    gru_case("gru_24to16", gen, 24, 16, 3)
    gru_case("gru_16to16", gen, 16, 16, 3)


if __name__ == "__main__":
    main()
