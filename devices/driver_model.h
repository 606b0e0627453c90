// The steps by which the driver takes a device, as far as descriptors decide them. Fills in an
// Inspection: everything but its problems.
#pragma once

#include "devices/inspection.h"

#include <functional>
#include <string>
#include <vector>

namespace kelvane::devices {

// "AudioStreaming", "HID", "class 0a/00".
std::string interfaceName(const DescriptorContext& context);

class DriverModel {
public:
    // The inspection has its dissection and its speed. Both outlive the model.
    DriverModel(Inspection& inspection, const InspectOptions& options);
    void run();

private:
    // What is known of a stream while the driver reads its settings.
    struct Choice {
        const DissectedSetting* setting = nullptr; // chosen; null: none yet
        std::uint8_t endpoint = 0;
        std::uint8_t feedback = 0;
        std::uint8_t channels = 0;
        std::uint8_t subslotBytes = 0;
        std::uint8_t bits = 0;
        bool anyGeneral = false; // an AS_GENERAL was met, in whichever setting
        std::uint32_t frameBytes() const { return std::uint32_t{channels} * subslotBytes; }
    };

    void refuse(std::size_t offset, std::string reason);
    void ignore(std::size_t offset, std::string what);

    // Opening: false, with a reason, when the driver gives up there.
    bool readConfiguration();
    bool checkDescriptors();
    bool selectConfiguration();
    bool hasBandwidth();
    bool readProductString();
    bool isUpgrade() const;
    void checkVendor();

    // Enumeration.
    void enumerate();
    void takeControl(std::size_t slot);
    void takeClocks(const DissectedSetting& control);
    void takeClock(const Descriptor& source, std::size_t count);
    void findInterruptPipe(const DissectedSetting& control);
    void checkClock();
    void findDoubts();
    std::vector<std::uint32_t> ratesOf(const ClockView& clock) const;

    void takeStream(std::size_t slot);
    std::string choose(const DissectedSetting& first, std::uint32_t rate, Choice& choice) const;
    static Choice readSetting(const DissectedSetting& setting, std::uint32_t rate);
    std::vector<const DissectedSetting*> settingsOf(std::uint8_t number) const;
    StreamView viewOf(const DissectedSetting& first, const Choice& choice) const;
    void chooseRates();
    std::uint32_t startRate(const std::vector<std::uint32_t>& rates) const;
    void ignoreSettings();

    void takeMidi(std::size_t slot);
    void addPorts(const DissectedSetting& setting, const DissectedEndpoint& endpoint);
    std::optional<std::uint32_t> addPins(PinView::Kind kind, bool input, std::uint8_t number);

    void ignoreRest();
    void ignoreInterfaces();
    void ignoreEntities();

    Inspection& m_result;
    const InspectOptions& m_options;
    const DissectedConfiguration* m_configuration = nullptr;
    std::vector<const DissectedSetting*> m_slots; // interfaces in the driver's order; null: empty
    const DissectedSetting* m_control = nullptr;
    std::vector<const DissectedSetting*> m_used; // setting 0 of what the driver makes use of
    std::vector<std::pair<const DissectedSetting*, Choice>> m_streams; // as m_result.streams
};

} // namespace kelvane::devices
