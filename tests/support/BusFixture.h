// A private dbus-daemon for one test process, as DBUS_SYSTEM_BUS_ADDRESS while it lives,
// and the window-manager simulator on it. Create the bus before the library connects and
// keep it for the whole test: GLib's shared connection ends the process when its bus goes.
#pragma once

#include <gio/gio.h>
#include <sys/types.h>

#include <string>

namespace testsupport {

class BusFixture {
 public:
  // Throws std::runtime_error when the daemon cannot be started.
  BusFixture();
  ~BusFixture();
  BusFixture(const BusFixture &) = delete;
  BusFixture &operator=(const BusFixture &) = delete;

  const std::string &address() const { return address_; }
  // The fixture's own connection (not the shared one), borrowed.
  GDBusConnection *connection() const { return connection_; }
  // The unique name owning name on this bus, or "" when it has no owner.
  std::string ownerOf(const std::string &name) const;
  // Kills the daemon at once, as a bus that goes away.
  void kill();

 private:
  std::string dir_, address_;
  pid_t pid_ = -1;
  GDBusConnection *connection_ = nullptr;  // owned
};

// The simulator on a bus, answering in the given layout (12 or 13) once constructed. The
// constructor and each control call (a blocking call) throw std::runtime_error.
class WmSim {
 public:
  explicit WmSim(const BusFixture &bus, int layout = 12);
  ~WmSim();
  WmSim(const WmSim &) = delete;
  WmSim &operator=(const WmSim &) = delete;

  void addWindow(int pid, bool focused) { call("AddWindow", g_variant_new("(ib)", pid, focused)); }
  void focus(int pid) { call("Focus", g_variant_new("(i)", pid)); }
  void setLayout(int layout) { call("SetLayout", g_variant_new("(u)", guint32(layout))); }
  void setAnswering(bool on) { call("SetAnswering", g_variant_new("(b)", gboolean(on))); }

 private:
  void call(const char *method, GVariant *parameters);

  const BusFixture &bus_;
  pid_t pid_ = -1;
};

}  // namespace testsupport
