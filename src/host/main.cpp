// stellwin-backup: the command-line host of the backup agent.
#include <algorithm>
#include <clocale>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/QVProgram.h"
#include "host/cli/QVCommandLine.h"
#include "host/cli/QVJSONErrorReport.h"

int main(int argc, char** argv) {
  std::setlocale(LC_ALL, "");
  // With --json a failure ends in JSON too, also one of the arguments themselves.
  std::optional<QVJSONErrorReport> report;
  if (std::any_of(argv + 1, argv + argc, [](const char* argument) { return std::string_view(argument) == "--json"; }))
    report.emplace();
  auto finish = [&](int status) { return report ? report->finish(status) : status; };
  QVCommandLine commandLine;
  if (auto status = commandLine.parse(argc, argv, std::cout, std::cerr)) return finish(*status);
  // The daemon's output is its journal, for as long as it runs: nothing of it is kept here.
  if (commandLine.options().command == QVCommand::daemon && report) report->finish(0);
  return finish(QVProgram(std::vector<std::string>(argv, argv + argc)).run(commandLine.options()));
}
