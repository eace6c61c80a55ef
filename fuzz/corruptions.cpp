// Damages good model files where their structure says that it hurts, and asks for one of two outcomes of each: success,
// or one exception with a text, in bounded time and memory.
//   corruptions COUNT [SEED [FIRST]]
// Case k of a seed is always the same one: "corruptions 1 SEED K" runs it alone. Without a seed one is drawn and
// printed. A case reads a file, writes what was read in both forms, builds the net and runs it in bounded pools.
#include "talvo/serialization/rapidjson_support.h"

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>

#include "fuzz/limited_run.h"
#include "fuzz/read_records.h"
#include "talvo/serialization/file_visitors.h"
#include "talvo/serialization/tlmodel1_conversion.h"

namespace talvo::fuzz {
namespace {

using namespace runtime;

// JSON that names its model 8 times has each layer read 36 times, since lists are appended to: 80 ms under the
// sanitizers.
#if defined(__has_feature)
constexpr double kMostMilliseconds = __has_feature(address_sanitizer) ? 200 : 50;
#else
constexpr double kMostMilliseconds = 50;
#endif
constexpr std::size_t kMostBytes = 1 << 18;

class Random {
 public:
  Random(std::uint64_t seed, std::uint64_t number) : engine_(seed * 0x9E3779B97F4A7C15 + number) {}
  std::uint64_t Word() { return engine_(); }
  std::size_t Below(std::size_t end) { return end == 0 ? 0 : Word() % end; }
  template <class Container>
  auto& Of(Container& values) {
    return values[Below(values.size())];
  }

 private:
  std::mt19937_64 engine_;
};

// A field of a binary file: a number, or a count and what it counts.
struct Field {
  std::size_t begin, end;
  bool is_counted;
};

struct Sample {
  std::string bytes;
  enum { kBinary, kJson, kOld } form;
  std::vector<Field> fields;
  bool runs;
};

// Walks a file as the reader does and notes where each field stands.
class Tracer : public FILEReader {
 public:
  Tracer(std::FILE* stream, unsigned int version, std::vector<Field>& fields)
      : FILEReader(stream, version), file_(stream), fields_(fields) {}

#define TALVO_VISIT(type) \
  void Visit(type* value, char const* key) override { Note(value, key); }
  TALVO_FOR_EACH_VISITED_TYPE(TALVO_VISIT)
#undef TALVO_VISIT

 private:
  template <class T>
  void Note(T* value, char const* key) {
    auto const begin = static_cast<std::size_t>(std::ftell(file_));
    FILEReader::Visit(value, key);
    fields_.push_back({begin, static_cast<std::size_t>(std::ftell(file_)),
                       !std::is_arithmetic_v<T> && !std::is_same_v<T, half_float::half>});
  }
  void Note(Serializable* record, char const*) {
    record->VisitAttr(std::make_shared<Tracer>(file_, _serialization_protocol_version, fields_));
  }

  std::FILE* file_;
  std::vector<Field>& fields_;
};

using Stream = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;
Stream Open(std::string const& bytes) {
  return {fmemopen(const_cast<char*>(bytes.data()), bytes.size(), "rb"), &std::fclose};
}

Sample MakeSample(std::filesystem::path const& path) {
  std::ifstream file(path, std::ios::binary);
  Sample sample{{std::istreambuf_iterator<char>(file), {}}, Sample::kBinary, {{0, 4, false}}, path.stem() == "small"};
  if (path.parent_path().filename() == "read_tlmodel1") sample.form = Sample::kOld;
  if (path.extension() == ".json") sample.form = Sample::kJson;
  if (sample.form == Sample::kBinary) {
    auto const stream = Open(sample.bytes);
    TLNModel().VisitAttr(std::make_shared<Tracer>(stream.get(), 0, sample.fields));
  } else if (sample.form == Sample::kOld) {
    for (std::size_t at = 0; at + 2 <= sample.bytes.size(); at += 2) sample.fields.push_back({at, at + 2, false});
    for (std::size_t at = 0; at < 40; ++at) sample.fields.push_back({1000, 1002, false});  // the first record's head
  }
  return sample;
}

std::vector<Sample> const& Samples() {
  static std::vector<Sample> const samples = [] {
    std::vector<Sample> made;
    for (char const* const folder :
         {"fuzz/corpus/run_package", "fuzz/corpus/read_tlmodel1", "tests/serialization/golden"})
      for (auto const& entry : std::filesystem::directory_iterator(folder)) {
        auto const extension = entry.path().extension();
        bool const is_sample = extension == ".json" || extension == ".tlnmodel" || extension.empty();
        if (is_sample) made.push_back(MakeSample(entry.path()));
      }
    if (made.empty()) throw std::runtime_error("no samples: run it in the root of the tree");
    std::sort(made.begin(), made.end(), [](Sample const& a, Sample const& b) { return a.bytes < b.bytes; });
    return made;
  }();
  return samples;
}

// Half of the cases damage the model that runs, whose file is called "small".
Sample const& AnySample(Random& random) {
  for (;;) {
    Sample const& sample = random.Of(Samples());
    if (sample.runs || random.Below(4) == 0) return sample;
  }
}

Sample const& SampleOf(Random& random, decltype(Sample::form) form) {
  for (;;) {
    Sample const& sample = random.Of(Samples());
    if (sample.form == form) return sample;
  }
}

std::uint64_t OddNumber(Random& random, std::uint64_t old) {
  std::uint64_t const odd[] = {
      0,          1,          2,     8,         255,     256,     32767,   32768, 65535,         0x7FFFFFFF,
      0x80000000, 0xFFFFFFFF, ~0ull, ~0ull / 2, old + 1, old - 1, old * 2, ~old,  random.Word(), random.Below(64)};
  return odd[random.Below(std::size(odd))];
}

std::string Bytes(std::uint64_t number, std::size_t count) {
  return std::string(reinterpret_cast<char const*>(&number), std::min(count, sizeof number));
}

std::uint64_t NumberAt(std::string const& bytes, std::size_t at, std::size_t count) {
  std::uint64_t number = 0;
  std::memcpy(&number, bytes.data() + at, std::min(count, sizeof number));
  return number;
}

// What stands in place of a field.
std::string Damaged(Random& random, Sample const& sample, Field const& field) {
  std::string const old = sample.bytes.substr(field.begin, field.end - field.begin);
  Sample const& other = SampleOf(random, sample.form);
  Field const& from = random.Of(other.fields);
  switch (random.Below(field.is_counted ? 16 : 12)) {
    case 0:
      return "";
    case 1:
      return old + old;
    case 2:
      return other.bytes.substr(from.begin, from.end - from.begin);
    case 12: {  // a count alone
      return Bytes(OddNumber(random, NumberAt(old, 0, 8)), 8) + old.substr(8);
    }
    case 13:
    case 14: {  // a text of another length
      std::string const text(random.Below(2) == 0 ? random.Below(9) : random.Below(3000),
                             static_cast<char>(random.Word()));
      return Bytes(text.size(), 8) + text;
    }
    default: {
      std::size_t const at = field.is_counted && old.size() > 8 ? 8 + random.Below(old.size() - 8) : 0;
      std::size_t const count = std::min<std::size_t>(field.is_counted ? 1 : 8, old.size() - at);
      std::string text = old;
      return text.replace(at, count, Bytes(OddNumber(random, NumberAt(old, at, count)), count));
    }
  }
}

std::string DamagedBinary(Random& random, Sample const& sample) {
  std::string bytes = sample.bytes;
  std::vector<Field> chosen;
  for (std::size_t left = 1 + random.Below(2) * random.Below(3); left != 0; --left)
    chosen.push_back(random.Of(sample.fields));
  std::sort(chosen.begin(), chosen.end(), [](Field const& a, Field const& b) { return a.begin > b.begin; });
  std::size_t end = bytes.size();  // what is chosen twice is damaged once
  for (Field const& field : chosen) {
    if (field.end > end) continue;
    bytes.replace(field.begin, field.end - field.begin, Damaged(random, sample, field));
    end = field.begin;
  }
  Sample const& other = SampleOf(random, sample.form);
  std::size_t const kind = random.Below(16);
  if (kind == 0) bytes.resize(random.Below(bytes.size() + 1));
  if (kind == 1)
    bytes = bytes.substr(0, random.Of(sample.fields).begin) + other.bytes.substr(random.Of(other.fields).begin);
  if (kind == 2)
    bytes.replace(0, 4, Bytes(sample.form == Sample::kOld ? OddNumber(random, 10000) : 20003 + random.Below(13), 4));
  return bytes;
}

using Json = rapidjson::Document::ValueType;

// Every value of a tree, with the member that holds it.
void Collect(Json& value, std::vector<Json*>& values) {
  values.push_back(&value);
  if (value.IsObject())
    for (auto& member : value.GetObject()) Collect(member.value, values);
  if (value.IsArray())
    for (auto& element : value.GetArray()) Collect(element, values);
}

void DamageText(Random& random, Json& value, rapidjson::Document::AllocatorType& memory) {
  std::string text(value.GetString(), value.GetStringLength());
  switch (random.Below(4)) {
    case 0:
      text.resize(random.Below(text.size() + 1));
      break;
    case 1:
      text += text + "A=";
      break;
    case 2:
      text.insert(random.Below(text.size() + 1), 1, static_cast<char>(random.Below(256)));
      break;
    default:
      text.assign(random.Below(2000), 'A');
  }
  value.SetString(text.data(), static_cast<rapidjson::SizeType>(text.size()), memory);
}

void DamageNumber(Random& random, Json& value) {
  double const old = value.GetDouble();
  std::uint64_t const number = OddNumber(random, old > 0 && old < 1e18 ? static_cast<std::uint64_t>(old) : 0);
  if (random.Below(4) == 0) {
    value.SetDouble(random.Below(2) == 0 ? 1e308 : static_cast<double>(random.Below(1000)) / -7.0);
  } else if (random.Below(3) == 0) {
    value.SetInt64(static_cast<std::int64_t>(number));
  } else {
    value.SetUint64(number);
  }
}

void DamageArray(Random& random, Json& value, rapidjson::Document::AllocatorType& memory) {
  if (value.Empty() || random.Below(3) == 0) {
    value.PushBack(Json(static_cast<unsigned int>(random.Below(9))), memory);
  } else if (random.Below(2) == 0) {
    value.PopBack();
  } else {
    for (std::size_t more = random.Below(20); more != 0; --more) value.PushBack(Json(value[0], memory), memory);
  }
}

void DamageObject(Random& random, Json& value, rapidjson::Document::AllocatorType& memory) {
  if (value.ObjectEmpty()) return;
  auto const member = value.MemberBegin() + static_cast<std::ptrdiff_t>(random.Below(value.MemberCount()));
  if (random.Below(2) == 0) {
    value.RemoveMember(member);
  } else {
    Json copy(member->value, memory), name(member->name, memory);
    if (random.Below(2) == 0) name.SetString("other");
    value.AddMember(name, copy, memory);
  }
}

std::string Text(Json const& value) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  value.Accept(writer);
  return {buffer.GetString(), buffer.GetSize()};
}

std::string DamagedJson(Random& random, Sample const& sample) {
  rapidjson::Document tree, other;
  tree.Parse(sample.bytes.c_str(), sample.bytes.size());
  other.Parse(SampleOf(random, Sample::kJson).bytes.c_str());
  auto& memory = tree.GetAllocator();
  std::vector<Json*> others;
  Collect(other, others);
  for (std::size_t left = 1 + random.Below(2) * random.Below(3); left != 0; --left) {
    std::vector<Json*> values;
    Collect(tree, values);
    Json& value = *random.Of(values);
    std::size_t const kind = random.Below(6);
    if (kind == 0) {
      value.CopyFrom(*random.Of(others), memory);
    } else if (kind == 1) {
      Json copy(*random.Of(values), memory);
      value.Swap(copy);
    } else if (value.IsString()) {
      DamageText(random, value, memory);
    } else if (value.IsNumber()) {
      DamageNumber(random, value);
    } else if (value.IsArray()) {
      DamageArray(random, value, memory);
    } else if (value.IsObject()) {
      DamageObject(random, value, memory);
    } else {
      value.SetNull();
    }
    if (Text(tree).size() > kMostBytes) break;
  }
  std::string text = Text(tree);
  std::size_t const kind = random.Below(12);
  if (kind == 0) text.resize(random.Below(text.size() + 1));
  if (kind == 1)
    text.insert(random.Below(text.size() + 1), std::string(random.Below(20000), random.Below(2) == 0 ? '[' : '{'));
  if (kind == 2) text[random.Below(text.size())] = static_cast<char>(random.Below(256));
  return text;
}

// Runs a step. Returns whether it succeeded; anything but success and an exception with a text is a fault.
template <class Step>
bool Succeeds(Step const& step, std::string& fault) {
  try {
    return step();
  } catch (std::exception const& refusal) {
    if (*refusal.what() == '\0') fault = "an exception without a text";
    return false;
  }
}

struct Outcome {
  std::string fault;
  bool was_read = false, ran = false;
  double milliseconds = 0;  // of this process
};

template <class Record>
void WriteBack(Record& record, std::string& fault) {
  for (char const* const form : {"bin", "json"})
    Succeeds([&] { return record.ToFile((ScratchPath() + "_copy").c_str(), form); }, fault);
}

void ReadOld(std::string const& bytes, Outcome& outcome) {
  TLModelInfo model;
  outcome.was_read = Succeeds(
      [&] {
        auto const stream = Open(bytes);
        talvo1::QZNetLoader loader;
        if (stream == nullptr || !loader.ReadFile(stream.get())) return false;
        ConvertTLModel1(loader, model);
        return true;
      },
      outcome.fault);
  if (outcome.was_read) WriteBack(model, outcome.fault);
}

void ReadPackage(std::string const& bytes, bool is_json, Outcome& outcome) {
  WriteScratch(reinterpret_cast<std::uint8_t const*>(bytes.data()), bytes.size());
  TLNModel package;
  std::string& fault = outcome.fault;
  {
    MemoryMeter const meter;
    outcome.was_read =
        Succeeds([&] { return package.FromFile(ScratchPath().c_str(), is_json ? "json" : "bin"); }, fault);
    std::size_t const most = (1u << 20) + bytes.size() * (is_json ? 40 : 16);
    if (meter.PeakBytes() > most)
      fault = std::to_string(meter.PeakBytes()) + " bytes of memory, not " + std::to_string(most);
  }
  if (!outcome.was_read) return;
  WriteBack(package, fault);
  outcome.ran = Succeeds([&] { return BuildAndRun(package); }, fault);
}

Outcome Drive(std::string const& bytes, decltype(Sample::form) form) {
  Outcome outcome;
  std::clock_t const start = std::clock();
  form == Sample::kOld ? ReadOld(bytes, outcome) : ReadPackage(bytes, form == Sample::kJson, outcome);
  outcome.milliseconds = 1000.0 * static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
  return outcome;
}

std::uint64_t seed_in_use, number_in_use;

// Before a sanitizer ends the process.
void NameCase() {
  std::fprintf(stderr, "corruptions: case %llu of seed %llu\n", static_cast<unsigned long long>(number_in_use),
               static_cast<unsigned long long>(seed_in_use));
}

int Run(std::uint64_t count, std::uint64_t seed, std::uint64_t first) {
  utility::SetLogCallback(Discard);
  seed_in_use = seed;
  double slowest = 0;
  unsigned long read = 0, ran = 0;
  for (number_in_use = first; number_in_use < first + count; ++number_in_use) {
    Random random(seed, number_in_use);
    Sample const& sample = AnySample(random);
    std::string const bytes =
        sample.form == Sample::kJson ? DamagedJson(random, sample) : DamagedBinary(random, sample);
    Outcome outcome = Drive(bytes, sample.form);
    for (int again = 0; again < 2 && outcome.milliseconds > kMostMilliseconds; ++again)  // others may use the machine
      outcome.milliseconds = std::min(outcome.milliseconds, Drive(bytes, sample.form).milliseconds);
    read += outcome.was_read;
    ran += outcome.ran;
    slowest = std::max(slowest, outcome.milliseconds);
    if (outcome.milliseconds > kMostMilliseconds) outcome.fault = std::to_string(outcome.milliseconds) + " ms";
    if (outcome.fault.empty()) continue;
    NameCase();
    std::printf("FAILED: %s\n", outcome.fault.c_str());
    WriteScratch(reinterpret_cast<std::uint8_t const*>(bytes.data()), bytes.size());
    std::printf("the file: %s\n", ScratchPath().c_str());
    return 1;
  }
  std::remove(ScratchPath().c_str());
  std::remove((ScratchPath() + "_copy").c_str());
  std::printf("%llu corruptions of seed %llu: %lu are read, %lu of them run; the slowest takes %.1f ms\n",
              static_cast<unsigned long long>(count), static_cast<unsigned long long>(seed), read, ran, slowest);
  return 0;
}

}  // namespace
}  // namespace talvo::fuzz

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
extern "C" void __sanitizer_set_death_callback(void (*callback)());
#define TALVO_NAMES_CASE_AT_DEATH 1
#endif
#endif

int main(int count, char** words) {
  if (count < 2 || count > 4) {
    std::fprintf(stderr, "usage: corruptions COUNT [SEED [FIRST]]\n");
    return 2;
  }
#if TALVO_NAMES_CASE_AT_DEATH
  __sanitizer_set_death_callback(talvo::fuzz::NameCase);
#endif
  std::uint64_t const seed = count > 2 ? std::stoull(words[2]) : std::random_device()();
  std::printf("seed %llu\n", static_cast<unsigned long long>(seed));
  std::fflush(stdout);
  return talvo::fuzz::Run(std::stoull(words[1]), seed, count > 3 ? std::stoull(words[3]) : 0);
}
