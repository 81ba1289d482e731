#pragma once

#include "cli/CliCommand.h"

namespace parlune::cli {

// `parlune-cli model info|generate|bench|make-test ...`: the on-device engine from a terminal.
CliCommand modelCommand();

} // namespace parlune::cli
