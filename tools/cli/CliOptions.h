// Command line of talvo-cli: global options, the subcommand and its arguments.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace cli {

// Exit codes, documented in --help.
enum ExitCode {
  kExitOk = 0,
  kExitFailed = 1,      // refused, failure answer, action not declared
  kExitUsage = 2,       // bad command line
  kExitTimeout = 3,     // no answer in time
  kExitEnvironment = 4  // app not installed, no bus
};

struct CliOptions {
  bool json = false;
  bool help = false;
  int timeoutSeconds = 0;        // 0: the command's default
  std::string logLevel = "silent";
  std::string command;
  std::vector<std::string> args;                            // positional
  std::vector<std::pair<std::string, std::string>> fields;  // KEY=VALUE, in order
};

// Parses argv. Returns kExitOk, or kExitUsage after printing one line to stderr.
int ParseCommandLine(int argc, char **argv, CliOptions *options);

// Usage text of the whole tool or of one subcommand (empty: the whole tool).
std::string UsageText(const std::string &command);

}  // namespace cli
