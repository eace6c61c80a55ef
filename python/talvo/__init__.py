"""Inference with libtln_core: a model package opened, run and checked; numpy arrays in and out."""

from talvo.model import LayerTime, Model, Port, TalvoError, check, version

__all__ = ["LayerTime", "Model", "Port", "TalvoError", "check", "version"]
