// A temporary runtime and apps directory for one test, pointed at by VELNA_RUNTIME_DIR
// and VELNA_APPS_DIR while the object lives. The destructor terminates every app
// installed through it, then removes both directories.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace testsupport {

struct Manifest {
  std::string appId;
  std::string package;
  std::string infoPackage;     // empty: the key is left out
  std::string exec;            // empty: the key is left out
  std::string allowedClients;  // empty: the key is left out; else the raw list "a;b;"
  std::vector<std::pair<std::string, std::string>> metadata;  // in file order
};

class TempEnv {
 public:
  TempEnv();
  ~TempEnv();
  TempEnv(const TempEnv &) = delete;
  TempEnv &operator=(const TempEnv &) = delete;

  const std::string &root() const { return root_; }
  const std::string &runtimeDir() const { return runtimeDir_; }
  const std::string &appsDir() const { return appsDir_; }

  // Writes <apps>/<appId>.app; the app is terminated by the destructor.
  void install(const Manifest &manifest);
  // Writes raw manifest text for appId (for malformed-manifest cases).
  void installRaw(const std::string &appId, const std::string &text);

 private:
  std::string root_;
  std::string runtimeDir_;
  std::string appsDir_;
  std::vector<std::string> installed_;
};

}  // namespace testsupport
