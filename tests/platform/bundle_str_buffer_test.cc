// String buffers that a bundle takes over: joining across growth, the first zero byte,
// ownership on success and failure, and reuse of a freed buffer's memory.
#include <bundle.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "Bundles.h"
#include "LoopUntil.h"

namespace {

using testsupport::BundlePtr;

// Joins pieces of piece bytes each, different per piece, into a new buffer.
std::string Join(char **buffer, size_t pieces, size_t piece) {
  std::string expected;
  for (size_t i = 0; i < pieces; i++) {
    std::string bytes(piece, static_cast<char>('a' + i % 26));
    EXPECT_EQ(0, bundle_str_buffer_append(buffer, bytes.data(), bytes.size()));
    expected += bytes;
  }
  return expected;
}

std::string RoundTrip(bundle *b, const char *key) {
  unsigned char *raw = nullptr;
  size_t len = 0;
  EXPECT_EQ(0, bundle_encode_raw(b, &raw, &len));
  bundle *decoded = nullptr;
  EXPECT_EQ(0, bundle_decode_raw(raw, len, &decoded));
  free(raw);
  char *value = nullptr;
  EXPECT_EQ(0, bundle_get_str(decoded, key, &value));
  std::string text = value ? value : "";
  bundle_free(decoded);
  return text;
}

TEST(BundleStrBuffer, GrowsAcrossPiecesAndIsTakenOverWithoutACopy) {
  char *buffer = nullptr;
  // Past the first mapping several times, so that the buffer moves while it grows.
  std::string expected = Join(&buffer, 40, 100 * 1024 + 7);
  ASSERT_EQ(expected.size(), bundle_str_buffer_size(buffer));
  EXPECT_EQ(expected, std::string(buffer));

  BundlePtr b(bundle_create());
  ASSERT_EQ(0, bundle_add_str(b.get(), "result", buffer));
  char *stored = nullptr;
  ASSERT_EQ(0, bundle_get_str(b.get(), "result", &stored));
  EXPECT_EQ(buffer, stored);
  EXPECT_EQ(expected, RoundTrip(b.get(), "result"));

  // A copy is the copy's own; deleting the entry leaves it intact.
  BundlePtr copy(bundle_dup(b.get()));
  ASSERT_EQ(0, bundle_del(b.get(), "result"));
  EXPECT_EQ(expected, RoundTrip(copy.get(), "result"));
}

TEST(BundleStrBuffer, StringEndsAtTheFirstZeroByteAppended) {
  char *buffer = nullptr;
  ASSERT_EQ(0, bundle_str_buffer_append(&buffer, "abc", 3));
  ASSERT_EQ(0, bundle_str_buffer_append(&buffer, "de\0fg", 5));
  ASSERT_EQ(0, bundle_str_buffer_append(&buffer, "\0hij", 4));
  ASSERT_EQ(0, bundle_str_buffer_append(&buffer, "", 0));
  EXPECT_EQ(12u, bundle_str_buffer_size(buffer));

  BundlePtr b(bundle_create());
  ASSERT_EQ(0, bundle_add_str(b.get(), "k", buffer));
  EXPECT_EQ("abcde", RoundTrip(b.get(), "k"));
  bundle_keyval_t *kv = nullptr;
  bundle_foreach(
      b.get(), [](const char *, const int, const bundle_keyval_t *e, void *out) {
        *static_cast<bundle_keyval_t **>(out) = const_cast<bundle_keyval_t *>(e);
      }, &kv);
  void *value = nullptr;
  size_t size = 0;
  ASSERT_EQ(0, bundle_keyval_get_basic_val(kv, &value, &size));
  EXPECT_EQ(6u, size);  // the string's length and its terminating zero
}

TEST(BundleStrBuffer, StaysTheCallersWhenTheBundleRefusesIt) {
  BundlePtr b(bundle_create());
  ASSERT_EQ(0, bundle_add_str(b.get(), "k", "old"));
  char *buffer = nullptr;
  ASSERT_EQ(0, bundle_str_buffer_append(&buffer, "new", 3));
  EXPECT_EQ(-17, bundle_add_str(b.get(), "k", buffer));
  EXPECT_EQ(-22, bundle_add_str(b.get(), "", buffer));
  ASSERT_EQ(0, bundle_str_buffer_append(&buffer, "er", 2));
  EXPECT_STREQ("newer", buffer);
  ASSERT_EQ(0, bundle_add_str(b.get(), "k2", buffer));
  char *stored = nullptr;
  ASSERT_EQ(0, bundle_get_str(b.get(), "k2", &stored));
  EXPECT_STREQ("newer", stored);
  EXPECT_EQ(-22, bundle_str_buffer_append(nullptr, "x", 1));
  EXPECT_EQ(0u, bundle_str_buffer_size(nullptr));
  bundle_str_buffer_free(nullptr);
}

TEST(BundleStrBuffer, NextBufferStartsInTheMemoryOfTheLastOneFreed) {
  char *first = nullptr;
  Join(&first, 3, 64 * 1024);
  {
    BundlePtr b(bundle_create());
    ASSERT_EQ(0, bundle_add_str(b.get(), "k", first));
  }
  char *second = nullptr;
  ASSERT_EQ(0, bundle_str_buffer_append(&second, "x", 1));
  EXPECT_EQ(first, second);
  EXPECT_STREQ("x", second);  // none of the old text shows through
  bundle_str_buffer_free(second);
}

long ResidentMiB() {
  long pages = 0, resident = 0;
  FILE *f = fopen("/proc/self/statm", "r");
  if (f) {
    if (fscanf(f, "%ld %ld", &pages, &resident) != 2)
      resident = 0;
    fclose(f);
  }
  return resident * sysconf(_SC_PAGESIZE) / (1024 * 1024);
}

TEST(BundleStrBuffer, AHugeFreedBufferLeavesTheResidentSetOnceIdle) {
  char *buffer = nullptr;
  Join(&buffer, 64, 1024 * 1024);
  bundle_str_buffer_free(buffer);
  const long afterFree = ResidentMiB();
  // Kept for the next string at first; cut back to 16 MiB after an idle tick.
  EXPECT_TRUE(testsupport::RunLoopUntil([&] { return ResidentMiB() < afterFree - 32; }, 5000))
      << "resident " << ResidentMiB() << " MiB, " << afterFree << " MiB right after the free";
}

}  // namespace
