#include "cli/inspect.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <cstddef>

namespace kelvane::cli {
namespace {

using Json = nlohmann::ordered_json;
using devices::Inspection;

const char* directionName(bool isInput) {
    return isInput ? "input" : "output";
}

template <class T>
Json orNull(const std::optional<T>& value) {
    return value ? Json(*value) : Json(nullptr);
}

template <class Items, class Routine>
Json arrayOf(const Items& items, Routine routine) {
    Json array = Json::array();
    for (const auto& item : items) {
        array.push_back(routine(item));
    }
    return array;
}

Json findingJson(const devices::Finding& finding) {
    return {{"offset", finding.offset}, {"text", finding.text}};
}

const char* verdictName(devices::Verdict verdict) {
    constexpr const char* kNames[] = {"accepted", "firmware-upgrade", "refused"};
    return kNames[static_cast<std::size_t>(verdict)];
}

Json streamJson(const devices::StreamView& stream) {
    constexpr const char* kPaces[] = {"nominal", "feedback", "input"};
    const Json rates = arrayOf(stream.rates, [](const devices::RateChoice& choice) -> Json {
        return {{"rate", choice.rate},        {"setting", choice.setting},
                {"offset", choice.offset},    {"neededBytes", choice.needed},
                {"packetBytes", choice.room}, {"fits", choice.fits()}};
    });
    return {{"interface", stream.interfaceNumber},
            {"direction", directionName(stream.isInput)},
            {"replaced", stream.replaced},
            {"setting", stream.setting},
            {"offset", stream.offset},
            {"channels", stream.channels},
            {"subslotBytes", stream.subslotBytes},
            {"bits", stream.bits},
            {"endpoint", stream.endpoint},
            {"feedbackEndpoint",
             stream.feedbackEndpoint == 0 ? Json(nullptr) : Json(stream.feedbackEndpoint)},
            {"pacedBy",
             stream.isInput ? Json(nullptr) : Json(kPaces[static_cast<std::size_t>(stream.pace)])},
            {"rates", rates}};
}

Json clockJson(const devices::ClockView& clock) {
    return {
        {"offset", clock.offset},     {"id", clock.id},       {"type", clockTypeName(clock.type)},
        {"controls", clock.controls}, {"inUse", clock.inUse}, {"rates", clock.rates}};
}

Json portJson(const devices::MidiPortView& port) {
    return {{"interface", port.interfaceNumber},
            {"endpoint", port.endpoint},
            {"direction", directionName(port.isInput)},
            {"cable", port.cable},
            {"pin", orNull(port.pin)}};
}

Json pinJson(const devices::PinView& pin) {
    return {{"id", pin.id},
            {"kind", pinKindName(pin.kind)},
            {"direction", directionName(pin.isInput)},
            {"dataFlow", pin.intoFilter() ? "in" : "out"},
            {"interface", pin.interfaceNumber}};
}

Json problemJson(const devices::Problem& problem) {
    return {{"offset", problem.offset},
            {"severity", severityName(problem.severity)},
            {"text", problem.text}};
}

Json descriptorJson(const devices::Descriptor& descriptor) {
    Json fields = Json::object();
    for (const devices::Field& field : descriptor.fields.fields) {
        fields[field.name] = field.isList ? Json(field.values) : Json(field.values.front());
    }
    std::string bytes;
    for (const std::byte byte : descriptor.view.bytes()) {
        bytes += fmt::format("{:02x}", std::to_integer<unsigned>(byte));
    }
    const bool hasSubtype = descriptor.fields.hasSubtype && descriptor.view.length() >= 3;
    return {{"offset", descriptor.offset()},
            {"length", descriptor.view.length()},
            {"type", descriptor.type()},
            {"subtype", hasSubtype ? Json(descriptor.view.subtype()) : Json(nullptr)},
            {"name", descriptor.fields.name},
            {"fields", fields},
            {"bytes", bytes}};
}

// Each with the interface that it belongs to, the one of the interface descriptor in front.
Json descriptorsJson(const devices::Dissection& dissection) {
    Json interface = nullptr;
    Json setting = nullptr;
    return arrayOf(dissection.descriptors, [&](const devices::Descriptor& descriptor) {
        if (const auto number = descriptor.value("bInterfaceNumber")) {
            interface = *number;
            setting = orNull(descriptor.value("bAlternateSetting"));
        } else if (descriptor.value("bFirstInterface") || descriptor.value("bNumInterfaces")) {
            interface = nullptr;
            setting = nullptr;
        }
        Json json = descriptorJson(descriptor);
        json["interface"] = interface;
        json["setting"] = setting;
        return json;
    });
}

} // namespace

std::string inspectionJson(const Inspection& inspection, const std::string& device) {
    const devices::Dissection& dissection = inspection.dissection;
    const Json document = {
        {"version", 1},
        {"command", "inspect"},
        {"device", device},
        {"vendorId", dissection.vendor()},
        {"productId", dissection.product()},
        {"speed", inspection.speed == devices::Speed::High ? "high" : "full"},
        {"bytes", dissection.bytes.size()},
        {"complete", !dissection.end.has_value()},
        {"verdict", verdictName(inspection.verdict)},
        {"reasons", arrayOf(inspection.reasons, findingJson)},
        {"refusedByVendorOnly", inspection.refusedByVendorOnly},
        {"doubt", inspection.doubt.empty() ? Json(nullptr) : Json(inspection.doubt)},
        {"streams", arrayOf(inspection.streams, streamJson)},
        {"clocks", arrayOf(inspection.clocks, clockJson)},
        {"clockSelector", orNull(inspection.clockSelector)},
        {"primesClock", inspection.primesClock},
        {"hearsClockChanges", inspection.hearsClockChanges},
        {"midiPorts", arrayOf(inspection.midiPorts, portJson)},
        {"pins", arrayOf(inspection.pins, pinJson)},
        {"ignored", arrayOf(inspection.ignored, findingJson)},
        {"problems", arrayOf(inspection.problems, problemJson)},
        {"descriptors", descriptorsJson(dissection)}};
    return document.dump(2, ' ', false, Json::error_handler_t::replace);
}

} // namespace kelvane::cli
