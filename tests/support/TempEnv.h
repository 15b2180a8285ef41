// Temporary VELNA_RUNTIME_DIR and VELNA_APPS_DIR for one test; the destructor terminates
// every app installed through it and removes both.
#pragma once

#include <set>
#include <string>
#include <utility>
#include <vector>

namespace testsupport {

// The sample companion apps, as their manifests name them.
constexpr char kPortApp[] = "org.velna.sample.portcompanion";
constexpr char kRpcApp[] = "org.velna.sample.rpccompanion";
constexpr char kAliasApp[] = "org.velna.sample.aliascompanion";

// Whether the registry counts appId as running (a failing query fails the test).
bool IsRunning(const std::string &appId);
// Descriptors this process holds now.
int OpenFds();

struct Manifest {
  std::string appId, package;
  std::string infoPackage, exec;  // empty: the key is left out
  std::string allowedClients;     // likewise; else the raw list "a;b;"
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

  // Writes <apps>/<appId>.app; the app is terminated by the destructor.
  void install(const Manifest &manifest);
  // Writes raw manifest text for appId (for malformed-manifest cases).
  void installRaw(const std::string &appId, const std::string &text);
  // Installs a sample app (SDK and app version: kPortApp "1.0-alpha", "1.0.0"; kRpcApp
  // "1.1.0" twice; kAliasApp, an alias package, "1.1.0", "2.0.0"), run by exec if given.
  void installSample(const std::string &appId, const std::string &exec = "");
  // Launches an installed app and runs the loop until it runs (and has registered port,
  // if given); false when not within 10 s.
  bool launch(const std::string &appId, const char *port = nullptr);

 private:
  std::string root_, runtimeDir_;
  std::set<std::string> installed_;
};

}  // namespace testsupport
