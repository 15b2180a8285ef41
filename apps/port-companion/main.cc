// A sample companion app reached over the message port (its manifest declares the SDK
// version "1.0-alpha"). Request keys and environment: SampleAnswer.h, SampleCompanion.h.
#include "SampleCompanion.h"

int main() { return sample::RunSampleCompanion(TALVO_COMPANION_MECHANISM_FROM_MANIFEST); }
