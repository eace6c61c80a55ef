"""A graph evaluated in double precision by numpy, operator by operator as the ONNX standard tells."""

from onnx_reference.graph import Unknown, evaluate

__all__ = ["Unknown", "evaluate"]
