// The body of a sample companion app reached over rpc-port: serves interface "message"
// and answers every Send through the ResponseCB delegates of that connection.
//
// Environment (read at start):
//   TALVO_SAMPLE_NO_LISTEN=1         run, but never open the port (connections never complete)
//   TALVO_SAMPLE_START_DELAY_MS=n    open the port only after n milliseconds
//   TALVO_SAMPLE_SETCB_RESULT=n      answer SetCB with n instead of 0 (refuse the delegate)
#pragma once

namespace sample {

// Runs the app's main loop until it quits; returns the process exit code.
int RunRpcCompanion();

}  // namespace sample
