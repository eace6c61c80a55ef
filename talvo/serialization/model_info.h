// The description of one network, of several by name, and the package that an application opens.
#pragma once

#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "talvo/serialization/layer_info.h"
#include "talvo/serialization/model_cfg.h"
#include "talvo/serialization/serializable.h"
#include "talvo/utility/export.h"
#include "talvo/utility/features.h"

namespace talvo::runtime {

/// When a model was made.
class TALVO_API TimeInfo : public Serializable {
 public:
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  unsigned int year = 0, moon = 0, day = 0, hour = 0, min = 0, sec = 0;  // `moon` is the month
};

/// Facts about a model, set by the tools that make models.
class TALVO_API NetExtraInfo : public Serializable {
 public:
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  unsigned int version = 0;  // of the model
  unsigned int app_type = 0, model_id = 0;
  unsigned int model_base_h = 0, model_base_w = 0;  // the size that the model was made for
  unsigned long long fmlas = 0;                     // 32 bits in files of version 20006 and below
  TimeInfo time;
  std::string device;
  std::string summary;  // in files from version 20004 on
};

/// No other record holds one.
class TALVO_API TensorInfo : public Serializable {
 public:
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  std::vector<unsigned short> shape;
  std::string dtype = "None", data = "None", layout;
};

/// One network: layers in execution order.
class TALVO_API TLModelInfo : public Serializable {
 public:
  /// Makes the records of layers that are absent, by their numbers in `squential_types`, which also overrule the number
  /// inside a record. Assert: lists of different length, a number without a class, an id more than 8 times in the list.
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  /// Ids of the input layers, in model order.
  std::vector<std::string> GetInputIDs();

  /// Ids of the layers that no layer reads, each once, in model order; then those of records that `squential_ids` does
  /// not name, sorted. Recomputes every `read_count`. Throws std::out_of_range for an input id without a record.
  std::vector<std::string> GetOutputIDs();

#if TALVO_WITH_TLMODEL1
  /// Fills a fresh record from a model file of the first generation, as ConvertTLModel1 tells (tlmodel1_conversion.h).
  /// Assert: a file that cannot be opened or is older than version 10000, and what QZNetLoader::LoadFile and the
  /// conversion refuse. A damaged file fails the platform assertion.
  void LoadFromTLModel1(char const* path);
#endif

  NetExtraInfo extra_info;
  std::vector<std::string> squential_output_ids;  // the outputs as the file names them
  std::vector<std::string> squential_ids;         // layers in execution order
  std::vector<unsigned short> squential_types;    // the type number of each
  std::unordered_map<std::string, std::shared_ptr<LayerInfo>> layers;
  bool has_net = false;  // CreateNet has copied the weights; no field of files
};

/// Networks by name. When it goes and a net was made of one, the memory of their weights goes back to the system.
/// Assert, in VisitAttr: a name that stands more than 8 times in the list.
class TALVO_API TLModelInfoArr : public Serializable {
 public:
  ~TLModelInfoArr() override;
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  std::vector<std::string> squential_ids;
  std::unordered_map<std::string, std::shared_ptr<TLModelInfo>> models;
};

/// The package: models, their configurations, and the versions that it demands of the runtime. It keeps no
/// "serializable_type" in files.
class TALVO_API TLNModel : public Serializable {
 public:
  TLNModel();
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  std::string sdk_type;
  unsigned short core_major_ver = 0, core_minor_ver = 0, sdk_major_ver = 0, sdk_minor_ver = 0;
  std::shared_ptr<TLModelInfoArr> model_arr;
  std::shared_ptr<TLModelMultiBackendCfgsArr> config_arr;
};

/// A network from its JSON file. Assert: a file that cannot be read, a text that is no JSON object, and whatever
/// FromFile refuses.
TALVO_API std::shared_ptr<TLModelInfo> parseModelInfoPtrFromJson(char const* path);

}  // namespace talvo::runtime
