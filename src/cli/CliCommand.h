#pragma once

#include <functional>
#include <string>
#include <vector>

namespace parlune::cli {

// One sub-command of parlune-cli. `run` gets the arguments after the command's name and returns
// the process exit status.
struct CliCommand {
    std::string name;
    std::string usage;
    std::string summary;
    std::function<int(const std::vector<std::string>& arguments)> run;
};

} // namespace parlune::cli
