// Records what a talvo_proxy_result_cb receives. The answer bundle is valid only during
// the call, so its string entries are copied.
#pragma once

#include <bundle.h>

#include <map>
#include <string>
#include <vector>

struct ResultRecorder {
  int calls = 0;
  std::string appId;
  std::map<std::string, std::string> values;  // string entries of the last answer
  std::vector<std::string> keys;              // keys of the last answer, in order

  static void Callback(const char *appId, bundle *result, void *userData) {
    auto *self = static_cast<ResultRecorder *>(userData);
    self->calls++;
    self->appId = appId ? appId : "(null)";
    self->values.clear();
    self->keys.clear();
    bundle_foreach(result, CopyEntry, self);
  }

  bool has(const std::string &key) const { return values.count(key) != 0; }
  std::string at(const std::string &key) const {
    auto it = values.find(key);
    return it == values.end() ? "<absent>" : it->second;
  }

 private:
  static void CopyEntry(const char *key, const int type, const bundle_keyval_t *kv,
                        void *userData) {
    auto *self = static_cast<ResultRecorder *>(userData);
    self->keys.push_back(key);
    if (type != BUNDLE_TYPE_STR) return;
    void *value = nullptr;
    size_t size = 0;
    bundle_keyval_get_basic_val(const_cast<bundle_keyval_t *>(kv), &value, &size);
    self->values[key] = static_cast<const char *>(value);
  }
};
