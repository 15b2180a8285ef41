#include "Monitor.h"

#include <glib-unix.h>
#include <velna_monitor.h>

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "AnswerPrinter.h"
#include "Output.h"

namespace cli {

namespace {

// Command codes of the rpc-port interface "message": the first int32 of each parcel.
const char *const kCommands[] = {"Result", "Callback", "SetCB", "UnsetCB", "Send"};

struct Watch {
  const CliOptions *options;
  GMainLoop *loop;
  int fd;                           // the tap socket
  std::map<int, guint> senders;     // connection of each sending process: its source
  // Pieces seen so far of the chunked answer in flight, per sender, receiver and kind.
  std::map<std::string, int> pieces;
};

std::string CommandName(const velna_monitor_record &r) {
  if (r.mechanism == VELNA_MONITOR_MESSAGE_PORT) return r.port;
  if (r.command >= 0 && r.command < int(G_N_ELEMENTS(kCommands))) return kCommands[r.command];
  return r.command < 0 ? "(handshake)" : "command " + std::to_string(r.command);
}

std::string Cut(const std::string &value, int width) {
  if (int(value.size()) <= width) return value;
  return value.substr(0, size_t(width) - 3) + "...";
}

// Number of this piece within its chunked answer (0: not a piece), and whether it is
// the last one.
int Piece(Watch *watch, const velna_monitor_record &r, bool *last) {
  char *marker = nullptr;
  const char *kind = "result";
  if (!r.message) return 0;
  if (bundle_get_str(r.message, "last_chunk", &marker) != 0) {
    kind = "appContext";
    if (bundle_get_str(r.message, "app_state_last_chunk", &marker) != 0) return 0;
  }
  std::string key = std::string(r.sender) + " " + r.receiver + " " + kind;
  int number = ++watch->pieces[key];
  *last = std::strcmp(marker, "true") == 0;
  if (*last) watch->pieces.erase(key);
  return number;
}

bool Wanted(const CliOptions &options, const velna_monitor_record &r) {
  if (options.args.empty()) return true;
  for (const std::string &app : options.args)
    if (app == r.sender || app == r.receiver) return true;
  return false;
}

void Show(Watch *watch, const velna_monitor_record &r) {
  const CliOptions &options = *watch->options;
  if (!Wanted(options, r)) return;
  bool last = false;
  int piece = Piece(watch, r, &last);
  // key=value pairs with values cut for the line, full values for JSON.
  std::string pairs;
  JsonObject *keys = json_object_new();
  if (r.message)
    ForEachEntry(r.message, [&](const char *key, EntryKind kind, const void *value, size_t size) {
      pairs += std::string(" ") + key + "=";
      if (kind == EntryKind::kString) {
        pairs += Cut(static_cast<const char *>(value), options.width);
        json_object_set_string_member(keys, key, static_cast<const char *>(value));
      } else if (kind == EntryKind::kBytes) {
        pairs += "(" + std::to_string(size) + " bytes)";
        JsonObject *bytes = json_object_new();
        json_object_set_int_member(bytes, "bytes", gint64(size));
        json_object_set_object_member(keys, key, bytes);
      } else {
        pairs += "(array)";
      }
    });

  GDateTime *time = g_date_time_new_from_unix_local(r.time_us / G_USEC_PER_SEC);
  gchar *clock = g_date_time_format(time, "%H:%M:%S");
  const char *mechanism = r.mechanism == VELNA_MONITOR_RPC_PORT ? "rpc-port" : "message-port";
  std::string sender = *r.sender ? r.sender : "pid " + std::to_string(r.sender_pid);
  std::string receiver = *r.receiver ? r.receiver
                         : r.receiver_pid ? "pid " + std::to_string(r.receiver_pid)
                                          : "?";
  if (options.json == JsonStyle::kNone) {
    std::string extra;
    if (piece) extra = " [piece " + std::to_string(piece) + (last ? ", last]" : "]");
    if (r.left_out) extra += " (too large to copy)";
    if (r.text) extra += std::string(" id=") + Cut(r.text, options.width);
    std::printf("%s.%03d %s -> %s %s %s %zu B%s%s\n", clock,
                int(r.time_us % G_USEC_PER_SEC / 1000), sender.c_str(), receiver.c_str(),
                mechanism, CommandName(r).c_str(), r.size, extra.c_str(), pairs.c_str());
    std::fflush(stdout);
    json_object_unref(keys);
  } else {
    JsonObject *line = json_object_new();
    gchar *iso = g_date_time_format_iso8601(time);
    json_object_set_string_member(line, "time", iso);
    g_free(iso);
    json_object_set_string_member(line, "sender", r.sender);
    json_object_set_int_member(line, "senderPid", r.sender_pid);
    json_object_set_string_member(line, "receiver", r.receiver);
    json_object_set_int_member(line, "receiverPid", r.receiver_pid);
    json_object_set_string_member(line, "mechanism", mechanism);
    json_object_set_string_member(line, r.mechanism == VELNA_MONITOR_RPC_PORT ? "command" : "port",
                                  CommandName(r).c_str());
    json_object_set_int_member(line, "size", gint64(r.size));
    if (r.text) json_object_set_string_member(line, "id", r.text);
    if (piece) {
      json_object_set_int_member(line, "piece", piece);
      json_object_set_boolean_member(line, "lastPiece", last);
    }
    json_object_set_boolean_member(line, "copied", !r.left_out);
    json_object_set_object_member(line, "keys", keys);
    PrintObject(JsonStyle::kShort, line);
  }
  g_free(clock);
  g_date_time_unref(time);
}

// Sources stay until RunMonitor removes them.
gboolean OnStop(gpointer data) {
  g_main_loop_quit(static_cast<Watch *>(data)->loop);
  return G_SOURCE_CONTINUE;
}

// Takes what every sender has sent so far and shows it in the order it was sent: one
// sender's copies arrive in order, but the connections are read one after the other.
void ShowWaiting(Watch *watch) {
  std::vector<velna_monitor_record> records;
  for (auto it = watch->senders.begin(); it != watch->senders.end();) {
    velna_monitor_record record;
    int r;
    while ((r = velna_monitor_receive(it->first, &record)) == 0 || r == -EBADMSG) {
      if (r == 0) records.push_back(record);
    }
    if (r == -EAGAIN) {
      ++it;
      continue;
    }
    g_source_remove(it->second);  // the sender has gone
    close(it->first);
    it = watch->senders.erase(it);
  }
  std::stable_sort(records.begin(), records.end(), [](const auto &a, const auto &b) {
    return a.time_us < b.time_us;
  });
  for (velna_monitor_record &record : records) {
    Show(watch, record);
    velna_monitor_record_clear(&record);
  }
}

gboolean OnSenderReadable(gint, GIOCondition, gpointer data) {
  ShowWaiting(static_cast<Watch *>(data));
  return G_SOURCE_CONTINUE;
}

gboolean OnSenderArrives(gint, GIOCondition, gpointer data) {
  auto *watch = static_cast<Watch *>(data);
  int conn = -1;
  while (velna_monitor_accept(watch->fd, &conn) == 0)
    watch->senders[conn] = g_unix_fd_add(conn, GIOCondition(G_IO_IN | G_IO_HUP | G_IO_ERR),
                                         OnSenderReadable, watch);
  return G_SOURCE_CONTINUE;
}

}  // namespace

int RunMonitor(const CliOptions &options) {
  Watch watch{&options, nullptr, -1, {}, {}};
  int r = velna_monitor_listen(&watch.fd);
  if (r == -EBUSY)
    return Fail(options, kExitEnvironment, "another monitor listens in this runtime directory");
  if (r < 0)
    return Fail(options, kExitEnvironment,
                "cannot listen in the runtime directory (" + std::to_string(r) + ")");

  watch.loop = g_main_loop_new(nullptr, FALSE);
  guint arrivals = g_unix_fd_add(watch.fd, G_IO_IN, OnSenderArrives, &watch);
  guint interrupt = g_unix_signal_add(SIGINT, OnStop, &watch);
  guint terminate = g_unix_signal_add(SIGTERM, OnStop, &watch);
  guint timer = options.timeoutSeconds
                    ? g_timeout_add_seconds(guint(options.timeoutSeconds), OnStop, &watch)
                    : 0;
  // Senders look for the tap at most once a second, so copies start within a second.
  std::fprintf(stderr, "talvo-cli: monitoring; Ctrl-C stops\n");
  g_main_loop_run(watch.loop);

  for (guint source : {arrivals, interrupt, terminate, timer})
    if (source) g_source_remove(source);
  OnSenderArrives(watch.fd, G_IO_IN, &watch);  // what arrived before the stop
  ShowWaiting(&watch);
  for (const auto &sender : watch.senders) {
    g_source_remove(sender.second);
    close(sender.first);
  }
  velna_monitor_stop(watch.fd);
  g_main_loop_unref(watch.loop);
  return kExitOk;
}

}  // namespace cli
