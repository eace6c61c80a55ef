#include "talvo/serialization/visitor.h"

namespace talvo::runtime {

Visitor::~Visitor() = default;

}  // namespace talvo::runtime
