#include "ipc/ChunkBuffer.h"

#include <new>

using namespace talvo::ipc;

ChunkBuffer::~ChunkBuffer() { bundle_str_buffer_free(text_); }

void ChunkBuffer::Append(const void *bytes, size_t size) {
  if (bundle_str_buffer_append(&text_, bytes, size) != 0)
    throw std::bad_alloc();
  size_ += size;
}

int ChunkBuffer::AddTo(bundle *message, const char *key) {
  int r = bundle_add_str(message, key, text_ ? text_ : "");
  if (r == 0)
    text_ = nullptr;  // the bundle's now
  return r;
}

void ChunkBuffer::Clear() {
  bundle_str_buffer_free(text_);
  text_ = nullptr;
  size_ = 0;
}
