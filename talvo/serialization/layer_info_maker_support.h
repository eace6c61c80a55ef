// Makes layer records by type number and by class name. Internal: not installed.
#pragma once

#include <memory>
#include <string>

#include "talvo/serialization/layer_info.h"

namespace talvo::runtime::support {

/// A fresh record for a number of `squential_types`. Assert: a number that a model cannot hold.
std::shared_ptr<LayerInfo> MakeLayerInfo(unsigned short type);

/// A fresh record of a class that may stand alone in JSON. Assert: any other name.
std::shared_ptr<LayerInfo> MakeLayerInfo(std::string const& class_name);

}  // namespace talvo::runtime::support
