// The trace lines that tell of trouble, as the reports have them.
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

namespace kelvane::cli {

std::string warningText(const std::vector<std::string>& warnings); // lines that end in a newline
nlohmann::ordered_json warningsJson(const std::vector<std::string>& warnings);

} // namespace kelvane::cli
