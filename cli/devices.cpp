// `kelvane devices`, and the options that choose a device.
#include "cli/command.h"

#include "cli/terminal.h"

#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <charconv>

namespace kelvane::cli {
namespace {

int listDevices(bool json) {
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

// A vendor ID is four hexadecimal digits, as lsusb prints it, with or without 0x.
std::uint16_t parseVendor(const std::string& text) {
    std::string_view digits = text;
    if (digits.starts_with("0x") || digits.starts_with("0X")) {
        digits.remove_prefix(2);
    }
    std::uint16_t vendor = 0;
    const char* end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, vendor, 16);
    if (digits.empty() || error != std::errc() || stop != end) {
        throw CLI::ValidationError(
            "--as-vendor", fmt::format("'{}' is no vendor ID; up to four hexadecimal digits, as in "
                                       "20b1, are expected",
                                       text));
    }
    return vendor;
}

} // namespace

void addDevices(CLI::App& app, Action& action) {
    CLI::App* command = app.add_subcommand("devices", "List the built-in simulated interfaces");
    auto json = std::make_shared<bool>(false);
    command->add_flag("--json", *json, "Print JSON");
    command->footer(
        "Example:\n  kelvane devices\n\nA descriptor dump serves as well: a file of the "
        "18-byte device descriptor followed by\nthe whole configuration descriptor.");
    command->callback([&action, json] {
        action = [json] {
            return listDevices(*json);
        };
    });
}

void addDeviceOptions(CLI::App& command, client::SystemOptions& options, bool positional) {
    command
        .add_option(positional ? "device,--device" : "--device", options.device,
                    "Built-in interface (see 'kelvane devices'), or the file of a descriptor dump")
        ->type_name("MODEL|DUMP.bin")
        ->capture_default_str();
    command
        .add_option_function<std::string>(
            "--as-vendor",
            [&options](const std::string& text) { options.asVendor = parseVendor(text); },
            "Present the device under this vendor ID, four hexadecimal digits")
        ->type_name("VID");
    command
        .add_option("--ppm", options.ppm,
                    "How far the device's sample clock is off bus time, in parts per million")
        ->type_name("PPM")
        ->check(CLI::Range(-10'000.0, 10'000.0));
}

} // namespace kelvane::cli
