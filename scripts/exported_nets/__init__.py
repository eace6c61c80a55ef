"""Nets of the kinds that people export, small: what scripts/check_exported_nets converts and compares."""

from exported_nets import pictures, signals
from exported_nets.entries import NETS

__all__ = ["NETS", "pictures", "signals"]
