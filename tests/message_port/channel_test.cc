// The channel layer on a socketpair inside this process, driven by the real loop.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <vector>

#include "LoopUntil.h"
extern "C" {
#include "channel_internal.h"
}

namespace {

// Frames that arrived on a channel, and how often it reported its close.
struct Recorder {
  std::vector<std::vector<unsigned char>> frames;
  int closedCalls = 0;
};

void TakeOne(velna_channel *channel, void *data) {
  unsigned char *payload = nullptr;
  size_t len = 0;
  ASSERT_EQ(velna_channel_take_frame(channel, 0, &payload, &len), 0);
  static_cast<Recorder *>(data)->frames.emplace_back(payload, payload + len);
  free(payload);
}

void CountClosed(velna_channel *, void *data) { static_cast<Recorder *>(data)->closedCalls++; }

std::vector<unsigned char> Bytes(size_t size, unsigned seed) {
  std::vector<unsigned char> v(size);
  for (size_t i = 0; i < size; i++) v[i] = static_cast<unsigned char>(i * 7u + seed);
  return v;
}

// Two channels on a socketpair, a_ sending to b_, each refusing frames over maxFrame.
class Channel : public ::testing::Test {
 protected:
  void SetUp() override { Pair(16u << 20); }
  void TearDown() override {
    for (velna_channel *c : {a_, b_})
      if (c) velna_channel_close(c);
    a_ = b_ = nullptr;
  }
  void Pair(uint32_t maxFrame) {
    TearDown();
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv), 0);
    a_ = velna_channel_new(sv[0], maxFrame);
    b_ = velna_channel_new(sv[1], maxFrame);
    ASSERT_TRUE(a_ && b_);
  }
  velna_channel *a_ = nullptr, *b_ = nullptr;
  Recorder rec_;
};

TEST_F(Channel, FramesUpToTheCapArriveWholeAndInOrderAndOnePastIsRefused) {
  velna_channel_set_handlers(b_, TakeOne, CountClosed, &rec_);
  const std::vector<size_t> sizes = {0, 1, 7, 8, 9, 65535, 65536, 65537, 3u << 20, 20, 0, 16u << 20, 5};
  for (size_t i = 0; i < sizes.size(); i++) {
    std::vector<unsigned char> p = Bytes(sizes[i], unsigned(i));
    ASSERT_EQ(velna_channel_send(a_, p.data(), p.size()), 0) << i;
  }
  std::vector<unsigned char> over((16u << 20) + 1);
  EXPECT_EQ(velna_channel_send(a_, over.data(), over.size()), -EMSGSIZE);

  ASSERT_TRUE(testsupport::RunLoopUntil([&] { return rec_.frames.size() == sizes.size(); }, 20000))
      << rec_.frames.size();
  for (size_t i = 0; i < sizes.size(); i++)
    EXPECT_TRUE(rec_.frames[i] == Bytes(sizes[i], unsigned(i))) << "frame " << i;
  EXPECT_EQ(rec_.closedCalls, 0);
  EXPECT_EQ(velna_channel_peer_pid(b_), getpid());
}

TEST_F(Channel, OutputPastTheQueueCapFailsWithTryAgain) {
  // Nobody runs the loop, so what the socket does not take stays queued.
  Pair(1u << 30);
  std::vector<unsigned char> chunk(100u << 20, 3);
  EXPECT_EQ(velna_channel_send(a_, chunk.data(), chunk.size()), 0);
  EXPECT_EQ(velna_channel_send(a_, chunk.data(), chunk.size()), 0);
  EXPECT_EQ(velna_channel_send(a_, chunk.data(), chunk.size()), -EAGAIN);
  EXPECT_EQ(velna_channel_send(a_, "small", 5), 0);
}

}  // namespace
