#include "BusFixture.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

#include "TempEnv.h"

namespace testsupport {

namespace {

constexpr int kStartTimeoutMs = 10000;
constexpr int kStopTimeoutMs = 3000;

// Starts argv with standard output on a pipe; the child is reaped by stopChild.
pid_t spawnWithStdout(const std::vector<std::string> &args, int *stdoutFd) {
  std::vector<char *> argv;
  for (const std::string &arg : args) argv.push_back(const_cast<char *>(arg.c_str()));
  argv.push_back(nullptr);

  GPid pid = 0;
  GError *error = nullptr;
  if (!g_spawn_async_with_pipes(nullptr, argv.data(), nullptr, G_SPAWN_DO_NOT_REAP_CHILD,
                                nullptr, nullptr, &pid, nullptr, stdoutFd, nullptr,
                                &error)) {
    std::string message = "cannot start " + args[0] + ": " + error->message;
    g_error_free(error);
    throw std::runtime_error(message);
  }
  return pid;
}

// Reads the first line that fd delivers within timeoutMs; "" when none comes.
std::string readLine(int fd, int timeoutMs) {
  std::string line;
  gint64 deadline = g_get_monotonic_time() + gint64(timeoutMs) * 1000;
  for (;;) {
    int left = int((deadline - g_get_monotonic_time()) / 1000);
    if (left <= 0) return "";
    struct pollfd pfd = {fd, POLLIN, 0};
    if (poll(&pfd, 1, left) <= 0) continue;
    char c;
    ssize_t n = read(fd, &c, 1);
    if (n <= 0) return "";
    if (c == '\n') return line;
    line += c;
  }
}

// SIGTERM, then SIGKILL when the child has not ended within kStopTimeoutMs.
void stopChild(pid_t pid) {
  if (pid <= 0) return;
  kill(pid, SIGTERM);
  gint64 deadline = g_get_monotonic_time() + gint64(kStopTimeoutMs) * 1000;
  for (;;) {
    pid_t r = waitpid(pid, nullptr, WNOHANG);
    if (r == pid || (r < 0 && errno != EINTR)) return;
    if (g_get_monotonic_time() >= deadline) break;
    g_usleep(10 * 1000);
  }
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
}

}  // namespace

BusFixture::BusFixture() {
  char tmpl[] = "/tmp/vbus-XXXXXX";
  if (!mkdtemp(tmpl)) throw std::runtime_error("mkdtemp failed");
  dir_ = tmpl;

  int out = -1;
  try {
    pid_ = spawnWithStdout({TALVO_DBUS_DAEMON, "--config-file=" TALVO_PRIVATE_BUS_CONFIG,
                            "--address=unix:path=" + dir_ + "/bus", "--print-address",
                            "--nofork"},
                           &out);
  } catch (...) {
    RemoveTree(dir_);
    throw;
  }
  address_ = readLine(out, kStartTimeoutMs);
  close(out);
  if (address_.empty()) {
    stopChild(pid_);
    RemoveTree(dir_);
    throw std::runtime_error("dbus-daemon printed no address");
  }

  const char *previous = getenv("DBUS_SYSTEM_BUS_ADDRESS");
  hadPreviousAddress_ = previous != nullptr;
  if (previous) previousAddress_ = previous;
  setenv("DBUS_SYSTEM_BUS_ADDRESS", address_.c_str(), 1);

  GError *error = nullptr;
  connection_ = g_dbus_connection_new_for_address_sync(
      address_.c_str(),
      GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                           G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, &error);
  if (!connection_) {
    std::string message = std::string("cannot connect to the private bus: ") + error->message;
    g_error_free(error);
    stopChild(pid_);
    RemoveTree(dir_);
    throw std::runtime_error(message);
  }
}

BusFixture::~BusFixture() {
  // The shared system-bus connection (the library's) must not end the process when the
  // daemon goes.
  if (GDBusConnection *shared = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr)) {
    g_dbus_connection_set_exit_on_close(shared, FALSE);
    g_object_unref(shared);
  }

  g_dbus_connection_close_sync(connection_, nullptr, nullptr);
  g_object_unref(connection_);
  stopChild(pid_);
  RemoveTree(dir_);

  if (hadPreviousAddress_)
    setenv("DBUS_SYSTEM_BUS_ADDRESS", previousAddress_.c_str(), 1);
  else
    unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
}

std::string BusFixture::ownerOf(const std::string &name) const {
  GVariant *reply = g_dbus_connection_call_sync(
      connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
      "GetNameOwner", g_variant_new("(s)", name.c_str()), G_VARIANT_TYPE("(s)"),
      G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
  if (!reply) return "";
  const char *owner = nullptr;
  g_variant_get(reply, "(&s)", &owner);
  std::string result = owner;
  g_variant_unref(reply);
  return result;
}

WmSim::WmSim(const BusFixture &bus, int layout) : bus_(bus) {
  int out = -1;
  pid_ = spawnWithStdout(
      {TALVO_WM_SIM, "--address", bus.address(), "--layout", std::to_string(layout)}, &out);
  std::string line = readLine(out, kStartTimeoutMs);
  close(out);
  if (line.find("ready") == std::string::npos) {
    stopChild(pid_);
    throw std::runtime_error("talvo-wm-sim did not get ready: '" + line + "'");
  }
}

WmSim::~WmSim() { stopChild(pid_); }

GVariant *WmSim::call(const char *method, GVariant *parameters, const char *replyType) {
  GError *error = nullptr;
  GVariant *reply = g_dbus_connection_call_sync(
      bus_.connection(), "org.enlightenment.wm", "/org/velna/WmSim", "org.velna.WmSim", method,
      parameters, replyType ? G_VARIANT_TYPE(replyType) : nullptr, G_DBUS_CALL_FLAGS_NONE,
      kStartTimeoutMs, nullptr, &error);
  if (!reply) {
    std::string message = std::string("WmSim.") + method + " failed: " + error->message;
    g_error_free(error);
    throw std::runtime_error(message);
  }
  return reply;
}

void WmSim::addWindow(int windowPid, bool focused) {
  g_variant_unref(call("AddWindow", g_variant_new("(ib)", windowPid, focused), nullptr));
}

void WmSim::focus(int windowPid) {
  g_variant_unref(call("Focus", g_variant_new("(i)", windowPid), nullptr));
}

void WmSim::setLayout(int layout) {
  g_variant_unref(call("SetLayout", g_variant_new("(u)", guint32(layout)), nullptr));
}

void WmSim::setAnswering(bool answering) {
  g_variant_unref(call("SetAnswering", g_variant_new("(b)", gboolean(answering)), nullptr));
}

}  // namespace testsupport
