// The channel layer on a socketpair inside this process, driven by the real loop.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "LoopUntil.h"
extern "C" {
#include "channel_internal.h"
}

namespace {

struct Recorder {
  std::vector<std::vector<unsigned char>> frames;
  int closedCalls = 0;
  bool closeOnFirstFrame = false;
};

void TakeOne(velna_channel *channel, void *data) {
  Recorder *rec = static_cast<Recorder *>(data);
  unsigned char *payload = nullptr;
  size_t len = 0;
  ASSERT_EQ(velna_channel_take_frame(channel, 0, &payload, &len), 0);
  rec->frames.emplace_back(payload, payload + len);
  free(payload);
  if (rec->closeOnFirstFrame) velna_channel_close(channel);
}

void CountClosed(velna_channel *, void *data) { static_cast<Recorder *>(data)->closedCalls++; }

std::vector<unsigned char> Bytes(size_t size, unsigned seed) {
  std::vector<unsigned char> v(size);
  for (size_t i = 0; i < size; i++) v[i] = static_cast<unsigned char>(i * 7u + seed);
  return v;
}

class Channel : public ::testing::Test {
 protected:
  void SetUp() override { Pair(1u << 30); }
  void TearDown() override {
    if (a_) velna_channel_close(a_);
    if (b_) velna_channel_close(b_);
  }
  void Pair(uint32_t maxFrame) {
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv), 0);
    a_ = velna_channel_new(sv[0], maxFrame);
    b_ = velna_channel_new(sv[1], maxFrame);
    ASSERT_TRUE(a_ && b_);
  }
  velna_channel *a_ = nullptr;
  velna_channel *b_ = nullptr;
  Recorder rec_;
};

TEST_F(Channel, FramesOfEverySizeArriveWholeAndInOrder) {
  velna_channel_set_handlers(b_, TakeOne, CountClosed, &rec_);
  const std::vector<size_t> sizes = {0, 1, 7, 8, 9, 65535, 65536, 65537, 3u << 20, 20, 0, 12u << 20, 5};
  for (size_t i = 0; i < sizes.size(); i++) {
    std::vector<unsigned char> p = Bytes(sizes[i], unsigned(i));
    ASSERT_EQ(velna_channel_send(a_, p.data(), p.size()), 0) << i;
  }
  ASSERT_TRUE(testsupport::RunLoopUntil([&] { return rec_.frames.size() == sizes.size(); }, 20000))
      << rec_.frames.size();
  for (size_t i = 0; i < sizes.size(); i++)
    EXPECT_TRUE(rec_.frames[i] == Bytes(sizes[i], unsigned(i))) << "frame " << i;
  EXPECT_EQ(rec_.closedCalls, 0);
  EXPECT_EQ(velna_channel_peer_pid(b_), getpid());
  EXPECT_EQ(velna_channel_peer_uid(b_), getuid());
}

TEST_F(Channel, ClosingFromInsideTheReadyHandlerEndsDelivery) {
  rec_.closeOnFirstFrame = true;
  velna_channel_set_handlers(b_, TakeOne, CountClosed, &rec_);
  for (int i = 0; i < 5; i++) ASSERT_EQ(velna_channel_send(a_, "abc", 3), 0);
  velna_channel_close(a_);  // the peer's hang-up must not reach a closed channel either
  a_ = nullptr;
  testsupport::RunLoopFor(200);
  b_ = nullptr;  // closed by the handler
  EXPECT_EQ(rec_.frames.size(), 1u);
  EXPECT_EQ(rec_.closedCalls, 0);
}

TEST_F(Channel, QueuedFramesStayTakeableAfterThePeerLeft) {
  velna_channel_set_handlers(b_, nullptr, CountClosed, &rec_);
  ASSERT_EQ(velna_channel_send(a_, "one", 3), 0);
  ASSERT_EQ(velna_channel_send(a_, "two", 3), 0);
  velna_channel_close(a_);
  a_ = nullptr;
  ASSERT_TRUE(testsupport::RunLoopUntil([&] { return rec_.closedCalls > 0; }, 5000));
  EXPECT_FALSE(velna_channel_is_open(b_));
  EXPECT_EQ(velna_channel_pending(b_), 2u);

  unsigned char *p = nullptr;
  size_t len = 0;
  ASSERT_EQ(velna_channel_take_frame(b_, 1000, &p, &len), 0);
  EXPECT_EQ(std::string(reinterpret_cast<char *>(p), len), "one");
  free(p);
  ASSERT_EQ(velna_channel_take_frame(b_, 1000, &p, &len), 0);
  EXPECT_EQ(std::string(reinterpret_cast<char *>(p), len), "two");
  free(p);
  EXPECT_EQ(velna_channel_take_frame(b_, 1000, &p, &len), -EIO);
  EXPECT_EQ(velna_channel_send(b_, "x", 1), -EIO);
  testsupport::RunLoopFor(50);
  EXPECT_EQ(rec_.closedCalls, 1);
}

TEST_F(Channel, BlockingTakeWaitsForAWholeFrameOrTimesOut) {
  unsigned char *p = nullptr;
  size_t len = 0;
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(velna_channel_take_frame(b_, 300, &p, &len), -EAGAIN);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(250));

  // Half a frame is not a frame: the wait still ends empty-handed.
  int raw[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, raw), 0);
  velna_channel *c = velna_channel_new(raw[1], 1024);
  const unsigned char half[] = {0x56, 0x4c, 0x4e, 0x31, 10, 0, 0, 0, 'a', 'b'};
  ASSERT_EQ(write(raw[0], half, sizeof half), ssize_t(sizeof half));
  EXPECT_EQ(velna_channel_take_frame(c, 100, &p, &len), -EAGAIN);
  const char rest[] = "cdefghij";
  ASSERT_EQ(write(raw[0], rest, 8), 8);
  ASSERT_EQ(velna_channel_take_frame(c, 1000, &p, &len), 0);
  EXPECT_EQ(std::string(reinterpret_cast<char *>(p), len), "abcdefghij");
  free(p);
  close(raw[0]);
  EXPECT_EQ(velna_channel_take_frame(c, 1000, &p, &len), -EIO);
  velna_channel_close(c);
}

TEST_F(Channel, FramesOverTheCapAreRefusedAtTheSender) {
  velna_channel_close(a_);
  velna_channel_close(b_);
  Pair(1000);
  std::vector<unsigned char> big(1001);
  EXPECT_EQ(velna_channel_send(a_, big.data(), big.size()), -EMSGSIZE);
  EXPECT_EQ(velna_channel_send(a_, big.data(), 1000), 0);
  // A peer announcing more than the cap: the message port's hostile-peer test.
}

TEST_F(Channel, OutputPastTheQueueCapFailsWithTryAgain) {
  // Nobody runs the loop, so what the socket does not take stays queued.
  std::vector<unsigned char> chunk(100u << 20, 3);
  EXPECT_EQ(velna_channel_send(a_, chunk.data(), chunk.size()), 0);
  EXPECT_EQ(velna_channel_send(a_, chunk.data(), chunk.size()), 0);
  EXPECT_EQ(velna_channel_send(a_, chunk.data(), chunk.size()), -EAGAIN);
  EXPECT_EQ(velna_channel_send(a_, "small", 5), 0);
}

TEST_F(Channel, ReceiverStopsReadingWhileItsQueueIsFull) {
  // No ready handler: frames pile up until the incoming queue passes its cap.
  std::vector<unsigned char> chunk(100u << 20, 9);
  for (int round = 1; round <= 2; round++) {
    for (int i = 0; i < 2; i++) ASSERT_EQ(velna_channel_send(a_, chunk.data(), chunk.size()), 0);
    size_t expected = round == 1 ? 2 : 3;
    ASSERT_TRUE(testsupport::RunLoopUntil(
        [&] { return velna_channel_pending(b_) == expected; }, 20000));
  }
  testsupport::RunLoopFor(300);
  EXPECT_EQ(velna_channel_pending(b_), 3u);  // 300 MiB queued: the fourth waits

  unsigned char *p = nullptr;
  size_t len = 0;
  ASSERT_EQ(velna_channel_take_frame(b_, 0, &p, &len), 0);
  free(p);
  ASSERT_TRUE(testsupport::RunLoopUntil([&] { return velna_channel_pending(b_) == 3; }, 20000))
      << "reading did not resume";
}

}  // namespace
