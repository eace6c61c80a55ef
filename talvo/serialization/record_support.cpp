#include "talvo/serialization/record_support.h"

#include <cxxabi.h>

#include <algorithm>
#include <cstdlib>

#include "talvo/serialization/layer_info.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::runtime::support {

void VisitBase(LayerInfo& record, std::shared_ptr<Visitor> const& visitor) { record.LayerInfo::VisitAttr(visitor); }

void VisitBase(Serializable& record, std::shared_ptr<Visitor> const& visitor) {
  record.Serializable::VisitAttr(visitor);
}

std::string BareName(std::string const& name) {
  return name.substr(name.rfind(':') + 1);  // npos + 1 is 0
}

std::string Demangled(char const* type_name) {
  int status = 0;
  std::unique_ptr<char, decltype(&std::free)> const text(abi::__cxa_demangle(type_name, nullptr, nullptr, &status),
                                                         &std::free);
  return text != nullptr ? text.get() : type_name;
}

// Sorted, not hashed: a file can choose ids that share a hash.
std::string const* RepeatedTooOften(std::vector<std::string> const& ids) {
  if (ids.size() <= kMostRepeats) return nullptr;
  std::vector<std::string const*> sorted;
  sorted.reserve(ids.size());
  for (std::string const& id : ids) sorted.push_back(&id);
  std::sort(sorted.begin(), sorted.end(), [](std::string const* a, std::string const* b) { return *a < *b; });
  for (std::size_t i = kMostRepeats; i < sorted.size(); ++i) {
    if (*sorted[i] == *sorted[i - kMostRepeats]) return sorted[i];
  }
  return nullptr;
}

void AssertFewRepeats(std::vector<std::string> const& ids) {
  if (std::string const* const repeated = RepeatedTooOften(ids))
    utility::Refuse("list of %zu ids: \"%s\" stands more than %u times", ids.size(), repeated->c_str(), kMostRepeats);
}

void VisitTable(Visitor& visitor, std::vector<std::string>& ids, char const* key, Table const& table,
                std::size_t record_bytes) {
  visitor.Visit(&ids, key);
  AssertFewRepeats(ids);
  for (std::string const& id : ids) {
    if (!table.has(table.records, id)) ChargeRecord(visitor, record_bytes, id);
    visitor.Visit(table.at(table.records, id), id.c_str());
  }
}

}  // namespace talvo::runtime::support
