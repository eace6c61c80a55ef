// The base of everything that makes tensors. A tensor keeps a plain pointer to its device.
#pragma once

#include <memory>

#include "talvo/utility/export.h"

namespace talvo::runtime {

class TALVO_API Device : public std::enable_shared_from_this<Device> {
 public:
  virtual ~Device() = default;
};

}  // namespace talvo::runtime
