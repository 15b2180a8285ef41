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
inline BundlePtr MakeBundle(const std::vector<std::pair<std::string, std::string>> &entries = {}) {
  BundlePtr b(bundle_create());
  for (const auto &e : entries) bundle_add_str(b.get(), e.first.c_str(), e.second.c_str());
  return b;
}

// The string under key, or "<absent>".
inline std::string GetStr(bundle *b, const char *key) {
  char *value = nullptr;
  return bundle_get_str(b, key, &value) == 0 ? std::string(value) : "<absent>";
}

// A request bundle that carries the app's metadata itself, so no manifest is read.
inline BundlePtr RequestWithMetadata(const std::string &version, const std::string &capsuleId,
                                     const std::string &sdkVersion = "1.1.0") {
  return MakeBundle(
      {{"capsuleId", capsuleId}, {"appVersion", version}, {"appSdkVersion", sdkVersion}});
}

// A bundle as a callback saw it: string entries by value, byte entries by size.
struct Answer {
  std::string appId, label;  // label: whatever the recorder was told
  std::map<std::string, std::string> strings;
  std::map<std::string, size_t> bytes;

  bool has(const std::string &key) const { return strings.count(key) || bytes.count(key); }
  std::string str(const std::string &key) const {
    auto it = strings.find(key);
    return it == strings.end() ? "<absent>" : it->second;
  }
};

inline Answer CopyAnswer(const char *appId, bundle *b, const std::string &label = "") {
  Answer answer{appId ? appId : "(null)", label, {}, {}};
  auto copy = [](const char *key, const int type, const bundle_keyval_t *kv, void *out) {
    void *value = nullptr;
    size_t size = 0;
    auto *keyval = const_cast<bundle_keyval_t *>(kv);
    if (bundle_keyval_type_is_array(keyval) || bundle_keyval_get_basic_val(keyval, &value, &size))
      return;
    if (type == BUNDLE_TYPE_BYTE) static_cast<Answer *>(out)->bytes[key] = size;
    else static_cast<Answer *>(out)->strings[key] = static_cast<const char *>(value);
  };
  bundle_foreach(b, copy, &answer);
  return answer;
}

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
