// Parcels in memory: what is written reads back in order, and every read that the
// parcel cannot satisfy fails with nothing handed out.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>

#include "RpcClient.h"

using namespace rpctest;

namespace {

TEST(Parcel, FieldsReadBackInTheOrderWritten) {
  Parcel p = NewParcel();
  Bundle b = BundleWith("inside");
  bundle_add_byte(b.get(), "raw", "\0\1\2", 3);
  ASSERT_EQ(rpc_port_parcel_write_int32(p.get(), -7), 0);
  ASSERT_EQ(rpc_port_parcel_write_bool(p.get(), true), 0);
  ASSERT_EQ(rpc_port_parcel_write_string(p.get(), ""), 0);
  ASSERT_EQ(rpc_port_parcel_write_string(p.get(), "text"), 0);
  ASSERT_EQ(rpc_port_parcel_write_bundle(p.get(), b.get()), 0);
  ASSERT_EQ(rpc_port_parcel_write_int32(p.get(), INT32_MIN), 0);

  int i = 0;
  bool flag = false;
  char *empty = nullptr;
  char *text = nullptr;
  bundle *read = nullptr;
  EXPECT_EQ(rpc_port_parcel_read_int32(p.get(), &i), 0);
  EXPECT_EQ(i, -7);
  EXPECT_EQ(rpc_port_parcel_read_bool(p.get(), &flag), 0);
  EXPECT_TRUE(flag);
  EXPECT_EQ(rpc_port_parcel_read_string(p.get(), &empty), 0);
  EXPECT_STREQ(empty, "");
  EXPECT_EQ(rpc_port_parcel_read_string(p.get(), &text), 0);
  EXPECT_STREQ(text, "text");
  EXPECT_EQ(rpc_port_parcel_read_bundle(p.get(), &read), 0);
  Bundle owned(read);
  EXPECT_EQ(ValueOf(read), "inside");
  void *bytes = nullptr;
  size_t size = 0;
  EXPECT_EQ(bundle_get_byte(read, "raw", &bytes, &size), 0);
  EXPECT_EQ(size, 3u);
  EXPECT_EQ(rpc_port_parcel_read_int32(p.get(), &i), 0);
  EXPECT_EQ(i, INT32_MIN);
  free(empty);
  free(text);
}

TEST(Parcel, ReadsPastTheEndOrOfAnotherTypeYieldNothing) {
  Parcel p = NewParcel();
  rpc_port_parcel_write_string(p.get(), "only");

  int i = 5;
  bool flag = true;
  bundle *b = reinterpret_cast<bundle *>(1);
  EXPECT_EQ(rpc_port_parcel_read_int32(p.get(), &i), -5);
  EXPECT_EQ(i, 0);
  EXPECT_EQ(rpc_port_parcel_read_bool(p.get(), &flag), -5);
  EXPECT_FALSE(flag);
  EXPECT_EQ(rpc_port_parcel_read_bundle(p.get(), &b), -5);
  EXPECT_EQ(b, nullptr);

  // A failed read leaves the position where it was.
  char *s = nullptr;
  EXPECT_EQ(rpc_port_parcel_read_string(p.get(), &s), 0);
  EXPECT_STREQ(s, "only");
  free(s);
  s = reinterpret_cast<char *>(1);
  EXPECT_EQ(rpc_port_parcel_read_string(p.get(), &s), -5);
  EXPECT_EQ(s, nullptr);

  Parcel empty = NewParcel();
  EXPECT_EQ(rpc_port_parcel_read_int32(empty.get(), &i), -5);
  EXPECT_EQ(i, 0);
}

TEST(Parcel, GrowsNoFurtherThanTheCap) {
  Parcel p = NewParcel();
  std::string big(RPC_PORT_MAX_PARCEL_SIZE - 16, 'x');
  ASSERT_EQ(rpc_port_parcel_write_string(p.get(), big.c_str()), 0);
  EXPECT_EQ(rpc_port_parcel_write_string(p.get(), "0123456789abcdef"), -90);
  EXPECT_EQ(rpc_port_parcel_write_int32(p.get(), 1), 0) << "what still fits is written";
  char *s = nullptr;
  EXPECT_EQ(rpc_port_parcel_read_string(p.get(), &s), 0);
  EXPECT_EQ(strlen(s), big.size());
  free(s);
}

}  // namespace
