"""Records of a package and their two forms: JSON, and the binary stream that holds the values alone."""

from __future__ import annotations

import base64
import json
import os
import struct
from pathlib import Path
from typing import Any, NamedTuple

import numpy as np

PROTOCOL_VERSION = 20015
LARGEST_HALF = 65504.0

_SCALARS = {"u16": "<H", "u32": "<I", "u64": "<Q", "i16": "<h", "i32": "<i", "float": "<f", "half": "<e", "bool": "<?"}
_ELEMENTS = {"vector<u16>": "u16", "vector<i16>": "i16", "vector<string>": "string", "vector<blob>": "blob"}


class Field(NamedTuple):
    """A value under its key; `kind` as docs/format.md names it. The value of a "record" is a list of these."""

    key: str
    kind: str
    value: Any


def write(path: str | os.PathLike, record: list[Field]) -> None:
    """Writes a root record; the ending of `path` picks the form, ".tlnmodel" or ".json".

    The binary stream holds weights as halves, rounded to nearest; beyond 65504 they are refused with ValueError.
    """
    path = Path(path)
    if path.suffix == ".json":
        root = {"serialization_protocol_version": PROTOCOL_VERSION, **to_json(record)}
        path.write_text(json.dumps(root, indent=4, allow_nan=False))
    elif path.suffix == ".tlnmodel":
        path.write_bytes(stream(record))
    else:
        raise ValueError(f"{path}: a package ends in .tlnmodel or .json")


def stream(record: list[Field]) -> bytes:
    """A root record in the binary form, the version ahead of it."""
    return struct.pack("<I", PROTOCOL_VERSION) + to_binary(record)


def to_binary(record: list[Field]) -> bytes:
    """The stream of a record: little-endian, without keys or padding, counts of 64 bits.

    >>> to_binary([Field("id", "string", "ab"), Field("dims", "vector<u16>", [1, 2])]).hex(" ", -8)
    '0200000000000000 6162020000000000 000001000200'
    """
    return b"".join(_to_bytes(field.kind, field.value, field.key) for field in record)


def to_json(record: list[Field]) -> dict[str, Any]:
    """A record as a dict; weights as base64 of float32, halves as the numbers that they hold.

    >>> to_json([Field("alpha", "half", 0.1), Field("weight", "blob", np.ones(1, np.float32))])
    {'alpha': 0.0999755859375, 'weight': 'AACAPw=='}
    """
    return {field.key: _to_plain(field.kind, field.value) for field in record}


def _to_bytes(kind: str, value: Any, key: str) -> bytes:
    if kind == "record":
        return to_binary(value)
    if kind == "string":
        text = value.encode()
        return struct.pack("<Q", len(text)) + text
    if kind == "blob":
        floats = np.asarray(value, np.float32)
        largest = float(np.abs(floats[np.isfinite(floats)]).max(initial=0))
        if largest > LARGEST_HALF:
            raise ValueError(f"{key} holds {largest:g}, halves at most {LARGEST_HALF:g}; write a .json package")
        return struct.pack("<Q", floats.size) + floats.astype("<f2").tobytes()
    if kind in _ELEMENTS:
        return struct.pack("<Q", len(value)) + b"".join(_to_bytes(_ELEMENTS[kind], each, key) for each in value)
    try:
        return struct.pack(_SCALARS[kind], value)
    except (struct.error, OverflowError) as error:
        raise ValueError(f"{key} = {value} does not fit {kind}") from error


def _to_plain(kind: str, value: Any) -> Any:
    if kind == "record":
        return to_json(value)
    if kind == "blob":
        return base64.b64encode(np.asarray(value, "<f4").tobytes()).decode("ascii")
    if kind == "vector<blob>":
        return [_to_plain("blob", each) for each in value]
    if kind in _SCALARS:
        return struct.unpack(_SCALARS[kind], _to_bytes(kind, value, kind))[0]
    return value
