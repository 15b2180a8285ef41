// Bundles in tests: building them, and copies of what a callback received (its bundle is
// valid only during the call).
#pragma once

#include <bundle.h>

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace testsupport {

struct BundleFree {
  void operator()(bundle *b) const { bundle_free(b); }
};
using BundlePtr = std::unique_ptr<bundle, BundleFree>;

// A bundle of string entries, in order.
BundlePtr MakeBundle(const std::vector<std::pair<std::string, std::string>> &entries = {});

// The string under key, or "<absent>".
std::string GetStr(bundle *b, const char *key);

// A request bundle that carries the app's metadata itself, so no manifest is read.
inline BundlePtr RequestWithMetadata(const std::string &version, const std::string &capsuleId,
                                     const std::string &sdkVersion = "1.1.0") {
  return MakeBundle(
      {{"capsuleId", capsuleId}, {"appVersion", version}, {"appSdkVersion", sdkVersion}});
}

// A bundle as a callback saw it: string entries by value, byte entries by size.
struct Answer {
  std::string appId;
  std::string label;  // whatever the recorder was told
  std::map<std::string, std::string> strings;
  std::map<std::string, size_t> bytes;

  bool has(const std::string &key) const { return strings.count(key) || bytes.count(key); }
  std::string str(const std::string &key) const {
    auto it = strings.find(key);
    return it == strings.end() ? "<absent>" : it->second;
  }
};

Answer CopyAnswer(const char *appId, bundle *b, const std::string &label = "");

// Every call of a talvo_proxy_result_cb whose user data is the recorder, in order.
struct Recorder {
  std::vector<Answer> answers;
  int calls() const { return int(answers.size()); }
  const Answer &last() const { return answers.back(); }
  static void Callback(const char *appId, bundle *result, void *self) {
    static_cast<Recorder *>(self)->answers.push_back(CopyAnswer(appId, result));
  }
};

}  // namespace testsupport
