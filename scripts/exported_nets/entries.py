"""The table of nets, and how a module enters it."""

from __future__ import annotations

from typing import Callable, NamedTuple

from torch import nn


class Net(NamedTuple):
    """What makes a module, and the shapes of its inputs, with the batch of one that an export has."""

    make: Callable[[], nn.Module]
    shapes: tuple[tuple[int, ...], ...]
    refusal: str = ""     # how the first refusal begins, where there are no layers for the net
    integers: int = 0     # inputs are token numbers below this


NETS: dict[str, Net] = {}


def net(name: str, *shapes: tuple[int, ...], refusal: str = "", integers: int = 0):
    """Enters what makes a module, a class or a function, under a name."""

    def enter(make):
        NETS[name] = Net(make, shapes, refusal, integers)
        return make

    return enter


def conv(inputs: int, outputs: int, size: int = 3, stride: int = 1, act: Callable[[], nn.Module] = nn.ReLU, **more):
    """Convolution, normalisation, activation."""
    return nn.Sequential(nn.Conv2d(inputs, outputs, size, stride, size // 2, bias=False, **more),
                         nn.BatchNorm2d(outputs), act())
