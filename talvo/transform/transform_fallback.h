// Layout conversions: from plain tensors to blocked ones and back, and the packing of weight arrays. Public functions;
// no kernel calls them at run time.
#pragma once

#include <memory>
#include <vector>

#include "talvo/runtime/device_cpu.h"
#include "talvo/runtime/tensor_cpu.h"
#include "talvo/utility/export.h"
#include "talvo/utility/half.h"

namespace talvo::kernel {

// What all Function_Tensor_* share. The result is a new tensor of `device` with the input's data type and location and
// a fresh Extra; the input is not changed, and elements of every data type are moved as they are. An input of another
// layout than the first one in the name, or outside main memory, gives an empty pointer. Assert: a null input or
// device, dims of another rank than the layout has, an extent that is no multiple of its block, a size over 32 bits.
//
// In a name a capital letter with a digit behind it is the outer part of an axis (N4: n / 4), a small letter with a
// digit before it the inner part (4n: n % 4), innermost last. G groups, N output channels, C input channels.

/// dims ceil(C / 4), H, W, 4. The lanes behind channel C - 1 are zero.
TALVO_API std::shared_ptr<runtime::TensorCPU> Function_Tensor_CHW_To_C4HW4_Fallback(
    std::shared_ptr<runtime::TensorCPU> input, std::shared_ptr<runtime::DeviceCPU> device);
/// dims ceil(C / 8), H, W, 8. The lanes behind channel C - 1 are zero.
TALVO_API std::shared_ptr<runtime::TensorCPU> Function_Tensor_CHW_To_C8HW8_Fallback(
    std::shared_ptr<runtime::TensorCPU> input, std::shared_ptr<runtime::DeviceCPU> device);
/// dims 4 dims[0], H, W: padded channels remain. Keeps Extra.
TALVO_API std::shared_ptr<runtime::TensorCPU> Function_Tensor_C4HW4_To_CHW_Fallback(
    std::shared_ptr<runtime::TensorCPU> input, std::shared_ptr<runtime::DeviceCPU> device);
/// dims 8 dims[0], H, W: padded channels remain. Keeps Extra.
TALVO_API std::shared_ptr<runtime::TensorCPU> Function_Tensor_C8HW8_To_CHW_Fallback(
    std::shared_ptr<runtime::TensorCPU> input, std::shared_ptr<runtime::DeviceCPU> device);
/// As CHW_To_C4HW4, with the channel blocks stacked along the rows of one image: dims 1, ceil(C / 4) H, W, 4.
TALVO_API std::shared_ptr<runtime::TensorCPU> Function_Tensor_CHW_To_C4HW4_Image2D_Fallback(
    std::shared_ptr<runtime::TensorCPU> input, std::shared_ptr<runtime::DeviceCPU> device);
/// The reverse, for blocks of `height` rows of which the first `width` columns are read: dims 4 (dims[1] / height),
/// height, width, which a height above dims[1] leaves without channels. Keeps Extra. Assert: a height below 1, a
/// negative width; where there are channels, no image or a width above dims[2].
TALVO_API std::shared_ptr<runtime::TensorCPU> Function_Tensor_C4HW4_Image2D_To_CHW_Fallback(
    std::shared_ptr<runtime::TensorCPU> input, int width, int height, std::shared_ptr<runtime::DeviceCPU> device);

// Weights. Where two arrangements share a layout number, the caller knows from the function which one it got.

TALVO_API std::shared_ptr<runtime::TensorCPU> Function_Tensor_GNCHW_To_GN4C4HW4n4c_Fallback(
    std::shared_ptr<runtime::TensorCPU> input, std::shared_ptr<runtime::DeviceCPU> device);
/// Layout GN4C4HW4n4c.
TALVO_API std::shared_ptr<runtime::TensorCPU> Function_Tensor_GNCHW_To_GN4C4HW4c4n_Fallback(
    std::shared_ptr<runtime::TensorCPU> input, std::shared_ptr<runtime::DeviceCPU> device);
TALVO_API std::shared_ptr<runtime::TensorCPU> Function_Tensor_GNCHW_To_GN8C8HW8n8c_Fallback(
    std::shared_ptr<runtime::TensorCPU> input, std::shared_ptr<runtime::DeviceCPU> device);
TALVO_API std::shared_ptr<runtime::TensorCPU> Function_Tensor_GNCHW_To_GN8C8HW8c8n_Fallback(
    std::shared_ptr<runtime::TensorCPU> input, std::shared_ptr<runtime::DeviceCPU> device);
TALVO_API std::shared_ptr<runtime::TensorCPU> Function_Tensor_GNCHW_To_GN4C8HW4n8c_Fallback(
    std::shared_ptr<runtime::TensorCPU> input, std::shared_ptr<runtime::DeviceCPU> device);
TALVO_API std::shared_ptr<runtime::TensorCPU> Function_Tensor_GNCHW_To_GN8C4HW8n4c_Fallback(
    std::shared_ptr<runtime::TensorCPU> input, std::shared_ptr<runtime::DeviceCPU> device);
TALVO_API std::shared_ptr<runtime::TensorCPU> Function_Tensor_GNCHW_To_GN4C8HW8c4n_Fallback(
    std::shared_ptr<runtime::TensorCPU> input, std::shared_ptr<runtime::DeviceCPU> device);
TALVO_API std::shared_ptr<runtime::TensorCPU> Function_Tensor_GNCHW_To_GN2C2HW2c2n_Fallback(
    std::shared_ptr<runtime::TensorCPU> input, std::shared_ptr<runtime::DeviceCPU> device);
TALVO_API std::shared_ptr<runtime::TensorCPU> Function_Tensor_GNCHW_To_GN16C16HW16c16n_Fallback(
    std::shared_ptr<runtime::TensorCPU> input, std::shared_ptr<runtime::DeviceCPU> device);
TALVO_API std::shared_ptr<runtime::TensorCPU> Function_Tensor_GNCHW_To_GN4CHW4_Fallback(
    std::shared_ptr<runtime::TensorCPU> input, std::shared_ptr<runtime::DeviceCPU> device);
TALVO_API std::shared_ptr<runtime::TensorCPU> Function_Tensor_GNCHW_To_GN8CHW8_Fallback(
    std::shared_ptr<runtime::TensorCPU> input, std::shared_ptr<runtime::DeviceCPU> device);
/// Layout GN8CHW8.
TALVO_API std::shared_ptr<runtime::TensorCPU> Function_Tensor_GNCHW_To_GNC8HW8_Fallback(
    std::shared_ptr<runtime::TensorCPU> input, std::shared_ptr<runtime::DeviceCPU> device);
/// Layout GNCHW.
TALVO_API std::shared_ptr<runtime::TensorCPU> Function_Tensor_GNCHW_To_GCNHW_Fallback(
    std::shared_ptr<runtime::TensorCPU> input, std::shared_ptr<runtime::DeviceCPU> device);
/// Layout GN4C4HW4n4c.
TALVO_API std::shared_ptr<runtime::TensorCPU> Function_Tensor_GNCHW_To_GHWN4C44c4n_Fallback(
    std::shared_ptr<runtime::TensorCPU> input, std::shared_ptr<runtime::DeviceCPU> device);
TALVO_API std::shared_ptr<runtime::TensorCPU> Function_Tensor_GNCHW_To_GC4N4HW4c4n_Fallback(
    std::shared_ptr<runtime::TensorCPU> input, std::shared_ptr<runtime::DeviceCPU> device);
/// Depthwise weights. N or C other than 1 ends the process, before the layout is looked at.
TALVO_API std::shared_ptr<runtime::TensorCPU> Function_Tensor_GNCHW_To_G4NCHW4_Fallback(
    std::shared_ptr<runtime::TensorCPU> input, std::shared_ptr<runtime::DeviceCPU> device);
/// Depthwise weights. N or C other than 1 ends the process, before the layout is looked at.
TALVO_API std::shared_ptr<runtime::TensorCPU> Function_Tensor_GNCHW_To_G8NCHW8_Fallback(
    std::shared_ptr<runtime::TensorCPU> input, std::shared_ptr<runtime::DeviceCPU> device);
/// For a matrix of any layout.
TALVO_API std::shared_ptr<runtime::TensorCPU> Function_Tensor_NC_To_N8C88c8n_Fallback(
    std::shared_ptr<runtime::TensorCPU> input, std::shared_ptr<runtime::DeviceCPU> device);

/// Pads N and C to multiples of 4. All bytes of the added elements are the low byte of `value` as an integer, so that
/// 0 gives zeros of every type and 1.0 gives the bytes 0x01.
TALVO_API std::shared_ptr<runtime::TensorCPU> Function_Tensor_GNCHW_Concat_Value(
    std::shared_ptr<runtime::TensorCPU> input, float value, std::shared_ptr<runtime::DeviceCPU> device);

// Weight arrays of G N C H W values; further values are ignored. The result holds as many values as the packed tensor.
// Assert: fewer values, and what the tensor function refuses.

/// Pads N and C to multiples of 4 with zeros.
TALVO_API std::vector<float> Function_FloatArray_GNCHW_To_GN4C4HW4c4n_Fallback(
    std::vector<float> values, unsigned int G, unsigned int N, unsigned int C, unsigned int H, unsigned int W,
    std::shared_ptr<runtime::DeviceCPU> device);
/// Pads N and C to multiples of 4 with zeros.
TALVO_API std::vector<half_float::half> Function_HalfArray_GNCHW_To_GN4C4HW4c4n_Fallback(
    std::vector<half_float::half> values, unsigned int G, unsigned int N, unsigned int C, unsigned int H,
    unsigned int W, std::shared_ptr<runtime::DeviceCPU> device);
/// Ends in the arrangement GN4C4HW4c4n, not in that of its name. Pads N and C to multiples of 4 with zeros.
TALVO_API std::vector<float> Function_FloatArray_GNCHW_To_GC4N4HW4c4n_Fallback(
    std::vector<float> values, unsigned int G, unsigned int N, unsigned int C, unsigned int H, unsigned int W,
    std::shared_ptr<runtime::DeviceCPU> device);
/// Pads N and C to multiples of 4 with zeros.
TALVO_API std::vector<float> Function_FloatArray_GNCHW_To_GHWN4C44c4n_Fallback(
    std::vector<float> values, unsigned int G, unsigned int N, unsigned int C, unsigned int H, unsigned int W,
    std::shared_ptr<runtime::DeviceCPU> device);
TALVO_API std::vector<float> Function_FloatArray_GNCHW_To_G4NCHW4_Fallback(std::vector<float> values, unsigned int G,
                                                                           unsigned int N, unsigned int C,
                                                                           unsigned int H, unsigned int W,
                                                                           std::shared_ptr<runtime::DeviceCPU> device);
TALVO_API std::vector<half_float::half> Function_HalfArray_GNCHW_To_G4NCHW4_Fallback(
    std::vector<half_float::half> values, unsigned int G, unsigned int N, unsigned int C, unsigned int H,
    unsigned int W, std::shared_ptr<runtime::DeviceCPU> device);

}  // namespace talvo::kernel
