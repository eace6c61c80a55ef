#!/usr/bin/env python3
"""Writes the golden packages beside this script, byte by byte and without the library.

package_<version>.tlnmodel hold one small model whose layers and configuration cross every version gate of the format;
package.json is the newest of them as JSON.
"""
import base64
import decimal
import json
import pathlib
import struct

FOLDER = pathlib.Path(__file__).parent


def u16(*values):
    return struct.pack("<%dH" % len(values), *values)


def i16(*values):
    return struct.pack("<%dh" % len(values), *values)


def u32(*values):
    return struct.pack("<%dI" % len(values), *values)


def u64(value):
    return struct.pack("<Q", value)


def f32(*values):
    return struct.pack("<%df" % len(values), *values)


def half(*values):
    return struct.pack("<%de" % len(values), *values)


def text(value):
    return u64(len(value)) + value.encode()


def texts(*values):
    return u64(len(values)) + b"".join(map(text, values))


def blob(*values):  # the values are exact halves
    return u64(len(values)) + half(*values)


def layer(name, number, layer_id, inputs, read_count):
    return text(name) + u16(number) + text(layer_id) + texts(*inputs) + u16(read_count)


def layers(version):
    yield layer("InputInfo", 0, "in", [], 1) + u16(0)
    yield (layer("Conv2dInfo", 2, "conv", ["in"], 1) + u16(1, 2, 1, 1, 0, 0, 0, 0, 1, 1, 1, 1, 1) + b"\x01"
           + blob(0.5, -2.0) + blob(1.0, 65504.0))
    batch_norm = (layer("BatchNorm2dInfo", 9, "norm", ["conv"], 1) + u16(2) + f32(1e-5, 0.1) + b"\x01\x01"
                  + blob(1.0, 2.0) + blob() + blob(4.0, 0.25) + blob(0.0, -0.0))
    if version >= 20005:
        batch_norm += struct.pack("<i", 77)
    yield batch_norm
    activation = layer("ActivationInfo", 1, "act", ["norm"], 1) + u16(4) + half(0.125, 3.0)
    if version >= 20012:
        activation += i16(2) + text("zczMPQ==")  # 0.1, which is no half
    yield activation
    yield layer("TensorUnSqueezeInfo", 15, "axis", ["act"], 1) + i16(-1)
    yield (layer("LayerPlaceholderInfo", 252, "free", ["axis"], 0) + u64(2) + u64(3) + u16(1, 2, 3) + u64(4)
           + u16(4, 5, 6, 65535) + u64(1) + u16(9) + text("two lists"))


def model(version):
    result = text("TLModelInfo") + texts("free")
    result += text("NetExtraInfo") + u32(3, 1, 7, 224, 112)
    result += u64(1500000) if version > 20006 else u32(1500000)
    result += text("TimeInfo") + u32(2023, 5, 1, 10, 30, 0) + text("cpu")
    if version >= 20004:
        result += text("a summary")
    result += texts("in", "conv", "norm", "act", "axis", "free") + u64(6) + u16(0, 2, 9, 1, 16, 252)
    return result + b"".join(layers(version))


def empty_config():
    return text("") + texts()


def config_sse():
    quant = text("Reformat") + text("InferenceParamActQuant") + i16(-3)
    compute = (text("Conv") + text("InferenceParamConv2DOpenGLCompute") + u32(1, 2, 3) + text("relu")
               + struct.pack("<i", -5) + half(0.5, 1.5) + i16(1) + text("AAAA"))
    one_layer = text("first") + texts("to_block") + quant + compute + texts()
    return text("sse") + texts("conv") + one_layer


def config(version):
    result = config_sse() + 6 * empty_config()
    if version >= 20008:
        result += text("the youngest comes last") + texts()
    return result


def package(version):
    return (u32(version) + text("golden") + u16(1, 2, 3, 4) + text("TLModelInfoArr") + texts("net") + model(version)
            + texts("net") + config(version))


def weights(*values):
    return base64.b64encode(f32(*values)).decode()


def single(value):  # a float32 as the double that equals it
    return struct.unpack("<f", f32(value))[0]


def json_layer(name, number, layer_id, inputs, read_count, **fields):
    return dict(serializable_type=name, type=number, id=layer_id, input_ids=inputs, read_count=read_count, **fields)


def json_package():
    time = dict(serializable_type="TimeInfo", year=2023, moon=5, day=1, hour=10, min=30, sec=0)
    extra = dict(serializable_type="NetExtraInfo", version=3, app_type=1, model_id=7, model_base_h=224,
                 model_base_w=112, fmlas=1500000, time=time, device="cpu", summary="a summary")
    net = {
        "serializable_type": "TLModelInfo", "squential_output_ids": ["free"], "extra_info": extra,
        "squential_ids": ["in", "conv", "norm", "act", "axis", "free"], "squential_types": [0, 2, 9, 1, 16, 252],
        "in": json_layer("InputInfo", 0, "in", [], 1, location=0),
        "conv": json_layer("Conv2dInfo", 2, "conv", ["in"], 1, in_channels=1, out_channels=2, kernel_x=1, kernel_y=1,
                           padding_l=0, padding_t=0, padding_r=0, padding_b=0, stride_x=1, stride_y=1, dilation_x=1,
                           dilation_y=1, groups=1, if_bias=True, weight=weights(0.5, -2.0),
                           bias=weights(1.0, 65504.0)),
        "norm": json_layer("BatchNorm2dInfo", 9, "norm", ["conv"], 1, num_features=2, eps=single(1e-5),
                           momentum=single(0.1), if_affine=True, if_track_running_stats=True,
                           scale=weights(1.0, 2.0), shift="", variance=weights(4.0, 0.25), mean=weights(0.0, -0.0),
                           num_batches_tracked=77),
        "act": json_layer("ActivationInfo", 1, "act", ["norm"], 1, activation_type=4, activation_alpha=0.125,
                          activation_beta=3.0, num_parameters=2, weight="zczMPQ=="),
        "axis": json_layer("TensorUnSqueezeInfo", 15, "axis", ["act"], 1, dim=-1),
        "free": json_layer("LayerPlaceholderInfo", 252, "free", ["axis"], 0,
                           input_shapes=[[1, 2, 3], [4, 5, 6, 65535]], output_shape=[9], desc="two lists"),
    }
    quant = dict(kernel_type="Reformat", infer_param_type="InferenceParamActQuant",
                 infer_param=dict(output_step_size=-3))
    compute = dict(kernel_type="Conv", infer_param_type="InferenceParamConv2DOpenGLCompute",
                   infer_param=dict(local_x=1, local_y=2, local_z=3, activation="relu", activation_type=-5,
                                    activation_alpha=0.5, activation_beta=1.5, num_parameters=1, weight="AAAA"))
    conv = dict(summary="first", input_converters=dict(kernel_ids=["to_block"], to_block=quant), kernel=compute,
                output_converters=dict(kernel_ids=[]))
    configs = dict(cpu_sse=dict(summary="sse", squential_ids=["conv"], conv=conv))
    for key in ("cpu_avx", "cpu_armv7", "cpu_armv8", "gpu_opengl", "gpu_metal", "gpu_cuda", "cpu_armv82"):
        configs[key] = dict(summary="", squential_ids=[])
    configs["cpu_armv82"]["summary"] = "the youngest comes last"
    return dict(serialization_protocol_version=20015, sdk_type="golden", core_major_ver=1, core_minor_ver=2,
                sdk_major_ver=3, sdk_minor_ver=4,
                model_arr=dict(serializable_type="TLModelInfoArr", squential_ids=["net"], net=net),
                config_arr=dict(squential_ids=["net"], net=configs))


class Plain(float):
    """A number in digits without an exponent."""

    def __repr__(self):
        return format(decimal.Decimal(float.__repr__(self)), "f")


def main():
    for version in (20003, 20004, 20006, 20007, 20011, 20015):
        (FOLDER / ("package_%d.tlnmodel" % version)).write_bytes(package(version))
    content = json_package()
    norm = content["model_arr"]["net"]["norm"]
    pretty = json.dumps(content, indent=4).replace(repr(norm["eps"]), repr(Plain(norm["eps"])))
    (FOLDER / "package.json").write_text(pretty)


if __name__ == "__main__":
    main()
