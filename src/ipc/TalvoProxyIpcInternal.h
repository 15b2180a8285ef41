// Constants and release helpers shared by the files that implement TalvoProxyIpc.
// Everything here runs on the main-loop thread.
#pragma once

#include <Ecore.h>
#include <bundle.h>

#include <cstddef>
#include <memory>

#include "common/PlatformPtr.h"
#include "ipc/TalvoProxyIpc.h"

namespace talvo::ipc {

// The port that the library registers and that every message-port app registers too.
constexpr const char kPortName[] = "TALVO_APP_SDK_PORT_516";

// Operation of the app-control request that launches a companion app.
constexpr const char kLaunchOperation[] = "http://velna.org/appcontrol/operation/talvo";

// Answer keys (the app-state kind first, then the action-result kind).
constexpr const char kKeyAppContext[] = "appContext";
constexpr const char kKeyAppStateLastChunk[] = "app_state_last_chunk";
constexpr const char kKeyAppStateChunk[] = "app_state_chunk_result";
constexpr const char kKeyResult[] = "result";
constexpr const char kKeyLastChunk[] = "last_chunk";
constexpr const char kKeyChunk[] = "chunk_result";
constexpr const char kKeyStatusCode[] = "status_code";
constexpr const char kKeyStatusMsg[] = "status_msg";

// The answer the library makes itself when a launch wait runs out.
constexpr const char kFailureResult[] = "{\"result\":\"Failure\"}";

// Launch wait: message port polls every 0.1 s and renews while count < 101; rpc-port
// fires once after 10 s with count preset to the limit. Focus wait: 0.5 s, 61 renewals.
constexpr double kLaunchIntervalPort = 0.1;
constexpr double kLaunchIntervalVidl = 10.0;
constexpr int kLaunchCountLimit = 101;
constexpr double kFocusInterval = 0.5;
constexpr int kFocusCountLimit = 61;

// Cap of each chunk buffer; a piece that would pass it drops its answer whole.
constexpr size_t kChunkBufferCap = 128u * 1024u * 1024u;

// Result codes.
constexpr int kErrNoMemory = -12;
constexpr int kErrPermission = -13;
constexpr int kErrInvalid = -22;
constexpr int kErrInProgress = -114;
constexpr int kErrPortRegister = static_cast<int>(0xC0000002u);
constexpr int kErrRefused = static_cast<int>(0xBFFFFFFFu);
constexpr int kErrSendRefused = static_cast<int>(0xBFFFFFFEu);

using talvo::BundlePtr;

// Releases a client record in the fixed order: observer (field cleared), proxy, record.
void ReleaseClientInfo(ClientInfo *client);

// Deletes the record's timer (if any), frees its data (if any) and deletes the record.
// Record is AppLaunchInfo or AppFocusedInfo: each is deleted as its own type.
template <typename Record>
void ReleaseWaitRecord(Record *record) {
  if (!record)
    return;
  if (record->timer)
    ecore_timer_del(record->timer);
  if (record->data)
    bundle_free(record->data);
  delete record;
}

template <typename Record>
using WaitRecordPtr = std::unique_ptr<Record, talvo::ReleaseWith<ReleaseWaitRecord<Record>>>;

}  // namespace talvo::ipc
