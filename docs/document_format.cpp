// Prints docs/format.md: every record with its fields, and every kernel with the record that it takes. The fields come
// from tests/serialization/golden/fields.txt, which the tests hold against the library; all else from the library.
#include <cstdio>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "talvo/entry/register_extra_operators.h"
#include "talvo/entry/register_fused_operators.h"
#include "talvo/entry/register_operators.h"
#include "talvo/serialization/layer_info_maker_support.h"
#include "tests/serialization/record_catalogue.h"
#include "tests/support/log_capture.h"

namespace {

using namespace talvo;

constexpr char const* kForms = R"(# The format of packages

Written by `docs/document_format.cpp`; a test compares this page with what the library does.

A package is one record, `TLNModel`, in either of two forms. `tools/convert_package` turns one into the other.

- **JSON** (`.json`): an object for each record, a member for each field under its name, in any order. The root also
  holds `serialization_protocol_version`; without it the newest version, 20015, is taken.
- **Binary stream** (`.tlnmodel`): the version as a 32-bit number, then the fields in the order of the tables below,
  little-endian, without names, tags or padding. A nested record stands inline.

| kind | JSON | binary stream |
|---|---|---|
| `u16` `u32` `u64` `i16` `i32` | number | 2, 4 or 8 bytes |
| `float` | number | 4 bytes |
| `half` | number | binary16, 2 bytes |
| `bool` | `true` or `false` | 1 byte |
| `string` | text | 64-bit count, bytes |
| `blob` | base64 of little-endian float32, row-major | 64-bit count, that many binary16 |
| `vector<...>` | array | 64-bit count, elements |
| `record` | object | its fields |

A table of records (`layers`, `kernels`, `models`, `configs`) has no field of its own: each id in the list ahead of it
is the key of one record, and in the stream the records follow the list in its order. The layers of a `TLModelInfo` are
of the class that `squential_types` gives at the same place. An id may stand at most 8 times in a list.
)";

std::string VersionsOf(test::Field const& field) {
  if (field.since != 0) return "from " + std::to_string(field.since);
  return field.until == 99999 ? "" : "to " + std::to_string(field.until);
}

void PrintFields(std::vector<test::Field> const& fields) {
  std::puts("\n| field | kind | default | versions |\n|---|---|---|---|");
  for (test::Field const& field : fields) {
    std::size_t const equals = field.text.find('=');
    std::string const value = equals == std::string::npos ? "" : field.text.substr(equals + 1);
    std::printf("| `%s` | %s | %s | %s |\n", field.text.substr(0, equals).c_str(), field.kind.c_str(), value.c_str(),
                VersionsOf(field).c_str());
  }
}

// The numbers under which a model may hold each class of layer.
std::map<std::string, unsigned int> NumbersInModels() {
  std::map<std::string, unsigned int> numbers;
  for (unsigned int type = 0; type < 65535; ++type) {
    try {
      auto const layer = runtime::support::MakeLayerInfo(static_cast<unsigned short>(type));
      numbers.emplace(layer->GetClassTypeName(), type);
    } catch (std::runtime_error const&) {  // most numbers name no class
    }
  }
  return numbers;
}

bool IsLayer(test::RecordClass const& record) {
  return dynamic_cast<runtime::LayerInfo*>(record.make().get()) != nullptr;
}

void PrintRecords(bool layers) {
  auto const described = test::Described();
  auto const numbers = NumbersInModels();
  for (test::RecordClass const& record : test::RecordCatalogue()) {
    if (IsLayer(record) != layers) continue;
    auto const& [fields, marks] = described.at(record.name);
    std::printf("\n### %s\n", record.name.c_str());
    if (auto const number = numbers.find(record.name); number != numbers.end())
      std::printf("\nNumber %u in `squential_types`.\n", number->second);
    else if (layers && marks.count("alone") == 0)
      std::puts("\nKept for its format: no model holds it.");
    PrintFields({fields.begin() + (layers && record.name != "LayerInfo" ? 5 : 0), fields.end()});
  }
}

// For kernels whose judgement asks for more than an empty record, or for less than a class, by the start of their name.
std::string RecordByName(std::string const& kernel) {
  static constexpr std::pair<char const*, char const*> kRecords[] = {{"Concatenate_", "ConcatenateInfo"},
                                                                     {"Conv1D_", "Conv1dInfo"},
                                                                     {"Conv2D_", "Conv2dInfo"},
                                                                     {"Conv2d_", "Conv2dInfo"},
                                                                     {"ConvTranspose2D_", "ConvTranspose2dInfo"},
                                                                     {"Expand_", "TensorExpandInfo"},
                                                                     {"FullConnection_", "FullConnectionInfo"},
                                                                     {"Input_", "InputInfo, or any other"},
                                                                     {"LayerPlaceholder_", "LayerPlaceholderInfo"},
                                                                     {"Leaky_", "ActivationInfo"},
                                                                     {"Linear_", "ActivationInfo"},
                                                                     {"MatMul_", "GemmInfo or BroadcastOperatorInfo"},
                                                                     {"PReLU_", "ActivationInfo"},
                                                                     {"PReLUChannel_", "ActivationInfo"},
                                                                     {"ReLU6_", "ActivationInfo, or any other"},
                                                                     {"Reshape_", "TensorReshapeInfo"},
                                                                     {"Slice_", "TensorSliceInfo"},
                                                                     {"Straight_Through_", "any"},
                                                                     {"TensorArithmetic_", "TensorArithmeticInfo"}};
  for (auto const& [start, record] : kRecords)
    if (kernel.rfind(start, 0) == 0) return record;
  throw std::runtime_error("no record is known for " + kernel);
}

std::string RecordOf(runtime::IKernel const& kernel) {
  std::map<int, std::set<std::string>> answers;  // a kernel answers its own record apart from all others
  for (test::RecordClass const& record : test::RecordCatalogue()) {
    auto const layer = std::dynamic_pointer_cast<runtime::LayerInfo>(record.make());
    if (layer != nullptr) answers[kernel.IsValidParam(layer, nullptr)].insert(record.name);
  }
  for (auto const& [answer, records] : answers)
    if (records.size() == 1 && answers.size() == 2) return *records.begin();
  return RecordByName(kernel.GetName());
}

template <class Register>
void PrintKernels(char const* title, Register const& register_kernels) {
  runtime::ClassRegistry<std::shared_ptr<runtime::IKernel>> registry;
  register_kernels(registry);
  std::vector<std::string> const keys = registry.GetKeys();
  std::printf("\n### %s\n\n| kernel | layer record |\n|---|---|\n", title);
  for (std::string const& name : std::set<std::string>(keys.begin(), keys.end()))
    std::printf("| `%s` | %s |\n", name.c_str(), RecordOf(*registry.Create(name)).c_str());
}

}  // namespace

int main() {
  test::LogCapture const quiet;
  std::fputs(kForms, stdout);
  std::puts("\n## Packages, models, configurations and parameters");
  PrintRecords(false);
  std::puts("\n## Layers\n\nEvery layer begins with the fields of `LayerInfo`.");
  PrintRecords(true);
  std::puts("\n## Kernels\n\nA `KernelCfg` names the kernel of a layer in `kernel_type`.");
  PrintKernels("`init_register_operators`", [](auto& kernels) {
    runtime::ClassRegistry<std::shared_ptr<runtime::InferenceParam>> params;
    utility::init_register_operators(kernels, params);
  });
  PrintKernels("`init_register_fused_operators`",
               [](auto& kernels) { utility::init_register_fused_operators(kernels); });
  PrintKernels("`init_register_extra_operators`",
               [](auto& kernels) { utility::init_register_extra_operators(kernels); });
  return 0;
}
