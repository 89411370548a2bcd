"""The DFN weight table: layout, export, import and the portable random table.

The table is 1 517 904 little-endian float32 values, its 48 rows back to back; inside each
tensor the element order of docs/dfn.md section 1 (PyTorch's own order for every tensor of
DfnTwin). The C++ side reads it through src/denoise/dfn_weight_layout.*, which encodes the
same rows.

    python3 weight_table.py            # prints the layout summary and the cross-check values
"""

import sys
from collections import namedtuple

import numpy as np
import torch

TABLE_FLOATS = 1517904
TABLE_BYTES = 4 * TABLE_FLOATS

# (row of the table, module of DfnTwin, form, floats of the row)
ROWS = [
    (1, "erb_conv0", "conv", 576), (2, "erb_conv0_bn", "bn", 4 * 64),
    (3, "erb_conv1_dw", "conv", 192), (4, "erb_conv1_pw", "conv", 4096),
    (5, "erb_conv1_bn", "bn", 4 * 64),
    (6, "erb_conv2_dw", "conv", 192), (7, "erb_conv2_pw", "conv", 4096),
    (8, "erb_conv2_bn", "bn", 4 * 64),
    (9, "erb_conv3_dw", "conv", 192), (10, "erb_conv3_pw", "conv", 4096),
    (11, "erb_conv3_bn", "bn", 4 * 64),
    (12, "df_conv0", "conv", 576), (13, "df_conv0_pw", "conv", 4096),
    (14, "df_conv0_bn", "bn", 4 * 64),
    (15, "df_conv1_dw", "conv", 192), (16, "df_conv1_pw", "conv", 4096),
    (17, "df_conv1_bn", "bn", 4 * 64),
    (18, "df_emb", "linear", 196608), (19, "emb_in", "linear", 32768),
    (20, "emb_gru1", "gru", 6 * 65536 + 6 * 256), (21, "emb_mid", "linear", 8192),
    (22, "emb_gru2", "gru", 6 * 65536 + 6 * 256), (23, "emb_out", "linear", 16384),
    (24, "erb_dec_path3", "conv", 64), (25, "erb_dec_path3_bn", "bn", 4 * 64),
    (26, "erb_dec_conv3_dw", "conv", 192), (27, "erb_dec_conv3_pw", "conv", 4096),
    (28, "erb_dec_conv3_bn", "bn", 4 * 64),
    (29, "erb_dec_path2", "conv", 64), (30, "erb_dec_path2_bn", "bn", 4 * 64),
    (31, "erb_dec_up2_dw", "conv_t", 192), (32, "erb_dec_up2_pw", "conv", 4096),
    (33, "erb_dec_up2_bn", "bn", 4 * 64),
    (34, "erb_dec_path1", "conv", 64), (35, "erb_dec_path1_bn", "bn", 4 * 64),
    (36, "erb_dec_up1_dw", "conv_t", 192), (37, "erb_dec_up1_pw", "conv", 4096),
    (38, "erb_dec_up1_bn", "bn", 4 * 64),
    (39, "erb_dec_path0", "conv", 64), (40, "erb_dec_path0_bn", "bn", 4 * 64),
    (41, "erb_dec_out", "conv", 192), (42, "erb_dec_out_bn", "bn", 4 * 1),
    (43, "df_dec_path", "conv", 1600), (44, "df_dec_path_pw", "conv", 100),
    (45, "df_dec_path_bn", "bn", 4 * 10),
    (46, "df_dec_in", "linear", 8192), (47, "df_dec_gru", "gru", 6 * 65536 + 6 * 256),
    (48, "df_dec_out", "linear", 30720),
]
assert [r[0] for r in ROWS] == list(range(1, 49))

# One tensor of the table. `param` is the attribute of the module; `rows` selects a slice of
# its first dimension (GRU gate blocks) or is None for the whole tensor. `kind` is one of
# conv, conv_t, linear, gru_w, gru_b, bn_scale, bn_shift, bn_mean, bn_var; fan_in is the
# docs/dfn.md section 6 fan-in for weight kinds (0 otherwise).
Tensor = namedtuple("Tensor", "row module param rows shape kind fan_in offset count")


def layout(model=None):
    """Every tensor of the table in order, with its place in DfnTwin and in the table."""
    if model is None:
        from dfn_twin import DfnTwin
        model = DfnTwin()
    out = []
    offset = 0

    def add(row, module, param, rows, kind, fan_in):
        nonlocal offset
        t = getattr(getattr(model, module), param)
        if rows is not None:
            t = t[rows[0]:rows[1]]
        shape = tuple(t.shape)
        count = int(np.prod(shape))
        out.append(Tensor(row, module, param, rows, shape, kind, fan_in, offset, count))
        offset += count

    for row, module, form, floats in ROWS:
        start = offset
        mod = getattr(model, module)
        if form == "conv":
            w = mod.weight  # [out][in/groups][kt][kf]
            add(row, module, "weight", None, "conv", w.shape[1] * w.shape[2] * w.shape[3])
        elif form == "conv_t":
            w = mod.weight  # [in][out/groups][kt][kf]
            add(row, module, "weight", None, "conv_t", w.shape[1] * w.shape[2] * w.shape[3])
        elif form == "linear":
            add(row, module, "weight", None, "linear", mod.weight.shape[1])  # in / groups
        elif form == "bn":
            add(row, module, "weight", None, "bn_scale", 0)
            add(row, module, "bias", None, "bn_shift", 0)
            add(row, module, "running_mean", None, "bn_mean", 0)
            add(row, module, "running_var", None, "bn_var", 0)
        elif form == "gru":
            h = mod.hidden_size
            for param, fan_in in (("weight_ih_l0", mod.input_size), ("weight_hh_l0", h)):
                for gate in range(3):  # r, z, n
                    add(row, module, param, (gate * h, (gate + 1) * h), "gru_w", fan_in)
            for param in ("bias_ih_l0", "bias_hh_l0"):
                for gate in range(3):
                    add(row, module, param, (gate * h, (gate + 1) * h), "gru_b", 0)
        else:
            raise AssertionError(form)
        assert offset - start == floats, (row, module, offset - start, floats)
    assert offset == TABLE_FLOATS, offset
    return out


def _tensor_of(model, entry):
    t = getattr(getattr(model, entry.module), entry.param)
    if entry.rows is not None:
        t = t[entry.rows[0]:entry.rows[1]]
    return t


def to_array(model):
    """The model's table as a float32 array of 1 517 904 values."""
    parts = []
    with torch.no_grad():
        for entry in layout(model):
            t = _tensor_of(model, entry).detach().cpu().contiguous()
            parts.append(t.to(torch.float32).numpy().reshape(-1))
    table = np.concatenate(parts)
    assert table.size == TABLE_FLOATS
    return table


def export(model, path):
    """Write the model's table as raw little-endian float32 (6 071 616 bytes)."""
    table = to_array(model).astype("<f4")
    with open(path, "wb") as f:
        f.write(table.tobytes())


def from_array(model, table):
    """Load a table (float32 array of 1 517 904 values) into the model, in place."""
    table = np.asarray(table)
    if table.size != TABLE_FLOATS:
        raise ValueError("weight table: %d floats, expected %d" % (table.size, TABLE_FLOATS))
    with torch.no_grad():
        for entry in layout(model):
            dst = _tensor_of(model, entry)
            src = torch.from_numpy(np.array(table[entry.offset:entry.offset + entry.count],
                                            dtype=np.float32)).reshape(entry.shape)
            dst.copy_(src.to(dst.dtype))
    return model


def import_(model, path):
    """Read a raw little-endian float32 table from path into the model, in place."""
    with open(path, "rb") as f:
        data = f.read()
    if len(data) != TABLE_BYTES:
        raise ValueError("%s: %d bytes, expected %d" % (path, len(data), TABLE_BYTES))
    return from_array(model, np.frombuffer(data, dtype="<f4"))


def splitmix_uniform(count):
    """u_i = (z >> 40) / 2^24 of docs/dfn.md section 6 for i = 0 .. count-1 (float64)."""
    with np.errstate(over="ignore"):
        z = (np.arange(count, dtype=np.uint64) + np.uint64(1)) * np.uint64(0x9E3779B97F4A7C15)
        z = (z ^ (z >> np.uint64(30))) * np.uint64(0xBF58476D1CE4E5B9)
        z = (z ^ (z >> np.uint64(27))) * np.uint64(0x94D049BB133111EB)
        z = z ^ (z >> np.uint64(31))
    return (z >> np.uint64(40)).astype(np.float64) / float(1 << 24)


def portable_random_table():
    """The portable random network of docs/dfn.md section 6: float32[1 517 904]."""
    u = splitmix_uniform(TABLE_FLOATS)
    values = np.empty(TABLE_FLOATS, dtype=np.float64)
    for e in layout():
        s = slice(e.offset, e.offset + e.count)
        ui = u[s]
        if e.kind in ("conv", "conv_t", "linear", "gru_w"):
            values[s] = (2.0 * ui - 1.0) * np.sqrt(3.0 / e.fan_in)
        elif e.kind == "gru_b":
            values[s] = (2.0 * ui - 1.0) * 0.0625
        elif e.kind == "bn_scale":
            values[s] = 0.75 + 0.5 * ui
        elif e.kind in ("bn_shift", "bn_mean"):
            values[s] = 0.2 * (2.0 * ui - 1.0)
        elif e.kind == "bn_var":
            values[s] = 0.5 + ui
        else:
            raise AssertionError(e.kind)
    return values.astype(np.float32)


def main():
    entries = layout()
    print("%d tensors, %d floats, %d bytes" % (len(entries), TABLE_FLOATS, TABLE_BYTES))
    if "-v" in sys.argv:
        for e in entries:
            print("row %2d %-18s %-13s %-12s %-16s %-8s fan_in %4d offset %7d" % (
                e.row, e.module, e.param, e.rows or "", e.shape, e.kind, e.fan_in, e.offset))
    t = portable_random_table()
    print("portable random table:")
    print("  first 4:", ["%.9g" % v for v in t[:4]])
    for i in (576, 640, 704, 768, 832):
        print("  [%d] = %.9g" % (i, t[i]))
    print("  sum (float64) = %.17g" % float(np.sum(t.astype(np.float64))))


if __name__ == "__main__":
    main()
