// Requests to the interface itself.
#include "cli/bytes.h"
#include "cli/controlled_run.h"

#include <algorithm>

namespace kelvane::cli {
namespace {

using client::AudioRequest;
using client::InputError;

constexpr std::size_t kMostSubranges = 16; // to be read when nothing else is said

std::size_t lengthToRead(const RequestOptions& options) {
    if (options.length) {
        return *options.length;
    }
    return options.target.request == AudioRequest::kRange
               ? 2 + kMostSubranges * 3 * options.valueBytes
               : options.valueBytes;
}

struct Subrange {
    std::uint32_t minimum, maximum, step;
};

// USB Audio 2.0, 5.2.3: a count, then minimum, maximum and resolution of each subrange. Those that
// did not fit are left out.
std::vector<Subrange> subranges(std::span<const std::byte> reply, std::size_t valueBytes) {
    std::vector<Subrange> ranges;
    const std::size_t count = littleEndian(reply, 2);
    const std::size_t each = 3 * valueBytes;
    for (std::size_t at = 2; ranges.size() < count && at + each <= reply.size(); at += each) {
        ranges.push_back({.minimum = littleEndian(reply.subspan(at), valueBytes),
                          .maximum = littleEndian(reply.subspan(at + valueBytes), valueBytes),
                          .step = littleEndian(reply.subspan(at + 2 * valueBytes), valueBytes)});
    }
    return ranges;
}

// The driver fills the rest of the buffer with zeros: what counts is what the reply says of itself.
ControlResult describeRange(std::vector<std::byte> reply, const RequestOptions& options) {
    const std::vector<Subrange> ranges = subranges(reply, options.valueBytes);
    if (!options.length) {
        reply.resize(2 + ranges.size() * 3 * options.valueBytes);
    }
    ControlResult result{.text = hexDump(reply), .json = {{"bytes", hexBytes(reply)}}};
    ControlJson list = ControlJson::array();
    for (const Subrange& range : ranges) {
        result.text += range.minimum == range.maximum
                           ? fmt::format("{}\n", range.minimum)
                           : fmt::format("{} to {} in steps of {}\n", range.minimum, range.maximum,
                                         range.step);
        list.push_back(
            {{"minimum", range.minimum}, {"maximum", range.maximum}, {"step", range.step}});
    }
    result.json["subranges"] = list;
    return result;
}

ControlResult describeCurrent(const std::vector<std::byte>& reply) {
    ControlResult result{.text = {}, .json = {{"bytes", hexBytes(reply)}}};
    if (reply.size() > 4) {
        result.text = hexDump(reply);
        return result;
    }
    const std::uint32_t value = littleEndian(reply, reply.size());
    result.text = fmt::format("{}    {}\n", hexBytes(reply), value);
    result.json["value"] = value;
    return result;
}

} // namespace

int request(const RequestOptions& options) {
    const AudioRequest& target = options.target;
    const bool set = !options.data.empty();
    return runControl("request", options, [&](ControlledDevice& device) {
        ControlResult result;
        if (set) {
            device.control().setAudio(target, options.data);
            result.text = fmt::format("set to {}\n", hexBytes(options.data));
            result.json = {{"bytes", hexBytes(options.data)}};
        } else {
            auto reply = device.control().getAudio(target, lengthToRead(options));
            result = target.request == AudioRequest::kRange
                         ? describeRange(std::move(reply), options)
                         : describeCurrent(reply);
        }
        ControlJson json = {{"request", target.request},
                            {"entity", target.entity},
                            {"selector", target.selector},
                            {"channel", target.channel},
                            {"set", set}};
        json.update(result.json);
        result.json = json;
        return result;
    });
}

int control(const TransferOptions& options) {
    const client::ControlSetup& setup = options.setup;
    if (setup.isIn() ? !options.data.empty() : options.length != 0) {
        throw InputError(fmt::format(
            "bmRequestType 0x{:02x} {}", setup.requestType,
            setup.isIn() ? "reads from the interface: --length is expected, and no --data"
                         : "writes to the interface: --data is expected, and no --length"));
    }
    return runControl("control", options, [&](ControlledDevice& device) {
        std::vector<std::byte> moved = options.data;
        if (setup.isIn()) {
            moved = device.control().controlIn(setup, options.length);
        } else {
            device.control().controlOut(setup, moved);
        }
        return ControlResult{.text = fmt::format("{} byte{} {}\n{}", moved.size(),
                                                 moved.size() == 1 ? "" : "s",
                                                 setup.isIn() ? "read" : "written", hexDump(moved)),
                             .json = {{"bmRequestType", setup.requestType},
                                      {"bRequest", setup.request},
                                      {"wValue", setup.value},
                                      {"wIndex", setup.index},
                                      {"bytes", hexBytes(moved)}}};
    });
}

} // namespace kelvane::cli
