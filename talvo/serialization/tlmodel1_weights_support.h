// The weights of first-generation layers as the blobs of today's records. Internal: not installed.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "talvo/serialization/tlmodel1_layers.h"

namespace talvo::runtime::support {

/// The base64 text of the first `count` values; zeros stand for those that the array does not have.
std::string WeightText(std::vector<float> const& values, std::size_t count);
std::string WeightText(std::vector<float> const& values);

/// From [out, row, column, input within the group] to [out, input within the group, row, column]. Outputs beyond a
/// multiple of the groups are zeros.
std::string ConvolutionWeight(talvo1::QZLayerInfo_Conv2D const& layer);

/// From [out, row, column, in] to [in, out, row, column]. Assert: fewer weights than that.
std::string TransposedConvolutionWeight(talvo1::QZLayerInfo_Conv2DTranspose const& layer);

/// From [row, column, channel] to [channel, row, column].
std::string DepthWiseWeight(talvo1::QZLayerInfo_DepthWiseConv2D const& layer);

}  // namespace talvo::runtime::support
