// "talvo-cli monitor [APP...]": live traffic between clients and apps of this runtime
// directory, one line per message, through the platform's monitor tap.
#pragma once

#include "CliOptions.h"

namespace cli {

int RunMonitor(const CliOptions &options);

}  // namespace cli
