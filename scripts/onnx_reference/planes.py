"""Operators with windows on planes, and those that sample planes."""

import itertools
import math

import numpy as np


def places(shape):
    return itertools.product(*map(range, shape))


class Window:
    """Extents, steps and paddings of a window over the axes behind the first two."""

    def __init__(self, n, size, kernel):
        rank = len(size)
        self.kernel = kernel
        self.strides, self.dilations = (n.a(name) or [1] * rank for name in ("strides", "dilations"))
        self.reach = [(k - 1) * d + 1 for k, d in zip(kernel, self.dilations)]
        pads, mode = n.a("pads") or [0] * 2 * rank, n.a("auto_pad", "NOTSET")
        if mode.startswith("SAME"):
            total = [max(0, (-(-x // s) - 1) * s + r - x) for x, s, r in zip(size, self.strides, self.reach)]
            low = [t // 2 if mode == "SAME_UPPER" else t - t // 2 for t in total]
            pads = low + [t - l for t, l in zip(total, low)]
        self.begin, self.end = pads[:rank], pads[rank:]
        up = math.ceil if n.a("ceil_mode", 0) else math.floor
        self.out = [up((x + b + e - r) / s) + 1
                    for x, b, e, r, s in zip(size, self.begin, self.end, self.reach, self.strides)]
        if n.a("ceil_mode", 0):  # a window that begins behind input and padding in front does not count
            self.out = [o - 1 if (o - 1) * s >= x + b else o
                        for o, s, x, b in zip(self.out, self.strides, size, self.begin)]

    def padded(self, x, fill):
        need = [(o - 1) * s + r for o, s, r in zip(self.out, self.strides, self.reach)]
        widths = [(b, max(0, n - b - e)) for b, n, e in zip(self.begin, need, x.shape[2:])]
        return np.pad(x, [(0, 0), (0, 0)] + widths, constant_values=fill)

    def at(self, x, place):
        """The part of a padded `x` under the window at `place`."""
        cut = [slice(p * s, p * s + r, d) for p, s, r, d in zip(place, self.strides, self.reach, self.dilations)]
        return x[(slice(None), slice(None), *cut)]


def conv(n):
    x, w = n.x[0], n.x[1]
    window, groups = Window(n, x.shape[2:], w.shape[2:]), n.a("group", 1)
    padded = window.padded(x, 0.0)
    y = np.zeros((x.shape[0], w.shape[0], *window.out))
    c, o = x.shape[1] // groups, w.shape[0] // groups
    for place in places(window.out):
        part = window.at(padded, place)
        for g in range(groups):
            taps = part[:, g * c:(g + 1) * c].reshape(x.shape[0], -1)
            y[(slice(None), slice(g * o, (g + 1) * o), *place)] = taps @ w[g * o:(g + 1) * o].reshape(o, -1).T
    return y + (n.x[2].reshape((-1,) + (1,) * (x.ndim - 2)) if n.given(2) else 0.0)


def conv_transpose(n):
    x, w, rank, groups = n.x[0], n.x[1], n.x[0].ndim - 2, n.a("group", 1)
    strides, dilations = n.a("strides") or [1] * rank, n.a("dilations") or [1] * rank
    extra, pads, mode = n.a("output_padding") or [0] * rank, n.a("pads") or [0] * 2 * rank, n.a("auto_pad", "NOTSET")
    full = [s * (i - 1) + e + (k - 1) * d + 1
            for s, i, e, k, d in zip(strides, x.shape[2:], extra, w.shape[2:], dilations)]
    y = np.zeros((x.shape[0], w.shape[1] * groups, *full))
    c, o = x.shape[1] // groups, w.shape[1]
    for place in places(x.shape[2:]):
        for tap in places(w.shape[2:]):
            to = tuple(p * s + t * d for p, s, t, d in zip(place, strides, tap, dilations))
            for g in range(groups):
                own = slice(g * c, (g + 1) * c)
                part = x[(slice(None), own, *place)] @ w[(own, slice(None), *tap)]
                y[(slice(None), slice(g * o, (g + 1) * o), *to)] += part
    wanted = n.a("output_shape")
    if wanted is None and mode.startswith("SAME"):
        wanted = [i * s for i, s in zip(x.shape[2:], strides)]
    if wanted is not None:
        total = [f - t for f, t in zip(full, wanted[-rank:])]
        half = [t // 2 if mode == "SAME_UPPER" else t - t // 2 for t in total]
        pads = half + [t - h for t, h in zip(total, half)]
    for i in range(rank):
        y = np.pad(y, [(0, max(0, -pads[rank + i]) if j == i + 2 else 0) for j in range(y.ndim)])
        y = np.take(y, range(pads[i], y.shape[i + 2] - max(0, pads[rank + i])), i + 2)
    return y + (n.x[2].reshape((-1,) + (1,) * rank) if n.given(2) else 0.0)


def max_pool(n):
    x = n.x[0]
    window = Window(n, x.shape[2:], n.a("kernel_shape"))
    padded, y = window.padded(x, -np.inf), np.zeros((*x.shape[:2], *window.out))
    for place in places(window.out):
        y[(slice(None), slice(None), *place)] = window.at(padded, place).max(tuple(range(2, x.ndim)))
    return y


def average_pool(n):
    x = n.x[0]
    window = Window(n, x.shape[2:], n.a("kernel_shape"))
    padded, inside = window.padded(x, 0.0), window.padded(np.ones_like(x), 1.0 if n.a("count_include_pad", 0) else 0.0)
    y, axes = np.zeros((*x.shape[:2], *window.out)), tuple(range(2, x.ndim))
    for place in places(window.out):
        y[(slice(None), slice(None), *place)] = window.at(padded, place).sum(axes) / window.at(inside, place).sum(axes)
    return y


def over_planes(function):
    return lambda n: function(n.x[0], axis=tuple(range(2, n.x[0].ndim)), keepdims=True)


def position(mode, i, size, out, scale):
    if mode == "asymmetric":
        return i / scale
    if mode == "align_corners":
        return 0.0 if out == 1 else i * (size - 1) / (size * scale - 1)
    return 0.0 if mode == "pytorch_half_pixel" and out == 1 else (i + 0.5) / scale - 0.5


def nearest(rule, p):
    rounding = {"floor": math.floor, "ceil": math.ceil, "round_prefer_floor": lambda v: math.ceil(v - 0.5),
                "round_prefer_ceil": lambda v: math.floor(v + 0.5)}
    return rounding[rule](p)


def cubic(a, t):
    t = abs(t)
    if t <= 1:
        return (a + 2) * t**3 - (a + 3) * t**2 + 1
    return a * t**3 - 5 * a * t**2 + 8 * a * t - 4 * a if t < 2 else 0.0


def taps(n, kind, p, size):
    """Positions and weights around p."""
    low = math.floor(p)
    if kind == "nearest":
        return [(nearest(n.a("nearest_mode", "round_prefer_floor"), p), 1.0)]
    if kind in ("linear", "bilinear"):
        return [(low, 1 - (p - low)), (low + 1, p - low)]
    found = [(i, cubic(n.a("cubic_coeff_a", -0.75), p - i)) for i in range(low - 1, low + 3)]
    if n.a("exclude_outside", 0):
        found = [(i, w) for i, w in found if 0 <= i < size]
    total = sum(w for _, w in found)
    return [(i, w / total) for i, w in found]


def resized(n, scales, sizes, mode):
    x = n.x[0]
    kind = n.a("mode", "nearest")
    sizes = sizes or [math.floor(e * s) for e, s in zip(x.shape, scales)]
    scales = scales or [o / e for o, e in zip(sizes, x.shape)]
    for axis, (out, scale) in enumerate(zip(sizes, scales)):
        size = x.shape[axis]
        if out == size and scale == 1:
            continue
        lines = []
        for i in range(out):
            found = taps(n, kind, position(mode, i, size, out, scale), size)
            lines.append(sum(w * np.take(x, min(max(at, 0), size - 1), axis) for at, w in found))
        x = np.stack(lines, axis)
    return x


def resize(n):
    if n.opset < 11:
        return upsample(n)
    scales = [float(v) for v in n.x[2]] if n.given(2) and n.x[2].size else None
    return resized(n, scales, n.integers(3, "") if scales is None else None,
                   n.a("coordinate_transformation_mode", "half_pixel"))


def upsample(n):
    n.attributes["nearest_mode"] = "floor"
    scales = [float(v) for v in n.x[1]] if n.given(1) else list(n.a("scales"))
    return resized(n, scales, None, "asymmetric")


def folded(p, low, high):
    span = high - low
    if span <= 0:
        return 0.0
    turns, rest = divmod(abs(p - low), span)
    return low + (rest if turns % 2 == 0 else span - rest)


def grid_sample(n):
    x, grid = n.x
    mode, padding, corners = n.a("mode", "bilinear"), n.a("padding_mode", "zeros"), n.a("align_corners", 0)
    y = np.zeros((*x.shape[:2], *grid.shape[1:3]))
    for b, i, j in places((x.shape[0], *grid.shape[1:3])):
        weights = []
        for size, g in zip(x.shape[:1:-1], grid[b, i, j]):
            p = (g + 1) / 2 * (size - 1) if corners else ((g + 1) * size - 1) / 2
            if padding == "reflection":
                p = folded(p, 0.0, size - 1.0) if corners else folded(p, -0.5, size - 0.5)
            if padding != "zeros":
                p = min(max(p, 0.0), size - 1.0)
            low = math.floor(p)
            found = [(int(np.rint(p)), 1.0)] if mode == "nearest" else [(low, 1 - (p - low)), (low + 1, p - low)]
            weights.append([(at, w) for at, w in found if 0 <= at < size])
        y[b, :, i, j] = sum((wy * wx * x[b, :, v, u] for u, wx in weights[0] for v, wy in weights[1]),
                            np.zeros(x.shape[1]))
    return y


OPERATORS = {
    "Conv": conv, "ConvTranspose": conv_transpose, "MaxPool": max_pool, "AveragePool": average_pool,
    "GlobalAveragePool": over_planes(np.mean), "GlobalMaxPool": over_planes(np.max), "Resize": resize,
    "Upsample": upsample, "GridSample": grid_sample,
}
