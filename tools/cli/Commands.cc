#include "Commands.h"

#include <cstdio>

#include "AppChecker.h"
#include "AppExplainer.h"
#include "Monitor.h"
#include "Output.h"
#include "RequestRunner.h"
#include "ScriptRunner.h"

namespace cli {

namespace {

int RunHelp(const CliOptions &options) {
  if (!options.args.empty() && !FindCommand(options.args[0]))
    return Fail(options, kExitUsage, "no command '" + options.args[0] + "' (see talvo-cli --help)");
  std::fputs(UsageText(options.args.empty() ? "" : options.args[0]).c_str(), stdout);
  return kExitOk;
}

const Command kCommands[] = {
    {"action", "APP [KEY=VALUE...]", "execute an action in APP (the action in actionId=...)", 1,
     Rest::kFields,
     "Sends the request bundle made of the KEY=VALUE pairs (all strings) to APP, launching\n"
     "or connecting it when needed, and prints the answer. Exits 1 when the answer is a\n"
     "failure (a status_code other than ACTION_EXECUTION_SUCCESS, or the library's own\n"
     "{\"result\":\"Failure\"}), 3 when none comes in time. Example:\n"
     "  talvo-cli action org.example.music actionId=play track=7\n",
     RunAction},
    {"state", "APP [KEY=VALUE...]", "ask the running APP for its context (JSON envelope)", 1,
     Rest::kFields,
     "Asks the running APP for its context; the library adds actionId=getAppContext and\n"
     "type=PunchIn. Prints status and the JSON envelope under appContext.\n",
     RunState},
    {"focused", "", "name the app whose window has the focus", 0, Rest::kNone,
     "Asks the window manager on the system bus which app's window has the focus.\n"
     "Exits 1 when no app has it.\n",
     RunFocused},
    {"registered", "APP ACTION", "tell whether APP declares the action id ACTION", 2, Rest::kNone,
     "Prints yes (exit 0) when APP's manifest declares ACTION, else no (exit 1).\n",
     RunRegistered},
    {"explain", "APP", "what the library knows about APP, without sending anything", 1,
     Rest::kNone,
     "Tells whether APP is installed, its version, capsule id and SDK version, which\n"
     "mechanism the library uses and why, whether it runs and can be reached now, whether\n"
     "it is an alias app, the action ids it declares, and the file that receives its\n"
     "output when the platform launches it. Sends nothing to the app.\n",
     RunExplain},
    {"check", "APP", "check APP against the library: manifest, then live", 1, Rest::kNone,
     "Checks APP as the library will see it and prints a checklist (pass, warn, fail, with\n"
     "a one-line fix for each failure). The manifest: syntax (file and line), Package,\n"
     "Exec, metadata keys and near misses, version and capsule id, the action-id list, the\n"
     "mechanism, AllowedClients, alias app. Then live, through the library: launch or\n"
     "connection time, every declared action, a context request, chunked answers, the\n"
     "focus of an alias app, an unknown action. Stops what it started. Exits 1 when a\n"
     "check fails. --timeout: the wait for each answer (default 10).\n",
     RunCheck},
    {"list", "", "the installed apps, as explain sees each", 0, Rest::kNone,
     "One line per installed app: mechanism and why, running, reachable, alias, declared\n"
     "action ids. With --json, one document with every app as explain --json shows it.\n",
     RunList},
    {"launch", "APP", "launch APP as the library would, and wait until it runs", 1,
     Rest::kNone,
     "Starts APP with the library's launch operation unless it runs already, and waits\n"
     "(--timeout, default 10 s) until it runs. Its output goes to the file that explain\n"
     "names.\n",
     RunLaunch},
    {"monitor", "[APP...]", "show live traffic between clients and apps", 0, Rest::kAny,
     "Shows every message-port message and rpc-port parcel that the processes of this\n"
     "runtime directory send, one line each: time, sender, receiver, mechanism, port or\n"
     "rpc-port command, size, pieces of a chunked answer, and the keys with their values\n"
     "cut to --width characters. With APPs, only traffic from or to them. --json prints one\n"
     "document per line. Copies start within a second; a slow monitor misses copies rather\n"
     "than slowing anyone. Ctrl-C (or --timeout) stops.\n",
     RunMonitor},
    {"run", "FILE", "run the requests of FILE (- for standard input) in one process", 1,
     Rest::kNone,
     "Reads one command per line, in the syntax of the command line (options included;\n"
     "# starts a comment). action and state lines are sent without waiting, and each\n"
     "answer is printed as it comes, after a \"line N: answer\" header (with --json: one\n"
     "document per line, with member \"line\"); a request replaced by a later one to the\n"
     "same app is reported as such. Two more commands exist here:\n"
     "  wait [SECONDS]   wait for every request sent so far to be answered\n"
     "  sleep SECONDS    let the loop run\n"
     "At the end of input every pending request is waited for. The library stays up for\n"
     "the whole run, so its connections serve later lines (an action to an alias app\n"
     "needs a connection made by an earlier request). Exits with the first failure's code.\n"
     "Example:\n"
     "  printf 'launch APP\\nstate APP\\nwait\\naction APP actionId=open\\n' | talvo-cli run -\n",
     RunScript},
    {"help", "[COMMAND]", "this text, or a command's own", 0, Rest::kOne, "", RunHelp},
    {nullptr, nullptr, nullptr, 0, Rest::kNone, nullptr, nullptr},
};

}  // namespace

const Command *AllCommands() { return kCommands; }

const Command *FindCommand(const std::string &name) {
  for (const Command *command = kCommands; command->name; ++command)
    if (name == command->name) return command;
  return nullptr;
}

}  // namespace cli
