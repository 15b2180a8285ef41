#include "CliOptions.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace cli {

namespace {

const char kToolUsage[] =
    "Usage: talvo-cli [--json] [--timeout SECONDS] [--log-level LEVEL] COMMAND [ARGS]\n"
    "\n"
    "A client of the Talvo proxy for people who build companion apps.\n"
    "\n"
    "Commands:\n"
    "  action APP [KEY=VALUE...]   execute an action in APP (put the action in actionId=...)\n"
    "  state APP [KEY=VALUE...]    ask the running APP for its context (JSON envelope)\n"
    "  focused                     name the app whose window has the focus\n"
    "  registered APP ACTION       tell whether APP declares the action id ACTION\n"
    "  explain APP                 what the library knows about APP, without sending anything\n"
    "  check APP                   check APP against the library: manifest, then live\n"
    "  help [COMMAND]              this text, or a command's own\n"
    "\n"
    "Options:\n"
    "  --json             machine-readable output (appContext pretty-printed)\n"
    "  --timeout SECONDS  how long to wait for an answer (action: 40, state: 15, focused: 5)\n"
    "  --log-level LEVEL  show the library's log lines on stderr: verbose, debug, info,\n"
    "                     warn, error or silent (default silent)\n"
    "  --help             help of the tool or, after a command, of that command\n"
    "\n"
    "Exit codes: 0 success; 1 refused, failure answer or action not declared; 2 bad\n"
    "command line; 3 no answer in time; 4 app not installed or no system bus.\n"
    "\n"
    "Environment: VELNA_APPS_DIR, VELNA_RUNTIME_DIR, DBUS_SYSTEM_BUS_ADDRESS; VELNA_APP_ID\n"
    "(the client's own app id, default org.velna.talvo.cli).\n";

struct CommandHelp {
  const char *name;
  int minArgs;
  int maxArgs;  // -1: any number of KEY=VALUE after the fixed ones
  const char *text;
};

const CommandHelp kCommands[] = {
    {"action", 1, -1,
     "Usage: talvo-cli action APP [KEY=VALUE...]\n"
     "Sends the request bundle made of the KEY=VALUE pairs (all strings) to APP, launching\n"
     "or connecting it when needed, and prints the answer. Example:\n"
     "  talvo-cli action org.example.music actionId=play track=7\n"},
    {"state", 1, -1,
     "Usage: talvo-cli state APP [KEY=VALUE...]\n"
     "Asks the running APP for its context; the library adds actionId=getAppContext and\n"
     "type=PunchIn. Prints status and the JSON envelope under appContext.\n"},
    {"focused", 0, 0,
     "Usage: talvo-cli focused\n"
     "Asks the window manager on the system bus which app's window has the focus.\n"},
    {"registered", 2, 2,
     "Usage: talvo-cli registered APP ACTION\n"
     "Prints yes (exit 0) when APP's manifest declares ACTION, else no (exit 1).\n"},
    {"explain", 1, 1,
     "Usage: talvo-cli explain APP\n"
     "Tells whether APP is installed, its version, capsule id and SDK version, which\n"
     "mechanism the library uses and why, whether it runs and can be reached now, whether\n"
     "it is an alias app, and the action ids it declares. Sends nothing to the app.\n"},
    {"check", 1, 1,
     "Usage: talvo-cli check APP\n"
     "Checks APP as the library will see it and prints a checklist (pass, warn, fail, with\n"
     "a one-line fix for each failure). The manifest: syntax (file and line), Package,\n"
     "Exec, metadata keys and near misses, version and capsule id, the action-id list, the\n"
     "mechanism, AllowedClients, alias app. Then live, through the library: launch or\n"
     "connection time, every declared action, a context request, chunked answers, the\n"
     "focus of an alias app, an unknown action. Stops what it started. Exit 1 when a check\n"
     "fails. --timeout: the wait for each answer (default 10).\n"},
    {"help", 0, 1, "Usage: talvo-cli help [COMMAND]\n"},
};

const CommandHelp *FindCommand(const std::string &name) {
  for (const CommandHelp &command : kCommands)
    if (name == command.name) return &command;
  return nullptr;
}

int UsageError(const std::string &message) {
  std::fprintf(stderr, "talvo-cli: %s (see talvo-cli --help)\n", message.c_str());
  return kExitUsage;
}

bool ParseSeconds(const char *text, int *seconds) {
  char *end = nullptr;
  long value = std::strtol(text, &end, 10);
  if (!*text || *end || value <= 0 || value > 3600) return false;
  *seconds = int(value);
  return true;
}

// Handles one "--option [value]" at argv[*i]; returns kExitOk or kExitUsage.
int ParseOption(int argc, char **argv, int *i, CliOptions *options) {
  std::string option = argv[*i];
  if (option == "--json") {
    options->json = true;
  } else if (option == "--help" || option == "-h") {
    options->help = true;
  } else if (option == "--timeout" || option == "--log-level") {
    if (*i + 1 >= argc) return UsageError(option + " needs a value");
    const char *value = argv[++*i];
    if (option == "--log-level") {
      options->logLevel = value;
    } else if (!ParseSeconds(value, &options->timeoutSeconds)) {
      return UsageError("--timeout takes a whole number of seconds from 1 to 3600");
    }
  } else {
    return UsageError("unknown option " + option);
  }
  return kExitOk;
}

bool ValidLogLevel(const std::string &level) {
  for (const char *known : {"verbose", "debug", "info", "warn", "error", "silent"})
    if (level == known) return true;
  return false;
}

// Splits the arguments after the command into positional ones and KEY=VALUE fields.
int SplitArguments(const CommandHelp &help, const std::vector<std::string> &rest,
                   CliOptions *options) {
  size_t fixed = size_t(help.minArgs);
  if (rest.size() < fixed)
    return UsageError(std::string(help.name) + " needs " + std::to_string(fixed) +
                      " argument" + (fixed == 1 ? "" : "s"));
  if (help.maxArgs >= 0 && rest.size() > size_t(help.maxArgs))
    return UsageError(std::string("too many arguments for ") + help.name);
  for (size_t i = 0; i < rest.size(); ++i) {
    if (i < fixed || help.maxArgs >= 0) {
      options->args.push_back(rest[i]);
      continue;
    }
    size_t eq = rest[i].find('=');
    if (eq == std::string::npos || eq == 0)
      return UsageError("'" + rest[i] + "' is not KEY=VALUE");
    options->fields.emplace_back(rest[i].substr(0, eq), rest[i].substr(eq + 1));
  }
  return kExitOk;
}

}  // namespace

int ParseCommandLine(int argc, char **argv, CliOptions *options) {
  std::vector<std::string> rest;
  for (int i = 1; i < argc; ++i) {
    bool isOption = argv[i][0] == '-' && argv[i][1] == '-';
    if (std::strcmp(argv[i], "-h") == 0) isOption = true;
    if (isOption) {
      int r = ParseOption(argc, argv, &i, options);
      if (r != kExitOk) return r;
    } else if (options->command.empty()) {
      options->command = argv[i];
    } else {
      rest.push_back(argv[i]);
    }
  }
  if (!ValidLogLevel(options->logLevel))
    return UsageError("unknown log level '" + options->logLevel + "'");
  if (options->command.empty()) {
    if (options->help) return kExitOk;
    return UsageError("no command given");
  }
  const CommandHelp *help = FindCommand(options->command);
  if (!help) return UsageError("unknown command '" + options->command + "'");
  if (options->help) return kExitOk;
  return SplitArguments(*help, rest, options);
}

std::string UsageText(const std::string &command) {
  const CommandHelp *help = FindCommand(command);
  return help && command != "help" ? help->text : kToolUsage;
}

}  // namespace cli
