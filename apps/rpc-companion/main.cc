// A sample companion app reached over rpc-port (its manifest declares the SDK version
// "1.1.0"): it serves interface "message" and answers through the client's ResponseCB.
// Request keys and environment: SampleAnswer.h and RpcCompanion.h.
#include "RpcCompanion.h"

int main() { return sample::RunRpcCompanion(); }
