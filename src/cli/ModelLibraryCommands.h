#pragma once

#include "cli/CliCommand.h"

namespace parlune::cli {

// `parlune-cli discover`: the models other local-model tools keep on this computer.
CliCommand discoverCommand();
// `parlune-cli catalogue`: the recommended models, marking the one for this computer.
CliCommand catalogueCommand();
// `parlune-cli download ID [--folder DIR]`: a catalogue model, verified, into the models folder.
CliCommand downloadCommand();

} // namespace parlune::cli
