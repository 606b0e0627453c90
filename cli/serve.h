// `kelvane serve`: an interface and its driver that stay, for the commands of other terminals.
#pragma once

#include "cli/commands.h"

#include <string>

namespace kelvane::cli {

struct ServeOptions : StreamOptions {
    std::string socket; // empty: the usual place
};
// Until Ctrl-C, which is the end that is waited for: exit status 0. Throws InputError and
// StatusError.
int serve(const ServeOptions& options);

} // namespace kelvane::cli
