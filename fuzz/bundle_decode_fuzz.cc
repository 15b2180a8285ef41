// Bundle decoding of untrusted bytes. The binary form is canonical, so whatever decodes
// must encode back to exactly the input; the transports' zero-copy decoding must agree
// with the copying one, and a copy of the bundle must encode the same again.
#include <bundle.h>

#include <stdlib.h>
#include <string.h>

#include <cstdint>
#include <vector>

extern "C" {
#include "bundle_internal.h"
}

namespace {

struct Encoded {
  unsigned char *raw = nullptr;
  size_t len = 0;
  ~Encoded() { free(raw); }
};

bool SameBytes(const Encoded &e, const uint8_t *data, size_t size) {
  return e.len == size && (size == 0 || memcmp(e.raw, data, size) == 0);
}

// Reads every value through the accessors that the library uses.
void Walk(const char *key, const int type, const bundle_keyval_t *kv, void *user_data) {
  auto *b = static_cast<bundle *>(user_data);
  auto *entry = const_cast<bundle_keyval_t *>(kv);
  if (bundle_keyval_get_type(entry) != type || bundle_get_type(b, key) != type) abort();

  if (bundle_keyval_type_is_array(entry) == 1) {
    const char **items = nullptr;
    int len = 0;
    if (type == BUNDLE_TYPE_STR_ARRAY && bundle_get_str_array(b, key, &items, &len) != 0)
      abort();
    for (int i = 0; i < len; ++i) (void)strlen(items[i]);
    return;
  }

  void *value = nullptr;
  size_t size = 0;
  if (bundle_keyval_get_basic_val(entry, &value, &size) != 0) abort();
  if (type == BUNDLE_TYPE_STR) {
    char *str = nullptr;
    if (bundle_get_str(b, key, &str) != 0 || strlen(str) + 1 != size) abort();
  } else if (size > 0) {
    volatile unsigned char last = static_cast<unsigned char *>(value)[size - 1];
    (void)last;
  }
}

void CheckEncodesTo(bundle *b, const uint8_t *data, size_t size) {
  Encoded again;
  if (bundle_encode_raw(b, &again.raw, &again.len) != 0) abort();
  if (!SameBytes(again, data, size)) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const unsigned char kEmpty = 0;
  const unsigned char *raw = size ? data : &kEmpty;

  bundle *decoded = nullptr;
  int r = bundle_decode_raw(raw, size, &decoded);

  // The view decoder borrows large values from a buffer that the caller keeps alive.
  std::vector<unsigned char> buffer(raw, raw + size);
  bundle *viewed = nullptr;
  int rv = bundle_decode_view(size ? buffer.data() : const_cast<unsigned char *>(&kEmpty),
                              size, &viewed);
  if ((r == 0) != (rv == 0)) abort();

  if (r != 0) {
    if (r != -22 && r != -12) abort();
    if (decoded || viewed) abort();
    return 0;
  }

  bundle_foreach(decoded, Walk, decoded);
  bundle_foreach(viewed, Walk, viewed);
  CheckEncodesTo(decoded, raw, size);
  CheckEncodesTo(viewed, raw, size);

  bundle *copy = bundle_dup(viewed);
  if (!copy || bundle_get_count(copy) != bundle_get_count(decoded)) abort();
  bundle_free(viewed);
  std::vector<unsigned char>().swap(buffer);  // the copy must own every value
  CheckEncodesTo(copy, raw, size);

  bundle_free(copy);
  bundle_free(decoded);
  return 0;
}
