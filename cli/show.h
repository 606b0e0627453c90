// What the driver publishes of an interface, in three forms.
#pragma once

#include "client/client.h"

#include <nlohmann/json.hpp>

#include <string>

namespace kelvane::cli {

std::string showText(const client::FilterInfo& filter);
// The shape is documented in docs/command.md; "version" is 1.
nlohmann::ordered_json showJson(const client::FilterInfo& filter, const std::string& device);
// The filter as a Graphviz graph: pins as boxes, nodes as ellipses, data flow from left to right.
std::string showDot(const client::FilterInfo& filter);

} // namespace kelvane::cli
