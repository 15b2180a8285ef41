#include "CliOptions.h"

#include <glib.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "Commands.h"
#include "Output.h"

namespace cli {

namespace {

const char kOptionsHelp[] =
    "Options:\n"
    "  -j, --json[=pretty|short]  one JSON document per outcome on stdout, errors\n"
    "                             included (pretty by default; run and monitor print\n"
    "                             one short document per line)\n"
    "  -t, --timeout=SECONDS      how long to wait (action: 40, state: 15, launch: 10,\n"
    "                             focused: 5; monitor: until stopped)\n"
    "  -l, --log-level=LEVEL      show the library's log lines on stderr: verbose, debug,\n"
    "                             info, warn, error or silent (default silent)\n"
    "  -a, --address=ADDRESS      the system bus (else DBUS_SYSTEM_BUS_ADDRESS)\n"
    "      --apps-dir=DIR         installed app manifests (else VELNA_APPS_DIR)\n"
    "      --runtime-dir=DIR      sockets and running apps (else VELNA_RUNTIME_DIR)\n"
    "      --client-id=ID         this client's app id (else VELNA_APP_ID, else\n"
    "                             org.velna.talvo.cli)\n"
    "  -w, --width=N              monitor: characters shown of each value (default 32)\n"
    "  -h, --help                 this help, or a command's own after the command\n"
    "  -V, --version              the tool's version\n"
    "  --                         what follows is not an option\n"
    "\n"
    "Exit codes: 0 success; 1 refused, failure answer, action not declared or no focused\n"
    "app; 2 bad command line; 3 no answer in time; 4 app not installed, no system bus or\n"
    "runtime directory unusable.\n";

gboolean OnJson(const gchar *, const gchar *value, gpointer data, GError **error) {
  auto *options = static_cast<CliOptions *>(data);
  if (!value || std::strcmp(value, "pretty") == 0) {
    options->json = JsonStyle::kPretty;
  } else if (std::strcmp(value, "short") == 0) {
    options->json = JsonStyle::kShort;
  } else {
    g_set_error(error, G_OPTION_ERROR, G_OPTION_ERROR_BAD_VALUE,
                "--json takes pretty or short, not '%s'", value);
    return FALSE;
  }
  return TRUE;
}

bool ParseWhole(const char *text, int low, int high, int *out) {
  char *end = nullptr;
  long value = std::strtol(text, &end, 10);
  if (!*text || *end || value < low || value > high) return false;
  *out = int(value);
  return true;
}

gboolean OnTimeout(const gchar *, const gchar *value, gpointer data, GError **error) {
  if (ParseWhole(value, 1, 3600, &static_cast<CliOptions *>(data)->timeoutSeconds)) return TRUE;
  g_set_error(error, G_OPTION_ERROR, G_OPTION_ERROR_BAD_VALUE,
              "--timeout takes a whole number of seconds from 1 to 3600, not '%s'", value);
  return FALSE;
}

gboolean OnWidth(const gchar *, const gchar *value, gpointer data, GError **error) {
  if (ParseWhole(value, 4, 100000, &static_cast<CliOptions *>(data)->width)) return TRUE;
  g_set_error(error, G_OPTION_ERROR, G_OPTION_ERROR_BAD_VALUE,
              "--width takes a whole number from 4, not '%s'", value);
  return FALSE;
}

// String options land in GLib-allocated strings first, then in the options.
struct StringOptions {
  gchar *logLevel = nullptr, *address = nullptr, *appsDir = nullptr, *runtimeDir = nullptr,
        *clientId = nullptr;
  gboolean help = FALSE, version = FALSE;

  ~StringOptions() {
    for (gchar *s : {logLevel, address, appsDir, runtimeDir, clientId}) g_free(s);
  }
  void applyTo(CliOptions *options) const {
    auto take = [](const gchar *from, std::string *to) {
      if (from) *to = from;
    };
    take(logLevel, &options->logLevel);
    take(address, &options->address);
    take(appsDir, &options->appsDir);
    take(runtimeDir, &options->runtimeDir);
    take(clientId, &options->clientId);
    options->help = help;
    options->version = version;
  }
};

int UsageError(const CliOptions &options, const std::string &message) {
  return Fail(options, kExitUsage, message + " (see talvo-cli --help)");
}

bool ValidLogLevel(const std::string &level) {
  for (const char *known : {"verbose", "debug", "info", "warn", "error", "silent"})
    if (level == known) return true;
  return false;
}

// --json before the first "--" decides how even a bad command line is reported.
void PrescanJson(int argc, char **argv, CliOptions *options) {
  for (int i = 1; i < argc && std::strcmp(argv[i], "--") != 0; ++i) {
    if (std::strcmp(argv[i], "-j") == 0 || std::strcmp(argv[i], "--json") == 0)
      options->json = JsonStyle::kPretty;
    else if (std::strcmp(argv[i], "--json=short") == 0)
      options->json = JsonStyle::kShort;
  }
}

// Runs GOption over argv; what is left (command and arguments) goes to *rest.
int ParseOptions(int argc, char **argv, CliOptions *options, std::vector<std::string> *rest) {
  StringOptions strings;
  const GOptionEntry entries[] = {
      {"json", 'j', G_OPTION_FLAG_OPTIONAL_ARG, G_OPTION_ARG_CALLBACK, (void *)OnJson,
       nullptr, "STYLE"},
      {"timeout", 't', 0, G_OPTION_ARG_CALLBACK, (void *)OnTimeout, nullptr, "SECONDS"},
      {"log-level", 'l', 0, G_OPTION_ARG_STRING, &strings.logLevel, nullptr, "LEVEL"},
      {"address", 'a', 0, G_OPTION_ARG_STRING, &strings.address, nullptr, "ADDRESS"},
      {"apps-dir", 0, 0, G_OPTION_ARG_FILENAME, &strings.appsDir, nullptr, "DIR"},
      {"runtime-dir", 0, 0, G_OPTION_ARG_FILENAME, &strings.runtimeDir, nullptr, "DIR"},
      {"client-id", 0, 0, G_OPTION_ARG_STRING, &strings.clientId, nullptr, "ID"},
      {"width", 'w', 0, G_OPTION_ARG_CALLBACK, (void *)OnWidth, nullptr, "N"},
      {"help", 'h', 0, G_OPTION_ARG_NONE, &strings.help, nullptr, nullptr},
      {"version", 'V', 0, G_OPTION_ARG_NONE, &strings.version, nullptr, nullptr},
      {},
  };
  GOptionContext *context = g_option_context_new(nullptr);
  GOptionGroup *group = g_option_group_new("talvo-cli", "", "", options, nullptr);
  g_option_group_add_entries(group, entries);
  g_option_context_set_main_group(context, group);  // takes the group over
  g_option_context_set_help_enabled(context, FALSE);

  // GOption would take the word after a bare optional-value option as its value
  // ("--json action"), so a bare one gets its default value spelled out.
  gchar **args = g_new0(gchar *, argc + 1);
  bool options_ended = false;
  for (int i = 0; i < argc; ++i) {
    options_ended = options_ended || std::strcmp(argv[i], "--") == 0;
    bool bare = !options_ended && (std::strcmp(argv[i], "--json") == 0 ||
                                   std::strcmp(argv[i], "-j") == 0);
    args[i] = g_strdup(bare ? "--json=pretty" : argv[i]);
  }
  GError *error = nullptr;
  gboolean parsed = g_option_context_parse_strv(context, &args, &error);
  g_option_context_free(context);
  int r = kExitOk;
  if (!parsed) {
    r = UsageError(*options, error->message);
    g_error_free(error);
  } else {
    strings.applyTo(options);
    bool dashes = false;  // GOption may leave the "--" that ended the options
    for (gchar **arg = args + 1; *arg; ++arg) {
      if (!dashes && std::strcmp(*arg, "--") == 0) {
        dashes = true;
        continue;
      }
      rest->push_back(*arg);
    }
  }
  g_strfreev(args);
  return r;
}

// Splits the arguments after the command into positional ones and KEY=VALUE fields.
int SplitArguments(const Command &command, const std::vector<std::string> &rest,
                   CliOptions *options) {
  size_t fixed = size_t(command.minArgs);
  if (rest.size() < fixed)
    return UsageError(*options, std::string(command.name) + " needs " + std::to_string(fixed) +
                                    " argument" + (fixed == 1 ? "" : "s"));
  size_t most = command.rest == Rest::kNone ? fixed : command.rest == Rest::kOne ? fixed + 1
                                                                                 : rest.size();
  if (rest.size() > most)
    return UsageError(*options, std::string("too many arguments for ") + command.name);
  for (size_t i = 0; i < rest.size(); ++i) {
    if (i < fixed || command.rest != Rest::kFields) {
      options->args.push_back(rest[i]);
      continue;
    }
    size_t eq = rest[i].find('=');
    if (eq == std::string::npos || eq == 0)
      return UsageError(*options, "'" + rest[i] + "' is not KEY=VALUE");
    options->fields.emplace_back(rest[i].substr(0, eq), rest[i].substr(eq + 1));
  }
  return kExitOk;
}

}  // namespace

int ParseCommandLine(int argc, char **argv, CliOptions *options) {
  options->command.clear();
  options->args.clear();
  options->fields.clear();
  PrescanJson(argc, argv, options);
  std::vector<std::string> rest;
  int r = ParseOptions(argc, argv, options, &rest);
  if (r != kExitOk) return r;
  if (!ValidLogLevel(options->logLevel))
    return UsageError(*options, "unknown log level '" + options->logLevel + "'");
  if (rest.empty()) {
    if (options->help || options->version) return kExitOk;
    return UsageError(*options, "no command given");
  }
  options->command = rest[0];
  rest.erase(rest.begin());
  const Command *command = FindCommand(options->command);
  if (!command) return UsageError(*options, "unknown command '" + options->command + "'");
  if (options->help) return kExitOk;
  return SplitArguments(*command, rest, options);
}

std::string UsageText(const std::string &name) {
  const Command *command = FindCommand(name);
  if (command && name != "help")
    return std::string("Usage: talvo-cli [OPTION...] ") + command->name +
           (*command->synopsis ? " " : "") + command->synopsis + "\n" + command->help +
           "\nOptions are those of talvo-cli --help.\n";

  std::string text =
      "Usage: talvo-cli [OPTION...] COMMAND [ARGUMENT...]\n"
      "\n"
      "A client of the Talvo proxy for people who build companion apps.\n"
      "\n"
      "Commands:\n";
  for (const Command *c = AllCommands(); c->name; ++c) {
    std::string head = std::string("  ") + c->name + " " + c->synopsis;
    head.resize(std::max<size_t>(head.size() + 1, 30), ' ');
    text += head + c->summary + "\n";
  }
  return text + "\n" + kOptionsHelp +
         "\nEnvironment: VELNA_APPS_DIR, VELNA_RUNTIME_DIR, DBUS_SYSTEM_BUS_ADDRESS, "
         "VELNA_APP_ID.\nSee talvo-cli(1).\n";
}

std::string VersionText() { return std::string("talvo-cli ") + TALVO_VERSION + "\n"; }

}  // namespace cli
