// App-id validation. An id (the input up to its first zero byte) is accepted exactly when
// it follows the documented rule, and every accepted id must name places inside the
// runtime directory: a socket path directly under <runtime>/s/ and a lock file directly
// in <runtime>/lock. Every interface that takes an id must refuse a rejected one.
#include <app_manager.h>
#include <sys/stat.h>
#include <sys/un.h>

#include "fuzz_env.h"

static bool FollowsRule(const std::string &id) {
  const char *allowed = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-";
  return !id.empty() && id.size() <= 255 && id != "." && id != ".." &&
         id.find_first_not_of(allowed) == std::string::npos;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const std::string runtime = talvo_fuzz::FuzzRoot() + "/run";
  const std::string id = std::string(reinterpret_cast<const char *>(data), size).c_str();
  bool valid = velna_app_id_is_valid(id.c_str()), running = true;
  if (valid != FollowsRule(id)) abort();

  char path[sizeof(sockaddr_un::sun_path)];
  int r = velna_socket_path("rpc", id.c_str(), "port", path, sizeof path);
  int rr = app_manager_is_running(id.c_str(), &running);
  int lock = running_registry_lock(id.c_str());
  if (!valid) {
    if (r != -EINVAL || rr != -EINVAL || lock != -EINVAL) abort();
    return 0;
  }

  std::string sockets = runtime + "/s/", lock_path = runtime + "/lock/" + id;
  struct stat st;
  if (r != 0 || strncmp(path, sockets.c_str(), sockets.size()) != 0 ||
      strchr(path + sockets.size(), '/') || rr != 0 || running || lock < 0 ||
      stat(lock_path.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
    abort();
  running_registry_unlock(lock);
  unlink(lock_path.c_str());
  return 0;
}
