#include "Bundles.h"

namespace testsupport {

BundlePtr MakeBundle(const std::vector<std::pair<std::string, std::string>> &entries) {
  BundlePtr b(bundle_create());
  for (const auto &entry : entries)
    bundle_add_str(b.get(), entry.first.c_str(), entry.second.c_str());
  return b;
}

std::string GetStr(bundle *b, const char *key) {
  char *value = nullptr;
  return bundle_get_str(b, key, &value) == 0 ? std::string(value) : "<absent>";
}

Answer CopyAnswer(const char *appId, bundle *b, const std::string &label) {
  Answer answer{appId ? appId : "(null)", label, {}, {}};
  bundle_foreach(
      b,
      [](const char *key, const int type, const bundle_keyval_t *kv, void *data) {
        auto *keyval = const_cast<bundle_keyval_t *>(kv);
        if (bundle_keyval_type_is_array(keyval)) return;
        void *value = nullptr;
        size_t size = 0;
        bundle_keyval_get_basic_val(keyval, &value, &size);
        auto *out = static_cast<Answer *>(data);
        if (type == BUNDLE_TYPE_BYTE)
          out->bytes[key] = size;
        else
          out->strings[key] = static_cast<const char *>(value);
      },
      &answer);
  return answer;
}

}  // namespace testsupport
