// A private message bus for one test process, and the window-manager simulator on it.
// BusFixture runs dbus-daemon with the private-bus configuration in a temporary directory
// and points DBUS_SYSTEM_BUS_ADDRESS at it while it lives. Create it before the library
// connects and keep it for the test's whole life: GLib's shared system-bus connection ends
// the process when its bus goes away (the destructor turns that off before it stops the
// daemon and removes the directory).
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
  // Kills the daemon at once (SIGKILL), as a bus that goes away; the fixture's own
  // connection sees it close.
  void kill();

 private:
  std::string dir_, address_;
  pid_t pid_ = -1;
  GDBusConnection *connection_ = nullptr;  // owned
};

// The simulator process on a BusFixture's bus, answering in the given layout (12 or 13),
// from the moment it owns "org.enlightenment.wm" until the destructor stops it. The
// constructor and each control call (which waits for the reply) throw std::runtime_error.
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
