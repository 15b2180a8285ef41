// A sample companion app reached over rpc-port (its manifest declares the SDK version
// "1.1.0"). It serves rpc-port whatever its manifest says, so that tests of the
// interface can install it under manifests of their own. Request keys and environment:
// SampleAnswer.h, SampleCompanion.h.
#include "SampleCompanion.h"

int main() { return sample::RunSampleCompanion(TALVO_COMPANION_MECHANISM_RPC_PORT); }
