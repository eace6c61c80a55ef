// The package of the golden files, as records.
#pragma once

#include <memory>

#include "talvo/serialization/model_info.h"

namespace talvo::test {

/// What golden/make_golden.py writes. `version` resets the fields that files of this version do not hold.
std::shared_ptr<runtime::TLNModel> GoldenPackage(unsigned int version);

}  // namespace talvo::test
