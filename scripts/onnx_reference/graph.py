"""The walk over the nodes of a graph."""

import numpy as np
import onnx
import onnx.helper
import onnx.numpy_helper

from onnx_reference import elements, planes, sequences, structure

OPERATORS = {**elements.OPERATORS, **planes.OPERATORS, **sequences.OPERATORS, **structure.OPERATORS}


class Unknown(Exception):
    """An operator that is not evaluated here."""


class Node:
    """What an operator reads: its inputs (None where one is left out), its attributes and the opset."""

    def __init__(self, proto, inputs, opset):
        self.x = inputs
        self.outputs = len(proto.output)
        self.opset = opset
        self.attributes = {a.name: onnx.helper.get_attribute_value(a) for a in proto.attribute}

    def a(self, name, absent=None):
        value = self.attributes.get(name, absent)
        return value.decode() if isinstance(value, bytes) else value

    def given(self, index):
        return index < len(self.x) and self.x[index] is not None

    def input_or(self, index, absent=None):
        return self.x[index] if self.given(index) else absent

    def integers(self, index, name):
        """Input `index` or else the attribute, as a list; None where neither is there."""
        if self.given(index):
            return [int(v) for v in np.ravel(self.x[index])]
        return self.a(name)


def widened(array):
    """Real numbers as doubles; whole numbers and truth values stay."""
    return array.astype(np.float64) if array.dtype.kind == "f" else array


def evaluate(model, inputs):
    """The outputs of the graph, by name, for arrays by name."""
    opset = max(s.version for s in model.opset_import if s.domain in ("", "ai.onnx"))
    values = {t.name: widened(onnx.numpy_helper.to_array(t)) for t in model.graph.initializer}
    values.update((name, widened(array)) for name, array in inputs.items())
    for proto in model.graph.node:
        if proto.op_type not in OPERATORS:
            raise Unknown(proto.op_type)
        node = Node(proto, [values[name] if name else None for name in proto.input], opset)
        made = OPERATORS[proto.op_type](node)
        for name, value in zip(proto.output, made if isinstance(made, tuple) else (made,)):
            values[name] = value
    return {output.name: values[output.name] for output in model.graph.output}
