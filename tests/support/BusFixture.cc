#include "BusFixture.h"

#include <signal.h>
#include <sys/prctl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <filesystem>
#include <stdexcept>
#include <vector>

namespace testsupport {

namespace {

// In the child before exec: it ends with the test process, also one killed by a timeout.
void EndWithParent(gpointer) { prctl(PR_SET_PDEATHSIG, SIGTERM); }

// Starts args; its pid and first printed line, or -1 and the reason. Stop reaps it.
pid_t SpawnAndReadLine(const std::vector<std::string> &args, std::string *line) {
  std::vector<char *> argv;
  for (const std::string &arg : args) argv.push_back(const_cast<char *>(arg.c_str()));
  argv.push_back(nullptr);
  GPid pid = 0;
  int out = -1;
  g_autoptr(GError) error = nullptr;
  if (!g_spawn_async_with_pipes(nullptr, argv.data(), nullptr, G_SPAWN_DO_NOT_REAP_CHILD,
                                EndWithParent, nullptr, &pid, nullptr, &out, nullptr, &error)) {
    *line = error->message;
    return -1;
  }
  FILE *stream = fdopen(out, "r");
  char buffer[512] = "";
  line->assign(fgets(buffer, sizeof buffer, stream) ? buffer : "");
  fclose(stream);
  if (!line->empty() && line->back() == '\n') line->pop_back();
  return pid;
}

void Stop(pid_t pid, int signal = SIGTERM) {
  if (pid <= 0) return;
  kill(pid, signal);
  waitpid(pid, nullptr, 0);
}

}  // namespace

BusFixture::BusFixture() {
  char tmpl[] = "/tmp/vbus-XXXXXX";
  if (!mkdtemp(tmpl)) throw std::runtime_error("mkdtemp failed");
  dir_ = tmpl;
  auto fail = [this](const std::string &why) {
    Stop(pid_);
    std::filesystem::remove_all(dir_);
    throw std::runtime_error(why);
  };
  pid_ = SpawnAndReadLine({TALVO_DBUS_DAEMON, "--config-file=" TALVO_PRIVATE_BUS_CONFIG, "--nofork",
                           "--address=unix:path=" + dir_ + "/bus", "--print-address"}, &address_);
  if (pid_ < 0 || address_.empty()) fail("dbus-daemon did not start: " + address_);
  g_autoptr(GError) error = nullptr;
  auto flags = GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                    G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
  connection_ =
      g_dbus_connection_new_for_address_sync(address_.c_str(), flags, nullptr, nullptr, &error);
  if (!connection_) fail(std::string("cannot connect to the private bus: ") + error->message);
  setenv("DBUS_SYSTEM_BUS_ADDRESS", address_.c_str(), 1);
}

BusFixture::~BusFixture() {
  g_autoptr(GDBusConnection) shared = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
  if (shared) g_dbus_connection_set_exit_on_close(shared, FALSE);
  g_dbus_connection_close_sync(connection_, nullptr, nullptr);
  g_object_unref(connection_);
  Stop(pid_);
  std::filesystem::remove_all(dir_);
  unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
}

void BusFixture::kill() {
  Stop(pid_, SIGKILL);
  pid_ = -1;
}

std::string BusFixture::ownerOf(const std::string &name) const {
  g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
      connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
      "GetNameOwner", g_variant_new("(s)", name.c_str()), G_VARIANT_TYPE("(s)"),
      G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
  const char *owner = nullptr;
  if (reply) g_variant_get(reply, "(&s)", &owner);
  return owner ? owner : "";
}

WmSim::WmSim(const BusFixture &bus, int layout) : bus_(bus) {
  std::string line;
  pid_ = SpawnAndReadLine(
      {TALVO_WM_SIM, "--address", bus.address(), "--layout", std::to_string(layout)}, &line);
  if (pid_ < 0 || line.find("ready") == std::string::npos) {
    Stop(pid_);
    throw std::runtime_error("talvo-wm-sim did not get ready: '" + line + "'");
  }
}

WmSim::~WmSim() { Stop(pid_); }

void WmSim::call(const char *method, GVariant *parameters) {
  g_autoptr(GError) error = nullptr;
  g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
      bus_.connection(), "org.enlightenment.wm", "/org/velna/WmSim", "org.velna.WmSim", method,
      parameters, nullptr, G_DBUS_CALL_FLAGS_NONE, 10000, nullptr, &error);
  if (!reply)
    throw std::runtime_error(std::string("WmSim.") + method + " failed: " + error->message);
}

}  // namespace testsupport
