// Parts of a report that more than one command prints as JSON.
#pragma once

#include "client/client.h"

#include <nlohmann/json_fwd.hpp>

namespace kelvane::cli {

nlohmann::ordered_json latenessJson(const client::LatencyStatistics& latency);

} // namespace kelvane::cli
