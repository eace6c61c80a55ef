"""One model of a package: numpy arrays in and out under the ids of its layers."""

from __future__ import annotations

import ctypes
import os
from typing import Mapping, NamedTuple, Sequence

import numpy as np

from talvo.library import LAYOUT_BY_RANK, MAXIMUM_RANK, TOO_SMALL, Options, TalvoError, Tensor, Time, library, require

# By the library's number of a data type.
_TYPES = [np.dtype(name) for name in ("<f4", "<f2", "<i4", "<i2", "i1", "<u4", "<u2", "u1")]


class Port(NamedTuple):
    """An input or output; `shape` as far as the package tells it, 0 for an extent that it does not tell."""

    id: str
    shape: tuple[int, ...]


class LayerTime(NamedTuple):
    """What one layer took."""

    id: str
    kernel: str
    milliseconds: float


def version() -> tuple[int, int]:
    """Major and minor version of the runtime.

    >>> version()
    (1, 0)
    """
    major, minor = ctypes.c_uint32(), ctypes.c_uint32()
    library().talvo_version(ctypes.byref(major), ctypes.byref(minor))
    return major.value, minor.value


def check(path: str | os.PathLike, shapes: Mapping[str, Sequence[int]] | None = None, *, model: str | None = None,
          backend: str | None = None, prefer_fused: bool = False) -> list[str]:
    """What is wrong with a package, or looks so: lines that begin with "refused: " or "warning: ".

    With the shape of every input the model is tried on such tensors.

    >>> check("examples/digits/digits.tlnmodel", {"picture": (1, 28, 28)})
    []
    >>> check("examples/digits/digits.tlnmodel", {"picture": (3, 28, 28)})
    ['warning: layer conv1: reads 1 of the channels of [3, 28, 28]']
    """
    tensors = (Tensor * max(1, len(shapes or {})))()
    for tensor, (name, shape) in zip(tensors, (shapes or {}).items()):
        _describe(tensor, name, shape)
    options, needed = _options(model, backend, prefer_fused), ctypes.c_size_t()
    text = ctypes.create_string_buffer(1 << 16)
    while True:
        status = library().talvo_package_check(_text(path), options, tensors, len(shapes or {}), text, len(text),
                                             ctypes.byref(needed))
        if status != TOO_SMALL:
            break
        text = ctypes.create_string_buffer(needed.value)
    require(status)
    return text.value.decode("utf-8", "replace").splitlines()


class Model:
    """A runnable model of a ".tlnmodel" or ".json" package, given as a path or as bytes.

    A model and its thread belong together; several threads have a model each. Whatever is refused raises TalvoError.

    >>> digits = Model("examples/digits/digits.tlnmodel")
    >>> digits.inputs, [output.id for output in digits.outputs]
    ([Port(id='picture', shape=(0, 28, 28))], ['probabilities'])
    >>> digits.run({"picture": np.full((1, 28, 28), 0.5, np.float32)})["probabilities"].shape
    (10,)
    >>> digits.run({"picture": np.zeros((1, 28, 28), np.float32)}, ["conv1"])["conv1"].shape
    (16, 28, 28)
    >>> digits.run({"pictures": np.zeros(3, np.float32)})
    Traceback (most recent call last):
    ...
    talvo.library.TalvoError: examples/digits/digits.tlnmodel: model "digits" has no layer "pictures"; nearest: picture
    """

    def __init__(self, package: str | os.PathLike | bytes, *, model: str | None = None, backend: str | None = None,
                 prefer_fused: bool = False):
        self._handle = ctypes.c_void_p()
        options, handle = _options(model, backend, prefer_fused), ctypes.byref(self._handle)
        if isinstance(package, bytes):
            require(library().talvo_model_open_bytes(package, len(package), options, handle))
        else:
            require(library().talvo_model_open(_text(package), options, handle))
        self.inputs = self._ports(library().talvo_model_input_count, library().talvo_model_input)
        self.outputs = self._ports(library().talvo_model_output_count, library().talvo_model_output)

    def __del__(self):
        if getattr(self, "_handle", None):
            library().talvo_model_close(self._handle)
            self._handle = None

    def run(self, inputs: Mapping[str, np.ndarray], outputs: Sequence[str] | None = None) -> dict[str, np.ndarray]:
        """The outputs, or those layers that `outputs` names, by id; the arrays are the caller's.

        `inputs`: an array for each input layer, of float32 or another type of the library; other floats become float32.
        The rank picks the layout: 1 C, 2 SC, 3 CHW, otherwise FLEXIABLE. Recurrent layers keep their state.
        """
        tensors, kept = _tensors(inputs)
        if isinstance(outputs, str):
            raise TypeError("outputs is a list of ids, not one")
        ids = [_text(name) for name in outputs or []]
        names = (ctypes.c_char_p * len(ids))(*ids)
        require(library().talvo_model_run(self._handle, tensors, len(kept), names, len(ids)))
        return {name: self._result(name) for name in outputs or [port.id for port in self.outputs]}

    def profile(self, inputs: Mapping[str, np.ndarray]) -> list[LayerTime]:
        """Runs the model and tells the time of each layer."""
        tensors, kept = _tensors(inputs)
        count = ctypes.c_size_t(4096)
        times = (Time * 0)()
        while len(times) < count.value:
            times = (Time * count.value)()
            for time in times:
                time.size = ctypes.sizeof(Time)
            require(library().talvo_model_profile(self._handle, tensors, len(kept), times, len(times),
                                                ctypes.byref(count)))
        return [LayerTime(time.id.decode(), time.kernel.decode(), time.milliseconds) for time in times[: count.value]]

    def reset(self) -> None:
        """Starts recurrent layers afresh."""
        require(library().talvo_model_reset(self._handle))

    def _ports(self, count, describe) -> list[Port]:
        ports = []
        for index in range(count(self._handle)):
            tensor = Tensor(size=ctypes.sizeof(Tensor))
            require(describe(self._handle, index, ctypes.byref(tensor)))
            ports.append(Port(tensor.id.decode(), tuple(tensor.dims[: tensor.rank])))
        return ports

    def _result(self, name: str) -> np.ndarray:
        tensor = Tensor(size=ctypes.sizeof(Tensor))
        require(library().talvo_model_result(self._handle, os.fsencode(name), ctypes.byref(tensor)))
        array = np.empty(tuple(tensor.dims[: tensor.rank]), _TYPES[tensor.data_type])
        ctypes.memmove(array.ctypes.data, tensor.data, tensor.bytes)
        return array


def _options(model: str | None, backend: str | None, prefer_fused: bool):
    return ctypes.byref(Options(ctypes.sizeof(Options), model and _text(model), backend and _text(backend), prefer_fused))


def _text(text: str | os.PathLike) -> bytes:
    encoded = os.fsencode(text)
    if b"\0" in encoded:  # where C would end it
        raise TalvoError(f"{text!r} holds a zero")
    return encoded


def _describe(tensor: Tensor, name: str, shape: Sequence[int]) -> None:
    if len(shape) > MAXIMUM_RANK:
        raise TalvoError(f'input "{name}": {len(shape)} extents, at most {MAXIMUM_RANK} are served')
    tensor.size = ctypes.sizeof(Tensor)
    if not all(0 <= extent < 1 << 32 for extent in shape):
        raise TalvoError(f'input "{name}": an extent of {list(shape)} is not within 0 to {(1 << 32) - 1}')
    tensor.id = _text(name)
    tensor.layout = LAYOUT_BY_RANK
    tensor.rank = len(shape)
    tensor.dims[: len(shape)] = list(shape)


def _tensors(inputs: Mapping[str, np.ndarray]):
    """The structs, and the arrays whose memory they lend."""
    kept = [_served(name, array) for name, array in inputs.items()]
    tensors = (Tensor * max(1, len(kept)))()
    for tensor, name, array in zip(tensors, inputs, kept):
        _describe(tensor, name, array.shape)
        tensor.data_type = _TYPES.index(array.dtype)
        tensor.data = array.ctypes.data
        tensor.bytes = array.nbytes
    return tensors, kept


def _served(name: str, array) -> np.ndarray:
    array = np.asarray(array)
    if array.dtype.kind == "f" and array.dtype not in _TYPES:
        array = array.astype(np.float32)
    if array.dtype not in _TYPES:
        raise TalvoError(f'input "{name}": arrays of {array.dtype} are not served')
    return np.ascontiguousarray(array)
