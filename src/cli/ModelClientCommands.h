#pragma once

#include "cli/CliCommand.h"

namespace parlune::cli {

// "models": the model files found, which one is used and why any other cannot be.
CliCommand modelsCommand();
// "rewrite": rewrites standard input through the same client, prompts and clean-up as the app.
CliCommand rewriteCommand();

} // namespace parlune::cli
