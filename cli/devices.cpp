#include "cli/commands.h"

#include "cli/terminal.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>

namespace kelvane::cli {

int devices(bool json) {
    const std::vector<client::ModelInfo> models = client::builtInModels();
    if (json) {
        nlohmann::ordered_json list = nlohmann::ordered_json::array();
        for (const client::ModelInfo& model : models) {
            list.push_back({{"name", model.name}, {"text", model.text}});
        }
        const nlohmann::ordered_json document = {
            {"version", 1}, {"command", "devices"}, {"models", list}};
        fmt::print("{}\n", document.dump(2));
    } else {
        std::size_t width = 0;
        for (const client::ModelInfo& model : models) {
            width = std::max(width, model.name.size());
        }
        for (const client::ModelInfo& model : models) {
            fmt::print("{:<{}}  {}\n", model.name, width, model.text);
        }
    }
    flushStandardOutput();
    return 0;
}

} // namespace kelvane::cli
