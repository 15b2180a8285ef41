// Small helpers to build request and answer bundles in tests.
#pragma once

#include <bundle.h>

#include <initializer_list>
#include <memory>
#include <string>
#include <utility>

struct BundleFree {
  void operator()(bundle *b) const { bundle_free(b); }
};
using BundlePtr = std::unique_ptr<bundle, BundleFree>;

inline BundlePtr MakeBundle(
    std::initializer_list<std::pair<const char *, std::string>> entries) {
  BundlePtr b(bundle_create());
  for (const auto &entry : entries) bundle_add_str(b.get(), entry.first, entry.second.c_str());
  return b;
}

// A request bundle that carries the app's metadata itself, so no manifest is read.
inline BundlePtr RequestWithMetadata(const std::string &version, const std::string &capsuleId,
                                     const std::string &sdkVersion = "1.1.0") {
  return MakeBundle(
      {{"capsuleId", capsuleId}, {"appVersion", version}, {"appSdkVersion", sdkVersion}});
}

inline std::string GetStr(bundle *b, const char *key) {
  char *value = nullptr;
  return bundle_get_str(b, key, &value) == 0 ? std::string(value) : "<absent>";
}
