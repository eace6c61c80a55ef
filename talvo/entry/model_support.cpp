#include "talvo/entry/model_support.h"

#include <algorithm>
#include <new>
#include <numeric>
#include <stdexcept>
#include <utility>

namespace talvo::utility::support {
namespace {

using runtime::TLModelCfg;

constexpr std::size_t kMostNames = 3;
constexpr std::size_t kLongestName = 128;

bool NamesLayers(std::shared_ptr<TLModelCfg> const& config) {
  return config != nullptr && !config->squential_ids.empty();
}

// Insertions, deletions and replacements that turn one name into the other. Source: V. I. Levenshtein, "Binary codes
// capable of correcting deletions, insertions, and reversals", 1966.
std::size_t Distance(std::string const& from, std::string const& to) {
  std::vector<std::size_t> row(to.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 0; i < from.size(); ++i) {
    std::size_t diagonal = std::exchange(row[0], i + 1);
    for (std::size_t j = 0; j < to.size(); ++j) {
      std::size_t const replaced = diagonal + (from[i] != to[j]);
      diagonal = row[j + 1];
      row[j + 1] = std::min({replaced, diagonal + 1, row[j] + 1});
    }
  }
  return row.back();
}

}  // namespace

std::shared_ptr<TLModelCfg> ConfigOf(runtime::TLModelMultiBackendCfgs const& configs, std::string const& backend) {
  if (backend == "x86") return configs.cpu_sse;
  // Every package has an object for each back end; a text or a list of layers tells that somebody filled it.
  if (backend == "metal") {
    return configs.gpu_metal != nullptr && !configs.gpu_metal->summary.empty() ? configs.gpu_metal : nullptr;
  }
  if (backend == "arm") {
    for (auto const& config : {configs.cpu_armv8, configs.cpu_armv82, configs.cpu_armv7}) {
      if (NamesLayers(config)) return config;
    }
  }
  return nullptr;
}

std::string RefusalText(std::exception const& refusal) {
  if (dynamic_cast<std::bad_alloc const*>(&refusal) != nullptr) return "there is not enough memory";
  std::string text = refusal.what();
  text.erase(text.find_last_not_of('\n') + 1);
  // The library's own refusals begin with the tag of the log.
  auto const tag = text.find("]: ");
  if (!text.empty() && text[0] == '[' && tag != std::string::npos) text.erase(0, tag + 3);
  return text;
}

std::string OneLine(std::string text) {
  for (char& character : text) {
    if (static_cast<unsigned char>(character) < ' ' || character == 0x7F) character = ' ';
  }
  return text;
}

std::string Joined(std::initializer_list<std::string_view> parts) {
  std::string text;
  for (std::string_view const part : parts) text.append(part);
  return text;
}

void RefuseLine(std::initializer_list<std::string_view> parts) { throw std::runtime_error(OneLine(Joined(parts))); }

std::string Listed(std::vector<std::string> const& texts) {
  std::string list;
  for (std::string const& text : texts) list.append(list.empty() ? "" : ", ").append(text);
  return list.empty() ? "none" : list;
}

std::vector<std::string> NearestNames(std::string const& name, std::vector<std::string> candidates) {
  std::vector<std::pair<std::size_t, std::string>> near;
  for (std::string& candidate : candidates) {
    if (std::max(name.size(), candidate.size()) > kLongestName) continue;
    std::size_t const distance = Distance(name, candidate);
    // More than half of the letters changed is another word and no slip.
    if (2 * distance <= candidate.size()) near.emplace_back(distance, std::move(candidate));
  }
  std::vector<std::string> names;
  while (!near.empty() && names.size() < kMostNames) {
    auto const nearest = std::min_element(near.begin(), near.end());
    names.push_back(std::move(nearest->second));
    near.erase(nearest);
  }
  return names;
}

}  // namespace talvo::utility::support
