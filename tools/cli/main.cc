// talvo-cli: a client of the Talvo proxy for people who build companion apps.
#include <cstdio>
#include <cstdlib>

#include "CliOptions.h"
#include "Commands.h"

namespace {

// The flags win over the environment, which stays the fallback.
void ApplyEnvironment(const cli::CliOptions &options) {
  auto set = [](const char *name, const std::string &value) {
    if (!value.empty()) setenv(name, value.c_str(), 1);
  };
  set("DBUS_SYSTEM_BUS_ADDRESS", options.address);
  set("VELNA_APPS_DIR", options.appsDir);
  set("VELNA_RUNTIME_DIR", options.runtimeDir);
  set("VELNA_APP_ID", options.clientId);
  setenv("VELNA_APP_ID", "org.velna.talvo.cli", 0);
  // The library logs a great deal at error priority along normal paths; the tool shows
  // none of it unless asked.
  setenv("VELNA_LOG_LEVEL", options.logLevel.c_str(), 1);
}

}  // namespace

int main(int argc, char **argv) {
  cli::CliOptions options;
  int r = cli::ParseCommandLine(argc, argv, &options);
  if (r != cli::kExitOk) return r;
  if (options.version) {
    std::fputs(cli::VersionText().c_str(), stdout);
    return cli::kExitOk;
  }
  if (options.help) {
    std::fputs(cli::UsageText(options.command).c_str(), stdout);
    return cli::kExitOk;
  }
  ApplyEnvironment(options);
  return cli::FindCommand(options.command)->run(options);
}
