"""Nets on pictures: those of torchvision, then the others by what they are for."""

from __future__ import annotations

import torch
from torch import nn
from torch.nn import functional as F
from torchvision import models
from torchvision.models.convnext import CNBlockConfig
from torchvision.models.swin_transformer import SwinTransformer

from exported_nets.entries import conv, net

# Classifiers of torchvision, with a tenth of their picture's area.
PICTURE = (1, 3, 96, 96)
for _name in ("mobilenet_v2", "mobilenet_v3_small", "mobilenet_v3_large", "efficientnet_b0", "resnet18", "resnet50",
              "resnext50_32x4d", "squeezenet1_1", "shufflenet_v2_x0_5", "mnasnet0_5", "regnet_y_400mf", "densenet121",
              "googlenet"):
    net(_name, PICTURE)(lambda name=_name: models.get_model(name, weights=None, **(
        {"aux_logits": False, "init_weights": False} if name == "googlenet" else {})))
for _name in ("lraspp_mobilenet_v3_large", "deeplabv3_mobilenet_v3_large"):
    net(_name, PICTURE)(lambda name=_name: Part(models.get_model(name, weights=None, weights_backbone=None), "out"))
net("vgg11_bn features", (1, 3, 32, 32))(lambda: models.vgg11_bn().features)
net("convnext", (1, 3, 64, 64))(lambda: models.ConvNeXt([CNBlockConfig(16, 32, 2), CNBlockConfig(32, 64, 2),
                                                         CNBlockConfig(64, None, 1)]))
net("vit", (1, 3, 64, 64))(lambda: models.VisionTransformer(64, 16, 3, 4, 64, 128, num_classes=10))
net("swin", (1, 3, 64, 64))(
    lambda: SwinTransformer([4, 4], 32, [2, 2], [2, 4], [4, 4], num_classes=10))
net("video resnet", (1, 3, 8, 32, 32))(lambda: models.video.r3d_18())
net("raft_small", (1, 3, 128, 128), (1, 3, 128, 128),
    refusal="node /whole/Slice (Slice): a bound of a slice = 32768")(lambda: Part(models.optical_flow.raft_small(), -1))


class Part(nn.Module):
    """One of the results of a module."""

    def __init__(self, whole: nn.Module, key):
        super().__init__()
        self.whole, self.key = whole, key

    def forward(self, *inputs):
        return self.whole(*inputs)[self.key]


@net("ssdlite with suppression", (1, 3, 320, 320), refusal="node /body/NonZero (NonZero)")
class Detector(nn.Module):
    """Boxes of a data-dependent number."""

    def __init__(self):
        super().__init__()
        self.body = models.detection.ssdlite320_mobilenet_v3_large(weights=None, weights_backbone=None, num_classes=4)

    def forward(self, x):
        return self.body([x[0]])[0]["boxes"]


@net("u-net, transposed convolutions", (1, 3, 64, 48))
class UNet(nn.Module):
    def __init__(self, widths=(8, 16, 32), bilinear=False):
        super().__init__()
        self.down = nn.ModuleList(nn.Sequential(conv(a, b), conv(b, b)) for a, b in zip((3,) + widths, widths))
        pairs = list(zip(widths[::-1], widths[-2::-1]))
        self.up = nn.ModuleList(
            nn.Sequential(nn.Upsample(scale_factor=2, mode="bilinear", align_corners=True), nn.Conv2d(a, b, 1))
            if bilinear else nn.ConvTranspose2d(a, b, 2, 2) for a, b in pairs)
        self.join = nn.ModuleList(conv(2 * b, b) for _, b in pairs)
        self.head = nn.Conv2d(widths[0], 2, 1)

    def forward(self, x):
        kept = []
        for block in self.down:
            kept.append(block(x if not kept else F.max_pool2d(kept[-1], 2)))
        x = kept.pop()
        for up, join in zip(self.up, self.join):
            x = join(torch.cat([kept.pop(), up(x)], 1))
        return torch.sigmoid(self.head(x))


net("u-net, bilinear", (1, 3, 64, 48))(lambda: UNet(bilinear=True))


class CSP(nn.Module):
    """Cross-stage bottleneck with SiLU: half of the channels go past the residual blocks."""

    def __init__(self, width: int):
        super().__init__()
        self.left, self.right = conv(width, width // 2, 1, act=nn.SiLU), conv(width, width // 2, 1, act=nn.SiLU)
        self.block = nn.Sequential(conv(width // 2, width // 2, 1, act=nn.SiLU),
                                   conv(width // 2, width // 2, 3, act=nn.SiLU))
        self.last = conv(width, width, 1, act=nn.SiLU)

    def forward(self, x):
        left = self.left(x)
        return self.last(torch.cat([left + self.block(left), self.right(x)], 1))


class YoloBody(nn.Module):
    def __init__(self):
        super().__init__()
        self.stem = nn.Sequential(conv(3, 8, 6 - 1, 2, nn.SiLU), conv(8, 16, 3, 2, nn.SiLU), CSP(16),
                                  conv(16, 32, 3, 2, nn.SiLU), CSP(32))
        self.deep = nn.Sequential(conv(32, 64, 3, 2, nn.SiLU), CSP(64))
        self.narrow = conv(64, 32, 1, act=nn.SiLU)
        self.merge = nn.Sequential(conv(64, 32, 1, act=nn.SiLU), CSP(32))

    def forward(self, x):
        fine = self.stem(x)
        x = self.deep(fine)
        pooled = [x]
        for _ in range(2):
            pooled.append(F.max_pool2d(pooled[-1], 5, 1, 2))
        x = self.narrow(pooled[0] + pooled[1] + pooled[2])
        return self.merge(torch.cat([F.interpolate(x, scale_factor=2.0, mode="nearest"), fine], 1)), x


@net("yolo with anchors, decoded", (1, 3, 96, 128))
class Yolo(nn.Module):
    """Boxes [anchors of all scales, 5 + classes]: centres and extents in pixels, objectness, classes."""

    ANCHORS = (((10, 13), (16, 30), (33, 23)), ((30, 61), (62, 45), (59, 119)))
    STRIDES = (8, 16)
    FIELDS = 5 + 4

    def __init__(self):
        super().__init__()
        self.body = YoloBody()
        self.heads = nn.ModuleList(nn.Conv2d(32, 3 * self.FIELDS, 1) for _ in self.STRIDES)

    def forward(self, x):
        boxes = []
        for feature, head, anchors, stride in zip(self.body(x), self.heads, self.ANCHORS, self.STRIDES):
            y = head(feature)
            height, width = y.shape[2:]
            y = y.view(1, 3, self.FIELDS, height, width).permute(0, 1, 3, 4, 2).sigmoid()
            rows, columns = torch.meshgrid(torch.arange(height), torch.arange(width), indexing="ij")
            grid = torch.stack((columns, rows), 2).view(1, 1, height, width, 2).float()
            sizes = torch.tensor(anchors).float().view(1, 3, 1, 1, 2)
            centre, extent, rest = y.split((2, 2, self.FIELDS - 4), 4)
            decoded = torch.cat(((centre * 2 - 0.5 + grid) * stride, (extent * 2) ** 2 * sizes, rest), 4)
            boxes.append(decoded.view(1, -1, self.FIELDS))
        return torch.cat(boxes, 1)


@net("yolo without anchors, decoded", (1, 3, 96, 128))
class YoloFree(nn.Module):
    """Distances to the four sides as the mean of a softmax over bins."""

    BINS, CLASSES, STRIDES = 8, 4, (8, 16)

    def __init__(self):
        super().__init__()
        self.body = YoloBody()
        self.boxes = nn.ModuleList(nn.Conv2d(32, 4 * self.BINS, 1) for _ in self.STRIDES)
        self.classes = nn.ModuleList(nn.Conv2d(32, self.CLASSES, 1) for _ in self.STRIDES)
        self.mean = nn.Conv2d(self.BINS, 1, 1, bias=False)
        self.mean.weight.data = torch.arange(float(self.BINS)).view(1, self.BINS, 1, 1)

    def forward(self, x):
        features = self.body(x)
        joined = torch.cat([torch.cat((box(f), label(f)), 1).flatten(2)
                            for f, box, label in zip(features, self.boxes, self.classes)], 2)
        centres, strides = [], []
        for f, stride in zip(features, self.STRIDES):
            height, width = f.shape[2:]
            rows, columns = torch.meshgrid(torch.arange(height), torch.arange(width), indexing="ij")
            centres.append(torch.stack((columns, rows)).view(2, -1).float() + 0.5)
            strides.append(torch.full((1, height * width), float(stride)))
        box, label = joined.split((4 * self.BINS, self.CLASSES), 1)
        sides = self.mean(box.view(1, 4, self.BINS, -1).transpose(2, 1).softmax(1)).view(1, 4, -1)
        near, far = sides.chunk(2, 1)
        centre = torch.cat(centres, 1).unsqueeze(0)
        low, high = centre - near, centre + far
        return torch.cat((torch.cat(((low + high) / 2, high - low), 1) * torch.cat(strides, 1), label.sigmoid()), 1)


@net("single shot detector", (1, 3, 96, 96))
class SSD(nn.Module):
    """Raw boxes and class probabilities of two scales."""

    def __init__(self):
        super().__init__()
        self.stages = nn.ModuleList([nn.Sequential(conv(3, 8, 3, 2), conv(8, 16, 3, 2), conv(16, 16, 3, 2)),
                                     conv(16, 32, 3, 2)])
        self.boxes = nn.ModuleList(nn.Conv2d(c, 6 * 4, 3, padding=1) for c in (16, 32))
        self.labels = nn.ModuleList(nn.Conv2d(c, 6 * 3, 3, padding=1) for c in (16, 32))

    def forward(self, x):
        boxes, labels = [], []
        for stage, box, label in zip(self.stages, self.boxes, self.labels):
            x = stage(x)
            boxes.append(box(x).permute(0, 2, 3, 1).contiguous().view(x.size(0), -1, 4))
            labels.append(label(x).permute(0, 2, 3, 1).contiguous().view(x.size(0), -1, 3))
        return torch.cat(boxes, 1), torch.cat(labels, 1).softmax(-1)


@net("centre heatmap with pooling", (1, 3, 64, 64))
class CentreNet(nn.Module):
    """Heatmap in which only the maxima of 3x3 are left."""

    def __init__(self, best: int = 0):
        super().__init__()
        self.body = nn.Sequential(conv(3, 8, 3, 2), conv(8, 16, 3, 2), nn.ConvTranspose2d(16, 8, 4, 2, 1), nn.ReLU())
        self.head = nn.Conv2d(8, 2, 1)
        self.best = best

    def forward(self, x):
        heat = self.head(self.body(x)).sigmoid()
        heat = heat * (F.max_pool2d(heat, 3, 1, 1) == heat).float()
        return heat if self.best == 0 else heat.flatten(1).topk(self.best)[0]


net("centre heatmap with best of all", (1, 3, 64, 64), refusal="node /TopK (TopK)")(lambda: CentreNet(best=8))


@net("pose heatmaps", (1, 3, 64, 48))
class Pose(nn.Sequential):
    def __init__(self):
        super().__init__(conv(3, 8, 3, 2), conv(8, 16, 3, 2), conv(16, 32, 3, 2),
                         nn.ConvTranspose2d(32, 16, 4, 2, 1, bias=False), nn.BatchNorm2d(16), nn.ReLU(),
                         nn.ConvTranspose2d(16, 16, 4, 2, 1, bias=False), nn.BatchNorm2d(16), nn.ReLU(),
                         nn.Conv2d(16, 17, 1))


@net("pose by soft argmax", (1, 3, 64, 48))
class SoftPose(nn.Module):
    """Joints [17, 2] as the mean position of each heatmap."""

    def __init__(self):
        super().__init__()
        self.body = Pose()

    def forward(self, x):
        heat = self.body(x)
        height, width = heat.shape[2:]
        heat = heat.flatten(2).softmax(2).view(1, 17, height, width)
        columns = (heat.sum(2) * torch.linspace(0, 1, width)).sum(2, keepdim=True)
        rows = (heat.sum(3) * torch.linspace(0, 1, height)).sum(2, keepdim=True)
        return torch.cat((columns, rows), 2)


class Inverted(nn.Module):
    """Inverted residual with PReLU."""

    def __init__(self, inputs: int, outputs: int, stride: int = 1):
        super().__init__()
        wide = 2 * inputs
        self.body = nn.Sequential(conv(inputs, wide, 1, act=lambda: nn.PReLU(wide)),
                                  conv(wide, wide, 3, stride, lambda: nn.PReLU(wide), groups=wide),
                                  nn.Conv2d(wide, outputs, 1, bias=False), nn.BatchNorm2d(outputs))
        self.adds = stride == 1 and inputs == outputs

    def forward(self, x):
        return x + self.body(x) if self.adds else self.body(x)


@net("face landmarks", (1, 3, 112, 112))
class Landmarks(nn.Module):
    """Three scales, each averaged or flattened, joined before one dense layer."""

    def __init__(self):
        super().__init__()
        self.stem = nn.Sequential(conv(3, 16, 3, 2), conv(16, 16, 3, groups=16), Inverted(16, 16, 2), Inverted(16, 16))
        self.middle, self.last = Inverted(16, 24, 2), conv(24, 32, 7)
        self.dense = nn.Linear(16 + 24 + 32 * 4, 2 * 68)

    def forward(self, x):
        x = self.stem(x)
        y = self.middle(x)
        z = F.adaptive_avg_pool2d(self.last(y), 2)
        return self.dense(torch.cat([x.mean((2, 3)), F.avg_pool2d(y, y.shape[2:]).flatten(1), z.flatten(1)], 1))


@net("face embedding", (1, 3, 112, 112))
class Embedding(nn.Module):
    """Depthwise convolution over the whole plane, then a vector of length 1."""

    def __init__(self):
        super().__init__()
        self.body = nn.Sequential(conv(3, 16, 3, 2, lambda: nn.PReLU(16)), Inverted(16, 32, 2), Inverted(32, 32),
                                  Inverted(32, 32, 2), Inverted(32, 64, 2), nn.Conv2d(64, 64, 7, groups=64, bias=False),
                                  nn.BatchNorm2d(64), nn.Flatten(), nn.Linear(64, 32, bias=False), nn.BatchNorm1d(32))

    def forward(self, x):
        return F.normalize(self.body((x - 0.5) / 0.5))


@net("text recogniser (crnn)", (1, 1, 32, 100))
class CRNN(nn.Module):
    def __init__(self):
        super().__init__()
        self.features = nn.Sequential(conv(1, 8), nn.MaxPool2d(2, 2), conv(8, 16), nn.MaxPool2d(2, 2), conv(16, 24),
                                      nn.MaxPool2d((2, 2), (2, 1), (0, 1)), conv(24, 24),
                                      nn.MaxPool2d((2, 2), (2, 1), (0, 1)), nn.Conv2d(24, 32, 2), nn.ReLU())
        self.rnn = nn.LSTM(32, 24, num_layers=2, bidirectional=True)
        self.dense = nn.Linear(48, 37)

    def forward(self, x):
        x = self.features(x).squeeze(2).permute(2, 0, 1)
        return F.log_softmax(self.dense(self.rnn(x)[0]), 2)


@net("super-resolution, pixel shuffle", (1, 1, 40, 30))
class SuperResolution(nn.Sequential):
    def __init__(self):
        super().__init__(nn.Conv2d(1, 16, 5, padding=2), nn.Tanh(), nn.Conv2d(16, 9, 3, padding=1), nn.PixelShuffle(3),
                         nn.Sigmoid())


@net("super-resolution, residual over bicubic", (1, 3, 24, 20))
class ResidualSuperResolution(nn.Module):
    def __init__(self):
        super().__init__()
        self.body = nn.Sequential(nn.Conv2d(3, 16, 3, padding=1), nn.LeakyReLU(0.1), nn.Conv2d(16, 12, 3, padding=1),
                                  nn.PixelShuffle(2))

    def forward(self, x):
        return torch.clamp(self.body(x) + F.interpolate(x, scale_factor=2, mode="bicubic", align_corners=False), 0, 1)


@net("style transfer", (1, 3, 32, 40))
class Style(nn.Module):
    """Reflected borders and instance normalisation."""

    def __init__(self):
        super().__init__()
        layer = lambda a, b, size, stride: nn.Sequential(  # noqa: E731
            nn.ReflectionPad2d(size // 2), nn.Conv2d(a, b, size, stride), nn.InstanceNorm2d(b, affine=True))
        self.down = nn.Sequential(layer(3, 8, 9, 1), nn.ReLU(), layer(8, 16, 3, 2), nn.ReLU())
        self.residual = nn.Sequential(layer(16, 16, 3, 1), nn.ReLU(), layer(16, 16, 3, 1))
        self.up, self.head = layer(16, 8, 3, 1), nn.Sequential(nn.ReflectionPad2d(4), nn.Conv2d(8, 3, 9))

    def forward(self, x):
        x = self.down(x)
        x = F.interpolate(x + self.residual(x), scale_factor=2)
        return self.head(F.relu(self.up(x)))


@net("depth, mixed upsampling", (1, 3, 64, 64))
class Depth(nn.Module):
    def __init__(self):
        super().__init__()
        self.stages = nn.ModuleList([conv(3, 8, 3, 2, nn.ELU), conv(8, 16, 3, 2, nn.ELU), conv(16, 32, 3, 2, nn.ELU)])
        self.back = nn.ModuleList([conv(32, 16, 5, groups=1), conv(16, 8, 5)])
        self.head = nn.Conv2d(8, 1, 3, padding=1)

    def forward(self, x):
        a, b, c = (x := self.stages[0](x)), (x := self.stages[1](x)), self.stages[2](x)
        x = F.interpolate(self.back[0](c), size=b.shape[2:], mode="nearest") + b
        x = F.interpolate(self.back[1](x), size=a.shape[2:], mode="bilinear", align_corners=False) + a
        return F.softplus(F.interpolate(self.head(x), scale_factor=2, mode="bilinear", align_corners=False))


@net("matting with a recurrent gate", (1, 3, 32, 32), (1, 8, 16, 16))
class Matting(nn.Module):
    """A convolutional GRU whose state is handed in and out."""

    def __init__(self):
        super().__init__()
        self.encode = conv(3, 8, 3, 2, nn.Hardswish)
        self.gates, self.candidate = nn.Conv2d(16, 16, 3, padding=1), nn.Conv2d(16, 8, 3, padding=1)
        self.head = nn.Conv2d(8, 4, 1)

    def forward(self, x, h):
        y = self.encode(x)
        reset, update = torch.sigmoid(self.gates(torch.cat([y, h], 1))).split(8, 1)
        candidate = torch.tanh(self.candidate(torch.cat([y, reset * h], 1)))
        h = (1 - update) * h + update * candidate
        y = F.interpolate(self.head(h), scale_factor=2, mode="bilinear", align_corners=False)
        colour, alpha = y.split([3, 1], 1)
        return (colour + x).clamp(0, 1), alpha.sigmoid(), h


@net("spatial transformer", (1, 1, 28, 28))
class Transformer2d(nn.Module):
    def __init__(self):
        super().__init__()
        self.locate = nn.Sequential(conv(1, 8, 7, 2), conv(8, 8, 5, 2), nn.Flatten(), nn.Linear(8 * 49, 6))
        self.body = nn.Sequential(conv(1, 8, 5, 2), nn.Flatten(), nn.Linear(8 * 14 * 14, 10))

    def forward(self, x):
        theta = self.locate(x).view(-1, 2, 3) * 0.1
        rows, columns = torch.meshgrid(torch.linspace(-1, 1, 28), torch.linspace(-1, 1, 28), indexing="ij")
        points = torch.stack((columns, rows, torch.ones(28, 28)), 2).view(1, -1, 3)
        grid = torch.matmul(points, theta.transpose(1, 2)).view(1, 28, 28, 2)
        return self.body(F.grid_sample(x, grid, align_corners=False))


@net("mlp mixer", (1, 3, 32, 32))
class Mixer(nn.Module):
    def __init__(self):
        super().__init__()
        self.patches = nn.Conv2d(3, 24, 8, 8)
        self.norms = nn.ModuleList(nn.LayerNorm(24) for _ in range(3))
        self.tokens = nn.Sequential(nn.Linear(16, 32), nn.GELU(), nn.Linear(32, 16))
        self.channels = nn.Sequential(nn.Linear(24, 48), nn.GELU(), nn.Linear(48, 24))
        self.head = nn.Linear(24, 10)

    def forward(self, x):
        x = self.patches(x).flatten(2).transpose(1, 2)
        x = x + self.tokens(self.norms[0](x).transpose(1, 2)).transpose(1, 2)
        x = x + self.channels(self.norms[1](x))
        return self.head(self.norms[2](x).mean(1))


@net("attention over channels and places", (1, 3, 32, 32))
class BlockAttention(nn.Module):
    def __init__(self):
        super().__init__()
        self.enter = conv(3, 16, 3, 2, nn.Mish)
        self.shared = nn.Sequential(nn.Linear(16, 4), nn.ReLU(), nn.Linear(4, 16))
        self.place, self.head = nn.Conv2d(2, 1, 7, padding=3), nn.Linear(16, 10)

    def forward(self, x):
        x = self.enter(x)
        x = x * torch.sigmoid(self.shared(x.mean((2, 3))) + self.shared(x.amax((2, 3)))).view(1, 16, 1, 1)
        x = x * torch.sigmoid(self.place(torch.cat([x.mean(1, keepdim=True), x.max(1, keepdim=True)[0]], 1)))
        return self.head(F.adaptive_max_pool2d(x, 1).flatten(1))


@net("weighted feature pyramid", (1, 3, 64, 64))
class Pyramid(nn.Module):
    def __init__(self):
        super().__init__()
        self.stages = nn.ModuleList(conv(c, 16, 3, 2, nn.SiLU) for c in (3, 16, 16))
        self.weights = nn.Parameter(torch.rand(2, 2))
        self.fuse = nn.ModuleList(conv(16, 16, 3, groups=16, act=nn.SiLU) for _ in range(2))

    def forward(self, x):
        a = self.stages[0](x)
        b = self.stages[1](a)
        c = self.stages[2](b)
        w = F.relu(self.weights)
        w = w / (w.sum(1, keepdim=True) + 1e-4)
        b = self.fuse[0](w[0, 0] * b + w[0, 1] * F.interpolate(c, scale_factor=2))
        return self.fuse[1](w[1, 0] * b + w[1, 1] * F.max_pool2d(a, 3, 2, 1)), c
