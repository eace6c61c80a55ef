"""Operators on elements, their reductions and normalisations."""

import math

import numpy as np

erf = np.vectorize(math.erf, otypes=[np.float64])


def each(function):
    return lambda n: function(n.x[0])


def with_attributes(function, **absent):
    return lambda n: function(n.x[0], *(n.a(name, value) for name, value in absent.items()))


def second(n):
    """The second operand; before opset 7 an attribute named the axis where it begins."""
    a, b = n.x
    if n.opset < 7 and n.a("broadcast", 0) and n.a("axis") is not None:
        b = b.reshape(b.shape + (1,) * (a.ndim - n.a("axis") % a.ndim - b.ndim))
    return b


def pairs(function):
    return lambda n: function(n.x[0], second(n))


def many(function):
    def run(n):
        result = n.x[0]
        for x in n.x[1:]:
            result = function(result, x)
        return result
    return run


def clip(n):
    low, high = n.input_or(1, n.a("min", -np.inf)), n.input_or(2, n.a("max", np.inf))
    return np.minimum(np.maximum(n.x[0], low), high)


def remainder(n):
    return (np.fmod if n.a("fmod", 0) else np.mod)(n.x[0], n.x[1])


def prelu(n):
    x, slope = n.x
    if n.opset < 7 and slope.ndim == 1 and x.ndim > 1:
        slope = slope.reshape((-1,) + (1,) * (x.ndim - 2))
    return np.where(x < 0, slope * x, x)


def shrink(x, bias, bound):
    return np.where(x < -bound, x + bias, np.where(x > bound, x - bias, 0.0))


def along(function):
    """The softmax family: one axis, before opset 13 all from one on."""
    def run(n):
        x = n.x[0]
        if n.opset >= 13:
            return function(x, n.a("axis", -1))
        axis = n.a("axis", 1) % x.ndim
        return function(x.reshape(math.prod(x.shape[:axis]), -1), 1).reshape(x.shape)
    return run


def softmax(x, axis):
    e = np.exp(x - x.max(axis, keepdims=True))
    return e / e.sum(axis, keepdims=True)


def log_softmax(x, axis):
    d = x - x.max(axis, keepdims=True)
    return d - np.log(np.exp(d).sum(axis, keepdims=True))


def hardmax(x, axis):
    result = np.zeros_like(x)
    np.put_along_axis(result, np.expand_dims(x.argmax(axis), axis), 1.0, axis)
    return result


def reduced(function):
    def run(n):
        axes = n.integers(1, "axes")
        if not axes and n.a("noop_with_empty_axes", 0):
            return n.x[0]
        return function(n.x[0], axis=tuple(axes) if axes else None, keepdims=bool(n.a("keepdims", 1)))
    return run


def log_sum_exp(x, axis, keepdims):
    largest = x.max(axis, keepdims=True)
    sums = largest + np.log(np.exp(x - largest).sum(axis, keepdims=True))
    return sums if keepdims else sums.reshape(x.sum(axis).shape)


def per_channel(values, x):
    return values.reshape((-1,) + (1,) * (x.ndim - 2))


def batch_norm(n):
    x = n.x[0]
    scale, shift, mean, variance = (per_channel(v, x) for v in n.x[1:5])
    return (x - mean) / np.sqrt(variance + n.a("epsilon", 1e-5)) * scale + shift


def standardised(x, axes, epsilon):
    mean = x.mean(axes, keepdims=True)
    variance = ((x - mean) ** 2).mean(axes, keepdims=True)
    return (x - mean) / np.sqrt(variance + epsilon), mean, 1 / np.sqrt(variance + epsilon)


def instance_norm(n):
    x = n.x[0]
    made = standardised(x, tuple(range(2, x.ndim)), n.a("epsilon", 1e-5))[0]
    return made * per_channel(n.x[1], x) + per_channel(n.x[2], x)


def layer_norm(n):
    x = n.x[0]
    axes = tuple(range(n.a("axis", -1) % x.ndim, x.ndim))
    made, mean, inverse = standardised(x, axes, n.a("epsilon", 1e-5))
    return made * n.x[1] + n.input_or(2, 0.0), mean, inverse


def mean_variance_norm(n):
    x = n.x[0]
    axes = tuple(n.a("axes", [0, 2, 3]))
    centred = x - x.mean(axes, keepdims=True)
    return centred / (np.sqrt((centred ** 2).mean(axes, keepdims=True)) + 1e-9)


def lp_norm(x, axis, p):
    size = np.abs(x).sum(axis, keepdims=True) if p == 1 else np.sqrt((x * x).sum(axis, keepdims=True))
    return x / size


def local_response(n):
    x, size = n.x[0], n.a("size")
    sums = np.zeros_like(x)
    for c in range(x.shape[1]):
        sums[:, c] = (x[:, max(0, c - (size - 1) // 2):c + size // 2 + 1] ** 2).sum(1)
    return x / (n.a("bias", 1.0) + n.a("alpha", 1e-4) / size * sums) ** n.a("beta", 0.75)


def selu(n):
    old = n.opset < 6
    alpha = n.a("alpha", 1.6732 if old else 1.67326319217681884765625)
    gamma = n.a("gamma", 1.0507 if old else 1.05070102214813232421875)
    return gamma * np.where(n.x[0] > 0, n.x[0], alpha * np.expm1(n.x[0]))


OPERATORS = {
    "Abs": each(np.abs), "Acos": each(np.arccos), "Acosh": each(np.arccosh), "Asin": each(np.arcsin),
    "Asinh": each(np.arcsinh), "Atan": each(np.arctan), "Atanh": each(np.arctanh), "Ceil": each(np.ceil),
    "Cos": each(np.cos), "Cosh": each(np.cosh), "Erf": each(erf), "Exp": each(np.exp), "Floor": each(np.floor),
    "HardSwish": each(lambda x: x * np.clip(x / 6 + 0.5, 0, 1)), "Log": each(np.log), "Neg": each(np.negative),
    "Reciprocal": each(lambda x: 1 / x), "Relu": each(lambda x: np.maximum(x, 0)), "Round": each(np.rint),
    "Sigmoid": each(lambda x: 1 / (1 + np.exp(-x))), "Sign": each(np.sign), "Sin": each(np.sin), "Sinh": each(np.sinh),
    "Softplus": each(lambda x: np.logaddexp(x, 0)), "Softsign": each(lambda x: x / (1 + np.abs(x))),
    "Sqrt": each(np.sqrt), "Tan": each(np.tan), "Tanh": each(np.tanh),
    "Celu": with_attributes(lambda x, a: np.maximum(x, 0) + np.minimum(0, a * np.expm1(x / a)), alpha=1.0),
    "Elu": with_attributes(lambda x, a: np.where(x > 0, x, a * np.expm1(x)), alpha=1.0),
    "HardSigmoid": with_attributes(lambda x, a, b: np.clip(a * x + b, 0, 1), alpha=0.2, beta=0.5),
    "LeakyRelu": with_attributes(lambda x, a: np.where(x < 0, a * x, x), alpha=0.01),
    "LpNormalization": with_attributes(lp_norm, axis=-1, p=2),
    "Shrink": with_attributes(shrink, bias=0.0, lambd=0.5),
    "ThresholdedRelu": with_attributes(lambda x, a: np.where(x > a, x, 0.0), alpha=1.0),
    "Selu": selu, "Clip": clip, "PRelu": prelu, "Mod": remainder,
    "Equal": pairs(np.equal), "Greater": pairs(np.greater), "GreaterOrEqual": pairs(np.greater_equal),
    "Less": pairs(np.less), "LessOrEqual": pairs(np.less_equal), "And": pairs(np.logical_and),
    "Or": pairs(np.logical_or), "Xor": pairs(np.logical_xor), "Not": each(np.logical_not),
    "Add": pairs(np.add), "Sub": pairs(np.subtract), "Mul": pairs(np.multiply), "Div": pairs(np.divide),
    "Pow": pairs(np.power), "Max": many(np.maximum), "Min": many(np.minimum), "Sum": many(np.add),
    "Mean": lambda n: many(np.add)(n) / len(n.x),
    "Softmax": along(softmax), "LogSoftmax": along(log_softmax), "Hardmax": along(hardmax),
    "ReduceL1": reduced(lambda x, **k: np.abs(x).sum(**k)),
    "ReduceL2": reduced(lambda x, **k: np.sqrt((x * x).sum(**k))),
    "ReduceLogSum": reduced(lambda x, **k: np.log(x.sum(**k))), "ReduceLogSumExp": reduced(log_sum_exp),
    "ReduceMax": reduced(np.max), "ReduceMean": reduced(np.mean), "ReduceMin": reduced(np.min),
    "ReduceProd": reduced(np.prod), "ReduceSum": reduced(np.sum),
    "ReduceSumSquare": reduced(lambda x, **k: (x * x).sum(**k)),
    "BatchNormalization": batch_norm, "InstanceNormalization": instance_norm, "LayerNormalization": layer_norm,
    "MeanVarianceNormalization": mean_variance_norm, "LRN": local_response,
}
