#include "cli/descriptor.h"

#include "cli/bytes.h"
#include "cli/controlled_run.h"
#include "cli/partfile.h"
#include "cli/terminal.h"

#include <unistd.h>

#include <cstdio>

namespace kelvane::cli {
namespace {

using client::DecodedDescriptor;
using client::DescriptorField;

constexpr std::uint8_t kStringType = 3;
constexpr std::uint16_t kEnglishUs = 0x0409;

// "iProduct": the number of a string.
bool namesString(const DescriptorField& field) {
    return field.name.size() > 1 && field.name[0] == 'i' && field.name[1] >= 'A' &&
           field.name[1] <= 'Z' && !field.isList;
}

std::string valueText(const DescriptorField& field) {
    std::string text;
    for (const std::uint32_t value : field.values) {
        text += fmt::format("{}0x{:0{}x}", text.empty() ? "" : " ", value, 2 * field.size);
    }
    if (field.values.size() == 1 && !field.name.starts_with("bm")) {
        text += fmt::format(" {:>6}", field.values.front());
    }
    return text;
}

std::string fieldText(const DecodedDescriptor& descriptor, const DescriptorField& field,
                      const StringReader& strings) {
    std::string meaning = fieldMeaning(descriptor, field);
    if (namesString(field) && !field.values.empty() && field.values.front() != 0) {
        const std::string text = strings(field.values.front());
        meaning = text.empty() ? "" : "'" + text + "'";
    }
    std::string line = fmt::format("    {:<20} {:<18} {}", field.name, valueText(field), meaning);
    line.erase(line.find_last_not_of(' ') + 1);
    return line + '\n';
}

void appendUtf8(std::string& text, std::uint32_t point) {
    if (point < 0x80) {
        text += static_cast<char>(point);
    } else if (point < 0x800) {
        text += static_cast<char>(0xC0 | point >> 6);
        text += static_cast<char>(0x80 | (point & 0x3F));
    } else if (point < 0x10000) {
        text += static_cast<char>(0xE0 | point >> 12);
        text += static_cast<char>(0x80 | (point >> 6 & 0x3F));
        text += static_cast<char>(0x80 | (point & 0x3F));
    } else {
        text += static_cast<char>(0xF0 | point >> 18);
        text += static_cast<char>(0x80 | (point >> 12 & 0x3F));
        text += static_cast<char>(0x80 | (point >> 6 & 0x3F));
        text += static_cast<char>(0x80 | (point & 0x3F));
    }
}

// String 0 has no text, but the languages that there are (USB 2.0, 9.6.7).
std::string languagesText(std::span<const std::byte> descriptor) {
    std::string text;
    for (std::size_t at = 2; at + 2 <= descriptor.size(); at += 2) {
        const std::uint32_t language = littleEndian(descriptor.subspan(at), 2);
        text += fmt::format("language 0x{:04x}{}\n", language,
                            language == kEnglishUs ? ", US English" : "");
    }
    return text;
}

ControlJson fieldJson(const DescriptorField& field) {
    if (!field.isList) {
        return field.values.front();
    }
    return field.values;
}

ControlJson descriptorsJson(std::span<const std::byte> bytes) {
    ControlJson list = ControlJson::array();
    for (const DecodedDescriptor& descriptor : client::decodeDescriptors(bytes)) {
        ControlJson fields = ControlJson::object();
        for (const DescriptorField& field : descriptor.fields) {
            fields[field.name] = fieldJson(field);
        }
        list.push_back({{"offset", descriptor.offset},
                        {"name", descriptor.name},
                        {"bytes", hexBytes(descriptor.bytes)},
                        {"fields", fields}});
    }
    return list;
}

std::vector<std::byte> readDescriptor(client::Control& control, const DescriptorOptions& options) {
    const bool text = options.type == kStringType && options.index != 0;
    return control.descriptor(options.type, options.index,
                              options.language.value_or(text ? kEnglishUs : 0));
}

int writeRaw(const DescriptorOptions& options) {
    if (isTerminal(STDOUT_FILENO)) {
        throw client::InputError("--raw writes bytes, which are nothing for a terminal: redirect "
                                 "standard output to a file or a pipe");
    }
    checkFiles({.read = {options.system.device}, .written = {}, .log = options});
    RunLog log(options);
    std::vector<std::byte> bytes;
    {
        const auto device = openControlled(options, log);
        bytes = readDescriptor(device->control(), options);
    }
    std::fwrite(bytes.data(), 1, bytes.size(), stdout);
    flushStandardOutput();
    log.finish();
    return 0;
}

} // namespace

std::string stringOf(std::span<const std::byte> descriptor) {
    std::string text;
    for (std::size_t at = 2; at + 2 <= descriptor.size(); at += 2) {
        std::uint32_t point = littleEndian(descriptor.subspan(at), 2);
        if (point >= 0xD800 && point < 0xE000) { // a surrogate: half of a pair, or alone
            const std::uint32_t low =
                at + 4 <= descriptor.size() ? littleEndian(descriptor.subspan(at + 2), 2) : 0;
            const bool pair = point < 0xDC00 && low >= 0xDC00 && low < 0xE000;
            point = pair ? 0x10000 + ((point - 0xD800) << 10) + (low - 0xDC00) : 0xFFFD;
            at += pair ? 2 : 0;
        }
        appendUtf8(text, point);
    }
    return text;
}

StringReader readStringsOf(client::Control& control) {
    return [&control](std::uint32_t index) -> std::string {
        try {
            return stringOf(
                control.descriptor(kStringType, static_cast<std::uint8_t>(index), kEnglishUs));
        } catch (const client::StatusError&) {
            return {};
        }
    };
}

std::string descriptorText(std::span<const std::byte> bytes, const StringReader& strings,
                           bool colour) {
    std::string text;
    std::size_t end = 0;
    for (const DecodedDescriptor& descriptor : client::decodeDescriptors(bytes)) {
        text +=
            fmt::format("{:04x}  {}{}{}, {} bytes\n", descriptor.offset, colour ? "\x1b[1m" : "",
                        descriptor.name, colour ? "\x1b[0m" : "", descriptor.bytes.size());
        for (const DescriptorField& field : descriptor.fields) {
            text += fieldText(descriptor, field, strings);
        }
        end = descriptor.offset + descriptor.bytes.size();
    }
    if (end < bytes.size()) {
        text += fmt::format("{:04x}  no whole descriptor: {}\n", end, hexBytes(bytes.subspan(end)));
    }
    return text;
}

int descriptor(const DescriptorOptions& options) {
    if (options.raw) {
        return writeRaw(options);
    }
    return runControl("descriptor", options, [&](ControlledDevice& device) {
        const std::vector<std::byte> bytes = readDescriptor(device.control(), options);
        ControlResult result;
        result.json = {{"type", options.type},
                       {"index", options.index},
                       {"length", bytes.size()},
                       {"bytes", hexBytes(bytes)}};
        if (options.type != kStringType) {
            result.text =
                descriptorText(bytes, readStringsOf(device.control()), wantsColour(STDOUT_FILENO));
            result.json["descriptors"] = descriptorsJson(bytes);
        } else if (options.index == 0) {
            result.text = languagesText(bytes);
        } else {
            result.text = stringOf(bytes) + '\n';
            result.json["text"] = stringOf(bytes);
        }
        return result;
    });
}

} // namespace kelvane::cli
