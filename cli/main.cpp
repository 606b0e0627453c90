// The `kelvane` command: its subcommands, and how each way to end becomes an exit status.
#include "cli/command.h"
#include "cli/terminal.h"

#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <fmt/format.h>

#include <cstdio>

namespace {

using namespace kelvane;

int parseAndRun(int argc, char** argv) {
    CLI::App app(
        "A driver for high-speed USB Audio Class 2.0 interfaces, run on a simulated machine "
        "and interface.",
        "kelvane");
    app.set_version_flag("--version", "kelvane " KELVANE_VERSION);
    app.require_subcommand(0, 1);
    app.footer(
        "Examples:\n"
        "  kelvane play song.wav                                   play into the simulated "
        "interface\n"
        "  kelvane play song.flac --rate 96000 --device-output heard.wav\n"
        "  kelvane devices                                         list the built-in interfaces\n"
        "  kelvane show --dot | dot -Tsvg > filter.svg             draw what the driver publishes\n"
        "\n'kelvane SUBCOMMAND --help' tells more. Exit status: 0 done, 1 failed, 2 wrong usage.");
    cli::Action action;
    cli::addPlay(app, action);
    cli::addShow(app, action);
    cli::addDevices(app, action);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& help) {
        return app.exit(help); // --help, --version
    } catch (const CLI::ParseError& error) {
        const auto chosen = app.get_subcommands();
        cli::printError(error.what());
        fmt::print(stderr, "Try 'kelvane {}--help'.\n",
                   chosen.empty() ? "" : chosen.front()->get_name() + " ");
        return cli::kExitUsage;
    }
    if (!action) {
        cli::printError("a subcommand is expected: play, show or devices");
        fmt::print(stderr, "Try 'kelvane --help'.\n");
        return cli::kExitUsage;
    }
    return action();
}

} // namespace

int main(int argc, char** argv) {
    try {
        return parseAndRun(argc, argv);
    } catch (const std::exception& error) { // InputError, StatusError, and what nobody foresaw
        cli::printError(error.what());
        return cli::kExitFailure;
    }
}
