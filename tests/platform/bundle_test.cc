// Bundle: insertion order, key rules, and the binary form against hostile input (random
// input is the fuzz targets' part).
#include <bundle.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "Bundles.h"

namespace {

using testsupport::BundlePtr;

BundlePtr Make() { return BundlePtr(bundle_create()); }

struct Entry {
  std::string key;
  int type;
  std::vector<std::string> values;  // one for basic types
  bool operator==(const Entry &o) const { return key == o.key && type == o.type && values == o.values; }
};

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
        Entry e{key, type, {}};
        auto *mkv = const_cast<bundle_keyval_t *>(kv);
        if (bundle_keyval_type_is_array(mkv) == 1) {
          const char **items = nullptr;
          int len = 0;
          EXPECT_EQ(0, bundle_get_str_array(c->b, key, &items, &len));
          for (int i = 0; i < len; ++i) e.values.emplace_back(items[i]);
        } else {
          void *val = nullptr;
          size_t size = 0;
          EXPECT_EQ(0, bundle_keyval_get_basic_val(mkv, &val, &size));
          e.values.emplace_back(static_cast<char *>(val), size);
        }
        c->out.push_back(e);
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

// Decodes from a buffer of exactly the bytes' size, so that ASan sees any overread.
int Decode(const std::vector<unsigned char> &bytes, BundlePtr *out) {
  std::unique_ptr<unsigned char[]> exact(new unsigned char[bytes.size() + !bytes.size()]);
  if (!bytes.empty()) memcpy(exact.get(), bytes.data(), bytes.size());
  bundle *b = nullptr;
  int r = bundle_decode_raw(exact.get(), bytes.size(), &b);
  out->reset(r == 0 ? b : nullptr);
  return r;
}

std::string U32(uint32_t v) { return {char(v), char(v >> 8), char(v >> 16), char(v >> 24)}; }

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
  EXPECT_EQ("b", e[7].key);
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

TEST(BundleCodec, RoundTripAndDupKeepEveryEntryTypeOrderAndSize) {
  BundlePtr b = Sample();
  BundlePtr empty = Make();
  for (bundle *src : {b.get(), empty.get()}) {
    BundlePtr out;
    ASSERT_EQ(0, Decode(Encode(src), &out));
    EXPECT_TRUE(Entries(src) == Entries(out.get()));
  }
  BundlePtr copy(bundle_dup(b.get()));
  std::vector<Entry> original = Entries(b.get());
  b.reset();  // the copy shares nothing with the freed original
  EXPECT_TRUE(original == Entries(copy.get()));
}

TEST(BundleCodec, TruncatedLyingOrGarbageEncodingsAreRejected) {
  const std::vector<unsigned char> full = Encode(Sample().get());
  for (size_t len = 0; len <= full.size() + 1; ++len) {
    if (len == full.size()) continue;
    std::vector<unsigned char> cut(full.begin(), full.begin() + std::min(len, full.size()));
    if (len > full.size()) cut.push_back(0);
    BundlePtr out;
    EXPECT_EQ(-22, Decode(cut, &out)) << "length " << len;
  }

  BundlePtr b = Make();
  ASSERT_EQ(0, bundle_add_str(b.get(), "key", "value"));
  const char *items[] = {"a", "b"};
  ASSERT_EQ(0, bundle_add_str_array(b.get(), "arr", items, 2));
  const std::vector<unsigned char> good = Encode(b.get());
  // Layout: magic 0, version 4, count 8 | type 12, key length 16, "key" 20, value length
  // 23, "value" 27 | type 32, key length 36, "arr" 40, item count 43, ...
  struct Patch {
    size_t at;
    std::string bytes;
  };
  const std::string nul(1, '\0');
  for (const Patch &p :
       {Patch{0, U32(0x12345678u)}, Patch{4, U32(2)}, Patch{8, U32(0xffffffffu)}, Patch{8, U32(3)},
        Patch{8, U32(1)}, Patch{16, U32(0xffffffffu)}, Patch{16, U32(0)}, Patch{23, U32(6)},
        Patch{23, U32(0x7fffffffu)}, Patch{43, U32(0x40000000u)}, Patch{43, U32(3)},
        Patch{12, U32(3)}, Patch{12, U32(BUNDLE_TYPE_ARRAY)}, Patch{40, "key"}, Patch{21, nul},
        Patch{28, nul}}) {
    std::vector<unsigned char> bad = good;
    std::copy(p.bytes.begin(), p.bytes.end(), bad.begin() + p.at);
    BundlePtr out;
    EXPECT_EQ(-22, Decode(bad, &out)) << "patch at " << p.at;
  }
  BundlePtr out;
  EXPECT_EQ(0, Decode(good, &out));  // the offsets above name what they claim
}
