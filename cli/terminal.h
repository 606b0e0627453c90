// What the terminal at the other end can show.
#pragma once

#include <string>

namespace kelvane::cli {

// Colour is for a person at a terminal who has not asked to be spared (NO_COLOR, TERM=dumb).
bool wantsColour(int descriptor);

bool isTerminal(int descriptor);

// Columns of the terminal; 80 when it doesn't tell.
int terminalWidth(int descriptor);

// "kelvane: TEXT" on standard error.
void printError(const std::string& text);

// "kelvane: note: TEXT" there, from any thread.
void printNote(const std::string& text);

// Standard output is checked once, at the end: a full disk must not look like success.
// Throws InputError.
void flushStandardOutput();

} // namespace kelvane::cli
