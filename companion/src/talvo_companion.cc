// The exported C functions: argument guards, then the live Companion. Only these carry
// default visibility; everything else in the library stays hidden.
#include "talvo_companion.h"

#include <errno.h>

#include "Companion.h"
#include "Log.h"

#define API extern "C" __attribute__((visibility("default")))

using companion::Companion;

namespace {

Companion *Of(talvo_companion_h handle) { return reinterpret_cast<Companion *>(handle); }

// The object that owns answers, or null after logging why.
Companion *AnswerOwner(talvo_companion_answer_h answer, const char *operation) {
  Companion *live = Companion::live();
  if (!answer || !live) {
    COMPANION_LOGE("%s: %s", operation, !answer ? "the answer is null" : "no companion object lives");
    return nullptr;
  }
  return live;
}

bool Live(talvo_companion_h companion, const char *operation) {
  if (companion && Of(companion) == Companion::live()) return true;
  COMPANION_LOGE("%s: %p is not a live companion object", operation,
                 static_cast<void *>(companion));
  return false;
}

}  // namespace

API int talvo_companion_create(talvo_companion_request_cb on_action,
                               talvo_companion_request_cb on_context, void *user_data,
                               talvo_companion_h *companion) {
  Companion *created = nullptr;
  int r = Companion::create(on_action, on_context, user_data, &created);
  if (r == 0) *companion = reinterpret_cast<talvo_companion_h>(created);
  return r;
}

API void talvo_companion_destroy(talvo_companion_h companion) {
  if (companion && Live(companion, "destroy")) delete Of(companion);
}

API int talvo_companion_set_mechanism(talvo_companion_h companion,
                                      talvo_companion_mechanism_e mechanism) {
  return Live(companion, "set_mechanism") ? Of(companion)->setMechanism(mechanism) : -EINVAL;
}

API int talvo_companion_set_chunk_size(talvo_companion_h companion, size_t bytes) {
  return Live(companion, "set_chunk_size") ? Of(companion)->setChunkSize(bytes) : -EINVAL;
}

API int talvo_companion_set_disconnected_cb(talvo_companion_h companion,
                                            talvo_companion_disconnected_cb callback,
                                            void *user_data) {
  if (!Live(companion, "set_disconnected_cb")) return -EINVAL;
  Of(companion)->setDisconnected(callback, user_data);
  return 0;
}

API int talvo_companion_set_callback_result(talvo_companion_h companion, int result) {
  if (!Live(companion, "set_callback_result")) return -EINVAL;
  Of(companion)->setCallbackResult(result);
  return 0;
}

API int talvo_companion_start(talvo_companion_h companion) {
  return Live(companion, "start") ? Of(companion)->start() : -EINVAL;
}

API talvo_companion_mechanism_e talvo_companion_get_mechanism(talvo_companion_h companion) {
  return Live(companion, "get_mechanism") ? Of(companion)->mechanism()
                                          : TALVO_COMPANION_MECHANISM_FROM_MANIFEST;
}

API const char *talvo_companion_get_app_id(talvo_companion_h companion) {
  return Live(companion, "get_app_id") ? Of(companion)->appId().c_str() : nullptr;
}

API int talvo_companion_answer_set_status(talvo_companion_answer_h answer, const char *code,
                                          const char *message) {
  Companion *owner = AnswerOwner(answer, "set_status");
  return owner ? owner->setStatus(answer, code, message) : -EINVAL;
}

API int talvo_companion_answer_add_str(talvo_companion_answer_h answer, const char *key,
                                       const char *value) {
  Companion *owner = AnswerOwner(answer, "add_str");
  return owner ? owner->addExtra(answer, key, value) : -EINVAL;
}

API int talvo_companion_answer_send_result(talvo_companion_answer_h answer, const char *result) {
  Companion *owner = AnswerOwner(answer, "send_result");
  return owner ? owner->send(answer, false, result, true) : -EINVAL;
}

API int talvo_companion_answer_send_context(talvo_companion_answer_h answer,
                                            const char *context_json) {
  Companion *owner = AnswerOwner(answer, "send_context");
  return owner ? owner->send(answer, true, context_json, true) : -EINVAL;
}

API int talvo_companion_answer_send_context_unchecked(talvo_companion_answer_h answer,
                                                      const char *context) {
  Companion *owner = AnswerOwner(answer, "send_context_unchecked");
  return owner ? owner->send(answer, true, context, false) : -EINVAL;
}

API void talvo_companion_answer_drop(talvo_companion_answer_h answer) {
  if (Companion *owner = AnswerOwner(answer, "drop")) owner->drop(answer);
}
