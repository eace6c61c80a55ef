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

  void Append(std::string_view piece) {
    if (file == nullptr || piece.size() < kPieceBytes) {
      text.append(piece);
    } else {  // not copied once more
      Spill();
      Write(piece);
    }
  }

  void SpillLong() {
    if (file != nullptr && text.size() >= kPieceBytes) Spill();
  }
  void Spill() {
    Write(text);
    text.clear();
  }

  static constexpr std::size_t kPieceBytes = 65536;
  std::ostream* file = nullptr;
  std::string text;
  std::size_t written = 0;

 private:
  void Write(std::string_view piece) {
    file->write(piece.data(), static_cast<std::streamsize>(piece.size()));
    written += piece.size();
  }
};

void AppendEscape(char c, std::string& text) {
  constexpr std::string_view kSpecial = "\"\\\b\f\n\r\t", kLetters = "\"\\bfnrt", kDigits = "0123456789ABCDEF";
  if (auto const place = kSpecial.find(c); place != kSpecial.npos)
    text.append({'\\', kLetters[place]});
  else
    text.append("\\u00").append({kDigits[static_cast<unsigned char>(c) >> 4], kDigits[c & 15]});
}

// Writes a value as text.
class Renderer {
 public:
  // `indent` blanks stand for each level, each value on a line of its own; 0: all on one line.
  Renderer(TextStream& stream, unsigned int indent) : stream_(stream), indent_(indent) {}

  // Of any depth: rapidjson's own way would spend stack on each level.
  void Render(Value const& root) {
    Begin(root);
    while (!open_.empty()) {
      stream_.SpillLong();
      Value const& value = *open_.back().value;
      SizeType const next = open_.back().next++;
      if (next == (value.IsObject() ? value.MemberCount() : value.Size())) {
        End(value, next);
        continue;
      }
      if (next > 0) stream_.Put(',');
      NewLine();
      if (value.IsArray()) {
        Begin(value[next]);
      } else {
        auto const member = value.MemberBegin() + static_cast<std::ptrdiff_t>(next);
        Text(member->name);
        stream_.Append(indent_ > 0 ? ": " : ":");
        Begin(member->value);
      }
    }
  }

 private:
  struct Level {
    Value const* value;
    SizeType next;
  };

  void Begin(Value const& value) {
    if (value.IsObject() || value.IsArray()) {
      open_.push_back({&value, 0});
      stream_.Put(value.IsObject() ? '{' : '[');
    } else if (value.IsString()) {
      Text(value);
    } else if (value.IsNumber()) {
      Number(value);
    } else {
      stream_.Append(value.IsNull() ? "null" : value.IsTrue() ? "true" : "false");
    }
  }

  void End(Value const& value, SizeType count) {
    open_.pop_back();
    if (count > 0) NewLine();
    stream_.Put(value.IsObject() ? '}' : ']');
  }

  void NewLine() {
    if (indent_ > 0) stream_.text.append(1, '\n').append(open_.size() * indent_, ' ');
  }

  // The writer knows the shortest text of a double; its own way with strings goes character by character.
  void Number(Value const& value) {
    rapidjson::Writer<TextStream, rapidjson::UTF8<>, rapidjson::UTF8<>, support::StackAllocator> writer(stream_);
    bool const good = value.IsDouble()   ? writer.Double(value.GetDouble())
                      : value.IsUint64() ? writer.Uint64(value.GetUint64())
                                         : writer.Int64(value.GetInt64());
    if (!good) utility::Refuse("JSON: infinity and NaN cannot be written");
  }

  // A key or a string.
  void Text(Value const& value) {
    stream_.Put('"');
    char const* const end = value.GetString() + value.GetStringLength();
    for (char const* at = value.GetString(); at != end;) {
      char const* const plain_end = PlainEnd(at, end);
      stream_.Append({at, static_cast<std::size_t>(plain_end - at)});
      at = plain_end;
      if (at != end) AppendEscape(*at++, stream_.text);
    }
    stream_.Put('"');
  }

  TextStream& stream_;
  unsigned int const indent_;
  std::vector<Level> open_;
};

std::string TextOf(Value const& value, unsigned int indent) {
  TextStream stream;
  Renderer(stream, indent).Render(value);
  return std::move(stream.text);
}

constexpr unsigned int kIndent = 4;
constexpr std::size_t kChunkBytes = 65536, kStackBytes = 1024;

}  // namespace

support::JSONText::JSONText(std::string text)
    : text_(std::move(text)), allocator_(kChunkBytes), document_(&allocator_, kStackBytes) {
  PlainRunStream stream(text_.data(), text_.data() + text_.size());
  document_.ParseStream<rapidjson::kParseIterativeFlag | rapidjson::kParseInsituFlag>(stream);
}

std::string support::CompactJSON(Value const& value) { return TextOf(value, 0); }

std::string support::PrettyJSON(Value const& value) { return TextOf(value, kIndent); }

std::size_t support::WritePrettyJSON(Value const& value, std::ostream& to) {
  TextStream stream;
  stream.file = &to;
  Renderer(stream, kIndent).Render(value);
  stream.Spill();
  return stream.written;
}

}  // namespace talvo::runtime
