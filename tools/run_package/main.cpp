// Runs a model package as an application would: reads it, builds the net for a back end, feeds .npy files, writes the
// outputs.
#include <cstdio>
#include <exception>
#include <iostream>

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

}  // namespace

int main(int count, char** words) {
  try {
    auto const arguments = run_package::ParseArguments(count, words);
    run_package::Session session(arguments);
    if (arguments.list) {
      run_package::Describe(session.File(), std::cout);
    } else {
      RunAll(arguments, session);
    }
    return 0;
  } catch (run_package::UsageError const& error) {
    std::fprintf(stderr, "run_package: %s\n%s\n", error.what(), run_package::kUsage);
    return 2;
  } catch (std::exception const& error) {
    std::fprintf(stderr, "run_package: %s\n", error.what());
    return 1;
  }
}
