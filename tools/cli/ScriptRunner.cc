#include "ScriptRunner.h"

#include <fcntl.h>
#include <glib.h>
#include <unistd.h>
#include <velna_main_loop.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "Commands.h"
#include "Library.h"
#include "Output.h"
#include "RequestRunner.h"

namespace cli {

namespace {

const int kActionSeconds = 40, kStateSeconds = 15;

struct Pending {
  std::unique_ptr<Request> request;
  gint64 deadline;  // monotonic, microseconds
  int seconds;      // the wait it was given
  bool settled;     // answered, replaced or reported
};

class Script {
 public:
  explicit Script(const CliOptions &options) : options_(options) {
    if (options_.json != JsonStyle::kNone) options_.json = JsonStyle::kShort;  // JSON lines
  }

  // Runs one line; its exit code is remembered when it is the first failure.
  void runLine(const std::string &text, int line);
  // Waits for every pending request (at most seconds when seconds > 0).
  void waitAll(int seconds);
  int exitCode() const { return exitCode_; }

 private:
  // Keeps the exit code of the earliest line that failed.
  void note(int code, int line) {
    if (code != kExitOk && (exitCode_ == kExitOk || line < failedLine_)) {
      exitCode_ = code;
      failedLine_ = line;
    }
  }
  int lineError(int line, const std::string &message, int code);
  void send(const CliOptions &lineOptions, bool isState, int line);
  void markReplaced(const Request &newer);
  // Settles every request that was answered, or whose wait ended by now (or by
  // cutoff, when not 0); true when none is left pending.
  bool settle(gint64 cutoff);

  CliOptions options_;
  std::vector<Pending> pending_;
  int exitCode_ = kExitOk;
  int failedLine_ = 0;
  gint64 cutoff_ = 0;  // end of the current wait SECONDS, or 0
};

int Script::lineError(int line, const std::string &message, int code) {
  note(code, line);
  return Fail(options_, code, "line " + std::to_string(line) + ": " + message);
}

void Script::markReplaced(const Request &newer) {
  for (Pending &p : pending_) {
    Request &older = *p.request;
    if (p.settled || older.isState != newer.isState || older.options.args[0] != newer.options.args[0])
      continue;
    // The library keeps one pending request per app and kind: the older one's callback
    // will never be called.
    p.settled = true;
    Library::release();
    if (options_.json == JsonStyle::kNone) {
      std::printf("line %d: replaced by line %d\n", older.line, newer.line);
      std::fflush(stdout);
    } else {
      JsonObject *object = json_object_new();
      json_object_set_int_member(object, "line", older.line);
      json_object_set_int_member(object, "replacedBy", newer.line);
      PrintObject(JsonStyle::kShort, object);
    }
  }
}

void Script::send(const CliOptions &lineOptions, bool isState, int line) {
  auto request = std::make_unique<Request>();
  request->options = lineOptions;
  request->isState = isState;
  request->line = line;
  int r = SendRequest(request.get());
  if (r != kExitOk) {
    note(r, line);
    return;
  }
  markReplaced(*request);
  int seconds = lineOptions.timeoutSeconds ? lineOptions.timeoutSeconds
                : isState                  ? kStateSeconds
                                           : kActionSeconds;
  gint64 deadline = g_get_monotonic_time() + gint64(seconds) * G_USEC_PER_SEC;
  pending_.push_back({std::move(request), deadline, seconds, false});
}

bool Script::settle(gint64 cutoff) {
  gint64 now = g_get_monotonic_time();
  bool all = true;
  for (Pending &p : pending_) {
    if (p.settled) continue;
    if (p.request->answered) {
      note(p.request->exitCode, p.request->line);
    } else if (now >= p.deadline || (cutoff && now >= cutoff)) {
      gint64 sent = p.deadline - gint64(p.seconds) * G_USEC_PER_SEC;
      gint64 end = cutoff && cutoff < p.deadline ? cutoff : p.deadline;
      int waited = int((end - sent + G_USEC_PER_SEC / 2) / G_USEC_PER_SEC);
      note(ReportNoAnswer(*p.request, waited), p.request->line);
    } else {
      all = false;
      continue;
    }
    p.settled = true;
    Library::release();
  }
  return all;
}

void Script::waitAll(int seconds) {
  cutoff_ = seconds > 0 ? g_get_monotonic_time() + gint64(seconds) * G_USEC_PER_SEC : 0;
  auto done = [](void *self) {
    auto *script = static_cast<Script *>(self);
    return script->settle(script->cutoff_);
  };
  // Each pending request ends by its own deadline, so the loop needs no time-out of its own.
  while (velna_main_loop_run_until(done, this, 1000) == 0) {
  }
  cutoff_ = 0;
}

void Script::runLine(const std::string &text, int line) {
  gchar **words = nullptr;
  GError *error = nullptr;
  if (!g_shell_parse_argv(text.c_str(), nullptr, &words, &error)) {
    lineError(line, error->message, kExitUsage);
    g_error_free(error);
    return;
  }
  std::vector<char *> argv{const_cast<char *>("talvo-cli")};
  for (gchar **word = words; *word; ++word) argv.push_back(*word);
  std::string first = argv.size() > 1 ? argv[1] : "";

  if (first == "wait" || first == "sleep") {
    int seconds = 0;
    char *end = nullptr;
    if (argv.size() > 2) seconds = int(std::strtol(argv[2], &end, 10));
    if (argv.size() > 3 || (argv.size() > 2 && (*end || seconds <= 0 || seconds > 3600)) ||
        (first == "sleep" && argv.size() != 3)) {
      lineError(line, first + " takes a number of seconds" + (first == "wait" ? " or nothing" : ""),
                kExitUsage);
    } else if (first == "wait") {
      waitAll(seconds);
    } else {
      auto never = [](void *) { return false; };
      velna_main_loop_run_until(never, nullptr, seconds * 1000);
      settle(0);
    }
    g_strfreev(words);
    return;
  }

  CliOptions lineOptions = options_;
  int r = ParseCommandLine(int(argv.size()), argv.data(), &lineOptions);
  g_strfreev(words);
  if (r != kExitOk) {
    note(r, line);
    return;
  }
  if (lineOptions.address != options_.address || lineOptions.appsDir != options_.appsDir ||
      lineOptions.runtimeDir != options_.runtimeDir || lineOptions.clientId != options_.clientId) {
    lineError(line, "the bus, directories and client id are set for the whole run", kExitUsage);
    return;
  }
  if (lineOptions.json != JsonStyle::kNone) lineOptions.json = JsonStyle::kShort;
  if (lineOptions.command == "run") {
    lineError(line, "run cannot be nested", kExitUsage);
  } else if (lineOptions.help || lineOptions.version || lineOptions.command == "help") {
    std::fputs(UsageText(lineOptions.args.empty() ? lineOptions.command : lineOptions.args[0]).c_str(),
               stdout);
  } else if (lineOptions.command == "action" || lineOptions.command == "state") {
    send(lineOptions, lineOptions.command == "state", line);
  } else {
    note(FindCommand(lineOptions.command)->run(lineOptions), line);
  }
  std::fflush(stdout);
}

// Reads lines from fd while the main loop runs, so that answers print as they come
// even while the next line is still being typed.
class LineReader {
 public:
  explicit LineReader(int fd) : channel_(g_io_channel_unix_new(fd)) {
    g_io_channel_set_flags(channel_, G_IO_FLAG_NONBLOCK, nullptr);
    g_io_channel_set_close_on_unref(channel_, fd != STDIN_FILENO);
  }
  ~LineReader() { g_io_channel_unref(channel_); }

  // The next line without its end; false at the end of input.
  bool next(std::string *line) {
    for (;;) {
      gchar *text = nullptr;
      gsize length = 0;
      GIOStatus status = g_io_channel_read_line(channel_, &text, &length, nullptr, nullptr);
      if (status == G_IO_STATUS_NORMAL) {
        *line = std::string(text, length);
        g_free(text);
        while (!line->empty() && (line->back() == '\n' || line->back() == '\r')) line->pop_back();
        return true;
      }
      if (status != G_IO_STATUS_AGAIN) return false;
      waitReadable();
    }
  }

 private:
  void waitReadable() {
    bool ready = false;
    guint source = g_io_add_watch(channel_, GIOCondition(G_IO_IN | G_IO_HUP | G_IO_ERR),
                                  [](GIOChannel *, GIOCondition, gpointer flag) {
                                    *static_cast<bool *>(flag) = true;
                                    return gboolean(G_SOURCE_REMOVE);
                                  },
                                  &ready);
    auto done = [](void *flag) { return *static_cast<bool *>(flag); };
    while (velna_main_loop_run_until(done, &ready, 60000) == 0) {
    }
    if (!ready) g_source_remove(source);
  }

  GIOChannel *channel_;
};

}  // namespace

int RunScript(const CliOptions &options) {
  const std::string &file = options.args[0];
  int fd = file == "-" ? STDIN_FILENO : open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0)
    return Fail(options, kExitUsage, "cannot read " + file + ": " + std::strerror(errno));

  // The library stays up for the whole script: connections and pending requests live on
  // from one line to the next.
  Library::watchLog();
  int r = Library::acquire();
  if (r != 0) {
    if (fd != STDIN_FILENO) close(fd);
    return Fail(options, kExitFailed, "the library could not start (" + std::to_string(r) + ")");
  }
  Script script(options);
  {
    LineReader reader(fd);
    std::string line;
    for (int number = 1; reader.next(&line); ++number) {
      size_t start = line.find_first_not_of(" \t");
      if (start == std::string::npos || line[start] == '#') continue;
      script.runLine(line, number);
    }
  }
  script.waitAll(0);
  Library::release();
  return script.exitCode();
}

}  // namespace cli
