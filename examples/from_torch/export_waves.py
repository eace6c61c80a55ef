#!/usr/bin/python3
"""Trains a small network that tells waves apart and exports it, with one recorded run, for convert_onnx.

    export_waves.py FOLDER      writes FOLDER/waves.onnx, FOLDER/recorded/input_0.npy and output_0.npy

Needs python3-torch; a run takes half a minute. The seed fixes it on one machine and one version of torch.
"""

import sys
from pathlib import Path

import numpy as np
import torch
from torch import nn
from torch.nn import functional

SEED = 20231
SAMPLES = 256
STEPS = 600
KINDS = ("sine", "square", "sawtooth", "noise")


def waves(count, random):
    """Signals [count, 1, SAMPLES] and kinds [count]: 12 to 60 samples a period, any phase, some noise."""
    kinds = random.integers(0, len(KINDS), count)
    period, phase, size = (random.uniform(low, high, (count, 1)) for low, high in ((12, 60), (0, 1), (0.3, 1)))
    turns = (np.arange(SAMPLES) / period + phase) % 1
    shapes = np.stack([np.sin(2 * np.pi * turns), np.where(turns < 0.5, 1.0, -1.0), 2 * turns - 1,
                       random.uniform(-1, 1, turns.shape)])
    signals = size * shapes[kinds, np.arange(count)] + random.normal(0, 0.02, turns.shape)
    return torch.from_numpy(signals.astype(np.float32)).unsqueeze(1), torch.from_numpy(kinds)


class WaveNet(nn.Module):
    """Signal [n, 1, SAMPLES] to probabilities [n, kinds]; inner layers hold [n, channels, time]."""

    def __init__(self):
        super().__init__()
        self.filters = nn.Sequential(nn.Conv1d(1, 12, 9, 2, 4), nn.BatchNorm1d(12), nn.ReLU(),
                                     nn.Conv1d(12, 16, 5, 2, 2), nn.BatchNorm1d(16), nn.ReLU())
        self.memory = nn.GRU(16, 16, batch_first=True)
        self.kinds = nn.Linear(16, len(KINDS))

    def scores(self, signal):
        states, _ = self.memory(self.filters(signal).transpose(1, 2))
        return self.kinds(states[:, -1])

    def forward(self, signal):
        return functional.softmax(self.scores(signal), 1)


def train(random):
    net = WaveNet()
    optimizer = torch.optim.Adam(net.parameters())
    schedule = torch.optim.lr_scheduler.OneCycleLR(optimizer, 0.01, total_steps=STEPS)
    for step in range(STEPS):
        signals, kinds = waves(64, random)
        loss = functional.cross_entropy(net.scores(signals), kinds)
        optimizer.zero_grad()
        loss.backward()
        optimizer.step()
        schedule.step()
        if step % 100 == 99:
            print(f"step {step + 1} of {STEPS}: loss {loss.item():.4f}", flush=True)
    return net.eval()


def main():
    if len(sys.argv) != 2:
        sys.exit("usage: export_waves.py FOLDER")
    recorded = Path(sys.argv[1]) / "recorded"
    recorded.mkdir(parents=True, exist_ok=True)
    torch.manual_seed(SEED)
    torch.set_num_threads(1)
    random = np.random.default_rng(SEED)
    net = train(random)
    signals, kinds = waves(1000, random)
    with torch.no_grad():
        right = (net(signals).argmax(1) == kinds).sum().item()
    print(f"{right} of {len(kinds)} new waves are told right")

    example = signals[:1]
    torch.onnx.export(net, example, str(recorded.parent / "waves.onnx"), input_names=["signal"],
                      output_names=["probabilities"], opset_version=16)
    np.save(recorded / "input_0.npy", example.numpy())
    np.save(recorded / "output_0.npy", net(example).detach().numpy())


if __name__ == "__main__":
    main()
