// "talvo-cli run FILE": requests and commands from a file (or standard input, "-"), one
// per line in the syntax of the command line, all in one process, so that the library
// keeps its connections and pending requests from one line to the next.
#pragma once

#include "CliOptions.h"

namespace cli {

int RunScript(const CliOptions &options);

}  // namespace cli
