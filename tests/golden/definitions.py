"""This library's definitions of its operators, as plain loops in float64.

make_golden.py compares every value of the framework with these, so that a golden case never holds a point where the
two conventions differ. Parameters are named like the fields of the layer records; images are [C, H, W].
"""

import math

import numpy as np


def conv2d(x, weight, bias, p):
    """weight [out, in / groups, ky, kx]; zeros around the image."""
    image = np.pad(x, ((0, 0), (p["padding_t"], p["padding_b"]), (p["padding_l"], p["padding_r"])))
    span_y, span_x = p["dilation_y"] * (p["kernel_y"] - 1) + 1, p["dilation_x"] * (p["kernel_x"] - 1) + 1
    height, width = (image.shape[1] - span_y) // p["stride_y"] + 1, (image.shape[2] - span_x) // p["stride_x"] + 1
    per_group = p["out_channels"] // p["groups"]
    y = np.zeros((p["out_channels"], height, width))
    for o, r, q in np.ndindex(y.shape):
        first = o // per_group * weight.shape[1]
        y[o, r, q] = bias[o] if len(bias) else 0
        for c, ky, kx in np.ndindex(weight.shape[1:]):
            y[o, r, q] += weight[o, c, ky, kx] * image[first + c, r * p["stride_y"] + ky * p["dilation_y"],
                                                       q * p["stride_x"] + kx * p["dilation_x"]]
    return y


def conv_transpose2d(x, weight, bias, p):
    """weight [in, out / groups, ky, kx], applied rotated by 180 degrees; paddings border the expanded input."""
    _, height, width = x.shape
    taps = p["kernel_y"] * p["kernel_x"]
    per_group = p["out_channels"] // p["groups"]
    inputs = p["in_channels"] // p["groups"]
    y = np.zeros((p["out_channels"],
                  p["stride_y"] * height + p["padding_t"] + p["padding_b"] - p["dilation_y"] * (p["kernel_y"] - 1),
                  p["stride_x"] * width + p["padding_l"] + p["padding_r"] - p["dilation_x"] * (p["kernel_x"] - 1)))
    for o, r, q in np.ndindex(y.shape):
        y[o, r, q] = bias[o] if len(bias) else 0
        for c in range(inputs):
            source = o // per_group * inputs + c
            for tap in range(taps):
                sy = r - p["padding_t"] + tap // p["kernel_x"] * p["dilation_y"]
                sx = q - p["padding_l"] + tap % p["kernel_x"] * p["dilation_x"]
                row, column = sy // p["stride_y"], sx // p["stride_x"]
                on_grid = sy % p["stride_y"] == 0 and sx % p["stride_x"] == 0
                if on_grid and 0 <= row < height and 0 <= column < width:
                    y[o, r, q] += x[source, row, column] * weight[source, o % per_group].reshape(-1)[taps - 1 - tap]
    return y


def max_pool(x, p):
    """A border that never wins; windows that overrun the padded image read its last row or column again."""
    image = np.pad(x, ((0, 0), (p["padding_t"], p["padding_b"]), (p["padding_l"], p["padding_r"])),
                   constant_values=-np.inf)
    _, rows, columns = image.shape
    rounded = math.ceil if p["ceil_mode"] else math.floor
    height = rounded((rows - p["dilation_y"] * (p["kernel_y"] - 1) - 1) / p["stride_y"]) + 1
    width = rounded((columns - p["dilation_x"] * (p["kernel_x"] - 1) - 1) / p["stride_x"]) + 1
    y = np.empty((len(x), height, width))
    for c, r, q in np.ndindex(y.shape):
        y[c, r, q] = max(image[c, min(r * p["stride_y"] + ky * p["dilation_y"], rows - 1),
                               min(q * p["stride_x"] + kx * p["dilation_x"], columns - 1)]
                         for ky, kx in np.ndindex(p["kernel_y"], p["kernel_x"]))
    return y


def avg_pool(x, p):
    """Border zeros are summed; the divisor leaves them out unless count_include_pad. Sizes round down."""
    image = np.pad(x, ((0, 0), (p["padding_t"], p["padding_b"]), (p["padding_l"], p["padding_r"])))
    inside = np.pad(np.ones(x.shape[1:]), ((p["padding_t"], p["padding_b"]), (p["padding_l"], p["padding_r"])))
    y = np.empty((len(x), (image.shape[1] - p["kernel_y"]) // p["stride_y"] + 1,
                  (image.shape[2] - p["kernel_x"]) // p["stride_x"] + 1))
    for c, r, q in np.ndindex(y.shape):
        window = np.s_[r * p["stride_y"]:r * p["stride_y"] + p["kernel_y"],
                       q * p["stride_x"]:q * p["stride_x"] + p["kernel_x"]]
        count = p["kernel_y"] * p["kernel_x"] if p["count_include_pad"] else inside[window].sum()
        y[c, r, q] = image[c][window].sum() / count
    return y


def adaptive_avg_pool(x, height, width):
    """Regions [floor(i * s), ceil((i + 1) * s)), s the ratio of the extents; neighbours may overlap."""
    y = np.empty((len(x), height, width))
    for c, r, q in np.ndindex(y.shape):
        top, bottom = r * x.shape[1] // height, -(-(r + 1) * x.shape[1] // height)
        left, right = q * x.shape[2] // width, -(-(q + 1) * x.shape[2] // width)
        y[c, r, q] = x[c, top:bottom, left:right].sum() / (bottom - top) / (right - left)
    return y


BROADCAST_OPERATORS = (lambda a, b: a + b, lambda a, b: a - b, lambda a, b: a * b, lambda a, b: a / b,
                       lambda a, b: a if a > b else b, lambda a, b: a if a < b else b)


def broadcast(op_type, a, b):
    """The shorter shape is extended by ones in front; an extent of 1 serves every position."""
    rank = max(a.ndim, b.ndim)
    a, b = (t.reshape((1,) * (rank - t.ndim) + t.shape) for t in (a, b))
    y = np.empty([max(pair) for pair in zip(a.shape, b.shape)])
    for at in np.ndindex(y.shape):
        first, second = (t[tuple(i if extent > 1 else 0 for i, extent in zip(at, t.shape))] for t in (a, b))
        y[at] = BROADCAST_OPERATORS[op_type](first, second)
    return y


def full_connection(x, weight, bias):
    """weight [out, in]."""
    return np.array([(bias[o] if len(bias) else 0) + sum(w * v for w, v in zip(row, x))
                     for o, row in enumerate(weight)])


def sigmoid(x):
    return 1 / (1 + np.exp(-x))


def rnn_cell(x, state, weights, activation):
    (h,) = state
    w_ih, w_hh, b_ih, b_hh = weights
    return (activation(w_ih @ x + b_ih + w_hh @ h + b_hh),)


def lstm_cell(x, state, weights, _):
    """Gates in the order input, forget, cell, output."""
    h, c = state
    w_ih, w_hh, b_ih, b_hh = weights
    i, f, g, o = (w_ih @ x + b_ih + w_hh @ h + b_hh).reshape(4, -1)
    c = c * sigmoid(f) + sigmoid(i) * np.tanh(g)
    return np.tanh(c) * sigmoid(o), c


def gru_cell(x, state, weights, _):
    """Gates in the order reset, update, new; the reset acts behind the hidden bias."""
    (h,) = state
    w_ih, w_hh, b_ih, b_hh = weights
    a, b = (w_ih @ x + b_ih).reshape(3, -1), (w_hh @ h + b_hh).reshape(3, -1)
    r, z = sigmoid(a[0] + b[0]), sigmoid(a[1] + b[1])
    n = np.tanh(a[2] + r * b[2])
    return (n - z * (n - h),)


CELLS = {"RNN": rnn_cell, "LSTM": lstm_cell, "GRU": gru_cell}


def run_direction(family, rows, weights, activation=np.tanh):
    """Hidden states of one layer and direction from zero states; missing biases are zero."""
    hidden = weights[1].shape[1]
    weights = [w if w.size else np.zeros(len(weights[0])) for w in weights]
    state = (np.zeros(hidden),) * (2 if family == "LSTM" else 1)
    results = []
    for x in rows:
        state = CELLS[family](x, state, weights, activation)
        results.append(state[0])
    return results


def recurrent(family, x, forward, reverse):
    """x [S, in]; forward and reverse: four arrays for each stacked layer, reverse empty for one direction."""
    rows = list(x)
    for layer, weights in enumerate(forward):
        ahead = run_direction(family, rows, weights)
        if reverse:
            back = run_direction(family, rows[::-1], reverse[layer])[::-1]
            ahead = [np.concatenate(pair) for pair in zip(ahead, back)]
        rows = ahead
    return np.array(rows)


def upsample(x, kind, align_corner, scale_y, scale_x):
    """kind 0 nearest, 1 bilinear."""
    _, rows, columns = x.shape
    y = np.empty((len(x), math.floor(rows * scale_y + 0.5), math.floor(columns * scale_x + 0.5)))
    for c, r, q in np.ndindex(y.shape):
        if kind == 0:
            y[c, r, q] = x[c, math.floor(r / scale_y), math.floor(q / scale_x)]
            continue
        if align_corner:
            fy, fx = r * (rows - 1) / (y.shape[1] - 1), q * (columns - 1) / (y.shape[2] - 1)
        else:
            fy, fx = (r + 0.5) / scale_y - 0.5, (q + 0.5) / scale_x - 0.5
        y[c, r, q] = _bilinear(x[c], min(max(fy, 0), rows - 1), min(max(fx, 0), columns - 1))
    return y


def _bilinear(plane, fy, fx):
    """A position in [-1, H] x [-1, W]; corners outside the plane count as 0."""
    padded = np.pad(plane, 2)
    top, left = math.floor(fy), math.floor(fx)
    wy, wx = fy - top, fx - left
    window = padded[top + 2:top + 4, left + 2:left + 4]
    return np.array([1 - wy, wy]) @ window @ np.array([1 - wx, wx])


def grid_sample(x, grid, mode, padding_mode, align_corners):
    """grid [Ho, Wo, 2], pairs x, y in -1..1; mode 0 nearest, 1 bilinear; padding 0 zeros, 1 border."""
    _, rows, columns = x.shape
    y = np.empty((len(x), *grid.shape[:2]))
    for c, r, q in np.ndindex(y.shape):
        gx, gy = grid[r, q]
        if mode == 0:
            fy, fx = math.floor((gy + 1) * 0.5 * rows), math.floor((gx + 1) * 0.5 * columns)
        elif align_corners:
            fy, fx = (gy + 1) * 0.5 * (rows - 1), (gx + 1) * 0.5 * (columns - 1)
        else:
            fy, fx = (gy + 1) * 0.5 * rows - 0.5, (gx + 1) * 0.5 * columns - 0.5
        # Half-pixel bilinear sampling alone blends across the border; the others are 0 wherever they are outside.
        margin = 1 if mode == 1 and not align_corners else 0
        outside = not (-margin <= fy <= rows - 1 + margin and -margin <= fx <= columns - 1 + margin)
        if padding_mode == 1:
            y[c, r, q] = _bilinear(x[c], min(max(fy, 0), rows - 1), min(max(fx, 0), columns - 1))
        else:
            y[c, r, q] = 0 if outside else _bilinear(x[c], fy, fx)
    return y


def pixel_shuffle(x, factor):
    """Channels to pixels for a factor above 1, otherwise its inverse; the phase runs row by row."""
    channels, rows, columns = x.shape
    if factor > 1:
        r = int(factor)
        y = np.empty((channels // r**2, rows * r, columns * r))
        for c, i, j in np.ndindex(x.shape):
            y[c // r**2, i * r + c % r**2 // r, j * r + c % r] = x[c, i, j]
        return y
    k = int(1 / factor)
    y = np.empty((channels * k**2, rows // k, columns // k))
    for c, i, j in np.ndindex(y.shape):
        y[c, i, j] = x[c // k**2, i * k + c % k**2 // k, j * k + c % k]
    return y
