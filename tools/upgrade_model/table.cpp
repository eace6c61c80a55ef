#include "tools/upgrade_model/table.h"

#include <iomanip>
#include <ostream>

namespace upgrade_model {
namespace {

using namespace talvo::runtime;

std::string RecordText(std::string const& id, TLModelInfo const& model, TLModelCfg const& config) {
  return id + " " + model.layers.at(id)->GetClassTypeName() + " " + config.layers.at(id)->kernel->kernel_type;
}

}  // namespace

void PrintTable(talvo1::QZNetLoader const& loader, TLModelInfo const& model, TLModelCfg const& config,
                std::map<std::string, std::string> const& folded, std::ostream& out) {
  std::map<std::string, std::string> readers;  // of the convolutions that took a normalisation in
  for (auto const& [normalisation, convolution] : folded) readers[convolution] = normalisation;
  out << std::left << std::setw(14) << "old layer" << std::setw(26) << "type"
      << "became\n";
  for (unsigned short const old_id : loader.id_list) {
    std::string const id = "layer-" + std::to_string(old_id);
    out << std::setw(14) << id << std::setw(26) << talvo1::QZLayerTypeName(loader.layers.at(old_id)->type);
    if (readers.count(id) != 0) {
      out << "with its batch normalisation " << readers[id] << ": " << RecordText(readers[id], model, config) << "\n";
    } else if (folded.count(id) != 0) {
      out << "folded into the convolution " << folded.at(id) << ", which took its name\n";
    } else {
      if (model.layers.count(id + "!") != 0) out << RecordText(id + "!", model, config) << ", ";
      out << RecordText(id, model, config) << "\n";
    }
  }
  out << std::right << loader.id_list.size() << " layers became " << model.squential_ids.size() << "\n";
}

}  // namespace upgrade_model
