// talvo-cli: a client of the Talvo proxy for people who build companion apps.
#include <cstdio>
#include <cstdlib>

#include "AppChecker.h"
#include "AppExplainer.h"
#include "CliOptions.h"
#include "RequestRunner.h"

int main(int argc, char **argv) {
  cli::CliOptions options;
  int r = cli::ParseCommandLine(argc, argv, &options);
  if (r != cli::kExitOk) return r;
  if (options.help || options.command.empty() || options.command == "help") {
    std::string topic = options.command == "help" && !options.args.empty() ? options.args[0]
                        : options.command == "help"                          ? ""
                                                                             : options.command;
    std::fputs(cli::UsageText(topic).c_str(), stdout);
    return cli::kExitOk;
  }

  // The library logs a great deal at error priority along normal paths; the tool shows
  // none of it unless asked.
  setenv("VELNA_LOG_LEVEL", options.logLevel.c_str(), 1);
  setenv("VELNA_APP_ID", "org.velna.talvo.cli", 0);

  cli::RequestRunner runner(options);
  if (options.command == "action") return runner.runAction();
  if (options.command == "state") return runner.runState();
  if (options.command == "focused") return runner.runFocused();
  if (options.command == "registered") return runner.runRegistered();
  if (options.command == "check") return cli::AppChecker(options).run();
  return cli::AppExplainer(options).run();
}
