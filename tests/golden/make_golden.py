#!/usr/bin/python3
"""Writes recurrent_golden.h beside this file: recurrent layers of an independent framework.

    apt-get install python3-torch
    /usr/bin/python3 tests/golden/make_golden.py

Results are computed by torch 1.13 in float64 and printed with nine digits. Inputs and weights are multiples of 1/8.
"""

import textwrap
from pathlib import Path

import numpy as np
import torch
from torch import nn

HEAD = """// One recurrent layer in both directions, in_size 1, hidden_size 2, from a zero state: rows of the output are steps,
// the reverse direction behind the forward one. weights[direction] holds weight_ih, weight_hh, bias_ih and bias_hh.
// Made by make_golden.py. Results are float64 rounded to float32: compare within the error of exp and tanh in float.
#pragma once

#include <vector>

// clang-format off

namespace talvo::test::golden {

struct RecurrentCase {
  std::vector<float> input;
  std::vector<std::vector<std::vector<float>>> weights;
  std::vector<float> output;
};
"""
NETWORKS = {"RNN": (nn.RNN, 1), "LSTM": (nn.LSTM, 4), "GRU": (nn.GRU, 3)}
WEIGHTS = ["weight_ih", "weight_hh", "bias_ih", "bias_hh"]
RANDOM = np.random.default_rng(7)


def cpp(value):
    if isinstance(value, float):
        text = "%.9g" % np.float32(value)
        return text if float(text) == np.float32(value) else text + "f"
    items = value.reshape(-1).tolist() if isinstance(value, torch.Tensor) else value
    return "{" + ", ".join(cpp(item) for item in items) + "}"


def some(*shape):
    return torch.from_numpy(RANDOM.integers(-12, 13, shape) / 8)


def case(kind, gates):
    net = kind(1, 2, bidirectional=True).double()
    x = some(3, 1)
    weights = []
    with torch.no_grad():
        for suffix in ("", "_reverse"):
            weights.append([some(gates * 2, 1), some(gates * 2, 2), some(gates * 2), some(gates * 2)])
            for name, values in zip(WEIGHTS, weights[-1]):
                getattr(net, f"{name}_l0{suffix}").copy_(values)
        return x, weights, net(x[:, None])[0][:, 0]


def main():
    parts = [HEAD]
    for name, (kind, gates) in NETWORKS.items():
        text = f"inline const RecurrentCase k{name}Case = {cpp(case(kind, gates))};"
        parts.append(textwrap.fill(text, 118, subsequent_indent="    ", break_long_words=False) + "\n")
    parts.append("}  // namespace talvo::test::golden\n")
    Path(__file__).with_name("recurrent_golden.h").write_text("\n".join(parts))


if __name__ == "__main__":
    main()
