// The commands of talvo-cli, one row each: how many arguments they take, their help,
// and the function that runs them.
#pragma once

#include <string>

#include "CliOptions.h"

namespace cli {

// Number of arguments a command takes after its fixed ones.
enum class Rest {
  kNone,    // exactly minArgs
  kFields,  // any number of KEY=VALUE request fields
  kAny,     // any number of plain arguments
  kOne,     // at most one more plain argument
};

struct Command {
  const char *name;
  const char *synopsis;  // the arguments, as the help shows them
  const char *summary;   // one line for the tool's help
  int minArgs;
  Rest rest;
  const char *help;      // the command's own help, after its usage line
  int (*run)(const CliOptions &options);
};

// The command named name, or nullptr.
const Command *FindCommand(const std::string &name);

// Every command, in the order that the help lists them; ends with a row whose name is
// nullptr.
const Command *AllCommands();

}  // namespace cli
