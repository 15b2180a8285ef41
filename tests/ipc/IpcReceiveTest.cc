// Answers arriving on the library's message port: classification and chunk assembly.
// The platform's receive callback is driven directly with the bundles an app would send.
#include <string>

#include "IpcFixture.h"

namespace ipctest {
namespace {

constexpr const char kSender[] = "org.velna.test.sender";

class IpcReceive : public IpcFixture {
 protected:
  void receive(bundle *message, const char *sender = kSender) {
    TalvoProxyIpc::_appResultReceivedCb(1, sender, nullptr, false, message, ipc);
  }
  // One piece of a chunked answer: piece bytes under pieceKey, marker under markerKey.
  void receivePiece(const char *pieceKey, const std::string &piece, const char *markerKey,
                    const char *marker) {
    BundlePtr message(bundle_create());
    bundle_add_byte(message.get(), pieceKey, piece.data(), piece.size());
    bundle_add_str(message.get(), markerKey, marker);
    receive(message.get());
  }
};

TEST_F(IpcReceive, ChunkedResultIsJoinedAndHandedOnOnceWithoutPieceKeys) {
  receivePiece("chunk_result", "ab", "last_chunk", "false");
  receivePiece("chunk_result", "cd", "last_chunk", "false");
  EXPECT_TRUE(answers.empty());

  BundlePtr last = MakeBundle({{"status_code", "ACTION_EXECUTION_SUCCESS"}});
  bundle_add_byte(last.get(), "chunk_result", "ef", 2);
  bundle_add_str(last.get(), "last_chunk", "true");
  receive(last.get());

  ASSERT_EQ(1u, answers.size());
  EXPECT_EQ(kSender, answers[0].appId);
  EXPECT_EQ("abcdef", answers[0].str("result"));
  EXPECT_EQ("ACTION_EXECUTION_SUCCESS", answers[0].str("status_code"));
  EXPECT_FALSE(answers[0].has("chunk_result"));
  EXPECT_FALSE(answers[0].has("last_chunk"));
  EXPECT_TRUE(log.has("[Received Data with len:6]"));

  // The buffer was emptied: a plain answer afterwards reports length 0.
  BundlePtr plain = MakeBundle({{"result", "x"}});
  receive(plain.get());
  ASSERT_EQ(2u, answers.size());
  EXPECT_EQ("x", answers[1].str("result"));
  EXPECT_TRUE(log.has("[Received Data with len:0]"));
}

TEST_F(IpcReceive, CapitalisedMarkerDoesNotEndTheAnswer) {
  receivePiece("app_state_chunk_result", "{\"con", "app_state_last_chunk", "TRUE");
  EXPECT_TRUE(answers.empty());
  EXPECT_TRUE(log.has("_processAppResultPort(): Status Code:(null)"));

  receivePiece("app_state_chunk_result", "cepts\":1}", "app_state_last_chunk", "true");
  ASSERT_EQ(1u, answers.size());
  EXPECT_EQ("{\"concepts\":1}", answers[0].str("appContext"));
  EXPECT_FALSE(answers[0].has("app_state_chunk_result"));
  EXPECT_FALSE(answers[0].has("app_state_last_chunk"));
}

TEST_F(IpcReceive, UnknownOrAnonymousMessageIsDroppedAndLeavesTheHalfJoinedAnswerIntact) {
  receivePiece("chunk_result", "ab", "last_chunk", "false");

  BundlePtr unknown = MakeBundle({{"status_code", "X"}, {"status_msg", "only status"}});
  receive(unknown.get());
  EXPECT_TRUE(answers.empty());
  EXPECT_TRUE(log.has(std::string("Unknown message recieved from app:") + kSender));
  BundlePtr anonymous = MakeBundle({{"result", "r"}});
  receive(anonymous.get(), nullptr);
  EXPECT_TRUE(answers.empty());
  EXPECT_TRUE(log.has("Message without a sender app id dropped"));

  // A final piece without a byte value hands on what was joined so far.
  BundlePtr last = MakeBundle({{"last_chunk", "true"}});
  receive(last.get());
  ASSERT_EQ(1u, answers.size());
  EXPECT_EQ("ab", answers[0].str("result"));
}

TEST_F(IpcReceive, AnswerWithBothKeysIsOneStateAnswerAndKeepsItsOwnJoinedKey) {
  receivePiece("app_state_chunk_result", "joined", "app_state_last_chunk", "false");

  BundlePtr last = MakeBundle({{"appContext", "own"}, {"result", "r"}});
  bundle_add_str(last.get(), "app_state_last_chunk", "true");
  receive(last.get());

  ASSERT_EQ(1u, answers.size());
  EXPECT_EQ("own", answers[0].str("appContext"));
  EXPECT_FALSE(answers[0].has("app_state_last_chunk"));

  // The state buffer was emptied after the hand-over.
  receivePiece("app_state_chunk_result", "new", "app_state_last_chunk", "true");
  ASSERT_EQ(2u, answers.size());
  EXPECT_EQ("new", answers[1].str("appContext"));
}

TEST_F(IpcReceive, AnswerUpToTheCapIsJoinedAndOnePastItIsDroppedWhole) {
  // A first piece one byte short of 128 MiB; its text ends at the zero byte after "ab".
  const size_t cap = 128u * 1024u * 1024u;
  BundlePtr big(bundle_create());
  {
    std::string piece(cap - 1, '\0');
    piece[0] = 'a';
    piece[1] = 'b';
    bundle_add_byte(big.get(), "chunk_result", piece.data(), piece.size());
  }
  bundle_add_str(big.get(), "last_chunk", "false");

  receive(big.get());
  receivePiece("chunk_result", "c", "last_chunk", "true");
  ASSERT_EQ(1u, answers.size());
  EXPECT_EQ("ab", answers[0].str("result"));

  // Two bytes more pass the cap: that answer is dropped, its later pieces with it.
  receive(big.get());
  receivePiece("chunk_result", "cd", "last_chunk", "false");
  EXPECT_TRUE(log.has("Chunked answer from app:"));
  receivePiece("chunk_result", "tail", "last_chunk", "true");
  EXPECT_EQ(1u, answers.size());

  receivePiece("chunk_result", "xy", "last_chunk", "true");
  ASSERT_EQ(2u, answers.size());
  EXPECT_EQ("xy", answers[1].str("result"));
}

TEST_F(IpcReceive, RpcPortAnswerNeedsAResultOrContext) {
  BundlePtr both = MakeBundle({{"appContext", "{}"}, {"result", "r"}});
  ipc->_processAppResult(kSender, both.get());
  BundlePtr neither = MakeBundle({{"status_code", "X"}});
  ipc->_processAppResult(kSender, neither.get());

  ASSERT_EQ(1u, answers.size());
  EXPECT_EQ(1, log.count("Function _processAppResult End"));
  EXPECT_EQ(1, log.count("Unknown message recieved from app:"));
}

// A process whose handler was never registered drops answers instead of crashing.
TEST(IpcReceiveWithoutHandler, AnswerIsDroppedWithAnErrorLine) {
  setenv("VELNA_APP_ID", kClientId, 1);
  testsupport::TempEnv env;
  testsupport::LogCapture log;
  TalvoProxyIpc *ipc = TalvoProxyIpc::getInstance();
  ASSERT_EQ(0, ipc->initialize());
  EXPECT_EQ(-22, ipc->setIPCMessageReceivedCallback(nullptr, nullptr));
  EXPECT_TRUE(log.has("Callback null."));

  BundlePtr message = MakeBundle({{"result", "r"}});
  TalvoProxyIpc::_appResultReceivedCb(1, kSender, nullptr, false, message.get(), ipc);
  EXPECT_TRUE(log.has("No result handler registered"));
  ipc->deinitialize();
}

}  // namespace
}  // namespace ipctest
