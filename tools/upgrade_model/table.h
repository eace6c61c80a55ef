// What became of the layers of a first-generation file.
#pragma once

#include <iosfwd>
#include <map>
#include <string>

#include "talvo/talvo.h"

namespace upgrade_model {

/// A row for each layer of the file: what it was, and the records and kernels that stand for it. `folded`: ids of
/// convolutions by those of the batch normalisations that were folded into them.
void PrintTable(talvo1::QZNetLoader const& loader, talvo::runtime::TLModelInfo const& model,
                talvo::runtime::TLModelCfg const& config, std::map<std::string, std::string> const& folded,
                std::ostream& out);

}  // namespace upgrade_model
