// Runs a model package as an application would: reads it, builds the net for a back end, feeds .npy files, writes the
// outputs.
#include <cstdio>
#include <iostream>
#include <stdexcept>
#include <string>

#include "tools/common/program.h"
#include "tools/run_package/check.h"
#include "tools/run_package/describe.h"
#include "tools/run_package/report.h"

namespace {

void RunAll(run_package::Arguments const& arguments, run_package::Session& session) {
  for (std::size_t i = 0; i < arguments.runs.size(); ++i) {
    auto const result = session.Run(arguments.runs[i], arguments.repeat, arguments.profile);
    std::string directory = arguments.output_dir;
    if (arguments.runs.size() > 1) {
      std::cout << "run " << i << "\n";
      if (!directory.empty()) directory += "/" + std::to_string(i);
    }
    run_package::ReportOutputs(session, result, directory, std::cout);
    if (arguments.profile) run_package::ReportProfile(session, result, std::cout);
  }
}

void Run(run_package::Arguments const& arguments) {
  if (arguments.check || arguments.memory) return run_package::LookAt(arguments, std::cout);
  run_package::Session session(arguments);
  if (arguments.list) {
    run_package::Describe(session.File(), std::cout);
  } else {
    RunAll(arguments, session);
  }
  tools::Flush(std::cout);
  for (std::string const& warning : run_package::Session::Warnings()) std::fprintf(stderr, "%s\n", warning.c_str());
}

}  // namespace

int main(int count, char** words) {
  return tools::RunProgram("run_package", run_package::kUsage, [&] { Run(run_package::ParseArguments(count, words)); });
}
