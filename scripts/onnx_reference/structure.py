"""Operators that move elements, and products of matrices."""

import math

import numpy as np
import onnx
import onnx.helper
import onnx.mapping
import onnx.numpy_helper


def cast(n):
    kind = onnx.mapping.TENSOR_TYPE_TO_NP_TYPE[n.a("to")]
    return n.x[0].astype(np.float64 if kind.kind == "f" else kind)


def constant(n):
    for name in ("value_float", "value_floats", "value_int", "value_ints"):
        if n.a(name) is not None:
            return np.array(n.a(name))
    value = onnx.numpy_helper.to_array(n.a("value"))
    return value.astype(np.float64) if value.dtype.kind == "f" else value


def filled(n):
    value = onnx.numpy_helper.to_array(n.a("value")) if n.a("value") is not None else np.zeros(1)
    return np.full(n.integers(0, ""), value.ravel()[0])


def depth_to_space(n):
    x, b = n.x[0], n.a("blocksize")
    batch, c, h, w = x.shape
    if n.a("mode", "DCR") == "DCR":
        moved = x.reshape(batch, b, b, c // b**2, h, w).transpose(0, 3, 4, 1, 5, 2)
    else:
        moved = x.reshape(batch, c // b**2, b, b, h, w).transpose(0, 1, 4, 2, 5, 3)
    return moved.reshape(batch, c // b**2, h * b, w * b)


def space_to_depth(n):
    x, b = n.x[0], n.a("blocksize")
    batch, c, h, w = x.shape
    moved = x.reshape(batch, c, h // b, b, w // b, b).transpose(0, 3, 5, 1, 2, 4)
    return moved.reshape(batch, c * b * b, h // b, w // b)


def flatten(n):
    axis = n.a("axis", 1)
    axis = axis if axis >= 0 else axis + n.x[0].ndim
    return n.x[0].reshape(math.prod(n.x[0].shape[:axis]), -1)


def pad(n):
    x = n.x[0]
    pads = n.a("paddings") if n.opset < 2 else n.integers(1, "pads")
    fill = float(np.ravel(n.x[2])[0]) if n.given(2) else n.a("value", 0.0)
    for axis in range(x.ndim):
        before, behind = pads[axis], pads[x.ndim + axis]
        x = np.take(x, range(max(0, -before), x.shape[axis] - max(0, -behind)), axis)
    widths = [(max(0, pads[i]), max(0, pads[x.ndim + i])) for i in range(x.ndim)]
    mode = n.a("mode", "constant")
    return np.pad(x, widths, mode, constant_values=fill) if mode == "constant" else np.pad(x, widths, mode)


def reshape(n):
    shape = n.integers(1, "shape")
    if not n.a("allowzero", 0):
        shape = [n.x[0].shape[i] if extent == 0 else extent for i, extent in enumerate(shape)]
    return n.x[0].reshape(shape)


def sliced(n):
    starts, ends = n.integers(1, "starts"), n.integers(2, "ends")
    axes, steps = n.integers(3, "axes") or range(len(starts)), n.integers(4, "") or [1] * len(starts)
    cut = [slice(None)] * n.x[0].ndim
    for start, end, axis, step in zip(starts, ends, axes, steps):
        none = step < 0 and end < -n.x[0].shape[axis]
        cut[axis] = slice(start, None if none else end, step)
    return n.x[0][tuple(cut)]


def split(n):
    axis = n.a("axis", 0)
    parts = n.integers(1, "split") or [n.x[0].shape[axis] // n.outputs] * n.outputs
    return tuple(np.split(n.x[0], np.cumsum(parts)[:-1], axis))


def squeeze(n):
    axes = n.integers(1, "axes")
    return n.x[0].squeeze(tuple(axes) if axes else None)


def unsqueeze(n):
    return np.expand_dims(n.x[0], tuple(n.integers(1, "axes")))


def gemm(n):
    a, b = (x.T if n.a(name, 0) else x for x, name in zip(n.x, ("transA", "transB")))
    return n.a("alpha", 1.0) * (a @ b) + n.a("beta", 1.0) * n.input_or(2, 0.0)


OPERATORS = {
    "Cast": cast, "CastLike": lambda n: n.x[0].astype(n.x[1].dtype), "Constant": constant, "ConstantOfShape": filled,
    "Concat": lambda n: np.concatenate(n.x, n.a("axis", 1)), "DepthToSpace": depth_to_space,
    "Dropout": lambda n: n.x[0],
    "SpaceToDepth": space_to_depth, "Einsum": lambda n: np.einsum(n.a("equation"), *n.x),
    "Expand": lambda n: n.x[0] * np.ones(n.integers(1, "")), "Flatten": flatten, "Identity": lambda n: n.x[0],
    "Gather": lambda n: np.take(n.x[0], n.x[1].astype(int), n.a("axis", 0)), "Pad": pad, "Reshape": reshape,
    "Shape": lambda n: np.array(n.x[0].shape[n.a("start", 0):n.a("end")]), "Size": lambda n: np.array(n.x[0].size),
    "Slice": sliced, "Split": split, "Squeeze": squeeze, "Unsqueeze": unsqueeze,
    "Tile": lambda n: np.tile(n.x[0], n.integers(1, "")), "Transpose": lambda n: n.x[0].transpose(n.a("perm")),
    "Range": lambda n: np.arange(*(x.item() for x in n.x)),
    "Where": lambda n: np.where(n.x[0].astype(bool), n.x[1], n.x[2]),
    "Gemm": gemm, "MatMul": lambda n: n.x[0] @ n.x[1],
}
