// Writes the descriptors of a built-in model, one call per descriptor, fields in the order of the
// standards (USB 2.0, 9.6; UAC2, 4.7 to 4.10; USB-MIDI, 6). Totals and counts are filled in by
// `finish`.
#pragma once

#include "devices/usb_spec.h"

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <vector>

namespace kelvane::devices {

class DescriptorWriter {
public:
    struct Device {
        std::uint16_t idVendor = 0;
        std::uint16_t idProduct = 0;
        std::uint8_t iManufacturer = 0;
        std::uint8_t iProduct = 0;
        std::uint8_t iSerialNumber = 0;
    };
    // High speed, one configuration, functions told by interface associations.
    void device(const Device& fields);
    // The same with one interface that tells its class itself.
    void plainDevice(const Device& fields);
    void configuration(std::uint8_t bmAttributes, std::uint8_t maxPower);
    void audioFunction(std::uint8_t firstInterface, std::uint8_t interfaces);
    void interface(std::uint8_t number, std::uint8_t setting, std::uint8_t interfaceClass,
                   std::uint8_t subClass, std::uint8_t protocol, std::uint8_t iInterface = 0);
    void endpoint(std::uint8_t address, std::uint8_t attributes, std::uint16_t packetSize,
                  std::uint8_t bInterval);
    // An endpoint of a high-speed interface with room for `bytes` in each service, in as few
    // transactions as can be, 3 at most: up to 3072 bytes.
    void isochronous(std::uint8_t address, std::uint8_t attributes, std::uint32_t bytes,
                     std::uint8_t bInterval);
    void dfuFunctional(std::uint8_t attributes, std::uint16_t detachTimeout,
                       std::uint16_t transferSize);

    void controlHeader(std::uint8_t bCategory);
    void clockSource(std::uint8_t id, std::uint8_t attributes, std::uint8_t controls,
                     std::uint8_t iClockSource);
    void clockSelector(std::uint8_t id, std::initializer_list<std::uint8_t> sources,
                       std::uint8_t controls, std::uint8_t iClockSelector);
    void inputTerminal(std::uint8_t id, std::uint16_t type, std::uint8_t clock,
                       std::uint8_t channels, std::uint32_t channelConfig,
                       std::uint8_t iChannelNames = 0, std::uint8_t iTerminal = 0);
    void outputTerminal(std::uint8_t id, std::uint16_t type, std::uint8_t source,
                        std::uint8_t clock, std::uint8_t iTerminal = 0);

    void streamGeneral(std::uint8_t terminalLink, std::uint8_t channels,
                       std::uint32_t channelConfig, std::uint8_t iChannelNames = 0);
    void formatTypeI(std::uint8_t subslotBytes, std::uint8_t bits);
    void streamEndpoint();

    void midiHeader();
    void midiInJack(std::uint8_t jackType, std::uint8_t id, std::uint8_t iJack);
    // Its one input pin is fed by the first output pin of `source`.
    void midiOutJack(std::uint8_t jackType, std::uint8_t id, std::uint8_t source,
                     std::uint8_t iJack);
    // A bulk endpoint with its embedded jacks, `firstJack` and those behind it: cables 0, 1, ...
    void midiEndpoint(std::uint8_t address, std::uint16_t packetSize, std::uint8_t firstJack,
                      std::uint8_t jacks);

    std::vector<std::byte> finish();

private:
    void add(std::initializer_list<unsigned> bytes); // behind a bLength that is counted here
    void addDevice(const Device& fields, std::uint8_t deviceClass, std::uint8_t subClass,
                   std::uint8_t protocol);
    void patch(std::size_t at, std::size_t value, std::size_t size);
    void beginTotal(std::size_t field); // wTotalLength of a class-specific header written last
    void endTotal();

    std::vector<std::byte> m_bytes;
    std::size_t m_configuration = 0; // offsets of what is patched later; 0: none yet
    std::size_t m_interface = 0;
    std::size_t m_header = 0;
    std::size_t m_total = 0; // of m_header
    std::uint8_t m_interfaces = 0;
    std::uint8_t m_endpoints = 0; // of the interface descriptor being written
};

} // namespace kelvane::devices
