// The object behind talvo_companion_h: serves one app's requests over the mechanism that
// its manifest selects, and keeps each request's answer until the app sends or drops it.
// One per process (the message port name is fixed); everything runs on the main loop.
#pragma once

#include <bundle.h>
#include <stdint.h>

#include <map>
#include <string>

#include "AnswerRules.h"
#include "MessageStub.h"
#include "OwnManifest.h"
#include "talvo_companion.h"

namespace companion {

class Companion {
 public:
  // Returns 0 and the new object in *out (delete it to end serving), or a negative errno
  // value after logging why.
  static int create(talvo_companion_request_cb onAction, talvo_companion_request_cb onContext,
                    void *userData, Companion **out);
  // The live object, or null: answer handles are looked up through it.
  static Companion *live() { return live_; }
  ~Companion();
  Companion(const Companion &) = delete;
  Companion &operator=(const Companion &) = delete;

  int setMechanism(talvo_companion_mechanism_e mechanism);
  int setChunkSize(size_t bytes);
  void setDisconnected(talvo_companion_disconnected_cb callback, void *userData);
  void setCallbackResult(int result) { stub_.setRegisterResult(result); }
  int start();
  talvo_companion_mechanism_e mechanism() const { return mechanism_; }
  const std::string &appId() const { return manifest_.appId; }

  int setStatus(talvo_companion_answer_h answer, const char *code, const char *message);
  int addExtra(talvo_companion_answer_h answer, const char *key, const char *value);
  // checked: refuse a context the client could not use. A refusal leaves the answer
  // pending; a send that ran ends it, whatever its result.
  int send(talvo_companion_answer_h answer, bool context, const char *text, bool checked);
  void drop(talvo_companion_answer_h answer);

 private:
  struct Pending {
    bool context = false;
    std::string client;    // the requesting app id
    std::string instance;  // rpc-port: the connection to answer on
    bool clientGone = false;
    bool requestNamesMetadata = false;  // capsuleId, appVersion and appSdkVersion given
    AnswerContent content;
  };

  Companion() = default;
  Pending *find(talvo_companion_answer_h answer, const char *operation);
  void onRequest(const std::string &client, const std::string &instance, bundle *request);
  void onDisconnected(const std::string &client, const std::string &instance);
  int sendOverPort(const Pending &pending, const AnswerKeys &keys, const char *text);
  int sendOverRpc(const Pending &pending, const AnswerKeys &keys, const char *text);
  static void onPortMessage(int, const char *sender, const char *, bool, bundle *message,
                            void *self);

  static Companion *live_;

  OwnManifest manifest_;
  talvo_companion_request_cb onAction_ = nullptr;
  talvo_companion_request_cb onContext_ = nullptr;
  void *userData_ = nullptr;
  talvo_companion_disconnected_cb onDisconnected_ = nullptr;
  void *disconnectedData_ = nullptr;
  talvo_companion_mechanism_e mechanism_ = TALVO_COMPANION_MECHANISM_MESSAGE_PORT;
  size_t chunkSize_ = TALVO_COMPANION_DEFAULT_CHUNK_SIZE;
  bool started_ = false;
  bool portRegistered_ = false;
  MessageStub stub_;
  std::map<uintptr_t, Pending> pending_;  // by handle value
  uintptr_t nextHandle_ = 1;              // never reused, so a stale handle finds nothing
};

}  // namespace companion
