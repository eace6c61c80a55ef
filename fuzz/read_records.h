// What the two record fuzzers do with an input: read it as each root record, write what was read in both forms, and
// read that again.
#pragma once

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "talvo/serialization/model_info.h"
#include "talvo/utility/log.h"

namespace talvo::fuzz {

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

/// Reads the scratch file as a `Record`. What was read goes through both forms once more; a record that lists an id
/// twice need not read again, since what JSON reads is appended.
template <class Record>
void ReadAndReread(char const* form, std::size_t size) {
  Record record;
  bool const read = Accepted([&] { return record.FromFile(ScratchPath().c_str(), form); });
  if (!read || size > kRewrittenBytes) return;
  std::string const copy = ScratchPath() + "_copy";
  for (char const* other_form : {"bin", "json"}) {
    Record again;
    Accepted([&] { return record.ToFile(copy.c_str(), other_form) && again.FromFile(copy.c_str(), other_form); });
  }
  std::remove(copy.c_str());
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
