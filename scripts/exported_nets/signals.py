"""Nets on sound, on sequences and on sets of points."""

from __future__ import annotations

import torch
from torch import nn
from torch.nn import functional as F

from exported_nets.entries import conv, net


@net("voice activity, state in and out", (1, 1, 512), (2, 1, 32), (2, 1, 32))
class VoiceActivity(nn.Module):
    """A spectrum by convolution, strided 1-d convolutions, an LSTM whose state is handed in and out."""

    def __init__(self):
        super().__init__()
        self.basis = nn.Conv1d(1, 2 * 65, 128, 64, bias=False)
        self.encoder = nn.Sequential(nn.Conv1d(65, 32, 3, padding=1), nn.ReLU(), nn.Conv1d(32, 32, 3, 2, 1), nn.ReLU())
        self.rnn = nn.LSTM(32, 32, 2)
        self.decoder = nn.Sequential(nn.ReLU(), nn.Conv1d(32, 1, 1), nn.Sigmoid())

    def forward(self, x, h, c):
        real, imaginary = self.basis(F.pad(x, (32, 32), "reflect")).split(65, 1)
        x = self.encoder(torch.sqrt(real * real + imaginary * imaginary))
        x, (h, c) = self.rnn(x.permute(2, 0, 1), (h, c))
        return self.decoder(x.permute(1, 2, 0)).mean(2), h, c


@net("voice activity, whole signal", (1, 40, 100))
class VoiceActivityWhole(nn.Module):
    def __init__(self):
        super().__init__()
        self.body = nn.Sequential(nn.Conv1d(40, 32, 5, padding=2), nn.BatchNorm1d(32), nn.ReLU(), nn.MaxPool1d(2))
        self.rnn = nn.GRU(32, 24, batch_first=True, bidirectional=True)
        self.dense = nn.Linear(48, 1)

    def forward(self, x):
        return torch.sigmoid(self.dense(self.rnn(self.body(x).transpose(1, 2))[0]))


@net("keyword spotting, separable", (1, 1, 49, 10))
class Keywords(nn.Sequential):
    def __init__(self):
        blocks = [nn.Sequential(conv(16, 16, 3, groups=16), conv(16, 16, 1)) for _ in range(3)]
        super().__init__(nn.Conv2d(1, 16, (10, 4), (2, 2), (5, 1)), nn.BatchNorm2d(16), nn.ReLU(), nn.Dropout(0.2),
                         *blocks, nn.AdaptiveAvgPool2d(1), nn.Flatten(), nn.Linear(16, 12), nn.Softmax(1))


@net("keyword spotting, broadcast residual", (1, 1, 40, 60))
class BroadcastResidual(nn.Module):
    """Frequency by depthwise convolution, time after the mean over frequency, added back to every frequency."""

    def __init__(self):
        super().__init__()
        self.stem = conv(1, 8, 5, (2, 1))
        self.frequency = nn.Sequential(nn.Conv2d(8, 8, (3, 1), padding=(1, 0), groups=8), nn.BatchNorm2d(8))
        self.time = nn.Sequential(nn.Conv2d(8, 8, (1, 3), padding=(0, 2), dilation=(1, 2), groups=8),
                                  nn.BatchNorm2d(8), nn.SiLU(), nn.Conv2d(8, 8, 1))
        self.head = nn.Conv2d(8, 12, 1)

    def forward(self, x):
        x = self.stem(x)
        y = self.frequency(x)
        x = F.relu(x + y + self.time(y.mean(2, keepdim=True)))
        return self.head(x.mean((2, 3), keepdim=True)).flatten(1)


@net("keyword spotting, attention over GRU", (1, 50, 40))
class AttentionGru(nn.Module):
    def __init__(self):
        super().__init__()
        self.rnn = nn.GRU(40, 32, num_layers=2, batch_first=True)
        self.score, self.dense = nn.Linear(32, 1), nn.Linear(32, 12)

    def forward(self, x):
        x = self.rnn(x)[0]
        weight = torch.softmax(self.score(x), 1)
        return self.dense((weight * x).sum(1))


@net("speech enhancement, dilated", (1, 1, 1024))
class Enhance(nn.Module):
    """Encoder, dilated 1-d blocks with global normalisation and PReLU, mask, decoder."""

    def __init__(self):
        super().__init__()
        self.encoder, self.decoder = nn.Conv1d(1, 32, 16, 8, bias=False), nn.ConvTranspose1d(32, 1, 16, 8, bias=False)
        self.enter = nn.Conv1d(32, 16, 1)
        self.blocks = nn.ModuleList(
            nn.Sequential(nn.Conv1d(16, 24, 1), nn.PReLU(), nn.GroupNorm(1, 24),
                          nn.Conv1d(24, 24, 3, padding=d, dilation=d, groups=24), nn.PReLU(), nn.GroupNorm(1, 24),
                          nn.Conv1d(24, 16, 1)) for d in (1, 2, 4))
        self.mask = nn.Conv1d(16, 32, 1)

    def forward(self, x):
        code = F.relu(self.encoder(x))
        x = self.enter(code)
        for block in self.blocks:
            x = x + block(x)
        return self.decoder(code * torch.sigmoid(self.mask(x)))


@net("causal gated stack", (1, 4, 200))
class Gated(nn.Module):
    def __init__(self):
        super().__init__()
        self.enter = nn.Conv1d(4, 16, 1)
        self.filters = nn.ModuleList(nn.Conv1d(16, 32, 2, dilation=2**k) for k in range(5))
        self.skips = nn.ModuleList(nn.Conv1d(16, 16, 1) for _ in range(5))

    def forward(self, x):
        x, total = self.enter(x), 0
        for k, (gate, skip) in enumerate(zip(self.filters, self.skips)):
            a, b = gate(F.pad(x, (2**k, 0))).chunk(2, 1)
            y = torch.tanh(a) * torch.sigmoid(b)
            total = total + skip(y)
            x = x + y
        return F.relu(total)[..., -1]


@net("transformer encoder", (1, 20, 32))
class Encoder(nn.Module):
    def __init__(self):
        super().__init__()
        layer = nn.TransformerEncoderLayer(32, 4, 64, batch_first=True, norm_first=True, activation="gelu")
        self.position = nn.Parameter(torch.randn(1, 20, 32))
        self.body, self.head = nn.TransformerEncoder(layer, 2), nn.Linear(32, 5)

    def forward(self, x):
        return self.head(self.body(x + self.position)[:, 0])


@net("language model over tokens", (1, 12), integers=50, refusal="input tokens is of type INT64")
class Language(nn.Module):
    def __init__(self):
        super().__init__()
        self.tokens, self.attention = nn.Embedding(50, 32), Causal()

    def forward(self, x):
        return self.attention(self.tokens(x))


@net("causal attention", (1, 12, 32))
class Causal(nn.Module):
    def __init__(self):
        super().__init__()
        self.norm, self.head = nn.LayerNorm(32), nn.Linear(32, 50)
        self.enter, self.leave = nn.Linear(32, 96), nn.Linear(32, 32)

    def forward(self, x):
        q, k, v = (y.view(1, 12, 4, 8).transpose(1, 2) for y in self.enter(self.norm(x)).split(32, 2))
        score = q @ k.transpose(-2, -1) / 8**0.5
        score = score.masked_fill(torch.tril(torch.ones(12, 12)) == 0, float("-inf"))
        x = x + self.leave((score.softmax(-1) @ v).transpose(1, 2).reshape(1, 12, 32))
        return self.head(F.gelu(x))


@net("point cloud", (1, 3, 64))
class Points(nn.Module):
    def __init__(self):
        super().__init__()
        self.turn = nn.Sequential(nn.Conv1d(3, 16, 1), nn.BatchNorm1d(16), nn.ReLU())
        self.dense = nn.Linear(16, 9)
        self.body = nn.Sequential(nn.Conv1d(3, 32, 1), nn.BatchNorm1d(32), nn.ReLU(), nn.Conv1d(32, 64, 1))
        self.head = nn.Sequential(nn.Linear(64, 32), nn.ReLU(), nn.Linear(32, 5), nn.LogSoftmax(1))

    def forward(self, x):
        turn = self.dense(self.turn(x).max(2)[0]).view(1, 3, 3) + torch.eye(3)
        x = torch.bmm(x.transpose(2, 1), turn).transpose(2, 1)
        return self.head(self.body(x).max(2)[0])


@net("plain recurrent", (1, 15, 8))
class Plain(nn.Module):
    def __init__(self):
        super().__init__()
        self.rnn, self.head = nn.RNN(8, 16, batch_first=True), nn.Linear(16, 3)

    def forward(self, x):
        return self.head(self.rnn(x)[0][:, -1])
