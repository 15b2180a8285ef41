// App-id validation. An id is accepted only when it follows the documented rule (1 to
// 255 bytes of ASCII letters, digits, '.', '_' and '-', and not "." or ".."), and every
// accepted id must name places inside the runtime directory: a socket path that fits a
// socket address under <runtime>/s/, and registry files directly under their
// subdirectory. A rejected id must be refused by every interface that takes one.
#include <app_manager.h>

#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "fuzz_env.h"

extern "C" {
#include "runtime_internal.h"
}

namespace {

bool FollowsRule(const std::string &id) {
  if (id.empty() || id.size() > 255 || id == "." || id == "..") return false;
  for (unsigned char c : id) {
    bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
              c == '.' || c == '_' || c == '-';
    if (!ok) return false;
  }
  return true;
}

// The directory that holds path, resolved; empty when it cannot be resolved.
std::string RealParent(const std::string &path) {
  std::string parent = path.substr(0, path.rfind('/'));
  char resolved[PATH_MAX];
  return realpath(parent.c_str(), resolved) ? resolved : "";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const talvo_fuzz::FuzzEnv &env = talvo_fuzz::SetUpFuzzEnv();
  static const std::string runtime = [] {
    char resolved[PATH_MAX];
    if (!realpath(env.runtime.c_str(), resolved)) abort();
    return std::string(resolved);
  }();

  // The id as a C string: up to the first zero byte.
  const char *text = reinterpret_cast<const char *>(data);
  std::string id = size ? std::string(text, strnlen(text, size)) : std::string();
  bool valid = velna_app_id_is_valid(id.c_str());
  if (valid != FollowsRule(id)) abort();

  char path[sizeof(((sockaddr_un *)0)->sun_path)];
  int r = velna_socket_path("rpc", id.c_str(), "port", path, sizeof path);
  bool running = true;
  int rr = app_manager_is_running(id.c_str(), &running);
  if (!valid) {
    if (r != -22 || rr != -22 || running_registry_lock(id.c_str()) != -22) abort();
    return 0;
  }

  if (r != 0 || strlen(path) >= sizeof path) abort();
  if (strncmp(path, env.runtime.c_str(), env.runtime.size()) != 0 ||
      strncmp(path + env.runtime.size(), "/s/", 3) != 0 || strchr(path + env.runtime.size() + 3, '/'))
    abort();
  if (rr != 0 || running) abort();

  // The lock file is made from the id: it must land in <runtime>/lock.
  int lock = running_registry_lock(id.c_str());
  if (lock < 0) abort();
  std::string lock_path = env.runtime + "/lock/" + id;
  if (access(lock_path.c_str(), F_OK) != 0 || RealParent(lock_path) != runtime + "/lock") abort();
  running_registry_unlock(lock);
  unlink(lock_path.c_str());
  return 0;
}
