// What the two record fuzzers do with an input: read it as each root record, write what was read in both forms, and
// read that again.
#pragma once

#include <rapidjson/document.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "fuzz/memory_meter.h"
#include "talvo/serialization/json_visitors.h"
#include "talvo/serialization/model_info.h"
#include "talvo/utility/log.h"

namespace talvo::fuzz {

using runtime::Serializable;

inline int Discard(char const*) { return 0; }

/// A file name of this process; the file is written anew for each input.
inline std::string ScratchPath() {
  static std::string const path = "/tmp/talvo_fuzz_" + std::to_string(getpid());
  return path;
}

inline void WriteScratch(std::uint8_t const* data, std::size_t size) {
  std::FILE* const stream = std::fopen(ScratchPath().c_str(), "wb");
  if (stream == nullptr || std::fwrite(data, 1, size, stream) != size || std::fclose(stream) != 0) std::abort();
}

/// Whether `action` ends without a refusal. Any other exception than a refusal leaves and so ends the run.
template <class Action>
bool Accepted(Action action) {
  try {
    return action();
  } catch (std::runtime_error const&) {
    return false;
  }
}

/// Longer inputs are read alone: lists that repeat their ids are written as many times as they say.
constexpr std::size_t kRewrittenBytes = 8192;

/// Looks for a list that names a record twice. Such a record was read into twice, and the stream of its fields as they
/// stand afterwards need not fit the walk.
class RepeatFinder : private rapidjson::Document,
                     public runtime::JSONNodeSetter,
                     public std::enable_shared_from_this<RepeatFinder> {
 public:
  RepeatFinder() : rapidjson::Document(rapidjson::kObjectType), JSONNodeSetter(*this, GetAllocator(), false) {}

#define TALVO_VISIT(type) \
  void Visit(type* value, char const* key) override { Look(value, key); }
  TALVO_FOR_EACH_VISITED_TYPE(TALVO_VISIT)
#undef TALVO_VISIT

  bool found = false;

 private:
  void Look(void const*, char const*) {}
  void Look(std::vector<std::string> const* ids, char const* key) {
    std::string const name(key);
    bool const names_records = name == "squential_ids" || name == "kernel_ids";
    found |= names_records && std::set<std::string>(ids->begin(), ids->end()).size() < ids->size();
  }
  void Look(Serializable* record, char const*) { record->VisitAttr(shared_from_this()); }
};

inline bool NamesARecordTwice(Serializable& record) {
  auto const finder = std::make_shared<RepeatFinder>();
  record.VisitAttr(finder);
  return finder->found;
}

/// Writes the record in a form and reads that. False: it was written, but not read again.
template <class Record>
bool Rereads(Record& record, char const* form) {
  std::string const copy = ScratchPath() + "_copy";
  Record again;
  bool const written = Accepted([&] { return record.ToFile(copy.c_str(), form); });
  bool const read = written && Accepted([&] { return again.FromFile(copy.c_str(), form); });
  std::remove(copy.c_str());
  return read || !written;
}

/// Reads the scratch file as a `Record`, in memory of no more than 1 MiB and 40 times (JSON) or 16 times its length.
/// What was read goes through both forms once more, and the binary form must read again; in JSON ids may meet other
/// keys, and texts end at their first zero character.
template <class Record>
void ReadAndReread(char const* form, std::size_t size) {
  Record record;
  bool read;
  {
    MemoryMeter const meter;
    read = Accepted([&] { return record.FromFile(ScratchPath().c_str(), form); });
    if (meter.PeakBytes() > (1u << 20) + size * (*form == 'j' ? 40 : 16)) std::abort();
  }
  if (!read || size > kRewrittenBytes) return;
  if (!Rereads(record, "bin") && !NamesARecordTwice(record)) std::abort();
  Rereads(record, "json");
}

inline int ReadAsEachRoot(std::uint8_t const* data, std::size_t size, char const* form) {
  utility::SetLogCallback(Discard);
  WriteScratch(data, size);
  ReadAndReread<runtime::TLNModel>(form, size);
  ReadAndReread<runtime::TLModelInfo>(form, size);
  ReadAndReread<runtime::TLModelMultiBackendCfgsArr>(form, size);
  std::remove(ScratchPath().c_str());
  return 0;
}

}  // namespace talvo::fuzz
