// What the VisitAttr of several records share. Internal: not installed.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "talvo/serialization/visitor.h"

/// Visits a field whose key is its name.
#define TALVO_VISIT_FIELD(field) visitor->Visit(&field, #field)

/// The same for weights; needs weight_blob.h.
#define TALVO_VISIT_WEIGHTS(field) VisitWeights(*visitor, &field, #field)

/// Both for a field of `record`, for what several classes describe alike.
#define TALVO_VISIT_FIELD_OF(record, field) visitor->Visit(&(record).field, #field)
#define TALVO_VISIT_WEIGHTS_OF(record, field) VisitWeights(*visitor, &(record).field, #field)

namespace talvo::runtime {

class LayerInfo;
class Serializable;

namespace support {

/// The fields of the base of a record; a function, since handing on a shared pointer takes a hundred bytes.
void VisitBase(LayerInfo& record, std::shared_ptr<Visitor> const& visitor);
void VisitBase(Serializable& record, std::shared_ptr<Visitor> const& visitor);

/// What FromFile does with a path and a type word, with its results and refusals, for a caller that needs no weights:
/// long ones stay empty once it is known that the file holds them.
bool SkimFile(Serializable* record, char const* path, char const* type);

/// The class name behind the last colon of a name with namespaces.
std::string BareName(std::string const& name);

/// The name of a class, namespaces included, from its run-time type name.
std::string Demangled(char const* type_name);

/// How often an id may stand in a list. Each occurrence reads or makes once more what the id names, and what JSON reads
/// is appended: without a limit a small file could fill the memory.
constexpr unsigned int kMostRepeats = 8;

/// An id that stands more than kMostRepeats times; null when there is none. In n log n comparisons, whatever the ids.
std::string const* RepeatedTooOften(std::vector<std::string> const& ids);

/// Assert: an id that stands more than kMostRepeats times.
void AssertFewRepeats(std::vector<std::string> const& ids);

/// Counts a record that a table makes while JSON is read; other visitors let it pass. Assert, naming `id`: more than a
/// text of this size may make.
void ChargeRecord(Visitor& visitor, std::size_t bytes, std::string const& id);

/// A table of records by id, whatever their class.
struct Table {
  void* records;
  bool (*has)(void* records, std::string const& id);
  /// The record of the id, made where the table has none.
  Serializable* (*at)(void* records, std::string const& id);
};

void VisitTable(Visitor& visitor, std::vector<std::string>& ids, char const* key, Table const& table,
                std::size_t record_bytes);

/// Visits the list of ids, then for each id its record, which is made where the table has none. `record_bytes` is what
/// a fresh one takes with the records in it.
template <class Record>
void VisitTable(std::shared_ptr<Visitor> const& visitor, std::vector<std::string>& ids, char const* key,
                std::unordered_map<std::string, std::shared_ptr<Record>>& table, std::size_t record_bytes) {
  using Records = std::unordered_map<std::string, std::shared_ptr<Record>>;
  auto const has = [](void* records, std::string const& id) { return static_cast<Records*>(records)->count(id) != 0; };
  auto const at = [](void* records, std::string const& id) -> Serializable* {
    Records& known = *static_cast<Records*>(records);
    auto const place = known.find(id);
    return (place != known.end() ? place : known.emplace(id, std::make_shared<Record>()).first)->second.get();
  };
  VisitTable(*visitor, ids, key, {&table, has, at}, record_bytes);
}

}  // namespace support
}  // namespace talvo::runtime
