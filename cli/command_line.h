// What a person can type. The option library stays behind this header: it is slow to compile.
#pragma once

namespace kelvane::cli {

// Reads the arguments and runs the subcommand that they ask for. Returns the exit status; throws
// what the subcommand throws.
int parseAndRun(int argc, char** argv);

} // namespace kelvane::cli
