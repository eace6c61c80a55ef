// The way from a loaded first-generation file to today's records.
#pragma once

#include <stdexcept>
#include <string>

#include "talvo/serialization/model_info.h"
#include "talvo/serialization/tlmodel1.h"
#include "talvo/utility/export.h"

namespace talvo::runtime {

/// A layer that could not be converted; the text is that of the refusal.
class TALVO_API RefusedLayer : public std::runtime_error {
 public:
  RefusedLayer(std::string const& refusal, unsigned short layer_id, unsigned short layer_type)
      : std::runtime_error(refusal), id(layer_id), type(layer_type) {}

  unsigned short id, type;  // as in the file
};

/// Adds the loaded layers to a fresh model, in file order: layer 17 becomes the record "layer-17". A layer with a fused
/// activation becomes two, "layer-17!" and the activation under the plain name, so that what reads it reads the result.
/// RefusedLayer: a layer or a value without a counterpart, channels of a depthwise layer that differ, a weight array
/// shorter than its shape. Assert: an id that stands more than 8 times in the file.
TALVO_API void ConvertTLModel1(talvo1::QZNetLoader const& loader, TLModelInfo& model);

}  // namespace talvo::runtime
