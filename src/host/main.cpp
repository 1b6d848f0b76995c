// stellwin-backup: the command-line host of the backup agent.
#include <clocale>
#include <iostream>
#include <string>
#include <vector>

#include "host/cli/QVCommandLine.h"
#include "host/QVProgram.h"

int main(int argc, char** argv) {
  std::setlocale(LC_ALL, "");
  QVCommandLine commandLine;
  if (auto status = commandLine.parse(argc, argv, std::cout, std::cerr)) return *status;
  return QVProgram(std::vector<std::string>(argv, argv + argc)).run(commandLine.options());
}
