"""Turns a torch module into a package, layer by layer: sequential and residual nets of the layers below.

The module is traced by torch.fx in evaluation mode, so that branches, sums and concatenations are followed; a batch of
one is dropped. What has no layer here is refused with the name of its node; export such a net and take convert_onnx.

    net = convert(module, torch.zeros(1, 3, 224, 224))
    net.save("module.tlnmodel")
"""

from __future__ import annotations

from typing import TYPE_CHECKING, Any, Callable

import numpy as np

from talvo.package import Net, fold_norm

if TYPE_CHECKING:
    import torch

DENSE_ROWS = "FullConnection_Fallback_SC_Float_M1"


def convert(module: torch.nn.Module, example: torch.Tensor, name: str = "model") -> Net:
    """The layers of `module`, whose only input is "input" and has the shape of `example` without its batch of one.

    ValueError names the node that has no layer here.
    """
    import torch
    from torch.fx.passes.shape_prop import ShapeProp

    if not (isinstance(module, torch.nn.Module) and isinstance(example, torch.Tensor)):
        raise ValueError(f"needs a module and a tensor, not {type(module).__name__} and {type(example).__name__}")
    stage = "the module does not take the example"
    try:
        with torch.no_grad():
            module.eval()(example.clone())  # modules may write to it
            stage = "torch.fx cannot trace the module"
            traced = torch.fx.symbolic_trace(module)
            traced.graph.eliminate_dead_code()
            ShapeProp(traced).propagate(example.clone())
    except Exception as error:  # of many kinds, from the module's own code among them
        raise ValueError(f"{stage}: {' '.join(str(error).split())}") from error
    walk = _Walk(traced, name)
    for node in traced.graph.nodes:
        try:
            walk.visit(node)
        except (ValueError, LookupError, TypeError) as error:
            raise ValueError(f"node {node.name} ({_what(traced, node)}): {error}") from error
    return walk.net


class _Walk:
    """Layers so far. Each value of the graph is a layer's id with the dims of its tensor."""

    def __init__(self, traced: torch.fx.GraphModule, name: str):
        self.traced = traced
        self.net = Net(name)
        self.values: dict[Any, tuple[str, tuple[int, ...]]] = {}
        self.folded: dict[Any, Any] = {}  # a node of a normalisation by the node of the convolution that takes it in

    def visit(self, node: torch.fx.Node) -> None:
        if _writes_in_place(self.traced, node) and self.is_read_later(node):
            raise ValueError("in place on a value that is read again")
        if node.op == "placeholder":
            if self.values:
                raise ValueError("a second input")
            self.values[node] = (self.net.input("input"), _shape(node))
        elif node.op == "call_module":
            part = self.traced.get_submodule(node.target)
            _find(_MODULES, type(part).__name__)(self, node, part)
        elif node.op == "call_function":
            _find(_FUNCTIONS, node.target.__name__)(self, node)
        elif node.op == "call_method":
            _find(_FUNCTIONS, node.target)(self, node)
        elif node.op == "output":
            if not hasattr(node.args[0], "op"):
                raise ValueError("more than one output")
        else:
            raise ValueError("a parameter that is no layer's")

    def is_read_later(self, node: torch.fx.Node) -> bool:
        """Whether a node behind this one reads the memory of its operand."""
        value = node.args[0]
        while not any(user is not node and user not in self.values for user in value.users):
            if value.op == "placeholder" or _what(self.traced, value) not in _VIEWS:
                return False
            value = value.args[0]
        return True

    def source(self, node: torch.fx.Node, dims: tuple[int, ...] | None = None) -> str:
        """The first operand of a node, as a tensor of `dims`."""
        return self.shaped(node.args[0], dims)

    def shaped(self, value: Any, dims: tuple[int, ...] | None = None) -> str:
        if value not in self.values:
            raise ValueError("a constant operand")
        id, have = self.values[value]
        if dims is None or have == dims:
            return id
        made = f"{id}/{'x'.join(map(str, dims))}"
        return made if self.net.has(made) else self.net.reshape(made, id, dims)

    def put(self, node: torch.fx.Node, id: str, dims: tuple[int, ...]) -> None:
        self.values[node] = (id, tuple(dims))


def _find(table: dict[str, Callable], name: str) -> Callable:
    if name not in table:
        raise ValueError(f"there is no layer for {name}; known are {', '.join(sorted(table))}")
    return table[name]


def _what(traced: torch.fx.GraphModule, node: torch.fx.Node) -> str:
    if node.op == "call_module":
        return type(traced.get_submodule(node.target)).__name__
    return getattr(node.target, "__name__", str(node.target))


def _writes_in_place(traced: torch.fx.GraphModule, node: torch.fx.Node) -> bool:
    if node.op == "call_module":
        return getattr(traced.get_submodule(node.target), "inplace", False)
    return node.kwargs.get("inplace", _what(traced, node) == "relu" and len(node.args) > 1 and node.args[1])


def _shape(node: torch.fx.Node) -> tuple[int, ...]:
    """Of what a node makes, without the batch of one."""
    meta = node.meta["tensor_meta"]
    shape = tuple((meta if hasattr(meta, "shape") else meta[0]).shape)
    if len(shape) < 2 or shape[0] != 1:
        raise ValueError(f"shape {list(shape)} has no batch of one")
    return shape[1:]


def _plane(shape: tuple[int, ...]) -> tuple[int, ...]:
    """[C, L] as planes of one row."""
    return (shape[0], 1, shape[1]) if len(shape) == 2 else shape


def _array(tensor: Any) -> np.ndarray | None:
    return None if tensor is None else tensor.detach().double().numpy()


def _sizes(value: Any, rank: int, first: int) -> tuple[int, ...]:
    """A size of a one-dimensional layer as (y, x), y being `first`."""
    value = (value,) * rank if isinstance(value, int) else tuple(value)
    return value if rank == 2 else (first, value[0])


def _norm_behind(walk: _Walk, node: Any) -> Any:
    """The normalisation that alone reads a node, if there is one."""
    readers = list(node.users)
    if len(readers) != 1 or readers[0].op != "call_module":
        return None
    return readers[0] if "BatchNorm" in type(walk.traced.get_submodule(readers[0].target)).__name__ else None


def _folded(walk: _Walk, node: Any, weight: np.ndarray, bias: np.ndarray | None) -> tuple[np.ndarray, Any]:
    behind = _norm_behind(walk, node)
    if behind is None:
        return weight, bias
    walk.folded[behind] = node
    return fold_norm(weight, bias, *_statistics(walk.traced.get_submodule(behind.target)))


def _statistics(norm: Any) -> tuple[Any, ...]:
    if norm.running_mean is None:
        raise ValueError("it keeps no running statistics")
    return (_array(norm.running_mean), _array(norm.running_var), _array(norm.weight), _array(norm.bias), norm.eps)


def _convolution(walk: _Walk, node: Any, part: Any) -> None:
    rank = len(part.kernel_size)
    if part.padding_mode != "zeros" or isinstance(part.padding, str):
        raise ValueError(f"padding {part.padding}, {part.padding_mode}")
    weight, bias = _array(part.weight), _array(part.bias)
    shape = _shape(node)
    sizes = {"stride": _sizes(part.stride, rank, 1), "padding": _sizes(part.padding, rank, 0),
             "dilation": _sizes(part.dilation, rank, 1), "groups": part.groups}
    source = walk.source(node, _plane(_shape(node.args[0])))
    if rank == 1:
        weight = weight[:, :, None, :]
    if "Transpose" in type(part).__name__:
        more = _sizes(part.output_padding, rank, 0)
        id = walk.net.conv_transpose2d(node.name, source, weight, bias, output_padding=more, **sizes)
    else:
        weight, bias = _folded(walk, node, weight, bias)
        id = walk.net.conv2d(node.name, source, weight, bias, **sizes)
    walk.put(node, id, _plane(shape))


def _dense(walk: _Walk, node: Any, part: Any) -> None:
    shape = _shape(node)
    if len(shape) > 2:
        raise ValueError(f"a dense layer over {list(shape)}")
    weight, bias = _array(part.weight), _array(part.bias)
    if len(shape) == 1:
        weight, bias = _folded(walk, node, weight, bias)
    kernel = {"kernel": DENSE_ROWS} if len(shape) == 2 else {}
    source = walk.source(node, _shape(node.args[0]))
    walk.put(node, walk.net.full_connection(node.name, source, weight, bias, **kernel), shape)


def _norm(walk: _Walk, node: Any, part: Any) -> None:
    if node in walk.folded:
        walk.values[node] = walk.values[walk.folded[node]]
        return
    shape = _shape(node)
    channels = shape[0]
    weight, bias = fold_norm(np.ones((channels, 1, 1, 1)), None, *_statistics(part))
    dims = _plane(shape) if len(shape) > 1 else (channels, 1, 1)
    walk.put(node, walk.net.conv2d(node.name, walk.source(node, dims), weight, bias, groups=channels), dims)


def _activation(name: str) -> Callable:
    def enter(walk: _Walk, node: Any, part: Any = None) -> None:
        walk.put(node, walk.net.activation(node.name, walk.source(node), name), walk.values[node.args[0]][1])

    return enter


def _silu(walk: _Walk, node: Any, part: Any = None) -> None:
    source, dims = walk.source(node), walk.values[node.args[0]][1]
    gate = walk.net.activation(f"{node.name}/sigmoid", source, "sigmoid")
    walk.put(node, walk.net.elementwise(node.name, "mul", source, gate), dims)


def _leaky(walk: _Walk, node: Any, part: Any) -> None:
    walk.put(node, walk.net.leaky(node.name, walk.source(node), part.negative_slope), walk.values[node.args[0]][1])


def _prelu(walk: _Walk, node: Any, part: Any) -> None:
    shape = _shape(node)
    dims = _plane(shape) if len(shape) > 1 else (shape[0], 1, 1)
    slopes = np.broadcast_to(_array(part.weight), dims[:1])
    walk.put(node, walk.net.prelu(node.name, walk.source(node, dims), slopes), dims)


def _softmax(walk: _Walk, node: Any, part: Any = None) -> None:
    axis = part.dim if part is not None else node.kwargs.get("dim", node.args[1] if len(node.args) > 1 else None)
    if not axis:
        raise ValueError(f"along axis {axis}")
    shape = _shape(node)
    axis = axis + len(shape) if axis < 0 else axis - 1
    walk.put(node, walk.net.softmax(node.name, walk.source(node, shape), axis), shape)


def _pool(walk: _Walk, node: Any, part: Any) -> None:
    name = type(part).__name__
    rank = int(name[-2])
    sizes = {"stride": _sizes(part.stride, rank, 1), "padding": _sizes(part.padding, rank, 0)}
    source = walk.source(node, _plane(_shape(node.args[0])))
    window = _sizes(part.kernel_size, rank, 1)
    if name.startswith("Max"):
        if part.ceil_mode and any(sizes["padding"]):
            raise ValueError("ceil_mode with padding")
        id = walk.net.max_pool2d(node.name, source, window, dilation=_sizes(part.dilation, rank, 1),
                                 ceil_mode=part.ceil_mode, **sizes)
    else:
        if part.ceil_mode or getattr(part, "divisor_override", None):
            raise ValueError("ceil_mode or divisor_override")
        id = walk.net.avg_pool2d(node.name, source, window, count_include_pad=part.count_include_pad, **sizes)
    walk.put(node, id, _plane(_shape(node)))


def _adaptive_pool(walk: _Walk, node: Any, part: Any = None) -> None:
    size = _plane(_shape(node))[1:]
    source = walk.source(node, _plane(_shape(node.args[0])))
    walk.put(node, walk.net.adaptive_avg_pool2d(node.name, source, size), _plane(_shape(node)))


def _upsample(walk: _Walk, node: Any, part: Any) -> None:
    if part.mode not in ("nearest", "bilinear"):
        raise ValueError(f"mode {part.mode}")
    shape, before = _shape(node), _shape(node.args[0])
    id = walk.net.upsample(node.name, walk.source(node, before), [shape[1] / before[1], shape[2] / before[2]],
                           bilinear=part.mode == "bilinear", align_corners=bool(part.align_corners))
    walk.put(node, id, shape)


def _shuffle(walk: _Walk, node: Any, part: Any) -> None:
    source = walk.source(node, _shape(node.args[0]))
    walk.put(node, walk.net.pixel_shuffle(node.name, source, part.upscale_factor), _shape(node))


def _recurrent(walk: _Walk, node: Any, part: Any) -> None:
    if not part.batch_first or part.proj_size or len(node.args) > 1 or getattr(part, "nonlinearity", "tanh") != "tanh":
        raise ValueError("needs batch_first, no projection, no initial state and tanh")
    ways = [[], []]
    names = ("weight_ih", "weight_hh") + (("bias_ih", "bias_hh") if part.bias else ())
    for layer in range(part.num_layers):
        for way, suffix in zip(ways, ("", "_reverse") if part.bidirectional else ("",)):
            way.append([_array(getattr(part, f"{name}_l{layer}{suffix}")) for name in names])
    kind = type(part).__name__.lower()
    before = _shape(node.args[0])
    id = walk.net.recurrent(node.name, walk.source(node, before), kind, *ways)
    walk.put(node, id, (before[0], part.hidden_size * (1 + part.bidirectional)))


def _same(walk: _Walk, node: Any, part: Any = None) -> None:
    walk.values[node] = walk.values[node.args[0]]


def _dropout(position: int) -> Callable:
    """A function whose argument `training` has this position."""

    def enter(walk: _Walk, node: Any) -> None:
        if node.kwargs.get("training", node.args[position] if len(node.args) > position else True):
            raise ValueError("it drops in evaluation too")
        _same(walk, node)

    return enter


def _item(walk: _Walk, node: Any) -> None:
    """The sequence of a recurrent layer, or the last step of one: states[:, -1]."""
    before, index = node.args
    shape = walk.values[before][1]
    if index == 0 and before.op == "call_module" and _what(walk.traced, before) in ("RNN", "LSTM", "GRU"):
        walk.values[node] = walk.values[before]
    elif index == (slice(None), -1) and len(shape) == 2:
        steps, channels = shape
        source = walk.source(node, (steps, channels, 1))
        last = walk.net.slice(node.name, source, (steps - 1, steps, 1), (0, channels, 1), (0, 1, 1))
        walk.put(node, last, (1, channels, 1))
    else:
        raise ValueError(f"index {index}")


def _binary(name: str) -> Callable:
    def enter(walk: _Walk, node: Any) -> None:
        if node.kwargs:
            raise ValueError(f"with {', '.join(node.kwargs)}")
        a, b = node.args
        shape = _shape(node)
        if not (hasattr(a, "op") and hasattr(b, "op")):
            raise ValueError("a constant operand")
        if _shape(a) == _shape(b):
            dims = walk.values[a][1]
            id = walk.net.elementwise(node.name, name, walk.shaped(a, dims), walk.shaped(b, dims))
            walk.put(node, id, dims)
        else:
            if not len(_shape(a)) == len(_shape(b)) == len(shape):
                raise ValueError("operands of different rank")
            walk.put(node, walk.net.broadcast(node.name, name, walk.shaped(a, _shape(a)), walk.shaped(b, _shape(b))),
                     shape)

    return enter


def _concat(walk: _Walk, node: Any) -> None:
    axis = node.kwargs.get("dim", node.args[1] if len(node.args) > 1 else 0)
    if axis != 1:
        raise ValueError(f"a concatenation along axis {axis}, not along the channels")
    parts = [walk.shaped(value, _planes_of(_shape(value))) for value in node.args[0]]
    walk.put(node, walk.net.concat(node.name, parts), _planes_of(_shape(node)))


def _planes_of(shape: tuple[int, ...]) -> tuple[int, ...]:
    return (shape + (1, 1))[:3] if len(shape) < 3 else shape


def _reshape(walk: _Walk, node: Any, part: Any = None) -> None:
    shape = _shape(node)
    walk.put(node, walk.net.reshape(node.name, walk.source(node), shape), shape)


def _transpose(walk: _Walk, node: Any) -> None:
    before = _shape(node.args[0])
    axes = list(range(len(before)))
    first, second = (axis - 1 if axis > 0 else axis + len(before) for axis in node.args[1:3])
    if not (0 <= first < len(before) and 0 <= second < len(before)):
        raise ValueError("a transposition of the batch")
    axes[first], axes[second] = axes[second], axes[first]
    made = walk.net.permute(node.name, walk.source(node, before), axes)
    walk.put(node, walk.net.reshape(f"{node.name}/shape", made, _shape(node)), _shape(node))


def _reduction(name: str) -> Callable:
    def enter(walk: _Walk, node: Any) -> None:
        axes = node.kwargs.get("dim", node.args[1] if len(node.args) > 1 else None)
        before = _shape(node.args[0])
        axes = [axes] if isinstance(axes, int) else list(axes or ())
        axes = [axis - 1 if axis > 0 else axis + len(before) for axis in axes]
        if not 0 < len(axes) < len(before) or min(axes) < 0:
            raise ValueError("over the batch or over everything")
        kept = tuple(extent for axis, extent in enumerate(before) if axis not in axes)
        walk.put(node, getattr(walk.net, name)(node.name, walk.source(node, before), axes), kept)

    return enter


_MODULES: dict[str, Callable] = {
    "AdaptiveAvgPool1d": _adaptive_pool, "AdaptiveAvgPool2d": _adaptive_pool, "AvgPool2d": _pool, "BatchNorm1d": _norm,
    "BatchNorm2d": _norm, "Conv1d": _convolution, "Conv2d": _convolution, "ConvTranspose1d": _convolution,
    "ConvTranspose2d": _convolution, "Dropout": _same, "Dropout2d": _same, "Flatten": _reshape, "GRU": _recurrent,
    "Hardsigmoid": _activation("hard_sigmoid"), "Hardswish": _activation("hard_swish"), "Identity": _same,
    "LSTM": _recurrent, "LeakyReLU": _leaky, "Linear": _dense, "MaxPool1d": _pool, "MaxPool2d": _pool, "PReLU": _prelu,
    "PixelShuffle": _shuffle, "RNN": _recurrent, "ReLU": _activation("relu"), "ReLU6": _activation("relu6"),
    "SiLU": _silu, "Sigmoid": _activation("sigmoid"), "Softmax": _softmax, "Tanh": _activation("tanh"),
    "Upsample": _upsample,
}
_FUNCTIONS: dict[str, Callable] = {
    "adaptive_avg_pool2d": _adaptive_pool, "add": _binary("add"), "cat": _concat, "contiguous": _same,
    "dropout": _dropout(2), "flatten": _reshape, "getitem": _item, "mean": _reduction("mean"), "mul": _binary("mul"),
    "relu": _activation("relu"), "reshape": _reshape, "sigmoid": _activation("sigmoid"), "softmax": _softmax,
    "stochastic_depth": _dropout(3), "sub": _binary("sub"), "sum": _reduction("sum"), "tanh": _activation("tanh"),
    "transpose": _transpose, "truediv": _binary("div"), "view": _reshape,
}
# What may give its operand's memory another name.
_VIEWS = {"Dropout", "Dropout2d", "Flatten", "Identity", "contiguous", "dropout", "flatten", "getitem", "reshape",
          "stochastic_depth", "transpose", "view"}
