#include "talvo/serialization/tlmodel1.h"

#include <utility>

#include "talvo/serialization/tlmodel1_support.h"
#include "talvo/utility/file_support.h"
#include "talvo/utility/invariant.h"
#include "talvo/utility/refuse_support.h"

namespace talvo1 {
namespace {

using support::BodyReader;
using support::RecordForm;

constexpr unsigned int kNarrowVersion = 10000;  // the first version; fewer types, and records without some fields
constexpr unsigned short kLastTypeV10000 = 15, kLastType = 26;

RecordForm const& FormOf(unsigned short type, unsigned short last_type) {
  RecordForm const* const form = type <= last_type ? support::FindForm(type) : nullptr;
  if (form == nullptr) {
    std::string const number = last_type == kLastType ? " " + std::to_string(type) + ".\n" : ".";
    throw LoadFailure("false", __func__, __FILE__, __LINE__, "\n\n\nError, Unsupport Layer Type" + number);
  }
  return *form;
}

[[noreturn]] void Fail(LoadFailure const& failure) {
  std::fputs(failure.notice.c_str(), stdout);
  std::fflush(stdout);
  talvo::utility::InvariantFailed(failure.what(), failure.function, failure.file, failure.line);
}

}  // namespace

QZLayerInfo::QZLayerInfo() = default;

QZLayerInfo::~QZLayerInfo() = default;

bool QZExInfo::ifCorrectlyLoad() const { return Number(0) == 0x5555 && Number(996) == 0xAAAA; }

unsigned int QZExInfo::Number(std::size_t offset) const {
  unsigned int number = 0;
  for (std::size_t i = 4; i-- > 0;) number = number << 8 | bytes[offset + i];
  return number;
}

char const* QZLayerTypeName(unsigned short type) {
  RecordForm const* const form = support::FindForm(type);
  return form != nullptr ? form->name : "";
}

QZNetLoader::QZNetLoader() = default;
QZNetLoader::~QZNetLoader() = default;

QZNetLoader::QZNetLoader(char const* path) {
  bool const ifSuccess = LoadFile(path, false);
  if (ifSuccess) return;
  std::printf("[Talvo] QZNetLoader: Error in %s(%d), load file(%s) filed", __func__, __LINE__, path);
  std::fflush(stdout);
  TALVO_INVARIANT(ifSuccess);
}

bool QZNetLoader::LoadFile(char const* path, bool) {
  if (path == nullptr) talvo::utility::Refuse("a first-generation model cannot be loaded: the path is null");
  talvo::utility::Stream const stream(std::fopen(path, "rb"));
  if (stream == nullptr) return false;
  try {
    return ReadFile(stream.get());
  } catch (LoadFailure const& failure) {
    Fail(failure);
  }
}

bool QZNetLoader::ReadFile(std::FILE* stream) {
  if (stream == nullptr) talvo::utility::Refuse("a first-generation model cannot be loaded: the stream is null");
  std::size_t const ex_count = std::fread(exinfo.bytes.data(), exinfo.bytes.size(), 1, stream);
  TALVO1_REQUIRE(this->exinfo.ifCorrectlyLoad());
  TALVO1_REQUIRE(ex_count == 1);
  if (exinfo.getVersion() < kNarrowVersion) return false;
  LoadRecords(stream);
  CountReaders();
  return true;
}

void QZNetLoader::LoadRecords(std::FILE* stream) {
  unsigned short const last_type = exinfo.getVersion() == kNarrowVersion ? kLastTypeV10000 : kLastType;
  BodyReader body(stream, exinfo.getVersion());
  unsigned short message_head = 0;
  while (body.Try(&message_head)) {
    TALVO1_REQUIRE(message_head == 0x5555);
    RecordForm const& form = FormOf(body.Next(), last_type);
    if (exinfo.getVersion() < form.from_version)
      throw LoadFailure("this->exinfo.getVersion() >= " + std::to_string(form.from_version), __func__, __FILE__,
                        __LINE__);
    std::unique_ptr<QZLayerInfo> record = form.read(body);
    id_list.push_back(record->id);
    if (layers.emplace(record->id, record.get()).second) records_.push_back(std::move(record));
    unsigned short const message_end = body.Next();
    TALVO1_REQUIRE(message_end == 0xaaaa);
  }
}

void QZNetLoader::CountReaders() {
  for (unsigned short const id : id_list) reader_counts[id] = 0;
  for (auto const& [reader, layer] : layers) {
    for (std::size_t i = 0; i < layer->input_count; ++i) {
      auto const place = reader_counts.find(layer->input_ids[i]);
      if (place != reader_counts.end() && place->first != reader) ++place->second;
    }
  }
}

}  // namespace talvo1
