// What a serving process tells of its machine, as payloads. Writers and readers of one kind stand
// together. The readers throw ConversationError. Internal to the client.
#pragma once

#include "client/client.h"
#include "client/conversation.h"
#include "client/host.h"

#include <cstddef>
#include <span>
#include <string>
#include <vector>

namespace kelvane::client {

struct ServedDescription {
    std::vector<InterfaceInfo> interfaces;
    std::vector<ClockInfo> clocks;
    std::vector<std::uint32_t> rates;
};
std::vector<std::byte> writeDescription(const ServedDescription& description);
ServedDescription readDescription(std::span<const std::byte> payload);

std::vector<std::byte> writeCounters(const HostCounters& counters);
HostCounters readCounters(std::span<const std::byte> payload);

std::vector<std::byte> writeStreams(const std::vector<OpenStream>& streams);
std::vector<OpenStream> readStreams(std::span<const std::byte> payload);

std::vector<std::byte> writeLines(std::span<const std::string> lines);
std::vector<std::string> readLines(std::span<const std::byte> payload);

} // namespace kelvane::client
