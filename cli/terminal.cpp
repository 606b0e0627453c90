#include "cli/terminal.h"

#include "client/client.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace kelvane::cli {

bool isTerminal(int descriptor) {
    return isatty(descriptor) == 1;
}

bool wantsColour(int descriptor) {
    const char* refused = std::getenv("NO_COLOR");
    const char* kind = std::getenv("TERM");
    return isTerminal(descriptor) && (refused == nullptr || *refused == '\0') && kind != nullptr &&
           std::string_view(kind) != "dumb";
}

int terminalWidth(int descriptor) {
    winsize size{};
    if (ioctl(descriptor, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) {
        return 80;
    }
    return size.ws_col;
}

void printError(const std::string& text) {
    const bool colour = wantsColour(STDERR_FILENO);
    fmt::print(stderr, "{}kelvane:{} {}\n", colour ? "\x1b[1;31m" : "", colour ? "\x1b[0m" : "",
               text);
}

void printNote(const std::string& text) {
    fmt::print(stderr, "kelvane: note: {}\n", text);
}

void flushStandardOutput() {
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        throw client::InputError(
            fmt::format("standard output: can't be written: {}", std::strerror(errno)));
    }
}

} // namespace kelvane::cli
