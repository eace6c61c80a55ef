// Batch normalisations have no kernel of their own; behind a convolution they are a part of its weights and bias.
#pragma once

#include <map>
#include <string>

#include "talvo/talvo.h"

namespace upgrade_model {

/// Folds each batch normalisation that is the only reader of a convolution into that convolution, which takes the id
/// and the place of the normalisation. A configuration, where there is one, keeps apart what it names kernels for on
/// either side. Returns the ids of the convolutions by those of the normalisations.
/// weight' = factor * weight, bias' = factor * (bias - mean) + shift, factor = scale / sqrt(variance + eps), in double
/// and rounded to the nearest binary16, which is what packages hold.
/// Throws std::runtime_error with the layer: channels that differ, a result that binary16 cannot hold.
std::map<std::string, std::string> FoldBatchNormalisations(talvo::runtime::TLModelInfo& model,
                                                           talvo::runtime::TLModelCfg const* config);

}  // namespace upgrade_model
