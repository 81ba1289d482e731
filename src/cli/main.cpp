#include "cli/CliCommand.h"
#include "cli/ModelClientCommands.h"
#include "cli/ModelCommands.h"
#include "cli/ModelLibraryCommands.h"
#include "cli/SettingsCommands.h"

#include <QCoreApplication>

#include <cstdio>
#include <string>
#include <vector>

namespace {

using parlune::cli::CliCommand;

std::vector<CliCommand> allCommands() {
    std::vector<CliCommand> commands;
    commands.push_back(parlune::cli::settingsCommand());
    commands.push_back(parlune::cli::modelCommand());
    commands.push_back(parlune::cli::modelsCommand());
    commands.push_back(parlune::cli::discoverCommand());
    commands.push_back(parlune::cli::catalogueCommand());
    commands.push_back(parlune::cli::downloadCommand());
    commands.push_back(parlune::cli::rewriteCommand());
    return commands;
}

void printHelp(const std::vector<CliCommand>& commands) {
    std::printf("Usage: parlune-cli COMMAND [ARGUMENTS]\n\n"
                "Parlune rewrites selected text with a language model that runs on this computer.\n\n"
                "Commands:\n");
    for (const CliCommand& command : commands) {
        std::printf("  %-44s %s\n", command.usage.c_str(), command.summary.c_str());
    }
    std::printf("\nOptions:\n  %-44s %s\n  %-44s %s\n", "--help", "show this help", "--version",
                "show the version");
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("parlune"));
    QCoreApplication::setOrganizationName(QStringLiteral("parlune"));
    QCoreApplication::setApplicationVersion(QStringLiteral(PARLUNE_VERSION));

    const std::vector<CliCommand> commands = allCommands();
    std::vector<std::string> arguments(argv + 1, argv + argc);
    if (arguments.empty() || arguments[0] == "--help" || arguments[0] == "-h" || arguments[0] == "help") {
        printHelp(commands);
        return arguments.empty() ? 2 : 0;
    }
    if (arguments[0] == "--version") {
        std::printf("parlune-cli %s\n", PARLUNE_VERSION);
        return 0;
    }
    for (const CliCommand& command : commands) {
        if (command.name == arguments[0]) {
            return command.run(std::vector<std::string>(arguments.begin() + 1, arguments.end()));
        }
    }
    std::fprintf(stderr, "parlune-cli: unknown command '%s' (see parlune-cli --help)\n",
                 arguments[0].c_str());
    return 2;
}
