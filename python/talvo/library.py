"""The C interface of libtln_core by ctypes: its structs, its functions, its errors."""

from __future__ import annotations

import ctypes
import ctypes.util
import functools
import os

MAXIMUM_RANK = 8
LAYOUT_BY_RANK = -1
OK, TOO_SMALL = 0, 3


class TalvoError(RuntimeError):
    """One line that says what is wrong with which file, layer or argument."""


class Options(ctypes.Structure):
    _fields_ = [
        ("size", ctypes.c_size_t),
        ("model", ctypes.c_char_p),
        ("backend", ctypes.c_char_p),
        ("prefer_fused", ctypes.c_int32),
    ]


class Tensor(ctypes.Structure):
    _fields_ = [
        ("size", ctypes.c_size_t),
        ("id", ctypes.c_char_p),
        ("data_type", ctypes.c_uint32),
        ("layout", ctypes.c_int32),
        ("rank", ctypes.c_uint32),
        ("dims", ctypes.c_uint32 * MAXIMUM_RANK),
        ("data", ctypes.c_void_p),
        ("bytes", ctypes.c_size_t),
    ]


class Time(ctypes.Structure):
    _fields_ = [
        ("size", ctypes.c_size_t),
        ("id", ctypes.c_char_p),
        ("kernel", ctypes.c_char_p),
        ("milliseconds", ctypes.c_float),
    ]


@functools.lru_cache(maxsize=None)
def library() -> ctypes.CDLL:
    """The library that TALVO_LIBRARY names, or the system's, opened when it is first called for."""
    name = os.environ.get("TALVO_LIBRARY") or ctypes.util.find_library("tln_core") or "libtln_core.so.1"
    try:
        library = ctypes.CDLL(name)
    except OSError as error:
        raise TalvoError(f"{error}; install the library, or name it in TALVO_LIBRARY") from error
    handle, tensors, size = ctypes.c_void_p, ctypes.POINTER(Tensor), ctypes.c_size_t
    for function, arguments in {
        "talvo_model_open": [ctypes.c_char_p, ctypes.POINTER(Options), ctypes.POINTER(handle)],
        "talvo_model_open_bytes": [ctypes.c_char_p, size, ctypes.POINTER(Options), ctypes.POINTER(handle)],
        "talvo_model_input": [handle, size, tensors],
        "talvo_model_output": [handle, size, tensors],
        "talvo_model_run": [handle, tensors, size, ctypes.POINTER(ctypes.c_char_p), size],
        "talvo_model_result": [handle, ctypes.c_char_p, tensors],
        "talvo_model_profile": [handle, tensors, size, ctypes.POINTER(Time), size, ctypes.POINTER(size)],
        "talvo_model_reset": [handle],
        "talvo_package_check": [
            ctypes.c_char_p, ctypes.POINTER(Options), tensors, size, ctypes.c_char_p, size, ctypes.POINTER(size),
        ],
    }.items():
        getattr(library, function).argtypes = arguments
    for function in ("talvo_model_input_count", "talvo_model_output_count"):
        getattr(library, function).argtypes = [handle]
        getattr(library, function).restype = size
    library.talvo_model_close.argtypes = [handle]
    library.talvo_model_close.restype = None
    library.talvo_set_log.argtypes = [ctypes.c_void_p]
    library.talvo_set_log.restype = None
    library.talvo_set_log(None)  # errors are exceptions
    library.talvo_last_error.restype = ctypes.c_char_p
    return library


def require(status: int) -> None:
    """Raises TalvoError with the library's words for every status but OK."""
    if status != OK:
        raise TalvoError(library().talvo_last_error().decode("utf-8", "replace"))
