// The runtime directory and socket names.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <fstream>
#include <set>
#include <string>

#include "TempEnv.h"

// Internal interfaces of the platform layer (C, without C++ guards).
extern "C" {
#include "runtime_internal.h"
}

namespace {

int SocketPath(const char *kind, const std::string &appId, const char *name, std::string *out) {
  char path[sizeof(sockaddr_un{}.sun_path)];
  int r = velna_socket_path(kind, appId.c_str(), name, path, sizeof(path));
  if (r == 0) *out = path;
  return r;
}

}  // namespace

TEST(Runtime, SocketPathsFitSunPathForAnyValidAppIdAndDifferPerEndpoint) {
  testsupport::TempEnv env;
  const std::string longest(255, 'z');
  std::set<std::string> seen;
  for (const char *kind : {"mp", "rpc"})
    for (const std::string &app : {std::string("a"), std::string("b"), longest})
      for (const char *name : {"TALVO_APP_SDK_PORT_516", "message", ""}) {
        std::string path;
        ASSERT_EQ(0, SocketPath(kind, app, name, &path));
        EXPECT_LT(path.size(), sizeof(sockaddr_un{}.sun_path));
        EXPECT_EQ(0u, path.find(env.runtimeDir() + "/s/" + kind + "-"));
        seen.insert(path);
      }
  EXPECT_EQ(18u, seen.size());

  std::string again;
  ASSERT_EQ(0, SocketPath("mp", "a", "message", &again));
  EXPECT_EQ(1u, seen.count(again));  // stable: the same endpoint, the same name

  struct stat st;
  ASSERT_EQ(0, stat((env.runtimeDir() + "/s").c_str(), &st));
  EXPECT_EQ(0700u, st.st_mode & 0777);
  std::string ignored;
  EXPECT_EQ(-22, SocketPath("mp", "../x", "p", &ignored));
  EXPECT_EQ(-22, SocketPath("m/p", "a", "p", &ignored));
}

TEST(Runtime, RuntimeDirIsCreatedPrivateAndARegularFileIsAnError) {
  testsupport::TempEnv env;
  std::string fresh = env.root() + "/new/nested";
  setenv("VELNA_RUNTIME_DIR", fresh.c_str(), 1);
  char *dir = nullptr;
  ASSERT_EQ(0, velna_runtime_dir(&dir));
  EXPECT_EQ(fresh, dir);
  free(dir);
  struct stat st;
  ASSERT_EQ(0, stat(fresh.c_str(), &st));
  EXPECT_EQ(0700u, st.st_mode & 0777);

  std::string file = env.root() + "/file";
  std::ofstream(file) << "x";
  setenv("VELNA_RUNTIME_DIR", file.c_str(), 1);
  EXPECT_EQ(-5, velna_runtime_dir(&dir));
  std::string path;
  EXPECT_EQ(-5, SocketPath("rpc", "a", "message", &path));
}
