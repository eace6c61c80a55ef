#include "talvo/serialization/rapidjson_support.h"

#include "talvo/serialization/json_text_support.h"

#include <ostream>
#include <string_view>
#include <utility>
#include <vector>

template <>
bool rapidjson::MemoryPoolAllocator<rapidjson::CrtAllocator>::AddChunk(std::size_t capacity) {
  if (baseAllocator_ == nullptr) ownBaseAllocator_ = baseAllocator_ = new CrtAllocator();
  void* const block = baseAllocator_->Malloc(RAPIDJSON_ALIGN(sizeof(ChunkHeader)) + capacity);
  if (block == nullptr) throw std::bad_alloc();
  chunkHead_ = new (block) ChunkHeader{capacity, 0, chunkHead_};
  return true;
}

namespace talvo::runtime {
namespace {

using rapidjson::SizeType;
using rapidjson::Value;

// Whether a string in JSON needs an escape for the character, or ends with it.
constexpr bool IsSpecial(unsigned char c) { return (c < 0x20) | (c == '"') | (c == '\\'); }

constexpr std::ptrdiff_t kBlockBytes = 64;  // the compiler looks at a block in vectors

bool HasSpecial(char const* block) {
  unsigned char found = 0;
  for (std::ptrdiff_t i = 0; i < kBlockBytes; ++i)
    found = static_cast<unsigned char>(found | IsSpecial(static_cast<unsigned char>(block[i])));
  return found != 0;
}

// The first special character, or the end. Weights are strings of millions of plain characters.
char const* PlainEnd(char const* at, char const* end) {
  while (end - at >= kBlockBytes && !HasSpecial(at)) at += kBlockBytes;
  while (at != end && !IsSpecial(static_cast<unsigned char>(*at))) ++at;
  return at;
}

// The text in place, for the parser, which takes and puts strings character by character. A character that is put as it
// was taken stands inside a string (the quote that ends one puts a zero); it brings the plain ones behind it along.
class PlainRunStream {
 public:
  using Ch = char;

  PlainRunStream(char* text, char* end) : begin_(text), from_(text), to_(text), end_(end) {}

  char Peek() const { return *from_; }  // of the end: the zero behind the text
  char Take() { return *from_++; }
  std::size_t Tell() const { return static_cast<std::size_t>(from_ - begin_); }

  char* PutBegin() { return to_ = from_; }
  void Put(char c) {
    bool const as_taken = c == from_[-1];  // asked first: the next line may overwrite what was taken
    *to_++ = c;
    if (!as_taken) return;
    auto const plain = static_cast<std::size_t>(PlainEnd(from_, end_) - from_);
    if (to_ != from_) std::memmove(to_, from_, plain);
    to_ += plain;
    from_ += plain;
  }
  std::size_t PutEnd(char const* begin) const { return static_cast<std::size_t>(to_ - begin); }
  void Flush() {}

 private:
  char *begin_, *from_, *to_, *end_;
};

// The text that the writers make: all of it, or what is not in the file yet.
struct TextStream {
  using Ch = char;

  void Put(char c) { text.push_back(c); }
  void Flush() {}

  void Append(char const* from, char const* to) {
    auto const count = static_cast<std::size_t>(to - from);
    if (file == nullptr || count < kPieceBytes) {
      text.append(from, to);
    } else {  // not copied once more
      Spill();
      Write(from, count);
    }
  }

  void SpillLong() {
    if (file != nullptr && text.size() >= kPieceBytes) Spill();
  }
  void Spill() {
    Write(text.data(), text.size());
    text.clear();
  }

  static constexpr std::size_t kPieceBytes = 65536;
  std::ostream* file = nullptr;
  std::string text;
  std::size_t written = 0;

 private:
  void Write(char const* data, std::size_t count) {
    file->write(data, static_cast<std::streamsize>(count));
    written += count;
  }
};

void AppendEscape(char c, std::string& text) {
  constexpr std::string_view kSpecial = "\"\\\b\f\n\r\t", kLetters = "\"\\bfnrt", kDigits = "0123456789ABCDEF";
  if (auto const place = kSpecial.find(c); place != kSpecial.npos)
    text.append({'\\', kLetters[place]});
  else
    text.append("\\u00").append({kDigits[static_cast<unsigned char>(c) >> 4], kDigits[c & 15]});
}

// A key or a string. The writer puts what stands in front of it; its own way goes character by character.
template <class Writer>
bool RenderString(Value const& value, Writer& writer, TextStream& stream) {
  bool const good = writer.RawValue("", 0, rapidjson::kStringType);
  stream.Put('"');
  char const* const end = value.GetString() + value.GetStringLength();
  for (char const* at = value.GetString(); at != end;) {
    char const* const plain_end = PlainEnd(at, end);
    stream.Append(at, plain_end);
    at = plain_end;
    if (at != end) AppendEscape(*at++, stream.text);
  }
  stream.Put('"');
  return good;
}

// Hands a value of any depth to a writer; its own Accept would spend stack on each level.
template <class Writer>
bool Render(Value const& root, Writer& writer, TextStream& stream) {
  struct Level {
    Value const* value;
    SizeType next;
  };
  std::vector<Level> open;
  auto const begin = [&](Value const& value) {
    if (value.IsString()) return RenderString(value, writer, stream);
    if (!value.IsObject() && !value.IsArray()) return value.Accept(writer);
    open.push_back({&value, 0});
    return value.IsObject() ? writer.StartObject() : writer.StartArray();
  };
  bool good = begin(root);
  while (good && !open.empty()) {
    stream.SpillLong();
    Value const& value = *open.back().value;
    SizeType const next = open.back().next++;
    if (value.IsObject() && next < value.MemberCount()) {
      auto const member = value.MemberBegin() + static_cast<std::ptrdiff_t>(next);
      good = RenderString(member->name, writer, stream) && begin(member->value);
    } else if (value.IsArray() && next < value.Size()) {
      good = begin(value[next]);
    } else {
      good = value.IsObject() ? writer.EndObject(value.MemberCount()) : writer.EndArray(value.Size());
      open.pop_back();
    }
  }
  return good;
}

template <template <class, class, class, class, unsigned> class Writer>
void WriteText(Value const& value, TextStream& stream) {
  Writer<TextStream, rapidjson::UTF8<>, rapidjson::UTF8<>, support::StackAllocator, rapidjson::kWriteDefaultFlags>
      writer(stream);
  if (!Render(value, writer, stream)) utility::Refuse("JSON: infinity and NaN cannot be written");
}

template <template <class, class, class, class, unsigned> class Writer>
std::string TextOf(Value const& value) {
  TextStream stream;
  WriteText<Writer>(value, stream);
  return std::move(stream.text);
}

constexpr std::size_t kChunkBytes = 65536, kStackBytes = 1024;

}  // namespace

support::JSONText::JSONText(std::string text)
    : text_(std::move(text)), allocator_(kChunkBytes), document_(&allocator_, kStackBytes) {
  PlainRunStream stream(text_.data(), text_.data() + text_.size());
  document_.ParseStream<rapidjson::kParseIterativeFlag | rapidjson::kParseInsituFlag>(stream);
}

std::string support::CompactJSON(Value const& value) { return TextOf<rapidjson::Writer>(value); }

std::string support::PrettyJSON(Value const& value) { return TextOf<rapidjson::PrettyWriter>(value); }

std::size_t support::WritePrettyJSON(Value const& value, std::ostream& to) {
  TextStream stream;
  stream.file = &to;
  WriteText<rapidjson::PrettyWriter>(value, stream);
  stream.Spill();
  return stream.written;
}

}  // namespace talvo::runtime
