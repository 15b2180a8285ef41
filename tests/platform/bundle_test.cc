// Bundle: insertion order, key rules, copies, and the binary form against hostile input
// (random input is the fuzz targets' part).
#include <bundle.h>
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

using BundlePtr = std::unique_ptr<bundle, decltype(&bundle_free)>;

BundlePtr Make() { return BundlePtr(bundle_create(), &bundle_free); }

struct Entry {
  std::string key;
  int type;
  std::vector<std::string> values;  // one for basic types
};

// Every entry in foreach order, with its values read back through the keyval accessors
// (basic) or bundle_get_str_array (arrays).
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

bool operator==(const Entry &a, const Entry &b) {
  return a.key == b.key && a.type == b.type && a.values == b.values;
}

// A bundle with every type, empty values and non-ASCII bytes.
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

// Decodes bytes from a buffer of exactly their size (so that ASan sees any overread).
int Decode(const std::vector<unsigned char> &bytes, BundlePtr *out) {
  std::unique_ptr<unsigned char[]> exact(new unsigned char[bytes.size() ? bytes.size() : 1]);
  if (!bytes.empty()) memcpy(exact.get(), bytes.data(), bytes.size());
  bundle *b = nullptr;
  int r = bundle_decode_raw(exact.get(), bytes.size(), &b);
  if (r == 0) out->reset(b);
  return r;
}

void PutU32(std::vector<unsigned char> *v, size_t at, uint32_t value) {
  for (int i = 0; i < 4; ++i) (*v)[at + i] = static_cast<unsigned char>(value >> (8 * i));
}

}  // namespace

TEST(Bundle, KeepsInsertionOrderAcrossDeletesAndReadds) {
  BundlePtr b = Make();
  for (const char *k : {"c", "a", "b"}) ASSERT_EQ(0, bundle_add_str(b.get(), k, k));
  ASSERT_EQ(0, bundle_del(b.get(), "a"));
  ASSERT_EQ(0, bundle_add_str(b.get(), "a", "again"));

  std::vector<Entry> e = Entries(b.get());
  ASSERT_EQ(3u, e.size());
  EXPECT_EQ("c", e[0].key);
  EXPECT_EQ("b", e[1].key);
  EXPECT_EQ("a", e[2].key);
  EXPECT_EQ(std::string("again", 6), e[2].values[0]);  // a string's size counts its NUL
  EXPECT_EQ(3, bundle_get_count(b.get()));
}

TEST(Bundle, AddingAnExistingKeyFailsAndChangesNothing) {
  BundlePtr b = Make();
  ASSERT_EQ(0, bundle_add_str(b.get(), "k", "first"));
  const char *items[] = {"x"};
  EXPECT_EQ(-17, bundle_add_str(b.get(), "k", "second"));
  EXPECT_EQ(-17, bundle_add_byte(b.get(), "k", "xy", 2));
  EXPECT_EQ(-17, bundle_add_str_array(b.get(), "k", items, 1));

  char *value = nullptr;
  ASSERT_EQ(0, bundle_get_str(b.get(), "k", &value));
  EXPECT_STREQ("first", value);
  EXPECT_EQ(1, bundle_get_count(b.get()));
}

TEST(Bundle, MissingKeysWrongTypesAndBadArgumentsAreReported) {
  BundlePtr b = Sample();
  char *s = nullptr;
  void *bytes = nullptr;
  size_t size = 0;
  EXPECT_EQ(-2, bundle_get_str(b.get(), "absent", &s));
  EXPECT_EQ(-2, bundle_get_byte(b.get(), "absent", &bytes, &size));
  EXPECT_EQ(-2, bundle_del(b.get(), "absent"));
  EXPECT_EQ(-2, bundle_get_type(b.get(), "absent"));
  EXPECT_EQ(-22, bundle_get_str(b.get(), "raw", &s));
  EXPECT_EQ(-22, bundle_get_byte(b.get(), "actionId", &bytes, &size));
  EXPECT_EQ(-22, bundle_add_str(b.get(), "", "v"));
  EXPECT_EQ(-22, bundle_add_str(b.get(), nullptr, "v"));
  EXPECT_EQ(-22, bundle_add_str(b.get(), "v", nullptr));
  EXPECT_EQ(-22, bundle_add_str(b.get(), std::string(BUNDLE_KEY_MAX + 1, 'k').c_str(), "v"));
  EXPECT_EQ(0, bundle_add_str(b.get(), std::string(BUNDLE_KEY_MAX, 'k').c_str(), "v"));
  EXPECT_EQ(BUNDLE_TYPE_STR_ARRAY, bundle_get_type(b.get(), "list"));
  EXPECT_EQ(-22, bundle_free(nullptr));
}

TEST(Bundle, GettersPointIntoTheBundleAndDupIsDeepAndIndependent) {
  BundlePtr b = Sample();
  char *first = nullptr, *second = nullptr;
  ASSERT_EQ(0, bundle_get_str(b.get(), "actionId", &first));
  ASSERT_EQ(0, bundle_get_str(b.get(), "actionId", &second));
  EXPECT_EQ(first, second);
  void *bytes = nullptr;
  size_t size = 0;
  ASSERT_EQ(0, bundle_get_byte(b.get(), "raw", &bytes, &size));
  EXPECT_EQ(5u, size);
  EXPECT_EQ(0xff, static_cast<unsigned char *>(bytes)[3]);

  BundlePtr copy(bundle_dup(b.get()), &bundle_free);
  ASSERT_TRUE(copy);
  EXPECT_TRUE(Entries(b.get()) == Entries(copy.get()));

  char *original = nullptr, *copied = nullptr;
  bundle_get_str(b.get(), "actionId", &original);
  bundle_get_str(copy.get(), "actionId", &copied);
  EXPECT_NE(original, copied);
  ASSERT_EQ(0, bundle_del(copy.get(), "actionId"));
  b.reset();  // the copy must not share anything with the freed original
  EXPECT_EQ(5, bundle_get_count(copy.get()));
  EXPECT_EQ(-2, bundle_get_str(copy.get(), "actionId", &copied));
}

TEST(BundleCodec, RoundTripKeepsEveryEntryTypeOrderAndSize) {
  BundlePtr b = Sample();
  BundlePtr empty = Make();
  for (bundle *src : {b.get(), empty.get()}) {
    BundlePtr out(nullptr, &bundle_free);
    ASSERT_EQ(0, Decode(Encode(src), &out));
    EXPECT_TRUE(Entries(src) == Entries(out.get()));
  }

  b = Make();
  std::string big(8 * 1024 * 1024, '\0');
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 31);
  ASSERT_EQ(0, bundle_add_byte(b.get(), "big", big.data(), big.size()));
  BundlePtr out(nullptr, &bundle_free);
  ASSERT_EQ(0, Decode(Encode(b.get()), &out));
  void *bytes = nullptr;
  size_t size = 0;
  ASSERT_EQ(0, bundle_get_byte(out.get(), "big", &bytes, &size));
  ASSERT_EQ(big.size(), size);
  EXPECT_EQ(0, memcmp(big.data(), bytes, size));
}

TEST(BundleCodec, EveryTruncationOfAValidEncodingIsRejected) {
  BundlePtr b = Sample();
  std::vector<unsigned char> full = Encode(b.get());
  for (size_t len = 0; len < full.size(); ++len) {
    BundlePtr out(nullptr, &bundle_free);
    std::vector<unsigned char> cut(full.begin(), full.begin() + len);
    EXPECT_EQ(-22, Decode(cut, &out)) << "length " << len;
  }
  std::vector<unsigned char> longer = full;
  longer.push_back(0);
  BundlePtr out(nullptr, &bundle_free);
  EXPECT_EQ(-22, Decode(longer, &out));
}

TEST(BundleCodec, LyingCountsAndLengthsAreRejectedBeforeAllocating) {
  BundlePtr b = Make();
  ASSERT_EQ(0, bundle_add_str(b.get(), "key", "value"));
  const char *items[] = {"a", "b"};
  ASSERT_EQ(0, bundle_add_str_array(b.get(), "arr", items, 2));
  const std::vector<unsigned char> good = Encode(b.get());
  // Layout: magic, version, count | type, key len(3), "key", value len(5), "value" |
  //         type, key len(3), "arr", item count(2), ...
  const size_t count_at = 8, key_len_at = 16, value_len_at = 23, items_at = 43;

  struct Lie {
    size_t at;
    uint32_t value;
  };
  for (Lie lie : {Lie{count_at, 0xffffffffu}, Lie{count_at, 3}, Lie{count_at, 1},
                  Lie{key_len_at, 0xffffffffu}, Lie{key_len_at, 0}, Lie{value_len_at, 6},
                  Lie{value_len_at, 0x7fffffffu}, Lie{items_at, 0x40000000u},
                  Lie{items_at, 3}, Lie{0, 0x12345678u}, Lie{4, 2}}) {
    std::vector<unsigned char> bad = good;
    PutU32(&bad, lie.at, lie.value);
    BundlePtr out(nullptr, &bundle_free);
    EXPECT_EQ(-22, Decode(bad, &out)) << "offset " << lie.at << " value " << lie.value;
  }
}

TEST(BundleCodec, DuplicateKeysUnknownTypesAndNulBytesAreRejected) {
  BundlePtr b = Make();
  ASSERT_EQ(0, bundle_add_str(b.get(), "aa", "x"));
  ASSERT_EQ(0, bundle_add_str(b.get(), "ab", "y"));
  const std::vector<unsigned char> good = Encode(b.get());
  // Second entry's key "ab" starts at 12 + (4 + 4 + 2 + 4 + 1) + 8 = 35.
  std::vector<unsigned char> dup = good;
  dup[36] = 'a';
  std::vector<unsigned char> unknown = good;
  PutU32(&unknown, 12, 3);
  std::vector<unsigned char> array_flag_only = good;
  PutU32(&array_flag_only, 12, BUNDLE_TYPE_ARRAY);
  std::vector<unsigned char> nul_in_key = good;
  nul_in_key[36] = '\0';
  std::vector<unsigned char> nul_in_value = good;
  nul_in_value[26] = '\0';

  for (const auto &bad : {dup, unknown, array_flag_only, nul_in_key, nul_in_value}) {
    BundlePtr out(nullptr, &bundle_free);
    EXPECT_EQ(-22, Decode(bad, &out));
  }
  BundlePtr out(nullptr, &bundle_free);
  EXPECT_EQ(0, Decode(good, &out));  // the offsets above do name what they claim
}
