#!/usr/bin/python3
"""Writes the *_golden.h headers beside this file: operator results of an independent framework.

    apt-get install python3-torch
    /usr/bin/python3 tests/golden/make_golden.py

Results are computed by torch 1.13 in float64 and printed with nine digits.
Inputs are multiples of 1/8, so that sums of products are exact in float32 whatever their order.
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


def full_connection_case(source, why, inputs, outputs, bias):
    x, weight, offsets = source.tensor(inputs), source.tensor(outputs, inputs), source.tensor(outputs if bias else 0)
    y = functional.linear(x, weight, offsets if bias else None)
    assert_exact(y, why)
    return (why, inputs, outputs, x, weight, offsets, y)


def elementwise():
    source = Source()
    header = Header("elementwise", "The fully connected layer.", EXACT)
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


def main():
    for family in (convolution, elementwise, recurrent):
        family().write()


if __name__ == "__main__":
    main()
