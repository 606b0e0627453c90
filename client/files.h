// Files that are written beside their name and get it when they are whole, as an interface's
// output is.
#pragma once

#include <string>

namespace kelvane::client {

// Where `path` leads: the target of a symbolic link, or itself.
std::string linkTarget(const std::string& path);

// Makes an empty file beside `path` under a name that nothing has. Returns that name; empty, with
// the reason in errno, when nothing can be written there.
std::string makePartFile(const std::string& path);

} // namespace kelvane::client
