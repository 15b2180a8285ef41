// Bundle: insertion order, key rules, the binary form against hostile input (random input
// is the fuzz targets' part), and string buffers that a bundle takes over.
#include <bundle.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "Bundles.h"
#include "LoopUntil.h"

namespace {

using testsupport::BundlePtr;

BundlePtr Make() { return BundlePtr(bundle_create()); }

// Key, type, values (one for basic types).
using Entry = std::tuple<std::string, int, std::vector<std::string>>;

// Every entry in foreach order, with its values as the accessors read them back.
std::vector<Entry> Entries(bundle *b) {
  struct Ctx {
    bundle *b;
    std::vector<Entry> out;
  } ctx{b, {}};
  bundle_foreach(
      b,
      [](const char *key, const int type, const bundle_keyval_t *kv, void *data) {
        auto *c = static_cast<Ctx *>(data);
        std::vector<std::string> values;
        auto *mkv = const_cast<bundle_keyval_t *>(kv);
        if (bundle_keyval_type_is_array(mkv) == 1) {
          const char **items = nullptr;
          int len = 0;
          EXPECT_EQ(0, bundle_get_str_array(c->b, key, &items, &len));
          for (int i = 0; i < len; ++i) values.emplace_back(items[i]);
        } else {
          void *val = nullptr;
          size_t size = 0;
          EXPECT_EQ(0, bundle_keyval_get_basic_val(mkv, &val, &size));
          values.emplace_back(static_cast<char *>(val), size);
        }
        c->out.emplace_back(key, type, values);
      },
      &ctx);
  return ctx.out;
}

// Every type, empty values and non-ASCII bytes.
BundlePtr Sample() {
  BundlePtr b = Make();
  const unsigned char bytes[] = {0, 1, 2, 0xff, 0};
  const char *items[] = {"one", "", "three \xc3\xa9"};
  EXPECT_EQ(0, bundle_add_str(b.get(), "actionId", "getAppContext"));
  EXPECT_EQ(0, bundle_add_byte(b.get(), "raw", bytes, sizeof(bytes)));
  EXPECT_EQ(0, bundle_add_str(b.get(), "empty", ""));
  EXPECT_EQ(0, bundle_add_str_array(b.get(), "list", items, 3));
  EXPECT_EQ(0, bundle_add_byte(b.get(), "nothing", bytes, 0));
  EXPECT_EQ(0, bundle_add_str_array(b.get(), "no items", nullptr, 0));
  return b;
}

std::vector<unsigned char> Encode(bundle *b) {
  unsigned char *raw = nullptr;
  size_t len = 0;
  EXPECT_EQ(0, bundle_encode_raw(b, &raw, &len));
  std::vector<unsigned char> out(raw, raw + len);
  free(raw);
  return out;
}

// Decodes, into *out when given, from a buffer of exactly the bytes' size: ASan sees overreads.
int Decode(const std::vector<unsigned char> &bytes, BundlePtr *out = nullptr) {
  std::unique_ptr<unsigned char[]> exact(new unsigned char[bytes.size() + !bytes.size()]);
  if (!bytes.empty()) memcpy(exact.get(), bytes.data(), bytes.size());
  bundle *b = nullptr;
  int r = bundle_decode_raw(exact.get(), bytes.size(), &b);
  BundlePtr decoded(r == 0 ? b : nullptr);
  if (out) *out = std::move(decoded);
  return r;
}

std::string U32(uint32_t v) { return {char(v), char(v >> 8), char(v >> 16), char(v >> 24)}; }

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

long ResidentMiB() {
  long pages = 0, resident = 0;
  std::ifstream("/proc/self/statm") >> pages >> resident;
  return resident * sysconf(_SC_PAGESIZE) / (1024 * 1024);
}

}  // namespace

TEST(Bundle, KeepsInsertionOrderAndReportsExistingMissingAndBadKeysAndWrongTypes) {
  BundlePtr b = Sample();
  for (const char *k : {"c", "a", "b"}) ASSERT_EQ(0, bundle_add_str(b.get(), k, k));
  ASSERT_EQ(0, bundle_del(b.get(), "a"));
  ASSERT_EQ(0, bundle_add_str(b.get(), "a", "again"));
  const char *items[] = {"x"};
  EXPECT_EQ(-17, bundle_add_str(b.get(), "c", "second"));
  EXPECT_EQ(-17, bundle_add_byte(b.get(), "c", "xy", 2));
  EXPECT_EQ(-17, bundle_add_str_array(b.get(), "c", items, 1));

  std::vector<Entry> e = Entries(b.get());
  ASSERT_EQ(9u, e.size());
  EXPECT_EQ((Entry{"c", BUNDLE_TYPE_STR, {std::string("c", 2)}}), e[6]);  // sizes count the NUL
  EXPECT_EQ("b", std::get<0>(e[7]));
  EXPECT_EQ((Entry{"a", BUNDLE_TYPE_STR, {std::string("again", 6)}}), e[8]);

  char *s = nullptr;
  void *bytes = nullptr;
  size_t size = 0;
  EXPECT_EQ(-2, bundle_get_str(b.get(), "absent", &s));
  EXPECT_EQ(-2, bundle_get_byte(b.get(), "absent", &bytes, &size));
  EXPECT_EQ(-2, bundle_del(b.get(), "absent"));
  EXPECT_EQ(-22, bundle_get_str(b.get(), "raw", &s));
  EXPECT_EQ(-22, bundle_get_byte(b.get(), "actionId", &bytes, &size));
  EXPECT_EQ(-22, bundle_add_str(b.get(), "", "v"));
  EXPECT_EQ(-22, bundle_add_str(b.get(), "v", nullptr));
  EXPECT_EQ(-22, bundle_add_str(b.get(), std::string(BUNDLE_KEY_MAX + 1, 'k').c_str(), "v"));
  EXPECT_EQ(0, bundle_add_str(b.get(), std::string(BUNDLE_KEY_MAX, 'k').c_str(), "v"));
  EXPECT_EQ(BUNDLE_TYPE_BYTE, bundle_get_type(b.get(), "raw"));
  EXPECT_EQ(BUNDLE_TYPE_STR_ARRAY, bundle_get_type(b.get(), "list"));
}

// A big bundle looks its keys up through an index, which must follow every change.
TEST(Bundle, ManyKeysAreEachFoundRefusedTwiceAndDeletedAndDecodedAsAFewAre) {
  BundlePtr b(bundle_create());
  auto key = [](int i) { return "key" + std::to_string(i); };
  for (int i = 0; i < 40; i++) ASSERT_EQ(0, bundle_add_str(b.get(), key(i).c_str(), std::to_string(i).c_str()));
  EXPECT_EQ(-17, bundle_add_str(b.get(), "key3", "again"));
  EXPECT_EQ(-17, bundle_add_str(b.get(), "key39", "again"));
  ASSERT_EQ(0, bundle_del(b.get(), "key7"));
  EXPECT_EQ(-2, bundle_del(b.get(), "key7"));
  ASSERT_EQ(0, bundle_add_str(b.get(), "key7", "back"));
  EXPECT_EQ(40, bundle_get_count(b.get()));
  for (int i = 0; i < 40; i++) {
    char *value = nullptr;
    ASSERT_EQ(0, bundle_get_str(b.get(), key(i).c_str(), &value)) << i;
    EXPECT_EQ(i == 7 ? "back" : std::to_string(i), value);
  }
  const double d = 0.5;  // a byte value may be read in place as any type, as from malloc
  ASSERT_EQ(0, bundle_add_byte(b.get(), "k", &d, sizeof d));
  BundlePtr out;
  ASSERT_EQ(0, Decode(Encode(b.get()), &out));
  EXPECT_EQ(Entries(b.get()), Entries(out.get()));
  for (bundle *each : {b.get(), out.get()}) {
    void *bytes = nullptr;
    size_t size = 0;
    ASSERT_EQ(0, bundle_get_byte(each, "k", &bytes, &size));
    EXPECT_EQ(reinterpret_cast<uintptr_t>(bytes) % alignof(std::max_align_t), 0u);
  }
}

TEST(BundleCodec, RoundTripKeepsEveryEntryTypeOrderAndSize) {
  for (const BundlePtr &src : {Sample(), Make()}) {
    BundlePtr out;
    ASSERT_EQ(0, Decode(Encode(src.get()), &out));
    EXPECT_EQ(Entries(src.get()), Entries(out.get()));
  }
}

TEST(BundleCodec, TruncatedLyingOrGarbageEncodingsAreRejected) {
  const std::vector<unsigned char> full = Encode(Sample().get());
  for (size_t len = 0; len < full.size(); ++len)
    EXPECT_EQ(-22, Decode({full.begin(), full.begin() + len})) << "length " << len;
  std::vector<unsigned char> longer = full;
  longer.push_back(0);
  EXPECT_EQ(-22, Decode(longer));

  BundlePtr b = Make();
  ASSERT_EQ(0, bundle_add_str(b.get(), "key", "value"));
  const char *items[] = {"a", "b"};
  ASSERT_EQ(0, bundle_add_str_array(b.get(), "arr", items, 2));
  const std::vector<unsigned char> good = Encode(b.get());
  // Layout: magic 0, version 4, count 8 | type 12, key length 16, "key" 20, value length
  // 23, "value" 27 | type 32, key length 36, "arr" 40, item count 43, ...
  const std::string nul(1, '\0');
  const std::vector<std::pair<size_t, std::string>> patches = {
      {0, U32(0x12345678u)}, {4, U32(2)}, {8, U32(0xffffffffu)}, {8, U32(3)}, {8, U32(1)},
      {16, U32(0xffffffffu)}, {16, U32(0)}, {23, U32(6)}, {23, U32(0x7fffffffu)}, {43, U32(0x40000000u)},
      {43, U32(3)}, {12, U32(3)}, {12, U32(BUNDLE_TYPE_ARRAY)}, {40, "key"}, {21, nul}, {28, nul}};
  for (const auto &[at, bytes] : patches) {
    std::vector<unsigned char> bad = good;
    std::copy(bytes.begin(), bytes.end(), bad.begin() + at);
    EXPECT_EQ(-22, Decode(bad)) << "patch at " << at;
  }
  EXPECT_EQ(0, Decode(good));  // the offsets above name what they claim
}

// A buffer moves while it grows past its first mapping several times; the bundle keeps the
// buffer itself, and its string ends at the first zero byte appended.
TEST(BundleStrBuffer, JoinsAcrossGrowthIsTakenOverWithoutACopyAndEndsAtTheFirstZeroByte) {
  char *joined = nullptr, *cut = nullptr;
  const std::string expected = Join(&joined, 40, 100 * 1024 + 7);
  ASSERT_EQ(expected.size(), bundle_str_buffer_size(joined));
  EXPECT_EQ(expected, std::string(joined));
  for (const std::string &piece : {std::string("abc"), std::string("de\0fg", 5), std::string("\0hij", 4), std::string()})
    ASSERT_EQ(0, bundle_str_buffer_append(&cut, piece.data(), piece.size()));
  EXPECT_EQ(12u, bundle_str_buffer_size(cut));

  BundlePtr b = Make();
  ASSERT_EQ(0, bundle_add_str(b.get(), "joined", joined));
  ASSERT_EQ(0, bundle_add_str(b.get(), "cut", cut));
  char *stored = nullptr;
  ASSERT_EQ(0, bundle_get_str(b.get(), "joined", &stored));
  EXPECT_EQ(joined, stored);
  const std::vector<Entry> entries = {{"joined", BUNDLE_TYPE_STR, {expected + '\0'}},
                                      {"cut", BUNDLE_TYPE_STR, {std::string("abcde", 6)}}};
  EXPECT_EQ(entries, Entries(b.get()));

  // A copy, and what it decodes to, are their own: deleting the entry leaves them intact.
  BundlePtr copy(bundle_dup(b.get())), decoded;
  ASSERT_EQ(0, Decode(Encode(b.get()), &decoded));
  ASSERT_EQ(0, bundle_del(b.get(), "joined"));
  EXPECT_EQ(entries, Entries(copy.get()));
  EXPECT_EQ(entries, Entries(decoded.get()));
}

TEST(BundleStrBuffer, StaysTheCallersWhenTheBundleRefusesIt) {
  BundlePtr b = Make();
  ASSERT_EQ(0, bundle_add_str(b.get(), "k", "old"));
  char *buffer = nullptr;
  ASSERT_EQ(0, bundle_str_buffer_append(&buffer, "new", 3));
  EXPECT_EQ(-17, bundle_add_str(b.get(), "k", buffer));
  EXPECT_EQ(-22, bundle_add_str(b.get(), "", buffer));
  ASSERT_EQ(0, bundle_str_buffer_append(&buffer, "er", 2));
  EXPECT_STREQ("newer", buffer);
  ASSERT_EQ(0, bundle_add_str(b.get(), "k2", buffer));
  EXPECT_EQ("newer", testsupport::GetStr(b.get(), "k2"));
  EXPECT_EQ(-22, bundle_str_buffer_append(nullptr, "x", 1));
  EXPECT_EQ(0u, bundle_str_buffer_size(nullptr));
  bundle_str_buffer_free(nullptr);
}

// The spare: the next buffer starts in the memory of the last one freed, and a huge spare
// is cut back to 16 MiB after an idle tick.
TEST(BundleStrBuffer, NextBufferStartsInTheLastOneFreedAndAHugeSpareLeavesTheResidentSetOnceIdle) {
  char *first = nullptr;
  Join(&first, 64, 1024 * 1024);
  {
    BundlePtr b = Make();
    ASSERT_EQ(0, bundle_add_str(b.get(), "k", first));  // freed with the entry
  }
  char *second = nullptr;
  ASSERT_EQ(0, bundle_str_buffer_append(&second, "x", 1));
  EXPECT_EQ(first, second);
  EXPECT_STREQ("x", second);  // none of the old text shows through
  bundle_str_buffer_free(second);
  const long afterFree = ResidentMiB();
  EXPECT_TRUE(testsupport::RunLoopUntil([&] { return ResidentMiB() < afterFree - 32; }, 5000))
      << "resident " << ResidentMiB() << " MiB, " << afterFree << " MiB right after the free";
}
