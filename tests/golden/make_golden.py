#!/usr/bin/python3
"""Writes the *_golden.h headers beside this file: operator results of an independent framework.

    apt-get install python3-torch
    /usr/bin/python3 tests/golden/make_golden.py

Results are computed by torch 1.13 in float64 and printed with nine digits.
Inputs are multiples of 1/8 or 1/32, so that sums of products are exact in float32 whatever their order.
"""

import textwrap
from pathlib import Path

import numpy as np
import torch
from torch import nn
from torch.nn import functional

SEED = 7
EXACT = "Every value is exact in float32 in any order of summation: compare bit by bit."


class Header:
    """One generated header: structs, then one vector of cases for each struct."""

    def __init__(self, family, title, note):
        self.family, self.title, self.note, self.parts = family, title, note, []

    def struct(self, declaration, fields):
        """fields: (C++ type, names) in the order of the cases' values."""
        self.parts.append("\n".join([f"{declaration} {{", *(f"  {kind} {names};" for kind, names in fields), "};"]))

    def cases(self, struct, name, cases):
        rows = [textwrap.fill(cpp(case) + ",", 118, initial_indent="    ", subsequent_indent="     ",
                              break_long_words=False, break_on_hyphens=False) for case in cases]
        self.parts.append("\n".join([f"inline const std::vector<{struct}> {name} = {{", *rows, "};"]))

    def write(self):
        comment = textwrap.fill(f"{self.title} Made by make_golden.py. {self.note}", 117, initial_indent="// ",
                                subsequent_indent="// ")
        text = "\n\n".join([comment + "\n#pragma once", "#include <vector>", "// clang-format off",
                            "namespace talvo::test::golden {", *self.parts, "}  // namespace talvo::test::golden"])
        Path(__file__).with_name(f"{self.family}_golden.h").write_text(text + "\n")


def cpp(value):
    if isinstance(value, str):
        return f'"{value}"'
    if isinstance(value, (bool, np.bool_)):
        return "true" if value else "false"
    if isinstance(value, float):
        text = "-0.0" if str(value) == "-0.0" else "%.9g" % np.float32(value)
        return text if float(text) == np.float32(value) else text + "f"
    if isinstance(value, torch.Tensor):
        return cpp(value.reshape(-1).tolist())
    if isinstance(value, (list, tuple)):
        return "{" + ", ".join(cpp(item) for item in value) + "}"
    return str(value)


class Source:
    """Seeded inputs, in multiples of 1 / 8."""

    def __init__(self, seed=SEED):
        self.random = np.random.default_rng(seed)

    def tensor(self, *shape, limit=16):
        return torch.from_numpy(self.random.integers(-limit, limit + 1, shape) / 8)

    def nonzero(self, *shape):
        return torch.from_numpy(self.random.integers(1, 17, shape) * self.random.choice([-1, 1], shape) / 8)


def assert_exact(result, why):
    """float32 must hold the result as it is."""
    assert torch.equal(result, result.float().double()), why


def fields_of(names, kind="unsigned short"):
    return kind, ", ".join(names)


CONV2D = ["in_channels", "out_channels", "kernel_x", "kernel_y", "padding_l", "padding_t", "padding_r", "padding_b",
          "stride_x", "stride_y", "dilation_x", "dilation_y", "groups"]


def conv2d_case(source, why, bias, extents, **given):
    p = {**{name: 0 if name.startswith("padding") else 1 for name in CONV2D}, **given}
    x = source.tensor(p["in_channels"], *extents)
    weight = source.tensor(p["out_channels"], p["in_channels"] // p["groups"], p["kernel_y"], p["kernel_x"])
    offsets = source.tensor(p["out_channels"] if bias else 0)
    padded = functional.pad(x, [p[f"padding_{side}"] for side in "lrtb"])
    y = functional.conv2d(padded[None], weight, offsets if bias else None, (p["stride_y"], p["stride_x"]), 0,
                          (p["dilation_y"], p["dilation_x"]), p["groups"])[0]
    assert_exact(y, why)
    return (why, *(p[name] for name in CONV2D), *x.shape[1:], *y.shape[1:], x, weight, offsets, y)


def conv_transpose2d_case(source, why, bias, extents, padding=(0, 0), output_padding=(0, 0), **given):
    """padding and output_padding (y, x) are the framework's: of the convolution that is inverted. The record's fields
    border the input after it was expanded by the stride."""
    p = {**{name: 1 for name in CONV2D}, **given}
    for axis, before, after, pad, extra in (("y", "t", "b", padding[0], output_padding[0]),
                                            ("x", "l", "r", padding[1], output_padding[1])):
        border = p[f"dilation_{axis}"] * (p[f"kernel_{axis}"] - 1) - pad
        # Each element is followed by stride - 1 zeros, the last one too: that much less is needed behind.
        p[f"padding_{before}"], p[f"padding_{after}"] = border, border + extra + 1 - p[f"stride_{axis}"]
    x = source.tensor(p["in_channels"], *extents)
    weight = source.tensor(p["in_channels"], p["out_channels"] // p["groups"], p["kernel_y"], p["kernel_x"])
    offsets = source.tensor(p["out_channels"] if bias else 0)
    y = functional.conv_transpose2d(x[None], weight, offsets if bias else None, (p["stride_y"], p["stride_x"]), padding,
                                    output_padding, p["groups"], (p["dilation_y"], p["dilation_x"]))[0]
    assert_exact(y, why)
    return (why, *(p[name] for name in CONV2D), *x.shape[1:], *y.shape[1:], x, weight, offsets, y)


def convolution():
    source = Source()
    header = Header("convolution", "Convolutions: images [C, H, W], weights in the order of the layer "
                    "records, an empty bias where there is none.", EXACT)
    floats = ("std::vector<float>", "input, weight, bias, output")
    header.struct("template <class Padding>\nstruct Image2dCase",
                  [("char const*", "why"), fields_of(CONV2D[:4]), fields_of(CONV2D[4:8], "Padding"),
                   fields_of(CONV2D[8:]), ("unsigned int", "height, width, out_height, out_width"), floats])
    header.parts.append("using Conv2dCase = Image2dCase<unsigned short>;\n"
                        "using ConvTranspose2dCase = Image2dCase<short>;  // a negative border crops")
    header.cases("Conv2dCase", "kConv2dCases", [
        conv2d_case(source, "two groups, all differs by axis and side", True, (3, 3), in_channels=4, out_channels=2,
                    kernel_x=2, kernel_y=3, stride_x=2, dilation_x=3, dilation_y=2, padding_t=2, padding_r=3,
                    padding_b=1, groups=2)])
    header.cases("ConvTranspose2dCase", "kConvTranspose2dCases", [
        conv_transpose2d_case(source, "two groups, all differs by axis, borders that crop", True, (3, 2), (3, 1),
                              (1, 0), in_channels=2, out_channels=4, kernel_x=2, kernel_y=3, stride_x=3, stride_y=2,
                              groups=2)])
    return header


POOL = ["kernel_x", "kernel_y", "padding_l", "padding_t", "padding_r", "padding_b", "stride_x", "stride_y"]


def pool_case(source, why, maximum, extents, kernel, stride, padding=(0, 0), dilation=(1, 1), flag=False):
    """Pairs are (y, x); flag is ceil_mode of max pooling, count_include_pad of average pooling."""
    x = source.tensor(2, *extents, limit=32)
    p = dict(zip(POOL, (*kernel[::-1], *padding[::-1], *padding[::-1], *stride[::-1])))
    if maximum:
        p.update(dilation_x=dilation[1], dilation_y=dilation[0], ceil_mode=flag)
        x = x - 5  # all below zero, which a border of zeros would beat
        y = functional.max_pool2d(x[None], kernel, stride, padding, dilation, flag)[0]
        assert_exact(y, why)
    else:
        p["count_include_pad"] = flag
        y = functional.avg_pool2d(x[None], kernel, stride, padding, False, flag)[0]
    return (why, *p.values(), *x.shape, *y.shape[1:], x, y)


def pooling():
    source = Source()
    header = Header("pooling", "Pooling of images [C, H, W].", "Maxima are exact; averages are the float32 nearest to "
                    "the exact quotient of an exact sum.")
    extents = ("unsigned int", "channels, height, width, out_height, out_width")
    window = [("char const*", "why"), fields_of(POOL[:2]), fields_of(POOL[2:6], "short"), fields_of(POOL[6:])]
    floats = ("std::vector<float>", "input, output")
    header.struct("struct MaxPoolCase", [*window, fields_of(["dilation_x", "dilation_y"]), ("bool", "ceil_mode"),
                                         extents, floats])
    header.cases("MaxPoolCase", "kMaxPoolCases", [
        pool_case(source, "all differs by axis", True, (6, 7), (2, 3), (1, 2), (0, 1), (3, 2)),
        pool_case(source, "rounds up", True, (5, 5), (2, 2), (2, 2), flag=True)])
    header.struct("struct AvgPoolCase", [*window, ("bool", "count_include_pad"), extents, floats])
    header.cases("AvgPoolCase", "kAvgPoolCases", [
        pool_case(source, "border does not count", False, (4, 5), (3, 3), (1, 2), (1, 1))])
    return header


FRAMEWORK_OPERATORS = (torch.add, torch.sub, torch.mul, torch.div, torch.maximum, torch.minimum)


def broadcast_case(source, why, op_type, a_dims, b_dims):
    a, b = source.tensor(*a_dims), source.nonzero(*b_dims)
    y = FRAMEWORK_OPERATORS[op_type](a, b)
    return (why, op_type, list(a_dims), list(b_dims), list(y.shape), a, b, y)


def full_connection_case(source, why, inputs, outputs, bias):
    x, weight, offsets = source.tensor(inputs), source.tensor(outputs, inputs), source.tensor(outputs if bias else 0)
    y = functional.linear(x, weight, offsets if bias else None)
    assert_exact(y, why)
    return (why, inputs, outputs, x, weight, offsets, y)


def elementwise():
    source = Source()
    header = Header("elementwise", "Broadcast operators (0 add, 1 subtract, 2 multiply, 3 divide, 4 larger, 5 smaller) "
                    "and the fully connected layer.",
                    "Quotients are rounded to the nearest float32, all else is exact: compare bit by bit.")
    header.struct("struct BroadcastCase", [("char const*", "why"), fields_of(["op_type"]),
                                           ("std::vector<unsigned int>", "a_dims, b_dims, output_dims"),
                                           ("std::vector<float>", "a, b, output")])
    header.cases("BroadcastCase", "kBroadcastCases", [
        broadcast_case(source, "both sides grow", 0, (2, 1, 3), (4, 3)),
        broadcast_case(source, "row by column", 3, (4, 1), (1, 3)),
        broadcast_case(source, "inner axis, rank 4", 5, (2, 3, 1, 2), (3, 2, 1))])
    header.struct("struct FullConnectionCase", [("char const*", "why"), fields_of(["in_features", "out_features"]),
                                                ("std::vector<float>", "input, weight, bias, output")])
    header.cases("FullConnectionCase", "kFullConnectionCases", [
        full_connection_case(source, "bias", 5, 3, True), full_connection_case(source, "no bias", 9, 4, False)])
    return header


NETWORKS = {"RNN": (nn.RNN, 1), "LSTM": (nn.LSTM, 4), "GRU": (nn.GRU, 3)}
WEIGHTS = ["weight_ih", "weight_hh", "bias_ih", "bias_hh"]


def weights_of(source, gates, inputs, hidden):
    rows = gates * hidden
    return [source.tensor(rows, inputs, limit=8), source.tensor(rows, hidden, limit=8),
            *(source.tensor(rows, limit=8) for _ in range(2))]


def recurrent_case(source, family, why, inputs, hidden, layers, steps):
    """Layers in both directions; an RNN computes tanh whatever the activation_type."""
    kind, gates = NETWORKS[family]
    net = kind(inputs, hidden, layers, bidirectional=True).double()
    x = source.tensor(steps, inputs, limit=12)
    blobs = []
    with torch.no_grad():
        for layer in range(layers):
            for suffix in ("", "_reverse"):
                blobs.append(weights_of(source, gates, hidden * 2 if layer else inputs, hidden))
                for name, values in zip(WEIGHTS, blobs[-1]):
                    getattr(net, f"{name}_l{layer}{suffix}").copy_(values)
        y = net(x[:, None])[0][:, 0]
    return (why, False, inputs, hidden, layers, True, 2, x, blobs, y)


def cell_case(source, family, why, inputs, hidden, steps):
    """A cell that is called `steps` times; an RNN cell computes ReLU."""
    cell = {"RNN": nn.RNNCell, "LSTM": nn.LSTMCell, "GRU": nn.GRUCell}[family]
    cell = cell(inputs, hidden, **({"nonlinearity": "relu"} if family == "RNN" else {})).double()
    x = source.tensor(steps, inputs, limit=12)
    weights = weights_of(source, NETWORKS[family][1], inputs, hidden)
    state, results = None, []
    with torch.no_grad():
        for name, values in zip(WEIGHTS, weights):
            getattr(cell, name).copy_(values)
        for row in x:
            state = cell(row[None], state)
            results.append((state[0] if family == "LSTM" else state)[0])
    return (why, True, inputs, hidden, 1, False, 2, x, [weights], torch.stack(results))


def recurrent():
    source = Source()
    header = Header("recurrent", "Recurrent layers and cells from a zero state: rows of the input are steps, rows of "
                    "the output hidden states, with two directions the reverse one behind the forward one. "
                    "weights[layer * directions + direction] holds weight_ih, weight_hh, bias_ih and bias_hh.",
                    "Results are float64 rounded to float32: compare within the error of expf and tanhf.")
    header.struct("struct RecurrentCase",
                  [("char const*", "why"), ("bool", "cell"), fields_of(["in_size", "hidden_size", "num_layers"]),
                   ("bool", "bidirectional"), fields_of(["activation_type"]), ("std::vector<float>", "input"),
                   ("std::vector<std::vector<std::vector<float>>>", "weights"), ("std::vector<float>", "output")])
    for family in NETWORKS:
        header.cases("RecurrentCase", f"k{family}Cases", [recurrent_case(source, family, "layers", 2, 1, 2, 3),
                                                          cell_case(source, family, "a cell", 2, 3, 2)])
    return header


def upsample_case(source, why, kind, align_corner, scale_y, scale_x, extents):
    x = source.tensor(2, *extents)
    options = {"mode": "bilinear", "align_corners": align_corner} if kind else {"mode": "nearest"}
    y = functional.interpolate(x[None], scale_factor=(scale_y, scale_x), recompute_scale_factor=False, **options)[0]
    return (why, float(scale_y), float(scale_x), align_corner, kind, *x.shape, *y.shape[1:], x, y)


def grid_sample_case(source, why, mode, padding_mode, align_corners, extents, grid_extents, reach):
    """The grid's values lie within `reach` / 32 of the centre, and none halfway between two pixels."""
    x = source.tensor(2, *extents)
    grid = torch.from_numpy((source.random.integers(-reach // 2, reach // 2, (*grid_extents, 2)) * 2 + 1) / 32)
    y = functional.grid_sample(x[None], grid[None], ("nearest", "bilinear")[mode], ("zeros", "border")[padding_mode],
                               align_corners)[0]
    assert_exact(y, why)
    return (why, mode, padding_mode, align_corners, *x.shape, *grid_extents, x, grid, y)


def resampling():
    source = Source()
    header = Header("resampling", "Upsampling (type 0 nearest, 1 bilinear) and grid sampling (mode 0 nearest, 1 "
                    "bilinear; padding 0 zeros, 1 border) of images [C, H, W].",
                    "Bilinear upsampling is float64 rounded to float32; all else is exact.")
    floats = ("std::vector<float>", "input, output")
    header.struct("struct UpsampleCase",
                  [("char const*", "why"), ("float", "scale_factor_y, scale_factor_x"), ("bool", "align_corner"),
                   fields_of(["unsample_type"]), ("unsigned int", "channels, height, width, out_height, out_width"),
                   floats])
    header.cases("UpsampleCase", "kUpsampleCases", [
        upsample_case(source, "half pixels by axis", 1, False, 1.5, 3, (4, 2)),
        upsample_case(source, "corners by axis", 1, True, 3, 1.5, (2, 4))])
    header.struct("struct GridSampleCase",
                  [("char const*", "why"), fields_of(["mode", "padding_mode"]), ("bool", "align_corners"),
                   ("unsigned int", "channels, height, width, out_height, out_width"),
                   ("std::vector<float>", "input, grid, output")])
    header.cases("GridSampleCase", "kGridSampleCases", [
        grid_sample_case(source, "nearest, zeros outside", 0, 0, False, (4, 5), (3, 4), 44),
        grid_sample_case(source, "half pixels, blends into zeros", 1, 0, False, (3, 4), (4, 5), 46),
        grid_sample_case(source, "corners, border outside", 1, 1, True, (3, 4), (4, 4), 44)])
    return header


def main():
    for family in (convolution, pooling, elementwise, recurrent, resampling):
        family().write()


if __name__ == "__main__":
    main()
