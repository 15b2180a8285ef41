// Bundle decoding of hostile bytes. The binary form is canonical: whatever decodes must
// encode back to exactly the input. The transports' zero-copy decoder must agree with the
// copying one, and a copy of a viewed bundle must own its values.
#include "fuzz_env.h"

using talvo_fuzz::Encode;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string input(reinterpret_cast<const char *>(data), size);
  unsigned char empty = 0;
  std::vector<unsigned char> buffer(data, data + size);  // what the viewed bundle borrows from

  bundle *decoded = nullptr, *viewed = nullptr;
  int r = bundle_decode_raw(size ? data : &empty, size, &decoded);
  int rv = bundle_decode_view(size ? buffer.data() : &empty, size, &viewed);
  if (r != 0 || rv != 0) {  // both must fail, and leave nothing behind
    if ((r != -EINVAL && r != -ENOMEM) || rv == 0 || decoded || viewed) abort();
    return 0;
  }

  talvo_fuzz::CheckValues(decoded);
  talvo_fuzz::CheckValues(viewed);
  if (Encode(decoded) != input || Encode(viewed) != input) abort();

  bundle *copy = bundle_dup(viewed);
  if (!copy || bundle_get_count(copy) != bundle_get_count(decoded)) abort();
  bundle_free(viewed);
  std::vector<unsigned char>().swap(buffer);
  talvo_fuzz::CheckValues(copy);
  if (Encode(copy) != input) abort();

  bundle_free(copy);
  bundle_free(decoded);
  return 0;
}
