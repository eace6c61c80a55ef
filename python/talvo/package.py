"""Writes model packages: layers with weights from numpy arrays, in JSON or in the binary form.

>>> import talvo
>>> net = Net("line")
>>> x = net.input("x")
>>> y = net.full_connection("y", x, np.array([[2.0, 0.5]]), np.array([1.0]))
>>> talvo.Model(net.to_bytes()).run({"x": np.array([3.0, 4.0])})
{'y': array([9.], dtype=float32)}

Tensors have no batch. Shapes below are those of the tensors: C is [channels], SC [steps, channels], CHW [channels,
height, width]. A layer is known by its id, which each method returns, so that a graph is written by passing ids on.
Kernels are the portable ones unless `kernel` names another. What cannot be written raises ValueError.
"""

from __future__ import annotations

import base64
import datetime
import os
from typing import Any, NamedTuple, Sequence, Union

import numpy as np

from talvo.records import Field, stream, write

BACKENDS = ("cpu_sse", "cpu_avx", "cpu_armv7", "cpu_armv8", "gpu_opengl", "gpu_metal", "gpu_cuda", "cpu_armv82")

Size = Union[int, Sequence[int]]


class Record(NamedTuple):
    """A class of layers: its number, and its fields in their order with kind and default."""

    number: int
    fields: dict[str, tuple[str, Any]]


def _record(number: int, text: str) -> Record:
    """Fields as "kind key key=default ...; kind ...". A field without a default has 0, false or nothing."""
    nothing = {"string": "", "blob": (), "bool": False}
    fields = {}
    for part in filter(None, text.split("; ")):
        kind, *keys = part.split(" ")
        for key in keys:
            name, _, default = key.partition("=")
            fields[name] = (kind, float(default) if default else nothing.get(kind, () if "vector" in kind else 0))
            if kind[0] in "ui" and default:
                fields[name] = (kind, int(default))
    return Record(number, fields)


_CONV = "in_channels out_channels kernel_x kernel_y"
_SIDES = "padding_l padding_t padding_r padding_b"
_STEPS = "stride_x=1 stride_y=1 dilation_x=1 dilation_y=1 groups=1; bool if_bias; blob weight bias"
_STACK = ("bool bidirectional; u16 complex_rnn_type; vector<blob> weight_ih_forward weight_hh_forward bias_ih_forward "
          "bias_hh_forward weight_ih_reverse weight_hh_reverse bias_ih_reverse bias_hh_reverse")

RECORDS = {
    "InputInfo": _record(0, "u16 location"),
    "ActivationInfo": _record(1, "u16 activation_type; half activation_alpha=1 activation_beta=0; "
                                 "i16 num_parameters=1; string weight"),
    "Conv2dInfo": _record(2, f"u16 {_CONV} {_SIDES} {_STEPS}"),
    "ConvTranspose2dInfo": _record(3, f"u16 {_CONV}; i16 {_SIDES}; u16 {_STEPS}"),
    "AvgPool2dInfo": _record(6, f"u16 kernel_x kernel_y; i16 {_SIDES}; u16 stride_x stride_y; "
                                "bool ceil_mode count_include_pad"),
    "MaxPool2dInfo": _record(7, f"u16 kernel_x kernel_y; i16 {_SIDES}; u16 stride_x stride_y dilation_x dilation_y; "
                                "bool ceil_mode"),
    "Upsample2dInfo": _record(10, "float scale_factor_y scale_factor_x; bool align_corner; u16 unsample_type"),
    "ElementWiseOperatorInfo": _record(11, "u16 op_type"),
    "ConcatenateInfo": _record(12, "u16 dim"),
    "TensorReshapeInfo": _record(13, "vector<i16> new_shape"),
    "TensorTransposeInfo": _record(14, "vector<u16> axes"),
    "FullConnectionInfo": _record(17, "u16 in_features out_features; bool if_bias; blob weight bias"),
    "PixelShuffleInfo": _record(21, "float upscale_factor"),
    "AdaptiveAvgPool2dInfo": _record(26, "vector<u16> output_size"),
    "BroadcastOperatorInfo": _record(29, "u16 op_type"),
    "ClipInfo": _record(31, "half minimum_value=-65504 maximum_value=65504"),
    "SoftmaxInfo": _record(32, "u16 dim"),
    "RNNInfo": _record(34, "u16 in_size hidden_size; bool if_bias; u16 activation_type=5; "
                           f"half activation_alpha=0 activation_beta=0; u16 num_layers; {_STACK}"),
    "LSTMInfo": _record(36, f"u16 in_size hidden_size; bool if_bias; u16 num_layers; {_STACK}"),
    "GRUInfo": _record(38, f"u16 in_size hidden_size; bool if_bias; u16 num_layers; {_STACK}"),
    "TensorArithmeticInfo": _record(45, "vector<i16> dim; u16 arith_type"),
    "TensorSliceInfo": _record(46, "vector<i16> slice_dims"),
}

# Name: activation_type, kernel.
_ACTIVATIONS = {"relu": (2, "ReLU"), "relu6": (0, "ReLU6"), "sigmoid": (0, "Sigmoid"), "tanh": (5, "TanH"),
                "hard_sigmoid": (0, "HSigmoid"), "hard_swish": (0, "HSwish"), "sqrt": (0, "Sqrt"), "log": (0, "Log"),
                "erf": (0, "Erf")}
_OPERATORS = ("add", "sub", "mul", "div", "max", "min")


class _Layer(NamedTuple):
    record: str
    kernel: str
    inputs: list[str]
    fields: dict[str, Any]


def fold_norm(weight: np.ndarray, bias: np.ndarray | None, mean: np.ndarray, variance: np.ndarray,
              scale: np.ndarray | None = None, shift: np.ndarray | None = None,
              eps: float = 1e-5) -> tuple[np.ndarray, np.ndarray]:
    """Weight [out, ...] and bias [out] of a layer with the normalisation behind it folded in; the rest is [out].

    >>> weight, bias = fold_norm(np.ones((1, 1)), None, np.array([3.0]), np.array([4.0]), eps=0)
    >>> float(weight), float(bias)
    (0.5, -1.5)
    """
    factor = (1.0 if scale is None else np.asarray(scale, np.float64)) / np.sqrt(np.asarray(variance, np.float64) + eps)
    folded = np.asarray(weight, np.float64) * factor.reshape(-1, *(1,) * (np.ndim(weight) - 1))
    offset = ((0.0 if bias is None else np.asarray(bias, np.float64)) - mean) * factor
    return folded.astype(np.float32), (offset + (0.0 if shift is None else shift)).astype(np.float32)


class Net:
    """The layers of one model, in the order of their running; what nobody reads is an output."""

    def __init__(self, model: str):
        self.model = model
        self._layers: dict[str, _Layer] = {}

    def add(self, id: str, record: str, kernel: str, inputs: Sequence[str], **fields: Any) -> str:
        """Any layer: the class of its record, the kernel's name, the ids of its inputs, fields unlike the defaults.

        >>> net = Net("m")
        >>> net.add("y", "SoftmaxInfo", "Softmax_Fallback_Float_M1", ["x"], dim=1)
        Traceback (most recent call last):
        ...
        ValueError: layer y: reads x, which is not there
        """
        known = RECORDS.get(record)
        if known is None:
            raise ValueError(f"layer {id}: there is no record {record}; known are {', '.join(RECORDS)}")
        if not id or id in self._layers or id in ("extra_info", "squential_ids", "squential_types", "serializable_type",
                                                  "squential_output_ids"):
            raise ValueError(f'layer "{id}": the id is empty, taken or a key of the format')
        for name in inputs:
            if name not in self._layers:
                raise ValueError(f"layer {id}: reads {name}, which is not there")
        for key in fields:
            if key not in known.fields:
                raise ValueError(f"layer {id}: {record} has no field {key}; it has {', '.join(known.fields)}")
        self._layers[id] = _Layer(record, kernel, list(inputs), fields)
        return id

    def has(self, id: str) -> bool:
        """Whether a layer has this id."""
        return id in self._layers

    def input(self, id: str) -> str:
        """Where the application's tensor enters."""
        return self.add(id, "InputInfo", "Input_Fallback_M1", [])

    def conv2d(self, id: str, source: str, weight: np.ndarray, bias: np.ndarray | None = None, *, stride: Size = 1,
               padding: Size = 0, dilation: Size = 1, groups: int = 1,
               kernel: str = "Conv2D_Knxm_Snxm_Dnxm_Gn_Fallback_CHW_Float_M1") -> str:
        """CHW to CHW; weight [out, in / groups, y, x], bias [out].

        `stride` and `dilation` are (y, x) or one number, `padding` one number, (y, x) or (left, top, right, bottom).
        """
        weight = _weight(id, weight, 4)
        return self.add(id, "Conv2dInfo", kernel, [source], **_plane(id, weight, weight.shape[1] * groups,
                        weight.shape[0], groups, bias), **_sides(padding), **_pair("stride", stride), **_pair("dilation", dilation))

    def conv_transpose2d(self, id: str, source: str, weight: np.ndarray, bias: np.ndarray | None = None, *,
                         stride: Size = 1, padding: Size = 0, output_padding: Size = 0, dilation: Size = 1,
                         groups: int = 1,
                         kernel: str = "ConvTranspose2D_Knxm_Snxm_Dnxm_Gn_Fallback_CHW_Float_M1") -> str:
        """CHW to CHW, (extent - 1) * stride - 2 * padding + dilation * (kernel - 1) + output_padding + 1 for each axis.

        weight [in, out / groups, y, x], bias [out]; sizes as (y, x) or one number.
        """
        weight = _weight(id, weight, 4)
        sides = {}
        for step, cut, more, apart, extent, names in zip(
                _two(stride), _two(padding), _two(output_padding), _two(dilation), weight.shape[2:],
                (("padding_t", "padding_b"), ("padding_l", "padding_r"))):
            reach = apart * (extent - 1)
            sides |= {names[0]: reach - cut, names[1]: reach - cut + more + 1 - step}
        return self.add(id, "ConvTranspose2dInfo", kernel, [source], **_plane(id, weight, weight.shape[0],
                        weight.shape[1] * groups, groups, bias), **sides, **_pair("stride", stride), **_pair("dilation", dilation))

    def full_connection(self, id: str, source: str, weight: np.ndarray, bias: np.ndarray | None = None, *,
                        kernel: str = "FullConnection_Fallback_C_Float_M1") -> str:
        """C [in] to C [out]; weight [out, in], bias [out]. FullConnection_Fallback_SC_Float_M1 takes each row of SC.

        >>> net = Net("model")
        >>> net.full_connection("dense", net.input("x"), np.ones((3, 2)), np.ones(4))
        Traceback (most recent call last):
        ...
        ValueError: layer dense: bias [4], needs [3]
        """
        weight = _weight(id, weight, 2)
        return self.add(id, "FullConnectionInfo", kernel, [source], in_features=weight.shape[1],
                        out_features=weight.shape[0], **_weights(id, weight, bias, weight.shape[0]))

    def activation(self, id: str, source: str, name: str) -> str:
        """Any shape: relu, relu6, sigmoid, tanh, hard_sigmoid, hard_swish, sqrt, log, erf."""
        if name not in _ACTIVATIONS:
            raise ValueError(f"layer {id}: there is no activation {name}; known are {', '.join(_ACTIVATIONS)}")
        number, stem = _ACTIVATIONS[name]
        return self.add(id, "ActivationInfo", f"{stem}_Fallback_Float_M1", [source], activation_type=number)

    def linear(self, id: str, source: str, scale: float = 1.0, shift: float = 0.0) -> str:
        """scale * x + shift, both held as halves."""
        return self.add(id, "ActivationInfo", "Linear_Fallback_Float_M1", [source], activation_type=3,
                        activation_alpha=scale, activation_beta=shift)

    def leaky(self, id: str, source: str, slope: float) -> str:
        """x < 0 ? slope * x : x; the slope is held as a half."""
        return self.add(id, "ActivationInfo", "Leaky_Fallback_Float_M1", [source], activation_type=4,
                        activation_alpha=slope)

    def prelu(self, id: str, source: str, slopes: np.ndarray) -> str:
        """CHW: x < 0 ? slope * x : x with a slope for each channel, [C]."""
        slopes = np.asarray(slopes, "<f4").ravel()
        return self.add(id, "ActivationInfo", "PReLUChannel_Fallback_CHW_Float_M1", [source], activation_type=4,
                        num_parameters=slopes.size, weight=base64.b64encode(slopes.tobytes()).decode("ascii"))

    def clip(self, id: str, source: str, low: float, high: float) -> str:
        """min(max(x, low), high), the bounds held as halves."""
        return self.add(id, "ClipInfo", "Clip_Fallback_Float_M1", [source], minimum_value=low, maximum_value=high)

    def max_pool2d(self, id: str, source: str, size: Size, *, stride: Size | None = None, padding: Size = 0,
                   dilation: Size = 1, ceil_mode: bool = False) -> str:
        """CHW to CHW; sizes as of conv2d, the stride that of the window unless told otherwise."""
        stride = size if stride is None else stride
        return self.add(id, "MaxPool2dInfo", "Pooling2D_Max_Fallback_Float_M1", [source], ceil_mode=ceil_mode,
                        **_pair("kernel", size), **_sides(padding), **_pair("stride", stride),
                        **_pair("dilation", dilation))

    def avg_pool2d(self, id: str, source: str, size: Size, *, stride: Size | None = None, padding: Size = 0,
                   count_include_pad: bool = True) -> str:
        """CHW to CHW; extents are cut to whole windows."""
        return self.add(id, "AvgPool2dInfo", "Pooling2D_Avg_Fallback_Float_M1", [source], **_pair("kernel", size),
                        **_sides(padding), **_pair("stride", size if stride is None else stride),
                        count_include_pad=count_include_pad)

    def adaptive_avg_pool2d(self, id: str, source: str, size: Size) -> str:
        """CHW to [C, y, x] of `size`."""
        return self.add(id, "AdaptiveAvgPool2dInfo", "AdaptivePooling2D_Avg_Fallback_CHW_Float_M1", [source],
                        output_size=_two(size))

    def mean(self, id: str, source: str, axes: Sequence[int]) -> str:
        """The mean over axes counted from 0, which go: [C, H, W] over (1, 2) gives [C]."""
        return self._reduce(id, source, axes, 1)

    def sum(self, id: str, source: str, axes: Sequence[int]) -> str:
        """The sum over axes counted from 0, which go."""
        return self._reduce(id, source, axes, 0)

    def softmax(self, id: str, source: str, axis: int = 0) -> str:
        """Along an axis counted from 0; no maximum is subtracted."""
        return self.add(id, "SoftmaxInfo", "Softmax_Fallback_Float_M1", [source], dim=axis + 1)

    def elementwise(self, id: str, operator: str, a: str, b: str) -> str:
        """add, sub, mul or div of two tensors of one shape."""
        return self.add(id, "ElementWiseOperatorInfo", "Elementwise_Fallback_Float_M1", [a, b],
                        op_type=_operator(id, operator, _OPERATORS[:4]))

    def broadcast(self, id: str, operator: str, a: str, b: str) -> str:
        """add, sub, mul, div, max or min; shapes are aligned at their last axes, and extents of 1 repeated."""
        return self.add(id, "BroadcastOperatorInfo", "BroadcastOperator_Fallback_Float_M1", [a, b],
                        op_type=_operator(id, operator, _OPERATORS))

    def concat(self, id: str, sources: Sequence[str], axis: int = 0) -> str:
        """Along an axis counted from 0. Axis 0 wants CHW and gives it; any other gives a tensor for any layout."""
        if axis == 0:
            return self.add(id, "ConcatenateInfo", "Concatenate_C_Fallback_CnHWn_M1", sources, dim=1)
        return self.add(id, "ConcatenateInfo", "Concatenate_MainMemory_Fallback", sources, dim=axis)

    def reshape(self, id: str, source: str, shape: Sequence[int]) -> str:
        """The same elements as C, SC, CHW or, with more extents, a tensor without layout; one extent may be -1."""
        kernels = {1: "Reshape_Fallback_To_C_M1", 2: "Reshape_Fallback_To_SC_M1", 3: "Reshape_Fallback_To_CHW_M1"}
        return self.add(id, "TensorReshapeInfo", kernels.get(len(shape), "Transform_MainMemory_Reshape_Fallback"),
                        [source], new_shape=[1, *shape])

    def permute(self, id: str, source: str, axes: Sequence[int]) -> str:
        """Axis i of the result, which has no layout, is axis axes[i] of the source."""
        return self.add(id, "TensorTransposeInfo", "Transform_MainMemory_Permute_Fallback", [source],
                        axes=[0, *(axis + 1 for axis in axes)])

    def slice(self, id: str, source: str, *ranges: tuple[int, int, int]) -> str:
        """CHW: (begin, end, step) for each of the three axes; the step divides end - begin."""
        return self.add(id, "TensorSliceInfo", "Slice_Fallback_CHW_Float_M1", [source],
                        slice_dims=[number for each in ranges for number in each])

    def upsample(self, id: str, source: str, scale: Size | float, *, bilinear: bool = False,
                 align_corners: bool = False) -> str:
        """CHW to CHW, extents by `scale`, (y, x) or one number; nearest or bilinear."""
        y, x = scale if isinstance(scale, Sequence) else (scale, scale)
        return self.add(id, "Upsample2dInfo", "Upsampling2D_Fallback_CHW_Float_M1", [source], scale_factor_y=float(y),
                        scale_factor_x=float(x), align_corner=align_corners, unsample_type=int(bilinear))

    def pixel_shuffle(self, id: str, source: str, factor: int) -> str:
        """[C * factor^2, H, W] to [C, H * factor, W * factor]."""
        return self.add(id, "PixelShuffleInfo", "Pixelshuffle_Fallback_CHW_Float_M1", [source],
                        upscale_factor=float(factor))

    def recurrent(self, id: str, source: str, kind: str, forward: Sequence[Sequence[np.ndarray]],
                  reverse: Sequence[Sequence[np.ndarray]] = (), *, kernel: str | None = None) -> str:
        """SC [steps, in] to SC [steps, directions * hidden]; `kind` is rnn (tanh), lstm or gru.

        `forward` and `reverse` hold for each stacked layer weight_ih [gates * hidden, in], weight_hh [gates * hidden,
        hidden] and, with biases, bias_ih and bias_hh [gates * hidden]; gates in the order of torch: i, f, g, o and
        r, z, n. The state stays from run to run until it is reset.
        """
        stem = {"rnn": "RNN", "lstm": "LSTM", "gru": "GRU"}.get(kind)
        if stem is None or not forward or (reverse and len(reverse) != len(forward)):
            raise ValueError(f"layer {id}: {kind} of {len(forward)} layers and {len(reverse)} in reverse")
        first = _weight(id, forward[0][0], 2)
        names = ("weight_ih", "weight_hh", "bias_ih", "bias_hh")
        weights = {f"{name}_{way}": [np.asarray(layer[i], np.float32) for layer in layers if i < len(layer)]
                   for way, layers in (("forward", forward), ("reverse", reverse)) for i, name in enumerate(names)}
        return self.add(id, f"{stem}Info", kernel or f"{stem}_Fallback_SC_F32_M1", [source], in_size=first.shape[1],
                        hidden_size=np.shape(forward[0][1])[1], if_bias=len(forward[0]) == 4, num_layers=len(forward),
                        bidirectional=bool(reverse), **weights)

    def save(self, path: str | os.PathLike, **facts: Any) -> None:
        """Writes the package; the ending of `path` picks the form, ".tlnmodel" or ".json". `facts` as of root()."""
        write(path, self.root(**facts))

    def to_bytes(self, **facts: Any) -> bytes:
        """The package in the binary form, as talvo.Model takes it. `facts` as of root()."""
        return stream(self.root(**facts))

    def root(self, *, backends: Sequence[str] = ("cpu_sse", "cpu_armv8"), sdk_type: str = "x86",
             base_size: tuple[int, int] = (0, 0), multiplications: int = 0, summary: str = "",
             date: datetime.date | None = None) -> list[Field]:
        """The record of a package with this one model.

        `backends`: those whose configurations name the kernels. `base_size` (height, width) is what readers of the
        package take for planes whose extents it does not tell.
        """
        extra = _extra_info(base_size, multiplications, summary, date)
        empty = [Field("summary", "string", ""), Field("squential_ids", "vector<string>", [])]
        configs = [Field(name, "record", self._config() if name in backends else empty) for name in BACKENDS]
        models = [Field("serializable_type", "string", "TLModelInfoArr"),
                  Field("squential_ids", "vector<string>", [self.model]),
                  Field(self.model, "record", self._info(extra))]
        versions = (("core_major_ver", 1), ("core_minor_ver", 0), ("sdk_major_ver", 1), ("sdk_minor_ver", 0))
        return [Field("sdk_type", "string", sdk_type), *(Field(key, "u16", number) for key, number in versions),
                Field("model_arr", "record", models),
                Field("config_arr", "record", [Field("squential_ids", "vector<string>", [self.model]),
                                               Field(self.model, "record", configs)])]

    def _reduce(self, id: str, source: str, axes: Sequence[int], mean: int) -> str:
        return self.add(id, "TensorArithmeticInfo", "TensorArithmetic_Fallback_M1", [source],
                        dim=[axis + 1 for axis in axes], arith_type=mean)

    def _info(self, extra: list[Field]) -> list[Field]:
        readers = [name for layer in self._layers.values() for name in layer.inputs]
        numbers = [RECORDS[layer.record].number for layer in self._layers.values()]
        records = []
        for id, layer in self._layers.items():
            number, fields = RECORDS[layer.record]
            records.append(Field(id, "record", [
                Field("serializable_type", "string", layer.record), Field("type", "u16", number),
                Field("id", "string", id), Field("input_ids", "vector<string>", layer.inputs),
                Field("read_count", "u16", readers.count(id)),
                *(Field(key, kind, layer.fields.get(key, default)) for key, (kind, default) in fields.items())]))
        return [Field("serializable_type", "string", "TLModelInfo"),
                Field("squential_output_ids", "vector<string>", [id for id in self._layers if id not in readers]),
                Field("extra_info", "record", extra), Field("squential_ids", "vector<string>", list(self._layers)),
                Field("squential_types", "vector<u16>", numbers), *records]

    def _config(self) -> list[Field]:
        none = [Field("kernel_ids", "vector<string>", [])]
        return [Field("summary", "string", self.model), Field("squential_ids", "vector<string>", list(self._layers)),
                *(Field(id, "record", [
                    Field("summary", "string", ""), Field("input_converters", "record", none),
                    Field("kernel", "record", [Field("kernel_type", "string", layer.kernel),
                                               Field("infer_param_type", "string", "")]),
                    Field("output_converters", "record", none)]) for id, layer in self._layers.items())]


def _extra_info(base_size: tuple[int, int], multiplications: int, summary: str,
                date: datetime.date | None) -> list[Field]:
    numbers = {"version": 1, "app_type": 0, "model_id": 0, "model_base_h": base_size[0], "model_base_w": base_size[1]}
    moment = (0, 0, 0) if date is None else (date.year, date.month, date.day)
    time = [Field("serializable_type", "string", "TimeInfo"),
            *(Field(key, "u32", number)
              for key, number in zip(("year", "moon", "day", "hour", "min", "sec"), (*moment, 0, 0, 0)))]
    return [Field("serializable_type", "string", "NetExtraInfo"),
            *(Field(key, "u32", number) for key, number in numbers.items()), Field("fmlas", "u64", multiplications),
            Field("time", "record", time), Field("device", "string", "cpu"), Field("summary", "string", summary)]


def _operator(id: str, name: str, known: Sequence[str]) -> int:
    if name not in known:
        raise ValueError(f"layer {id}: there is no operator {name}; known are {', '.join(known)}")
    return _OPERATORS.index(name)


def _weight(id: str, weight: np.ndarray, rank: int) -> np.ndarray:
    weight = np.asarray(weight, np.float32)
    if weight.ndim != rank:
        raise ValueError(f"layer {id}: weight {list(weight.shape)} has {weight.ndim} axes, needs {rank}")
    return weight


def _weights(id: str, weight: np.ndarray, bias: np.ndarray | None, outputs: int) -> dict[str, Any]:
    if bias is not None and np.shape(bias) != (outputs,):
        raise ValueError(f"layer {id}: bias {list(np.shape(bias))}, needs [{outputs}]")
    return {"weight": weight, "if_bias": bias is not None, "bias": () if bias is None else np.asarray(bias, np.float32)}


def _plane(id: str, weight: np.ndarray, inputs: int, outputs: int, groups: int,
           bias: np.ndarray | None) -> dict[str, Any]:
    if inputs % groups or outputs % groups:
        raise ValueError(f"layer {id}: {inputs} inputs and {outputs} outputs in {groups} groups")
    return {"in_channels": inputs, "out_channels": outputs, "kernel_y": weight.shape[2], "kernel_x": weight.shape[3],
            "groups": groups, **_weights(id, weight, bias, outputs)}


def _two(size: Size) -> tuple[int, int]:
    return (size, size) if isinstance(size, int) else (size[0], size[1])


def _pair(stem: str, size: Size) -> dict[str, int]:
    y, x = _two(size)
    return {f"{stem}_x": x, f"{stem}_y": y}


def _sides(padding: Size) -> dict[str, int]:
    if isinstance(padding, int) or len(padding) == 2:
        y, x = _two(padding)
        padding = (x, y, x, y)
    return dict(zip(("padding_l", "padding_t", "padding_r", "padding_b"), padding))
