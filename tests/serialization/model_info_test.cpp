// Models and configurations: which records are made, what is refused, who reads whom.
#include "talvo/serialization/model_info.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "talvo/serialization/layer_info_activation.h"
#include "talvo/serialization/layer_info_tensor.h"
#include "tests/serialization/golden_package.h"
#include "tests/serialization/record_catalogue.h"
#include "tests/support/log_capture.h"

namespace talvo::test {
namespace {

using namespace runtime;

// A model of one layer, whose number in `squential_types` is `type` and whose record is `info`.
std::string OneLayer(unsigned short type, std::shared_ptr<LayerInfo> info) {
  TLModelInfo model;
  model.squential_ids = {"a"};
  model.squential_types = {type};
  model.layers["a"] = std::move(info);
  return Written(model, "bin");
}

TEST(TLModelInfo, MakesTheRecordOfEachNumber) {
  LogCapture const quiet;
  int made = 0;
  for (RecordClass const& entry : RecordCatalogue()) {
    auto const info = std::dynamic_pointer_cast<LayerInfo>(entry.make());
    std::string const name = entry.name;
    if (info == nullptr || name == "LayerInfo") continue;
    SCOPED_TRACE(name);
    auto const number = static_cast<unsigned short>(name == "TensorUnSqueezeInfo" ? 16 : info->type);
    std::string const bytes = OneLayer(number, info);
    TLModelInfo read;
    if (number == 23 || number == 24 || number == 27 || number == 28 || number == 39 || number == 42 || number == 43) {
      EXPECT_EQ(RefusalOf([&] { ReadFrom(read, bytes, "bin"); }),
                "[TLN]: Unsupported Layer Type [" + std::to_string(number) + "].\n");
    } else {
      ReadFrom(read, bytes, "bin");
      EXPECT_EQ(read.layers.at("a")->type, number);
      EXPECT_EQ(read.layers.at("a")->GetClassTypeName(), name);
      ++made;
    }
  }
  EXPECT_EQ(made, 35);
}

TEST(TLModelInfo, RefusesWhatNamesNoLayer) {
  for (auto const& [type, text] : {std::pair<int, char const*>{4, "Unsupported Layer Type [4].\n"},
                                   {251, "Unsupported Layer Type [251].\n"},
                                   {300, "Unsupported Layer Type [300].\n"},
                                   {65535, "Unknow Layer Type.\n"}}) {
    auto const number = static_cast<unsigned short>(type);
    auto const info = std::make_shared<InputInfo>();
    LogCapture const quiet;
    std::string const bytes = OneLayer(number, info);
    EXPECT_EQ(RefusalOf([&, &refused = bytes] {
                TLModelInfo read;
                ReadFrom(read, refused, "bin");
              }),
              std::string("[TLN]: ") + text);
  }
  TLModelInfo uneven;
  uneven.squential_ids = {"a"};
  EXPECT_EQ(RefusalOf([&] { Written(uneven, "bin"); }), "[TLN]: Length of layer id and type mismatch.\n");
  TLModelInfo without_record;
  without_record.squential_ids = {"a"};
  without_record.squential_types = {0};
  without_record.layers["a"] = nullptr;
  EXPECT_THROW(Written(without_record, "json"), std::runtime_error);
}

TEST(TLModelInfo, ReadsAnIdTwiceIntoOneRecordAndRefusesMore) {
  LogCapture const quiet;
  for (std::size_t repeats : {2u, 8u, 9u}) {
    auto const model = GoldenPackage(20015)->model_arr->models["net"];
    model->squential_ids.assign(repeats, "act");
    model->squential_types.assign(repeats, 1);
    if (repeats > 8) {
      EXPECT_NE(RefusalOf([&] { Written(*model, "json"); }).find("\"act\" stands more than 8 times"),
                std::string::npos);
      continue;
    }
    TLModelInfo read;
    ReadFrom(read, Written(*model, "json"), "json");
    EXPECT_EQ(read.layers.size(), 1u);
    EXPECT_EQ(read.layers["act"]->input_ids.size(), repeats);
  }
  TLModelInfoArr models;
  models.squential_ids.assign(9, "net");
  EXPECT_NE(RefusalOf([&] { Written(models, "json"); }).find("\"net\" stands more than 8 times"), std::string::npos);
}

TEST(TLModelInfo, TellsInputsAndOutputsOfTheGraph) {
  TLModelInfo model;
  auto const add = [&](std::string const& id, unsigned short type, std::vector<std::string> inputs) {
    model.layers[id] = std::make_shared<ConcatenateInfo>();
    model.layers[id]->input_ids = std::move(inputs);
    model.squential_ids.push_back(id);
    model.squential_types.push_back(type);
  };
  add("in_b", 0, {});
  add("middle", 12, {"in_b"});
  add("in_a", 0, {});
  add("last", 12, {"in_b", "in_b", "in_a"});
  model.squential_ids.push_back("middle");  // a second occurrence counts once
  model.squential_types.push_back(12);
  for (char const* id : {"z", "y"}) model.layers[id] = std::make_shared<ConcatenateInfo>();  // in no list
  EXPECT_EQ(model.GetInputIDs(), (std::vector<std::string>{"in_b", "in_a"}));
  EXPECT_EQ(model.GetOutputIDs(), (std::vector<std::string>{"middle", "last", "y", "z"}));
  EXPECT_EQ(model.layers["in_b"]->read_count, 3);
  EXPECT_EQ(model.GetOutputIDs().size(), 4u);  // counts start afresh
  model.layers["last"]->input_ids.push_back("absent");
  EXPECT_THROW(model.GetOutputIDs(), std::out_of_range);
}

TEST(LayerInfo, GoesOnWithoutAReadableType) {
  ClipInfo clip;
  clip.id = "last";
  std::string text = Written(clip, "json");
  text.replace(text.find("\"type\""), 6, "\"typo\"");
  LogCapture const log;
  ClipInfo read;
  ReadFrom(read, text, "json");
  EXPECT_EQ(read.type, 31);
  EXPECT_EQ(read.id, "last");
  EXPECT_EQ(log.Lines().back(), "[TLN] (Warnning): This may be a old version model file.");
}

TEST(LayerInfoFactory, MakesTheClassesThatMayStandAlone) {
  int made = 0;
  for (RecordClass const& entry : RecordCatalogue()) {
    auto const info = std::dynamic_pointer_cast<LayerInfo>(entry.make());
    if (info == nullptr) continue;
    SCOPED_TRACE(entry.name);
    std::string const name = entry.name, text = Written(*info, "json");
    bool const alone = name != "LayerInfo" && name != "SQFCConv2dInfo" && name != "SQFCConv2dFoldedBNInfo" &&
                       name != "AdaptiveMaxPool2dInfo" && name != "BatchNorm1dInfo" && name != "SpaceToDepthInfo" &&
                       name != "Pad1dInfo" && name != "Pad2dInfo" && name != "TensorSliceInfo" &&
                       name != "LayerPlaceholderInfo";
    if (alone) {
      EXPECT_EQ(LayerInfoFactory(text)->GetClassTypeName(), name);
      ++made;
    } else {
      EXPECT_EQ(RefusalOf([&] { LayerInfoFactory(text); }), "[TLN]: Unsupported Layer Type.\n");
    }
  }
  EXPECT_EQ(made, 33);
  EXPECT_EQ(RefusalOf([] { LayerInfoFactory("[]"); }), "[TLN]: ");
  EXPECT_NE(RefusalOf([] { LayerInfoFactory("{}"); }).find("\"serializable_type\""), std::string::npos);
}

TEST(InferenceParam, IsMadeByTheNamesOfConfigurations) {
  int made = 0;
  for (RecordClass const& entry : RecordCatalogue()) {
    auto const param = std::dynamic_pointer_cast<InferenceParam>(entry.make());
    if (param == nullptr) continue;
    EXPECT_EQ(param->GetClassName(), entry.name);
    auto const by_name = CreateInferenceParamPtr(entry.name.c_str());
    if (by_name == nullptr) continue;
    EXPECT_EQ(by_name->GetClassName(), entry.name);
    ++made;
  }
  EXPECT_EQ(made, 22);
  for (char const* name : {"", "InferenceParam", "InferenceParamConv2DCUDA", "InferenceParamVulkan",
                           "InferenceParamConv2DVulkan", "InferenceParamConvTranspose2DOpenGLCompute"})
    EXPECT_EQ(CreateInferenceParamPtr(name), nullptr) << name;
  EXPECT_NE(RefusalOf([] { CreateInferenceParamPtr(nullptr); }), "");
}

TEST(KernelCfg, KeepsItsParameterRecordWhenReadAgain) {
  KernelCfg cfg;
  cfg.infer_param_type = "InferenceParamActQuant";
  std::string const bytes = Written(cfg, "bin");  // the walk makes the record
  auto const param = cfg.infer_param;
  ASSERT_NE(param, nullptr);
  ReadFrom(cfg, bytes, "bin");
  EXPECT_EQ(cfg.infer_param, param);
  KernelCfg plain;
  EXPECT_EQ(Written(plain, "bin").size(), 4u + 2 * 8);
}

TEST(Parsing, RefusesARootThatIsNoObject) {
  std::string const text = "[TLN]: Document must be a Object.\n";
  ScratchFile const array("[]"), broken("{");
  EXPECT_EQ(RefusalOf([&] { parseModelInfoPtrFromJson(array.Path()); }), text);
  EXPECT_EQ(RefusalOf([&] { parseModelInfoPtrFromJson(broken.Path()); }), text);
  EXPECT_EQ(RefusalOf([] { parseModelCfgFromJsonContent("7"); }), text);
  auto const package = GoldenPackage(20015);
  auto const cfg = package->config_arr->configs["net"]->cpu_sse;
  EXPECT_EQ(ListFields(*parseModelCfgFromJsonContent(Written(*cfg, "json")), true), ListFields(*cfg, true));
}

}  // namespace
}  // namespace talvo::test
