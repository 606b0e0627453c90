// What the standards and the driver ask of descriptors and these lack, each with its place.
#pragma once

#include "devices/inspection.h"

#include <fmt/format.h>

#include <map>
#include <string>
#include <vector>

namespace kelvane::devices {

class Examiner {
public:
    // The inspection is complete but for its problems, which `run` fills in.
    explicit Examiner(Inspection& inspection) : m_result(inspection) {}
    void run();

private:
    template <class... Args>
    void report(Severity severity, std::size_t offset, fmt::format_string<Args...> text,
                Args&&... args) {
        m_result.problems.push_back(
            {offset, severity, fmt::format(text, std::forward<Args>(args)...)});
    }
    template <class... Args>
    void error(std::size_t offset, fmt::format_string<Args...> text, Args&&... args) {
        report(Severity::Error, offset, text, std::forward<Args>(args)...);
    }
    template <class... Args>
    void warn(std::size_t offset, fmt::format_string<Args...> text, Args&&... args) {
        report(Severity::Warning, offset, text, std::forward<Args>(args)...);
    }

    // USB 2.0, chapter 9: examine.cpp.
    void checkDevice();
    void checkWalk();
    void checkLength(const Descriptor& descriptor);
    void checkConfiguration(const DissectedConfiguration& configuration);
    void checkNumbers(const DissectedConfiguration& configuration);
    void checkAssociations(const DissectedConfiguration& configuration);
    void checkSetting(const DissectedConfiguration& configuration, const DissectedSetting& setting);
    void checkEndpoint(const DissectedSetting& setting, const DissectedEndpoint& endpoint);
    void checkPacketSize(const DissectedEndpoint& endpoint);
    void checkTransactions(const DissectedEndpoint& endpoint);
    void checkSharedEndpoints(const DissectedConfiguration& configuration);

    // UAC2, 4.7: examine_control.cpp.
    struct Entity {
        std::uint8_t id = 0;
        const Descriptor* descriptor = nullptr;
        bool isClock() const;
    };
    void checkControl(const DissectedSetting& setting);
    void checkHeader(const DissectedSetting& setting);
    void checkIds();
    void checkLinks();
    void checkLink(const Descriptor& descriptor, const char* field, bool toClock);
    void checkClockSource(const Descriptor& clock);
    void checkClockSelector(const Descriptor& selector);
    void checkClockOrder(const Descriptor& selector);
    void checkInterruptEndpoint(const DissectedSetting& setting);
    const Entity* entity(std::uint32_t id) const;

    // UAC2, 4.9 and 4.10, and USB-MIDI: examine_streams.cpp.
    void checkStreams();
    const DissectedSetting* settingAt(std::size_t offset) const;
    void checkStreamView(const StreamView& stream);
    void checkRates(const StreamView& stream, const DissectedSetting& setting);
    void checkFeedback(const StreamView& stream, const DissectedSetting& setting);
    void checkStreaming(const DissectedSetting& setting);
    void checkGeneral(const Descriptor& general);
    void checkFormat(const DissectedSetting& setting, const Descriptor& format);
    void checkDataEndpoint(const DissectedSetting& setting, const DissectedEndpoint& endpoint);
    void checkMidi(const DissectedSetting& setting);
    void checkJacks(const DissectedSetting& setting);
    void checkMidiEndpoint(const DissectedSetting& setting, const DissectedEndpoint& endpoint);

    Inspection& m_result;
    const DissectedConfiguration* m_configuration = nullptr; // being looked at
    std::vector<Entity> m_entities;                          // of its AudioControl interface
};

} // namespace kelvane::devices
