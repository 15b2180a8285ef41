// Requests of talvo-cli through the library's exported functions, on the platform's main
// loop: sending them, printing their answers as they come, and telling why none came.
#pragma once

#include <bundle.h>

#include <string>

#include "CliOptions.h"

namespace cli {

// One action or state request and what became of it. Lives until the process has
// stopped waiting for it: the library keeps a pointer to it as callback data.
struct Request {
  CliOptions options;  // options.args[0] is the app, options.fields the request
  bool isState = false;
  int line = 0;        // its line in a script of run, 0 outside one
  size_t logMark = 0;  // where the library's log stood when it was sent
  bool answered = false;
  int exitCode = kExitOk;  // of its answer, once answered
};

// Sends request through the library (acquired for it; release with Library::release
// once done with the answer). 0 when sent; otherwise the failure has been reported and
// its exit code is returned.
int SendRequest(Request *request);

// Reports that request got no answer within seconds, with what the library's log says
// about it. Returns kExitTimeout.
int ReportNoAnswer(const Request &request, int seconds);

// Checks that appId is installed; reports it and returns an exit code otherwise.
int CheckInstalled(const CliOptions &options, const std::string &appId);

// Command handlers.
int RunAction(const CliOptions &options);
int RunState(const CliOptions &options);
int RunFocused(const CliOptions &options);
int RunRegistered(const CliOptions &options);
int RunLaunch(const CliOptions &options);

}  // namespace cli
