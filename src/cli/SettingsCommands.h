#pragma once

#include "cli/CliCommand.h"

namespace parlune::cli {

// "settings": shows the effective settings; "settings set-mode MODE" changes the rewrite mode.
CliCommand settingsCommand();

} // namespace parlune::cli
