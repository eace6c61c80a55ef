"""Writes a model package: one list of records, as a binary stream (.tlnmodel) or as JSON text (.json).

A record is a list of (key, kind, value) in the order of the format; the binary stream drops the keys.
"""

import base64
import json
import struct

import numpy as np

PROTOCOL_VERSION = 20015
BACKENDS = ("cpu_sse", "cpu_avx", "cpu_armv7", "cpu_armv8", "gpu_opengl", "gpu_metal", "gpu_cuda", "cpu_armv82")
SCALARS = {"u16": "<H", "i16": "<h", "u32": "<I", "u64": "<Q", "half": "<e", "f32": "<f", "bool": "<?"}
VECTORS = {"u16s": "<u2", "i16s": "<i2"}


def to_binary(record):
    """The record as a stream without a version word: little-endian, lengths and counts as unsigned 64-bit."""
    return b"".join(_binary_value(kind, value) for _, kind, value in record)


def _binary_value(kind, value):
    if kind == "record":
        return to_binary(value)
    if kind in SCALARS:
        return struct.pack(SCALARS[kind], value)
    if kind in VECTORS:
        return struct.pack("<Q", len(value)) + np.asarray(value, VECTORS[kind]).tobytes()
    if kind == "text":
        return struct.pack("<Q", len(value)) + value.encode("ascii")
    if kind == "texts":
        return struct.pack("<Q", len(value)) + b"".join(_binary_value("text", text) for text in value)
    if kind == "blob":
        return struct.pack("<Q", value.size) + value.astype("<f2").tobytes()
    raise ValueError(f"unknown kind {kind}")


def to_json(record):
    """The record as nested dicts; weights become base64 text of float32."""
    return {key: _json_value(kind, value) for key, kind, value in record}


def _json_value(kind, value):
    if kind == "record":
        return to_json(value)
    if kind == "blob":
        return base64.b64encode(value.astype("<f4").tobytes()).decode("ascii")
    return value


def write_package(path, package):
    """Writes the package; the ending of `path` picks the form, .tlnmodel or .json."""
    if path.suffix == ".json":
        path.write_text(json.dumps({"serialization_protocol_version": PROTOCOL_VERSION, **to_json(package)}, indent=4))
    else:
        path.write_bytes(struct.pack("<I", PROTOCOL_VERSION) + to_binary(package))


class Model:
    """A chain of layers, each reading the one before it."""

    def __init__(self):
        self.layers = []  # (id, type number, fields up to input_ids, fields behind read_count, kernel)

    def add(self, layer_id, type_number, class_name, kernel, fields=()):
        inputs = [self.layers[-1][0]] if self.layers else []
        head = [("serializable_type", "text", class_name), ("type", "u16", type_number), ("id", "text", layer_id),
                ("input_ids", "texts", inputs)]
        self.layers.append((layer_id, type_number, head, list(fields), kernel))

    def input(self, layer_id):
        self.add(layer_id, 0, "InputInfo", "Input_Fallback_M1", [("location", "u16", 0)])

    def conv(self, layer_id, kernel, weight, bias, stride, padding):
        """weight [out, in, y, x], bias [out]; the same stride and padding in both directions."""
        out_channels, in_channels, kernel_y, kernel_x = weight.shape
        numbers = {"in_channels": in_channels, "out_channels": out_channels, "kernel_x": kernel_x,
                   "kernel_y": kernel_y, "padding_l": padding, "padding_t": padding, "padding_r": padding,
                   "padding_b": padding, "stride_x": stride, "stride_y": stride, "dilation_x": 1, "dilation_y": 1,
                   "groups": 1}
        self.add(layer_id, 2, "Conv2dInfo", kernel,
                 [(key, "u16", value) for key, value in numbers.items()]
                 + [("if_bias", "bool", True), ("weight", "blob", weight), ("bias", "blob", bias)])

    def relu(self, layer_id):
        self.add(layer_id, 1, "ActivationInfo", "ReLU_Fallback_Float_M1",
                 [("activation_type", "u16", 2), ("activation_alpha", "half", 1.0), ("activation_beta", "half", 0.0),
                  ("num_parameters", "i16", 1), ("weight", "text", "")])

    def max_pool(self, layer_id, size):
        self.add(layer_id, 7, "MaxPool2dInfo", "Pooling2D_Max_Fallback_Float_M1",
                 [("kernel_x", "u16", size), ("kernel_y", "u16", size)]
                 + [(f"padding_{side}", "i16", 0) for side in "ltrb"]
                 + [("stride_x", "u16", size), ("stride_y", "u16", size), ("dilation_x", "u16", 1),
                    ("dilation_y", "u16", 1), ("ceil_mode", "bool", False)])

    def mean_of_image(self, layer_id):
        """[C, H, W] to [C]. The axes count a batch axis in front, which the tensors do not have."""
        self.add(layer_id, 45, "TensorArithmeticInfo", "TensorArithmetic_Fallback_M1",
                 [("dim", "i16s", [2, 3]), ("arith_type", "u16", 1)])

    def full_connection(self, layer_id, kernel, weight, bias):
        """weight [out, in], bias [out]."""
        self.add(layer_id, 17, "FullConnectionInfo", kernel,
                 [("in_features", "u16", weight.shape[1]), ("out_features", "u16", weight.shape[0]),
                  ("if_bias", "bool", True), ("weight", "blob", weight), ("bias", "blob", bias)])

    def softmax(self, layer_id):
        self.add(layer_id, 32, "SoftmaxInfo", "Softmax_Fallback_Float_M1", [("dim", "u16", 1)])

    def _info(self, extra_info):
        ids = [layer[0] for layer in self.layers]
        records = [(layer_id, "record", head + [("read_count", "u16", int(layer_id != ids[-1]))] + fields)
                   for layer_id, _, head, fields, _ in self.layers]
        return [("serializable_type", "text", "TLModelInfo"), ("squential_output_ids", "texts", ids[-1:]),
                ("extra_info", "record", extra_info), ("squential_ids", "texts", ids),
                ("squential_types", "u16s", [layer[1] for layer in self.layers])] + records

    def _config(self):
        def kernel(name):
            return [("kernel_type", "text", name), ("infer_param_type", "text", "")]

        no_converters = [("kernel_ids", "texts", [])]
        layers = [(layer[0], "record",
                   [("summary", "text", ""), ("input_converters", "record", no_converters),
                    ("kernel", "record", kernel(layer[4])), ("output_converters", "record", no_converters)])
                  for layer in self.layers]
        return [("summary", "text", "digits"), ("squential_ids", "texts", [layer[0] for layer in self.layers])] + layers

    def package(self, model_id, extra_info, backends):
        """A package with this one model, whose kernels are entered for the named back ends."""
        empty = [("summary", "text", ""), ("squential_ids", "texts", [])]
        configs = [(name, "record", self._config() if name in backends else empty) for name in BACKENDS]
        versions = [("core_major_ver", 1), ("core_minor_ver", 0), ("sdk_major_ver", 1), ("sdk_minor_ver", 0)]
        models = [("serializable_type", "text", "TLModelInfoArr"), ("squential_ids", "texts", [model_id]),
                  (model_id, "record", self._info(extra_info))]
        return ([("sdk_type", "text", "x86")] + [(key, "u16", number) for key, number in versions]
                + [("model_arr", "record", models),
                   ("config_arr", "record", [("squential_ids", "texts", [model_id]), (model_id, "record", configs)])])


def extra_info(height, width, multiplications, summary, date):
    """Facts about a model; date is (year, month, day)."""
    numbers = {"version": 1, "app_type": 0, "model_id": 0, "model_base_h": height, "model_base_w": width}
    moment = dict(zip(("year", "moon", "day", "hour", "min", "sec"), (*date, 0, 0, 0)))
    return ([("serializable_type", "text", "NetExtraInfo")] + [(key, "u32", value) for key, value in numbers.items()]
            + [("fmlas", "u64", multiplications),
               ("time", "record", [("serializable_type", "text", "TimeInfo")]
                + [(key, "u32", value) for key, value in moment.items()]),
               ("device", "text", "cpu"), ("summary", "text", summary)])
