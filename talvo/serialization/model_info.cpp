#include "talvo/serialization/rapidjson_support.h"

#include "talvo/serialization/model_info.h"

#include <algorithm>
#include <set>
#include <string_view>
#if defined(__GLIBC__)
#include <malloc.h>
#endif

#include "talvo/serialization/json_text_support.h"
#include "talvo/serialization/layer_info_maker_support.h"
#include "talvo/serialization/record_support.h"
#include "talvo/utility/file_support.h"
#include "talvo/utility/log.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::runtime {
namespace {

using Layers = std::unordered_map<std::string, std::shared_ptr<LayerInfo>>;

// The type in the model's list overrules the one inside the record.
void VisitLayer(Visitor& visitor, std::string const& id, unsigned short type, Layers& layers) {
  auto place = layers.find(id);
  if (place == layers.end()) {
    place = layers.emplace(id, support::MakeLayerInfo(type)).first;
    place->second->type = type;
  }
  LayerInfo* const layer = place->second.get();
  visitor.Visit(layer, id.c_str());
  if (layer->type == type) return;
  utility::Log(8, "This TLModelInfo may be a old vesion file, please verify it.");
  layer->type = type;
}

void RequireTypes(TLModelInfo const& model) {
  if (model.squential_ids.size() != model.squential_types.size())
    utility::Refuse("Length of layer id and type mismatch.");
}

// The ids of `order` that nothing reads, each once, then those that only the table holds, sorted.
std::vector<std::string> UnreadIDs(std::vector<std::string> const& order, Layers const& layers) {
  std::vector<std::string> unread;
  std::set<std::string_view> seen, others;  // hash tables of ours would be more that a file can make slow
  for (std::string const& id : order) {
    auto const place = layers.find(id);
    if (place != layers.end() && seen.insert(id).second && place->second->read_count == 0) unread.push_back(id);
  }
  for (auto const& [id, layer] : layers) {
    if (layer->read_count == 0 && seen.count(id) == 0) others.insert(id);
  }
  for (std::string_view const id : others) unread.emplace_back(id);
  return unread;
}

}  // namespace

// A heap keeps what is freed to it. Where nets are made, texts of weights as long as their tensors would stay for
// nothing; where models are only read, the next one needs the memory. Once for all models: the whole heap is walked,
// and a file may hold thousands of them.
TLModelInfoArr::~TLModelInfoArr() {
  auto const has_net = [](auto const& model) { return model.second != nullptr && model.second->has_net; };
  bool const is_kept_by_nets = std::any_of(models.begin(), models.end(), has_net);
  models.clear();
#if defined(__GLIBC__)
  if (is_kept_by_nets) malloc_trim(0);
#endif
}

void TimeInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  TALVO_VISIT_FIELD(year);
  TALVO_VISIT_FIELD(moon);
  TALVO_VISIT_FIELD(day);
  TALVO_VISIT_FIELD(hour);
  TALVO_VISIT_FIELD(min);
  TALVO_VISIT_FIELD(sec);
}

void NetExtraInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  TALVO_VISIT_FIELD(version);
  TALVO_VISIT_FIELD(app_type);
  TALVO_VISIT_FIELD(model_id);
  TALVO_VISIT_FIELD(model_base_h);
  TALVO_VISIT_FIELD(model_base_w);
  // Old streams hold 32 bits, which must be read and written at their width. What is written is the temporary: 0.
  if (visitor->_serialization_protocol_version <= 20006) {
    unsigned int fmlas_32_bit = 0;
    visitor->Visit(&fmlas_32_bit, "fmlas");
    fmlas = fmlas_32_bit;
  } else {
    TALVO_VISIT_FIELD(fmlas);
  }
  TALVO_VISIT_FIELD(time);
  TALVO_VISIT_FIELD(device);
  if (visitor->_serialization_protocol_version >= 20004) TALVO_VISIT_FIELD(summary);
}

void TensorInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  TALVO_VISIT_FIELD(shape);
  TALVO_VISIT_FIELD(dtype);
  TALVO_VISIT_FIELD(data);
  TALVO_VISIT_FIELD(layout);
}

void TLModelInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  if (visitor->_serialization_protocol_version > __SERIALIZATION_PROTOCOL_VERSION__) utility::Refuse(nullptr);
  support::VisitBase(*this, visitor);
  TALVO_VISIT_FIELD(squential_output_ids);
  TALVO_VISIT_FIELD(extra_info);
  TALVO_VISIT_FIELD(squential_ids);
  TALVO_VISIT_FIELD(squential_types);
  // Before the first record is made: both lists come from the file, and each entry costs a record.
  RequireTypes(*this);
  support::AssertFewRepeats(squential_ids);
  for (std::size_t i = 0; i < squential_ids.size(); ++i)
    VisitLayer(*visitor, squential_ids[i], squential_types[i], layers);
}

std::vector<std::string> TLModelInfo::GetInputIDs() {
  RequireTypes(*this);
  std::vector<std::string> ids;
  for (std::size_t i = 0; i < squential_ids.size(); ++i) {
    if (squential_types[i] == 0) ids.push_back(squential_ids[i]);
  }
  return ids;
}

std::vector<std::string> TLModelInfo::GetOutputIDs() {
  for (auto const& [id, layer] : layers) {
    if (layer == nullptr) utility::Refuse("model: layer \"%s\" has no record", id.c_str());
    layer->read_count = 0;
  }
  // An id that no layer has ends here with std::out_of_range: there is nothing to count.
  for (auto const& entry : layers) {
    for (std::string const& id : entry.second->input_ids) ++layers.at(id)->read_count;
  }
  return UnreadIDs(squential_ids, layers);
}

void TLModelInfoArr::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  support::VisitTable(visitor, squential_ids, "squential_ids", models, sizeof(TLModelInfo));
}

TLNModel::TLNModel()
    : model_arr(std::make_shared<TLModelInfoArr>()), config_arr(std::make_shared<TLModelMultiBackendCfgsArr>()) {}

void TLNModel::VisitAttr(std::shared_ptr<Visitor> visitor) {
  TALVO_VISIT_FIELD(sdk_type);
  TALVO_VISIT_FIELD(core_major_ver);
  TALVO_VISIT_FIELD(core_minor_ver);
  TALVO_VISIT_FIELD(sdk_major_ver);
  TALVO_VISIT_FIELD(sdk_minor_ver);
  visitor->Visit(model_arr.get(), "model_arr");
  visitor->Visit(config_arr.get(), "config_arr");
}

std::shared_ptr<TLModelInfo> parseModelInfoPtrFromJson(char const* path) {
  auto const model = std::make_shared<TLModelInfo>();
  support::ReadRecord(support::JSONText(utility::ReadJsonFileText(path)), model.get(), "Document must be a Object.");
  return model;
}

}  // namespace talvo::runtime
