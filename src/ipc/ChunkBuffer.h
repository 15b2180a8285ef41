// One kind of answer being joined from its pieces. The text lives in a platform string
// buffer that the answer bundle takes over when the answer is whole, so each byte of a
// piece is copied once, and the next answer starts in memory that is already there.
#pragma once

#include <bundle.h>

#include <cstddef>

namespace talvo::ipc {

class ChunkBuffer {
 public:
  ChunkBuffer() = default;
  ChunkBuffer(const ChunkBuffer &) = delete;
  ChunkBuffer &operator=(const ChunkBuffer &) = delete;
  ~ChunkBuffer();

  // Bytes joined since the last Clear, also after AddTo handed them on.
  size_t size() const { return size_; }
  // The bytes joined while the buffer holds them; null when empty or handed on.
  const char *data() const { return text_; }

  // Appends size bytes; throws std::bad_alloc when out of memory (nothing appended).
  void Append(const void *bytes, size_t size);

  // bundle_add_str of the joined text (up to its first zero byte) under key. On success
  // the bundle owns the text; size() stays until Clear.
  int AddTo(bundle *message, const char *key);

  // Forgets the joined text (and frees it unless a bundle took it).
  void Clear();

 private:
  char *text_ = nullptr;  // owned platform string buffer; null when empty or handed on
  size_t size_ = 0;
};

}  // namespace talvo::ipc
