// The floors that the library's round trip is set against, with the same payloads
// (256 B and 16 KiB) and the same harness:
//   raw-poll    a ping-pong over a Unix socketpair, both processes blocking in poll(2)
//   raw-glib    the same, both processes on a GLib main loop (a descriptor watch each)
//   gdbus       a method call (ay) -> (ay) through a private dbus-daemon, served by a
//               second process on the same bus
// and, with the argument "big", the floors of a big answer of 1, 16 and 64 MiB:
//   stream-raw  the bytes written in 1 MiB pieces over a socketpair to a process that
//               reads them all and acknowledges with one byte
//   memcpy      the bytes copied once into a buffer that is kept
// and, with the argument "scale [MAX]", the floor of talking to many processes: 1, 10, 100
// and 500 (up to MAX) raw-poll echo processes, each request (256 B) round-robin over all
// of them (raw-scale-rr-N) or to the first alone (raw-scale-one-N).
// "peers-bench serve-gdbus ADDRESS" is the serving process of the last one.
#include <fcntl.h>
#include <gio/gio.h>
#include <glib-unix.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "Harness.h"

using namespace bench;

namespace {

bool ReadFull(int fd, char *buf, size_t n) {
  for (size_t done = 0; done < n;) {
    ssize_t r = read(fd, buf + done, n - done);
    if (r < 0 && errno == EAGAIN) {
      pollfd p{fd, POLLIN, 0};
      poll(&p, 1, -1);
      continue;
    }
    if (r <= 0) return false;
    done += size_t(r);
  }
  return true;
}

bool WriteFull(int fd, const char *buf, size_t n) {
  for (size_t done = 0; done < n;) {
    ssize_t w = send(fd, buf + done, n - done, MSG_NOSIGNAL);
    if (w < 0 && errno == EAGAIN) {
      pollfd p{fd, POLLOUT, 0};
      poll(&p, 1, -1);
      continue;
    }
    if (w <= 0) return false;
    done += size_t(w);
  }
  return true;
}

// Blocks in poll until the descriptor is readable, then reads n bytes.
bool PollRead(int fd, char *buf, size_t n) {
  pollfd p{fd, POLLIN, 0};
  return poll(&p, 1, -1) == 1 && ReadFull(fd, buf, n);
}

// One end of a GLib ping-pong: reads what the watch finds, and once n bytes are in,
// either answers them (the echo side) or counts a reply (the measuring side).
struct GlibEnd {
  int fd;
  size_t n;
  bool echo;
  std::vector<char> buf;
  size_t have = 0;
  int replies = 0;
};

gboolean OnGlibReadable(gint fd, GIOCondition, gpointer data) {
  auto *end = static_cast<GlibEnd *>(data);
  ssize_t r = read(fd, end->buf.data() + end->have, end->n - end->have);
  if (r == 0 || (r < 0 && errno != EAGAIN)) {
    if (end->echo) _exit(0);
    return G_SOURCE_REMOVE;
  }
  if (r > 0) end->have += size_t(r);
  if (end->have == end->n) {
    end->have = 0;
    if (end->echo) WriteFull(fd, end->buf.data(), end->n);
    else end->replies++;
  }
  return G_SOURCE_CONTINUE;
}

// A forked echo child at the other end of a socketpair; ends with the pair.
struct EchoChild {
  int fd = -1;
  pid_t pid = -1;
  EchoChild(size_t n, bool glib) {
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, sv) < 0) return;
    pid = fork();
    if (pid == 0) {
      close(sv[0]);
      if (glib) {
        GlibEnd end{sv[1], n, true, std::vector<char>(n)};
        g_unix_fd_add(sv[1], G_IO_IN, OnGlibReadable, &end);
        for (;;) g_main_context_iteration(nullptr, TRUE);
      }
      std::vector<char> buf(n);
      while (PollRead(sv[1], buf.data(), n) && WriteFull(sv[1], buf.data(), n)) {
      }
      _exit(0);
    }
    close(sv[1]);
    fd = sv[0];
  }
  ~EchoChild() {
    close(fd);
    if (pid > 0) waitpid(pid, nullptr, 0);
  }
};

void RawPoll(size_t n, const std::string &tag) {
  EchoChild child(n, false);
  std::vector<char> buf(n, 'p');
  Measure("raw-poll-" + tag, 1000, 50000, [&] {
    return WriteFull(child.fd, buf.data(), n) && PollRead(child.fd, buf.data(), n);
  });
}

void RawGlib(size_t n, const std::string &tag) {
  EchoChild child(n, true);
  GlibEnd end{child.fd, n, false, std::vector<char>(n)};
  guint watch = g_unix_fd_add(child.fd, G_IO_IN, OnGlibReadable, &end);
  std::vector<char> buf(n, 'p');
  Measure("raw-glib-" + tag, 1000, 50000, [&] {
    int want = end.replies + 1;
    return WriteFull(child.fd, buf.data(), n) && LoopUntil([&] { return end.replies >= want; });
  });
  g_source_remove(watch);
}

constexpr const char *kEchoName = "org.bench.echo";
constexpr const char *kEchoPath = "/org/bench/Echo";
constexpr const char *kEchoXml =
    "<node><interface name='org.bench.Echo'><method name='Echo'>"
    "<arg type='ay' direction='in'/><arg type='ay' direction='out'/>"
    "</method></interface></node>";

GDBusConnection *BusConnect(const char *address) {
  auto flags = GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                    G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
  return g_dbus_connection_new_for_address_sync(address, flags, nullptr, nullptr, nullptr);
}

void OnEchoCall(GDBusConnection *, const gchar *, const gchar *, const gchar *, const gchar *,
                GVariant *parameters, GDBusMethodInvocation *invocation, gpointer) {
  g_dbus_method_invocation_return_value(invocation, parameters);  // (ay) -> (ay)
}

int ServeGdbus(const char *address) {
  GDBusConnection *bus = BusConnect(address);
  GDBusNodeInfo *node = g_dbus_node_info_new_for_xml(kEchoXml, nullptr);
  static const GDBusInterfaceVTable vtable = {OnEchoCall, nullptr, nullptr, {nullptr}};
  if (!bus || !node ||
      !g_dbus_connection_register_object(bus, kEchoPath, node->interfaces[0], &vtable, nullptr,
                                         nullptr, nullptr))
    return 1;
  GVariant *reply = g_dbus_connection_call_sync(
      bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
      "RequestName", g_variant_new("(su)", kEchoName, 0u), nullptr, G_DBUS_CALL_FLAGS_NONE, -1,
      nullptr, nullptr);
  if (!reply) return 1;
  g_variant_unref(reply);
  printf("ready\n");
  fflush(stdout);
  for (;;) g_main_context_iteration(nullptr, TRUE);
}

void Gdbus(size_t n, const std::string &tag, const std::string &address) {
  std::string line;
  Child server({"/proc/self/exe", "serve-gdbus", address}, {}, &line);
  GDBusConnection *bus = BusConnect(address.c_str());
  if (line != "ready" || !bus) {
    fprintf(stderr, "gdbus: the echo server did not come up\n");
    return;
  }
  std::vector<char> payload(n, 'p');
  Measure("gdbus-" + tag, 200, 5000, [&] {
    GVariant *arg = g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, payload.data(), n, 1);
    GVariant *reply = g_dbus_connection_call_sync(
        bus, kEchoName, kEchoPath, "org.bench.Echo", "Echo", g_variant_new_tuple(&arg, 1),
        G_VARIANT_TYPE("(ay)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    if (!reply) return false;
    g_variant_unref(reply);
    return true;
  });
  g_dbus_connection_close_sync(bus, nullptr, nullptr);
  g_object_unref(bus);
}

// A forked reader that takes `total` bytes in pieces and answers each whole with one byte.
struct SinkChild {
  int fd = -1;
  pid_t pid = -1;
  explicit SinkChild(size_t total) {
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) < 0) return;
    pid = fork();
    if (pid == 0) {
      close(sv[0]);
      std::vector<char> buf(1u << 20);
      for (;;) {
        for (size_t done = 0; done < total;) {
          ssize_t r = read(sv[1], buf.data(), std::min(buf.size(), total - done));
          if (r <= 0) _exit(0);
          done += size_t(r);
        }
        if (!WriteFull(sv[1], "k", 1)) _exit(0);
      }
    }
    close(sv[1]);
    fd = sv[0];
  }
  ~SinkChild() {
    close(fd);
    if (pid > 0) waitpid(pid, nullptr, 0);
  }
};

int Big() {
  constexpr size_t kMiB = 1u << 20;
  for (size_t mib : {size_t(1), size_t(16), size_t(64)}) {
    const std::string tag = std::to_string(mib) + "MiB", extra = Kv("mib", mib);
    const int n = mib == 1 ? 200 : mib == 16 ? 30 : 10;
    const size_t total = mib * kMiB;
    std::vector<char> source(total, 'x'), target(total);
    SinkChild sink(total);
    Measure("stream-raw-" + tag, 2, n, [&] {
      for (size_t off = 0; off < total; off += kMiB)
        if (!WriteFull(sink.fd, source.data() + off, kMiB)) return false;
      char ack;
      return read(sink.fd, &ack, 1) == 1;
    }, extra);
    Measure("memcpy-" + tag, 2, n, [&] {
      memcpy(target.data(), source.data(), total);
      return target[total - 1] == 'x';
    }, extra);
  }
  return 0;
}

int Scale(int max) {
  RaiseDescriptorLimit();
  constexpr size_t kSize = 256;
  std::vector<std::unique_ptr<EchoChild>> children;
  std::vector<char> buf(kSize, 'p');
  auto roundTrip = [&](size_t i) {
    int fd = children[i]->fd;
    return WriteFull(fd, buf.data(), kSize) && PollRead(fd, buf.data(), kSize);
  };
  int status = 0;
  for (int apps : {1, 10, 100, 500}) {
    if (apps > max) break;
    while (children.size() < size_t(apps)) {
      children.push_back(std::make_unique<EchoChild>(kSize, false));
      if (children.back()->fd < 0) {
        fprintf(stderr, "raw-scale: cannot start %d echo processes\n", apps);
        status = 1;
        break;
      }
    }
    if (status) break;
    const std::string extra = Kv("apps", apps);
    size_t next = 0;
    Measure("raw-scale-rr-" + std::to_string(apps), 200, 3000,
            [&] { return roundTrip(next++ % size_t(apps)); }, extra);
    Measure("raw-scale-one-" + std::to_string(apps), 200, 3000, [&] { return roundTrip(0); },
            extra);
  }
  // Newest first: a child holds copies of the client ends made before it, so an older
  // child sees its end close only once every younger one is gone.
  while (!children.empty()) children.pop_back();
  return status;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc > 2 && strcmp(argv[1], "serve-gdbus") == 0) return ServeGdbus(argv[2]);
  if (argc > 1 && strcmp(argv[1], "big") == 0) return Big();
  if (argc > 1 && strcmp(argv[1], "scale") == 0) return Scale(argc > 2 ? atoi(argv[2]) : 500);
  TempDir dir;
  PrivateBus bus(dir.path());
  for (size_t n : {size_t(256), size_t(16384)}) {
    const std::string tag = n == 256 ? "256B" : "16KiB";
    RawPoll(n, tag);
    RawGlib(n, tag);
    if (bus.ok()) Gdbus(n, tag, bus.address());
  }
  return 0;
}
