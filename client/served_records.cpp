#include "client/served_records.h"

namespace kelvane::client {
namespace {

// A count, then each item as `write` has it.
template <class Items, class Write>
void putAll(PayloadWriter& writer, const Items& items, Write write) {
    writer.put(static_cast<std::uint32_t>(items.size()));
    for (const auto& item : items) {
        write(item);
    }
}

// Items are read one by one: a count that promises too many ends where the payload does.
template <class Item, class Read>
std::vector<Item> takeAll(PayloadReader& reader, Read read) {
    std::vector<Item> items;
    for (auto left = reader.take<std::uint32_t>(); left != 0; --left) {
        items.push_back(read());
    }
    return items;
}

} // namespace

std::vector<std::byte> writeDescription(const ServedDescription& description) {
    PayloadWriter writer;
    putAll(writer, description.interfaces, [&](const InterfaceInfo& interface) {
        writer.put(interface.number).put(interface.chosenSetting).putText(interface.what);
        putAll(writer, interface.endpoints, [&](const EndpointInfo& endpoint) {
            writer.put(endpoint.address)
                .putText(endpoint.kind)
                .put(endpoint.maximumPacketSize)
                .put(endpoint.interval);
        });
    });
    putAll(writer, description.clocks, [&](const ClockInfo& clock) {
        writer.put(clock.id).putText(clock.name).putText(clock.type).put(clock.rate);
        putAll(writer, clock.rates, [&](std::uint32_t rate) { writer.put(rate); });
    });
    putAll(writer, description.rates, [&](std::uint32_t rate) { writer.put(rate); });
    return writer.take();
}

ServedDescription readDescription(std::span<const std::byte> payload) {
    PayloadReader reader(payload);
    const auto readRates = [&] {
        return takeAll<std::uint32_t>(reader, [&] { return reader.take<std::uint32_t>(); });
    };
    ServedDescription description;
    description.interfaces = takeAll<InterfaceInfo>(reader, [&] {
        InterfaceInfo interface;
        interface.number = reader.take<std::uint32_t>();
        interface.chosenSetting = reader.take<std::uint32_t>();
        interface.what = reader.takeText();
        interface.endpoints = takeAll<EndpointInfo>(reader, [&] {
            EndpointInfo endpoint;
            endpoint.address = reader.take<std::uint8_t>();
            endpoint.kind = reader.takeText();
            endpoint.maximumPacketSize = reader.take<std::uint32_t>();
            endpoint.interval = reader.take<std::uint32_t>();
            return endpoint;
        });
        return interface;
    });
    description.clocks = takeAll<ClockInfo>(reader, [&] {
        ClockInfo clock;
        clock.id = reader.take<std::uint8_t>();
        clock.name = reader.takeText();
        clock.type = reader.takeText();
        clock.rate = reader.take<std::uint32_t>();
        clock.rates = readRates();
        return clock;
    });
    description.rates = readRates();
    return description;
}

std::vector<std::byte> writeCounters(const HostCounters& counters) {
    return PayloadWriter()
        .put(counters.bus)
        .put(counters.converter)
        .put(counters.input)
        .put(counters.midi)
        .put(counters.poolAllocations)
        .put(counters.feedbackRate.value_or(0.0))
        .take();
}

HostCounters readCounters(std::span<const std::byte> payload) {
    PayloadReader reader(payload);
    HostCounters counters;
    counters.bus = reader.take<usb::BusCounters>();
    counters.converter = reader.take<devices::OutputCounters>();
    counters.input = reader.take<devices::InputCounters>();
    counters.midi = reader.take<MidiCounters>();
    counters.poolAllocations = reader.take<std::uint64_t>();
    const auto rate = reader.take<double>();
    if (rate != 0.0) {
        counters.feedbackRate = rate;
    }
    return counters;
}

std::vector<std::byte> writeStreams(const std::vector<OpenStream>& streams) {
    PayloadWriter writer;
    putAll(writer, streams, [&](const OpenStream& stream) {
        writer.put(std::uint8_t{stream.input}).put(stream.format).put(stream.latency);
    });
    return writer.take();
}

std::vector<OpenStream> readStreams(std::span<const std::byte> payload) {
    PayloadReader reader(payload);
    return takeAll<OpenStream>(reader, [&] {
        OpenStream stream;
        stream.input = reader.take<std::uint8_t>() != 0;
        stream.format = reader.take<PcmFormat>();
        stream.latency = reader.take<LatencyStatistics>();
        return stream;
    });
}

std::vector<std::byte> writeLines(std::span<const std::string> lines) {
    PayloadWriter writer;
    putAll(writer, lines, [&](const std::string& line) { writer.putText(line); });
    return writer.take();
}

std::vector<std::string> readLines(std::span<const std::byte> payload) {
    PayloadReader reader(payload);
    return takeAll<std::string>(reader, [&] { return reader.takeText(); });
}

} // namespace kelvane::client
