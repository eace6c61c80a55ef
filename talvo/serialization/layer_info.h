// The description of one layer of a model: the base record, the inputs and placeholders, and the makers. The records of
// the layer families stand in the headers layer_info_*.h. A record holds no behaviour; kernels read it by field name.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "talvo/serialization/serializable.h"
#include "talvo/utility/export.h"

namespace talvo::runtime {

/// Fields are visited in the order in which they are declared, here and in all derived records; a field's key is its
/// name. All strings of weights hold base64 text of little-endian float32, row-major; a bias counts with `if_bias`.
class TALVO_API LayerInfo : public Serializable {
 public:
  LayerInfo();
  /// An unreadable `type` is logged and left as it is; the walk goes on.
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  unsigned short type;                 // 65535 where no derived class gives its number
  std::string id = " ";                // unique within a model
  std::vector<std::string> input_ids;  // the layers whose outputs this one takes, in order
  unsigned short read_count = 0;       // layers that read this one; recomputed by TLModelInfo::GetOutputIDs

 protected:
  LayerInfo(unsigned short type_number, char const* class_name);
};

/// The place where a tensor of the application enters the model.
class TALVO_API InputInfo : public LayerInfo {
 public:
  InputInfo();
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  unsigned short location = 0;
};

class TALVO_API LayerPlaceholderInfo : public LayerInfo {
 public:
  LayerPlaceholderInfo();
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  std::vector<std::vector<unsigned short>> input_shapes;
  std::vector<unsigned short> output_shape;
  std::string desc;
};

/// The record that the JSON text of a layer names in "serializable_type", filled from the text. Assert: a text that is
/// no JSON object, a class that a lone layer cannot have, and whatever FromJsonString refuses.
TALVO_API std::shared_ptr<LayerInfo> LayerInfoFactory(std::string const& json);

}  // namespace talvo::runtime
