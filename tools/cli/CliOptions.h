// Command line of talvo-cli: global options, the command and its arguments.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace cli {

// Exit codes, documented in --help and the manual page.
enum ExitCode {
  kExitOk = 0,
  kExitFailed = 1,      // refused, failure answer, action not declared, no focused app
  kExitUsage = 2,       // bad command line
  kExitTimeout = 3,     // no answer in time
  kExitEnvironment = 4  // app not installed, no bus, runtime directory unusable
};

enum class JsonStyle { kNone, kShort, kPretty };

struct CliOptions {
  JsonStyle json = JsonStyle::kNone;
  bool help = false;
  bool version = false;
  int timeoutSeconds = 0;  // 0: the command's default
  int width = 32;          // monitor: characters of a value shown
  std::string logLevel = "silent";
  // Each overrides its environment variable when set.
  std::string address;     // DBUS_SYSTEM_BUS_ADDRESS
  std::string appsDir;     // VELNA_APPS_DIR
  std::string runtimeDir;  // VELNA_RUNTIME_DIR
  std::string clientId;    // VELNA_APP_ID
  std::string command;
  std::vector<std::string> args;                            // positional
  std::vector<std::pair<std::string, std::string>> fields;  // KEY=VALUE, in order
};

// Parses argv (argv[0] is the program name) on top of what *options already holds, so
// that a line of a script inherits the process's options. Returns kExitOk, or
// kExitUsage after reporting the error (as JSON when --json was asked for).
int ParseCommandLine(int argc, char **argv, CliOptions *options);

// Usage text of the whole tool, or of one command (empty or unknown: the whole tool).
std::string UsageText(const std::string &command);

// The text that --version prints.
std::string VersionText();

}  // namespace cli
