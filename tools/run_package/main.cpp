// Runs a model package as an application would: reads it, builds the net for a back end, feeds .npy files, writes the
// outputs.
#include <sys/resource.h>

#include <cstdio>
#include <iostream>
#include <string>

#include "talvo/entry/open_package.h"
#include "tools/common/program.h"
#include "tools/run_package/check.h"
#include "tools/run_package/describe.h"
#include "tools/run_package/manifest.h"
#include "tools/run_package/page.h"
#include "tools/run_package/report.h"
#include "tools/run_package/trace.h"

namespace {

using namespace run_package;

// The most that this process has held in memory.
unsigned long PeakBytes() {
  rusage usage = {};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<unsigned long>(usage.ru_maxrss) * 1024;
}

// What deserves a look though it ran: of the library's log, of the arrays that were read, and of the package.
std::vector<std::string> Warnings(Arguments const& arguments, Session& session, RunResult const& first) {
  std::vector<std::string> lines = session.Notes();
  bool const tried = arguments.outputs.empty() && first.dims;
  for (auto const& finding :
       talvo::CheckModel(session.File(), tried ? *first.dims : talvo::InputDims(), OptionsOf(arguments))) {
    lines.push_back(TextOf(finding));
  }
  lines.insert(lines.end(), LoggedWarnings().begin(), LoggedWarnings().end());
  return lines;
}

std::optional<talvo::MemoryReport> MemoryOf(Arguments const& arguments, Session& session, RunResult const& run) {
  if (!run.dims || !arguments.outputs.empty()) return std::nullopt;
  return talvo::MeasureMemory(session.File(), *run.dims, OptionsOf(arguments));
}

void PrintJson(ProcessSummary const& process, std::vector<RunSummary> const& runs,
               std::vector<std::string> const& warnings) {
  tools::Json json;
  PutProcess(process, json);
  json.Objects("runs", runs, [&](RunSummary const& run) { PutRun(run, json); });
  json.Put("warnings", warnings);
  std::cout << json.Finish();
  tools::Flush(std::cout);
}

void Print(ProcessSummary const& process, std::vector<std::string> const& warnings) {
  PrintProcess(process, std::cout);
  tools::Flush(std::cout);
  for (std::string const& warning : warnings) std::fprintf(stderr, "%s\n", warning.c_str());
}

void RunAll(Arguments const& arguments) {
  Session session(arguments);
  bool const several = arguments.runs.size() > 1;
  bool const digests = !arguments.manifest.empty() || !arguments.verify.empty();
  bool const layers = arguments.profile || !arguments.trace.empty() || !arguments.page.empty() || digests;
  std::vector<RunResult> results;
  std::vector<RunSummary> runs;
  std::vector<ManifestLine> manifest;
  for (std::size_t i = 0; i < arguments.runs.size(); ++i) {
    if (i > 1) results.back().tensors = {};  // those of the first run are looked at below
    results.push_back(session.Run(arguments.runs[i], arguments.repeat, layers));
    if (digests) AddToManifest(i, results.back(), arguments.values, manifest);
    std::string const number = several && !arguments.output_dir.empty() ? "/" + std::to_string(i) : "";
    runs.push_back(Summarise(session, results.back(), arguments.output_dir + number));
    if (arguments.json) continue;
    if (several) std::cout << "run " << i << "\n";
    PrintRun(runs.back(), arguments.profile, std::cout);
  }
  if (!arguments.manifest.empty()) WriteManifest(arguments.manifest, manifest);
  ProcessSummary const process = {arguments.package, session.ModelId(), session.LoadMs(), PeakBytes()};
  bool const shows = !arguments.trace.empty() || !arguments.page.empty();
  auto const memory = shows ? MemoryOf(arguments, session, results[0]) : std::nullopt;
  auto const warnings = Warnings(arguments, session, results[0]);
  if (!arguments.trace.empty()) WriteTrace(arguments.trace, results, memory);
  if (!arguments.page.empty())
    WritePage(arguments.page, PageData(session, results[0], runs[0], process, memory, warnings));
  arguments.json ? PrintJson(process, runs, warnings) : Print(process, warnings);
  if (!arguments.verify.empty()) VerifyManifest(arguments.verify, manifest);
}

void Run(Arguments const& arguments) {
  CollectLog();
  if (arguments.check || arguments.memory) return LookAt(arguments, std::cout);
  if (!arguments.list) return RunAll(arguments);
  Describe(arguments.package, *talvo::utility::OpenPackage(arguments.package), arguments.json, std::cout);
  tools::Flush(std::cout);
}

}  // namespace

int main(int count, char** words) {
  return tools::RunProgram("run_package", kUsage, [&] { Run(ParseArguments(count, words)); });
}
