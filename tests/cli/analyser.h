// What tshark, which is none of ours, makes of a capture.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

namespace kelvane::test {

using Words = std::vector<std::string>;

// The fields of each frame that passes the filter.
std::vector<Words> tshark(const std::filesystem::path& file, const std::string& filter,
                          const Words& fields);
// Of a field; 0 when it is empty.
std::size_t number(const std::string& text);
// Every frame is understood to its end, every transfer that started has ended, and times rise.
void expectSound(const std::filesystem::path& file);

} // namespace kelvane::test
