// Channels share one readiness source: many channels with only some ready, more ready
// than one dispatch fetches, a channel closed by another's handler in the same dispatch,
// a hang-up right behind a frame, and a handler that runs the loop itself.
#include <glib.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <set>
#include <vector>

#include "LoopUntil.h"

extern "C" {
#include "channel_internal.h"
}

namespace {

constexpr uint32_t kMaxFrame = 1u << 20;

// A connected pair: frames sent on `out` arrive on `in`.
struct Pair {
  velna_channel *out = nullptr;
  velna_channel *in = nullptr;
};

std::vector<Pair> MakePairs(size_t n) {
  std::vector<Pair> pairs(n);
  for (Pair &p : pairs) {
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) return {};
    p.out = velna_channel_new(sv[0], kMaxFrame);
    p.in = velna_channel_new(sv[1], kMaxFrame);
  }
  return pairs;
}

void ClosePairs(std::vector<Pair> &pairs) {
  for (Pair &p : pairs) {
    velna_channel_close(p.out);
    velna_channel_close(p.in);
    p = {};
  }
}

// What the receivers' handlers saw, by pair index.
struct Seen {
  std::vector<int> frames;
  std::vector<int> closed;
};

struct Receiver {
  Seen *seen;
  int index;
};

void OnFrame(velna_channel *channel, void *data) {
  auto *r = static_cast<Receiver *>(data);
  if (velna_channel_drop_frame(channel) == 0) r->seen->frames.push_back(r->index);
}

void OnClosed(velna_channel *, void *data) {
  auto *r = static_cast<Receiver *>(data);
  r->seen->closed.push_back(r->index);
}

std::vector<Receiver> Listen(std::vector<Pair> &pairs, Seen *seen) {
  std::vector<Receiver> receivers(pairs.size());
  for (size_t i = 0; i < pairs.size(); i++) {
    receivers[i] = {seen, int(i)};
    velna_channel_set_handlers(pairs[i].in, OnFrame, OnClosed, &receivers[i]);
  }
  return receivers;
}

TEST(ChannelReadiness, OnlyTheReadyChannelsAreServedAndEachOnceWhenManyAreReadyAtOnce) {
  std::vector<Pair> pairs = MakePairs(300);
  ASSERT_EQ(pairs.size(), 300u);
  Seen seen;
  std::vector<Receiver> receivers = Listen(pairs, &seen);

  ASSERT_EQ(velna_channel_send(pairs[123].out, "one", 3), 0);
  ASSERT_TRUE(testsupport::RunLoopUntil([&] { return !seen.frames.empty(); }, 10000));
  testsupport::RunLoopFor(50);
  EXPECT_EQ(seen.frames, std::vector<int>{123});

  // Far more ready than one dispatch takes: every one is served, none twice.
  seen.frames.clear();
  for (Pair &p : pairs) ASSERT_EQ(velna_channel_send(p.out, "all", 3), 0);
  ASSERT_TRUE(testsupport::RunLoopUntil([&] { return seen.frames.size() >= pairs.size(); }, 10000))
      << seen.frames.size();
  testsupport::RunLoopFor(50);
  EXPECT_EQ(seen.frames.size(), pairs.size());
  EXPECT_EQ(std::set<int>(seen.frames.begin(), seen.frames.end()).size(), pairs.size());
  EXPECT_TRUE(seen.closed.empty());
  ClosePairs(pairs);
}

// Whichever of two ready receivers is served first closes the other, and opens a new
// pair whose descriptors may take the closed one's numbers.
struct Rivals {
  std::vector<Pair> *pairs = nullptr;
  int served = 0;
  std::vector<Pair> fresh;
};

void CloseTheRival(velna_channel *channel, void *data) {
  auto *r = static_cast<Rivals *>(data);
  r->served++;
  velna_channel_drop_frame(channel);
  for (Pair &p : *r->pairs) {
    if (p.in != channel && p.in) {
      velna_channel_close(p.in);
      p.in = nullptr;
    }
  }
  r->fresh = MakePairs(1);
}

TEST(ChannelReadiness, AChannelClosedByAnotherHandlerInTheSameDispatchIsNeverServed) {
  std::vector<Pair> pairs = MakePairs(2);
  ASSERT_EQ(pairs.size(), 2u);
  Rivals rivals;
  rivals.pairs = &pairs;
  for (Pair &p : pairs) velna_channel_set_handlers(p.in, CloseTheRival, nullptr, &rivals);

  // Both frames are in their sockets before the loop runs, so one dispatch sees both.
  for (Pair &p : pairs) ASSERT_EQ(velna_channel_send(p.out, "x", 1), 0);
  ASSERT_TRUE(testsupport::RunLoopUntil([&] { return rivals.served > 0; }, 10000));
  testsupport::RunLoopFor(100);
  EXPECT_EQ(rivals.served, 1);

  // The new pair, made inside that dispatch, works.
  ASSERT_EQ(rivals.fresh.size(), 1u);
  Seen seen;
  std::vector<Receiver> receivers = Listen(rivals.fresh, &seen);
  ASSERT_EQ(velna_channel_send(rivals.fresh[0].out, "new", 3), 0);
  EXPECT_TRUE(testsupport::RunLoopUntil([&] { return seen.frames.size() == 1; }, 10000));
  ClosePairs(rivals.fresh);
  ClosePairs(pairs);
}

TEST(ChannelReadiness, AFrameFollowedAtOnceByAHangUpIsDeliveredAndThenTheCloseReported) {
  std::vector<Pair> pairs = MakePairs(1);
  ASSERT_EQ(pairs.size(), 1u);
  Seen seen;
  std::vector<Receiver> receivers = Listen(pairs, &seen);
  ASSERT_EQ(velna_channel_send(pairs[0].out, "last words", 10), 0);
  velna_channel_close(pairs[0].out);
  pairs[0].out = nullptr;
  ASSERT_TRUE(testsupport::RunLoopUntil([&] { return !seen.closed.empty(); }, 10000));
  EXPECT_EQ(seen.frames, std::vector<int>{0});
  EXPECT_EQ(seen.closed, std::vector<int>{0});
  ClosePairs(pairs);
}

// A handler that iterates the loop itself until another channel's frame arrives.
struct Nested {
  Pair *other = nullptr;
  bool otherServed = false;
  bool finished = false;
  bool servedInside = false;  // whether the other was served before the handler returned
};

void RunLoopInside(velna_channel *channel, void *data) {
  auto *n = static_cast<Nested *>(data);
  velna_channel_drop_frame(channel);
  velna_channel_send(n->other->out, "inner", 5);
  gint64 end = g_get_monotonic_time() + 5 * G_USEC_PER_SEC;
  while (!n->otherServed && g_get_monotonic_time() < end)
    g_main_context_iteration(nullptr, FALSE);
  n->servedInside = n->otherServed;
  n->finished = true;
}

TEST(ChannelReadiness, AHandlerThatRunsTheLoopStillGetsOtherChannelsServed) {
  std::vector<Pair> pairs = MakePairs(2);
  ASSERT_EQ(pairs.size(), 2u);
  Nested nested;
  nested.other = &pairs[1];
  velna_channel_set_handlers(pairs[0].in, RunLoopInside, nullptr, &nested);
  velna_channel_set_handlers(
      pairs[1].in,
      [](velna_channel *channel, void *data) {
        velna_channel_drop_frame(channel);
        static_cast<Nested *>(data)->otherServed = true;
      },
      nullptr, &nested);
  ASSERT_EQ(velna_channel_send(pairs[0].out, "outer", 5), 0);
  ASSERT_TRUE(testsupport::RunLoopUntil([&] { return nested.finished; }, 10000));
  EXPECT_TRUE(nested.servedInside);
  ClosePairs(pairs);
}

}  // namespace
