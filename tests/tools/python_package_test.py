"""talvo.package against numpy: a net with branches, groups and recurrence in both forms, and the table of records."""

import re
import sys
import tempfile
from pathlib import Path

import numpy as np

import talvo
from talvo.package import RECORDS, Net, fold_norm

random = np.random.default_rng(5)


def normal(*shape):
    return random.normal(0, 0.5, shape).astype(np.float16).astype(np.float32)  # both forms hold them


def convolve(x, weight, bias, stride, padding, groups):
    x = np.pad(x, ((0, 0), (padding, padding), (padding, padding)))
    out, each, height, width = weight.shape
    rows, columns = (x.shape[1] - height) // stride + 1, (x.shape[2] - width) // stride + 1
    y = np.zeros((out, rows, columns))
    for o in range(out):
        begin = o // (out // groups) * each
        for r in range(rows):
            for c in range(columns):
                window = x[begin:begin + each, r * stride:r * stride + height, c * stride:c * stride + width]
                y[o, r, c] = (window * weight[o]).sum() + bias[o]
    return y


def spread(x, weight, bias, stride, padding, more):
    """A transposed convolution: each element adds its window to the result, whose borders then go."""
    _, out, height, width = weight.shape
    full = np.zeros((out, (x.shape[1] - 1) * stride + height + more, (x.shape[2] - 1) * stride + width + more))
    for c, r, k in np.ndindex(*x.shape):
        full[:, r * stride:r * stride + height, k * stride:k * stride + width] += x[c, r, k] * weight[c]
    return full[:, padding:full.shape[1] - padding, padding:full.shape[2] - padding] + bias[:, None, None]


def sigmoid(x):
    return 1 / (1 + np.exp(-x))


def lstm(rows, weights):
    weight_ih, weight_hh, bias_ih, bias_hh = weights
    h = c = np.zeros(weight_hh.shape[1])
    states = []
    for x in rows:
        i, f, g, o = np.split(weight_ih @ x + bias_ih + weight_hh @ h + bias_hh, 4)
        c = sigmoid(f) * c + sigmoid(i) * np.tanh(g)
        h = sigmoid(o) * np.tanh(c)
        states.append(h)
    return np.array(states)


def layer_of_lstm(inputs, hidden):
    return normal(4 * hidden, inputs), normal(4 * hidden, hidden), normal(4 * hidden), normal(4 * hidden)


def build():
    """The net, and what numpy makes of an input, in double."""
    x = random.uniform(-1, 1, (4, 9, 8)).astype(np.float32)
    raw, mean, variance, scale, shift = normal(6, 2, 3, 3), normal(6), normal(6) ** 2 + 1, normal(6), normal(6)
    side, side_bias, up, up_bias = normal(6, 4, 1, 1), normal(6), normal(12, 3, 3, 3), normal(3)
    forward = [layer_of_lstm(3, 5), layer_of_lstm(10, 5)]
    reverse = [layer_of_lstm(3, 5), layer_of_lstm(10, 5)]
    dense, dense_bias = normal(7, 10), normal(7)

    net = Net("branches")
    source = net.input("x")
    weight, bias = fold_norm(raw, None, mean, variance, scale, shift)
    main = net.conv2d("main", source, weight, bias, stride=2, padding=1, groups=2)
    branch = net.conv2d("side", source, side, side_bias, stride=2)
    total = net.elementwise("total", "add", net.activation("relu", main, "relu"), branch)
    both = net.concat("both", [total, main])
    wide = net.conv_transpose2d("up", both, up, up_bias, stride=2, padding=1, output_padding=1)
    rows = net.permute("rows", net.reshape("flat", net.activation("tanh", wide, "tanh"), (3, 80)), (1, 0))
    states = net.recurrent("lstm", net.reshape("steps", rows, (80, 3)), "lstm", forward, reverse)
    net.full_connection("y", net.mean("mean", states, [0]), dense, dense_bias)
    net.leaky("z", branch, 0.125)

    normal_weight = (scale / np.sqrt(variance + 1e-5))
    main = convolve(x, raw, np.zeros(6), 2, 1, 2) * normal_weight[:, None, None]
    main += (shift - mean * normal_weight)[:, None, None]
    branch = convolve(x, side, side_bias, 2, 0, 1)
    wide = spread(np.concatenate([np.maximum(main, 0) + branch, main]), up, up_bias, 2, 1, 1)
    rows = np.tanh(wide).reshape(3, -1).T
    for one, other in zip(forward, reverse):
        rows = np.concatenate([lstm(rows, one), lstm(rows[::-1], other)[::-1]], 1)
    return net, x, {"y": dense @ rows.mean(0) + dense_bias, "z": np.where(branch < 0, 0.125 * branch, branch)}


def runs_as_numpy_says():
    net, x, wanted = build()
    with tempfile.TemporaryDirectory() as folder:
        for name, bound in (("net.json", 2e-6), ("net.tlnmodel", 2e-3)):  # the folded weights are no halves
            path = Path(folder) / name
            net.save(path, base_size=(9, 8))
            assert talvo.check(path, {"x": x.shape}) == [], name
            results = talvo.Model(path).run({"x": x})
            assert sorted(results) == ["y", "z"]
            for id, want in wanted.items():
                error = np.abs(results[id] - want).max() / np.abs(want).max()
                assert error < bound, f"{name}, {id}: {error}"


def knows_the_fields_of_the_format():
    page = (Path(__file__).parents[2] / "docs" / "format.md").read_text()
    for name, record in RECORDS.items():
        section = page.split(f"\n### {name}\n", 1)[1].split("\n### ", 1)[0]
        assert int(re.search(r"Number (\d+) in", section)[1]) == record.number, name
        rows = [(key, kind) for key, kind in re.findall(r"^\| `(\w+)` \| ([^ ]+) \|", section, re.M)]
        assert rows == [(key, kind) for key, (kind, _) in record.fields.items()], f"{name}: {rows}"


def refuses_in_words():
    net = Net("m")
    x = net.input("x")
    for words, call in {
        "layer y: weight [2, 3] has 2 axes, needs 4": lambda: net.conv2d("y", x, normal(2, 3)),
        'layer "x": the id is empty, taken or a key of the format': lambda: net.input("x"),
        "layer y: SoftmaxInfo has no field axis; it has dim": lambda: net.add("y", "SoftmaxInfo", "K", [x], axis=1),
        "weight holds 70000, halves at most 65504; write a .json package":
            lambda: big(net).to_bytes(),
        "kernel_x = 70000 does not fit u16": lambda: wide(Net("m")).to_bytes(),
        "net.txt: a package ends in .tlnmodel or .json": lambda: net.save("net.txt"),
    }.items():
        try:
            call()
        except ValueError as error:
            assert str(error) == words, error
        else:
            raise AssertionError(f"not refused: {words}")


def big(net):
    net.full_connection("big", "x", np.full((1, 1), 7e4))
    return net


def wide(net):
    net.max_pool2d("pool", net.input("x"), (1, 70000))
    return net


if __name__ == "__main__":
    runs_as_numpy_says()
    knows_the_fields_of_the_format()
    refuses_in_words()
    sys.exit(0)
