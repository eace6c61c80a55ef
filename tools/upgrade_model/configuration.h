// Which kernel runs each layer of an upgraded model.
#pragma once

#include <memory>
#include <string>

#include "talvo/talvo.h"

namespace upgrade_model {

/// The portable kernel of each layer. Throws std::runtime_error with the layer and the reason where none is known.
std::shared_ptr<talvo::runtime::TLModelCfg> DefaultConfiguration(talvo::runtime::TLModelInfo const& model);

/// A configuration from its JSON file. Throws std::runtime_error for a file that holds none.
std::shared_ptr<talvo::runtime::TLModelCfg> ReadConfiguration(std::string const& path);

/// Throws std::runtime_error with the first layer that the configuration of the file `path` leaves out.
void RequireKernels(talvo::runtime::TLModelInfo const& model, talvo::runtime::TLModelCfg const& config,
                    std::string const& path);

}  // namespace upgrade_model
