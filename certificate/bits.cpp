// Computes the cases of the digest table on this build and machine and compares each with the table.
//   bits TABLE           compares; the first case that differs is named, and the status is 1
//   bits TABLE --write   writes the table
// A line of the table is an operation and the digests of its cases. Behind "on" stands the matrix product of the
// machine that wrote it: kernels that call it are compared where that is the same, and counted apart elsewhere.
#include <dlfcn.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <set>
#include <sstream>

#include "certificate/cases.h"
#include "talvo/kernel/rows/instruction_sets.h"
#include "talvo/utility/features.h"

namespace talvo::certificate {
namespace {

using Row = std::vector<std::uint64_t>;

struct Table {
  std::string matrix_product;
  std::map<std::string, Row> rows;
};

std::string NameOfMatrixProduct() {
#if TALVO_WITH_BLAS
  using Text = char*();
  auto* const config = reinterpret_cast<Text*>(dlsym(RTLD_DEFAULT, "openblas_get_config"));
  auto* const core = reinterpret_cast<Text*>(dlsym(RTLD_DEFAULT, "openblas_get_corename"));
  return config == nullptr || core == nullptr ? "unknown" : std::string(config()) + ", kernels of " + core();
#else
  return "none";
#endif
}

std::string Hexadecimal(std::uint64_t digest) {
  char text[17];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(digest));
  return text;
}

std::string CaseName(std::string const& operation, std::size_t number) {
  return operation + " case " + std::to_string(number);
}

std::uint64_t RunCase(Operation const& operation, unsigned int number, unsigned char fill) {
  FillByte() = fill;
  Digest seed, result;
  seed.Add(CaseName(operation.name, number));
  Draw draw(seed.Value());
  operation.run(draw, result);
  Need(BlocksInUse() == 0, std::to_string(BlocksInUse()) + " blocks of memory do not return to their pool");
  return result.Value();
}

// A case without a result has the digest 0.
Row RunAll(Operation const& operation, std::vector<std::string>& failures) {
  Row digests(operation.cases);
  for (unsigned int number = 0; number < operation.cases; ++number) {
    try {
      std::uint64_t const digest = RunCase(operation, number, 0xA5);
      Need(RunCase(operation, number, 0x3C) == digest, "an element of the output is not written");
      digests[number] = digest;
    } catch (std::exception const& error) {
      failures.push_back(CaseName(operation.name, number) + ": " + error.what());
    }
  }
  return digests;
}

Table Read(std::string const& path) {
  std::ifstream file(path);
  Need(file.is_open(), path + " does not open");
  Table table;
  for (std::string line, name; std::getline(file, line);) {
    std::istringstream words(line);
    words >> name;
    if (name == "#") continue;
    if (name == "on") {
      std::getline(words >> std::ws, table.matrix_product);
      continue;
    }
    for (std::string word; words >> word;) table.rows[name].push_back(std::stoull(word, nullptr, 16));
  }
  return table;
}

void Write(std::string const& path, Table const& table) {
  std::ofstream file(path);
  file << "# Digests of the cases that the program bits draws; one line for each operation. Written by bits "
          "--write.\non "
       << table.matrix_product << "\n";
  for (auto const& [name, digests] : table.rows) {
    file << name;
    for (std::uint64_t const digest : digests) file << ' ' << Hexadecimal(digest);
    file << '\n';
  }
  Need(file.flush().good(), path + " cannot be written");
}

// Counts cases and differences, and keeps the first of these.
class Comparison {
 public:
  explicit Comparison(Table const& table)
      : table_(table), same_product_(table.matrix_product == NameOfMatrixProduct()) {}

  void Take(Operation const& operation, Row const& here) {
    bool const compared = !IsOnMatrixProduct(operation.name) || same_product_;
    (compared ? cases_ : on_another_product_) += here.size();
    auto const found = table_.rows.find(operation.name);
    if (found == table_.rows.end()) return Differ(operation.name + " has no line in the table");
    met_.insert(operation.name);
    if (!compared) return;
    if (found->second.size() != here.size()) return Differ(operation.name + " has other cases than the table");
    for (std::size_t i = 0; i < here.size(); ++i) {
      if (here[i] == found->second[i]) continue;
      Differ(CaseName(operation.name, i) + ": " + Hexadecimal(here[i]) + ", the table has " +
             Hexadecimal(found->second[i]));
    }
  }

  bool Report() {
    for (auto const& row : table_.rows)
      if (met_.count(row.first) == 0 && (TALVO_WITH_BLAS || !IsOnMatrixProduct(row.first)))
        Differ(row.first + " stands in the table alone");
    if (!first_.empty()) std::cout << "first difference: " << first_ << "\n";
    if (on_another_product_ != 0)
      std::cout << std::to_string(on_another_product_) +
                       " cases on another matrix product than the table's, not compared\n";
    // As texts: where all of libc++ is instrumented, streams do not find how numbers are written.
    std::cout << std::to_string(cases_) + " cases, " + std::to_string(differing_) + " differing\n";
    return differing_ == 0;
  }

 private:
  void Differ(std::string const& text) {
    if (differing_++ == 0) first_ = text;
  }

  Table const& table_;
  bool const same_product_;
  std::size_t cases_ = 0, on_another_product_ = 0, differing_ = 0;
  std::set<std::string> met_;
  std::string first_;
};

bool Main(std::string const& path, bool write) {
  std::cout << "instruction set " << kernel::rows::NameOf(kernel::rows::ActiveSet()) << ", matrix product "
            << NameOfMatrixProduct() << "\n";
  Table here{NameOfMatrixProduct(), {}};
  std::vector<std::string> failures;
  Table const table = write ? Table() : Read(path);
  Comparison comparison(table);
  for (auto const& family : {Kernels(), Functions(), Images(), Files()}) {
    for (Operation const& operation : family) {
      here.rows[operation.name] = RunAll(operation, failures);
      if (!write) comparison.Take(operation, here.rows[operation.name]);
    }
  }
  for (std::string const& failure : failures) std::cout << "FAILED: " << failure << "\n";
  if (write && failures.empty()) Write(path, here);
  return failures.empty() && (write || comparison.Report());
}

}  // namespace
}  // namespace talvo::certificate

int main(int argc, char** argv) {
  bool const write = argc == 3 && std::strcmp(argv[2], "--write") == 0;
  if (argc != 2 && !write) {
    std::cerr << "usage: bits TABLE [--write]\n";
    return 2;
  }
  try {
    return talvo::certificate::Main(argv[1], write) ? 0 : 1;
  } catch (std::exception const& error) {
    std::cout << "FAILED: " << error.what() << "\n";
    return 1;
  }
}
