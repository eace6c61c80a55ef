#!/usr/bin/python3
"""Trains a small convolutional network on handwritten digits and writes it as model packages.

See README.md beside this file for the data, the command and the accuracy reached.
"""

import argparse
import datetime
import json
import math
import sys
from pathlib import Path

import numpy as np
import torch
from torch import nn
from torch.nn import functional

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "python"))
from talvo.package import Net  # noqa: E402

SEED = 20231
HELD_OUT = 2000
EPOCHS = 30
BATCH = 64
PICTURES = 20
DIRECT_KERNEL = "Conv2D_Knxm_Snxm_Dnxm_Gn_Fallback_CHW_Float_M1"
POINTWISE_SGEMM_KERNEL = "Conv2d_K1x1_S1x1_D1x1_G1_SGEMM_CHW_FLOAT_M1"

# (name, in, out, kernel size, stride, 2x2 max pool behind it); padding is half the kernel, ReLU follows each.
CONVOLUTIONS = (("conv1", 1, 16, 3, 1, True), ("conv2", 16, 32, 3, 1, False), ("conv3", 32, 32, 1, 1, False),
                ("conv4", 32, 48, 3, 2, False), ("conv5", 48, 64, 3, 1, False))


def load_digits(folder):
    """Pictures [n, 28, 28] as bytes and labels [n], class after class, as the data set lists them."""
    pictures, labels = [], []
    for label in range(10):
        values = np.asarray(json.loads((folder / f"{label}.json").read_text())["data"], np.float64)
        whole = values.reshape(-1, 28, 28)
        pictures.append(np.rint(whole * 255).astype(np.uint8))
        labels.append(np.full(len(whole), label))
    return np.concatenate(pictures), np.concatenate(labels)


def split(pictures, labels):
    """Training and held-out halves of one seeded shuffle; the held-out digits take no part in training."""
    order = np.random.default_rng(SEED).permutation(len(labels))
    held_out, training = order[:HELD_OUT], order[HELD_OUT:]
    return (pictures[training], labels[training]), (pictures[held_out], labels[held_out])


class DigitNet(nn.Module):
    def __init__(self):
        super().__init__()
        for name, inputs, outputs, size, stride, _ in CONVOLUTIONS:
            setattr(self, name, nn.Conv2d(inputs, outputs, size, stride, size // 2, bias=False))
            setattr(self, f"{name}_norm", nn.BatchNorm2d(outputs))
        self.classes = nn.Linear(CONVOLUTIONS[-1][2], 10)

    def forward(self, x):
        for name, _, _, _, _, pooled in CONVOLUTIONS:
            x = functional.relu(getattr(self, f"{name}_norm")(getattr(self, name)(x)))
            x = functional.max_pool2d(x, 2) if pooled else x
        return self.classes(x.mean((2, 3)))

    def weights(self):
        """(weight, bias) of each layer, normalisation folded in, every value one that binary16 holds exactly."""
        found = {"classes": (self.classes.weight, self.classes.bias)}
        for name, *_ in CONVOLUTIONS:
            norm = getattr(self, f"{name}_norm")
            scale = norm.weight / torch.sqrt(norm.running_var + norm.eps)
            found[name] = (getattr(self, name).weight * scale.view(-1, 1, 1, 1), norm.bias - norm.running_mean * scale)
        return {name: [part.detach().half().float() for part in parts] for name, parts in found.items()}


def run_folded(weights, x):
    """The network as the packages hold it: probabilities [n, 10] of pictures [n, 1, 28, 28] in 0..1."""
    for name, _, _, size, stride, pooled in CONVOLUTIONS:
        x = functional.relu(functional.conv2d(x, *weights[name], stride, size // 2))
        x = functional.max_pool2d(x, 2) if pooled else x
    return functional.softmax(functional.linear(x.mean((2, 3)), *weights["classes"]), 1)


def distorted(batch, generator):
    """Each picture turned by up to 12 degrees, scaled by up to 10 % and shifted by up to 2 pixels."""
    count = len(batch)
    uniform = torch.rand(4, count, generator=generator) * 2 - 1
    angle, scale, shift = uniform[0] * math.radians(12), 1 + uniform[1] * 0.1, uniform[2:] * (2 / 14)
    cos, sin = torch.cos(angle) / scale, torch.sin(angle) / scale
    rows = torch.stack([torch.stack([cos, -sin, shift[0]], 1), torch.stack([sin, cos, shift[1]], 1)], 1)
    return functional.grid_sample(batch, functional.affine_grid(rows, batch.shape, align_corners=False),
                                  align_corners=False)


def as_input(pictures):
    return torch.from_numpy(pictures.astype(np.float32) / 255).unsqueeze(1)


def train(pictures, labels):
    """A trained network after a fixed number of epochs: nothing is chosen by looking at held-out digits."""
    torch.manual_seed(SEED)
    torch.set_num_threads(1)
    torch.use_deterministic_algorithms(True)
    generator = torch.Generator().manual_seed(SEED)
    inputs, targets = as_input(pictures), torch.from_numpy(labels)
    net = DigitNet()
    optimizer = torch.optim.AdamW(net.parameters(), weight_decay=0.01)
    steps = EPOCHS * math.ceil(len(targets) / BATCH)
    schedule = torch.optim.lr_scheduler.OneCycleLR(optimizer, 0.004, total_steps=steps)
    for epoch in range(EPOCHS):
        total = 0.0
        for chosen in torch.randperm(len(targets), generator=generator).split(BATCH):
            loss = functional.cross_entropy(net(distorted(inputs[chosen], generator)), targets[chosen],
                                            label_smoothing=0.05)
            optimizer.zero_grad()
            loss.backward()
            optimizer.step()
            schedule.step()
            total += loss.item() * len(chosen)
        print(f"epoch {epoch + 1} of {EPOCHS}: training loss {total / len(targets):.4f}", flush=True)
    return net.eval()


def build_model(weights, sgemm):
    """The layers with their kernels: portable loops, or the matrix product where one fits."""
    net = Net("digits")
    last = net.input("picture")
    for name, _, _, size, stride, pooled in CONVOLUTIONS:
        weight, bias = (part.numpy() for part in weights[name])
        pointwise = sgemm and size == 1 and stride == 1
        last = net.conv2d(name, last, weight, bias, stride=stride, padding=size // 2,
                          kernel=POINTWISE_SGEMM_KERNEL if pointwise else DIRECT_KERNEL)
        last = net.activation(name.replace("conv", "relu"), last, "relu")
        if pooled:
            last = net.max_pool2d(name.replace("conv", "pool"), last, 2)
    last = net.mean("mean", last, (1, 2))
    last = net.full_connection("classes", last, *(part.numpy() for part in weights["classes"]),
                               kernel=f"FullConnection_{'SGEMM' if sgemm else 'Fallback'}_C_Float_M1")
    net.softmax("probabilities", last)
    return net


def multiplications(weights):
    """Multiply-adds of one picture: weights of each layer times the positions they are applied at."""
    total, extent = weights["classes"][0].numel(), 28
    for name, _, _, size, stride, pooled in CONVOLUTIONS:
        extent = (extent + size // 2 * 2 - size) // stride + 1
        total += weights[name][0].numel() * extent * extent
        extent = extent // 2 if pooled else extent
    return total


def write_packages(folder, weights, suffixes):
    for stem, sgemm in (("digits", False), ("digits_sgemm", True)):
        for suffix in suffixes:
            build_model(weights, sgemm).save(folder / f"{stem}{suffix}", base_size=(28, 28),
                                             multiplications=multiplications(weights), date=datetime.date(2026, 11, 21),
                                             summary="handwritten digits, 28 x 28 gray in 0..1, to 10 classes")


def write_pictures(folder, pictures, labels):
    """The first held-out digits of each class, two of each, in held-out order, as binary PGM files."""
    taken = sorted(i for label in range(10) for i in np.flatnonzero(labels == label)[: PICTURES // 10])
    for number, i in enumerate(taken):
        header = "P5\n28 28\n255\n".encode("ascii")
        (folder / f"digit_{number:02d}_label_{labels[i]}.pgm").write_bytes(header + pictures[i].tobytes())
    return taken


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("data", type=Path, help="folder with 0.json to 9.json")
    parser.add_argument("output", type=Path, help="folder for the packages and pictures")
    parser.add_argument("--json", action="store_true", help="write the packages in their JSON form too")
    arguments = parser.parse_args()

    try:  # before the training: a folder that cannot be written would cost its result
        digits = load_digits(arguments.data)
        arguments.output.mkdir(parents=True, exist_ok=True)
    except (OSError, ValueError, LookupError, TypeError) as error:
        sys.exit(f"train_digits.py: {arguments.data} to {arguments.output}: {error}")
    (pictures, labels), (held_pictures, held_labels) = split(*digits)
    print(f"{len(labels)} digits to train on, {len(held_labels)} held out, seed {SEED}")
    weights = train(pictures, labels).weights()
    with torch.no_grad():
        probabilities = run_folded(weights, as_input(held_pictures)).numpy()
    right = probabilities.argmax(1) == held_labels
    write_packages(arguments.output, weights, (".tlnmodel", ".json") if arguments.json else (".tlnmodel",))
    taken = write_pictures(arguments.output, held_pictures, held_labels)
    print(f"held-out accuracy with binary16 weights: {right.sum()} of {right.size}, {100 * right.mean():.2f} %")
    print(f"of the {len(taken)} pictures written {right[taken].sum()} are read right")


if __name__ == "__main__":
    main()
