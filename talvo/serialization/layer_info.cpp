#include "talvo/serialization/layer_info.h"

#include <exception>

#include "talvo/serialization/record_support.h"
#include "talvo/utility/log.h"

namespace talvo::runtime {

LayerInfo::LayerInfo() : LayerInfo(65535, "LayerInfo") {}

LayerInfo::LayerInfo(unsigned short type_number, char const* class_name) : type(type_number) {
  serializable_type = class_name;
}

void LayerInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  Serializable::VisitAttr(visitor);
  // Files from before the field existed go on without it: the list of types in the model tells the type again.
  try {
    TALVO_VISIT_FIELD(type);
  } catch (std::exception const&) {
    utility::Log(8, "This may be a old version model file.");
  }
  TALVO_VISIT_FIELD(id);
  TALVO_VISIT_FIELD(input_ids);
  TALVO_VISIT_FIELD(read_count);
}

InputInfo::InputInfo() : LayerInfo(0, "InputInfo") {}

void InputInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  TALVO_VISIT_FIELD(location);
}

LayerPlaceholderInfo::LayerPlaceholderInfo() : LayerInfo(252, "LayerPlaceholderInfo") {}

void LayerPlaceholderInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  TALVO_VISIT_FIELD(input_shapes);
  TALVO_VISIT_FIELD(output_shape);
  TALVO_VISIT_FIELD(desc);
}

}  // namespace talvo::runtime
