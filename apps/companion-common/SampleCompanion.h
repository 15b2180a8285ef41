// The body of every sample companion app: a companion object from the SDK whose handlers
// answer as SampleAnswer.h describes.
//
// Environment (read at start), to let tests stage apps that are slow or never ready:
//   TALVO_SAMPLE_NO_PORT=1          message port: run, but never register the port
//   TALVO_SAMPLE_NO_LISTEN=1        rpc-port: run, but never open the port
//   TALVO_SAMPLE_START_DELAY_MS=n   start serving only after n milliseconds
//   TALVO_SAMPLE_SETCB_RESULT=n     rpc-port: answer SetCB with n (refuse the callback)
#pragma once

#include <talvo_companion.h>

namespace sample {

// Runs the app's main loop until it quits; returns the process exit code.
int RunSampleCompanion(talvo_companion_mechanism_e mechanism);

}  // namespace sample
