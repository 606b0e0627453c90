// The `kelvane` command: how each way to end becomes an exit status.
#include "cli/command_line.h"
#include "cli/commands.h"
#include "cli/terminal.h"

#include <exception>

int main(int argc, char** argv) {
    try {
        return kelvane::cli::parseAndRun(argc, argv);
    } catch (const std::exception& error) { // InputError, StatusError, and what nobody foresaw
        kelvane::cli::printError(error.what());
        return kelvane::cli::kExitFailure;
    }
}
