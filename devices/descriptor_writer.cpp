#include "devices/descriptor_writer.h"

namespace kelvane::devices {

namespace {

constexpr std::uint8_t kBulk = 0x02; // bmAttributes

unsigned low(std::uint32_t value) {
    return value & 0xFF;
}
unsigned high(std::uint32_t value) {
    return (value >> 8) & 0xFF;
}

} // namespace

void DescriptorWriter::add(std::initializer_list<unsigned> bytes) {
    m_bytes.push_back(static_cast<std::byte>(bytes.size() + 1));
    for (const unsigned value : bytes) {
        m_bytes.push_back(static_cast<std::byte>(value));
    }
}

void DescriptorWriter::patch(std::size_t at, std::size_t value, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i) {
        m_bytes[at + i] = static_cast<std::byte>(value >> (8 * i));
    }
}

void DescriptorWriter::device(const Device& fields) {
    addDevice(fields, 0xEF, 0x02, 0x01);
}

void DescriptorWriter::plainDevice(const Device& fields) {
    addDevice(fields, 0, 0, 0);
}

void DescriptorWriter::addDevice(const Device& fields, std::uint8_t deviceClass,
                                 std::uint8_t subClass, std::uint8_t protocol) {
    add({usb::kDevice, 0x00, 0x02, // bcdUSB 2.00
         deviceClass, subClass, protocol,
         64, // bMaxPacketSize0
         low(fields.idVendor), high(fields.idVendor), low(fields.idProduct), high(fields.idProduct),
         0x00, 0x01, // bcdDevice 1.00
         fields.iManufacturer, fields.iProduct, fields.iSerialNumber, 1});
}

void DescriptorWriter::configuration(std::uint8_t bmAttributes, std::uint8_t maxPower) {
    m_configuration = m_bytes.size();
    add({usb::kConfiguration, 0, 0, 0, 1, 0, bmAttributes, maxPower});
}

void DescriptorWriter::audioFunction(std::uint8_t firstInterface, std::uint8_t interfaces) {
    add({usb::kInterfaceAssociation, firstInterface, interfaces, usb::kAudio, 0,
         usb::kAudioVersion2, 0});
}

void DescriptorWriter::interface(std::uint8_t number, std::uint8_t setting,
                                 std::uint8_t interfaceClass, std::uint8_t subClass,
                                 std::uint8_t protocol, std::uint8_t iInterface) {
    endTotal();
    m_interface = m_bytes.size();
    m_endpoints = 0;
    if (setting == 0) {
        ++m_interfaces;
    }
    add({usb::kInterface, number, setting, 0, interfaceClass, subClass, protocol, iInterface});
}

void DescriptorWriter::endpoint(std::uint8_t address, std::uint8_t attributes,
                                std::uint16_t packetSize, std::uint8_t bInterval) {
    endTotal();
    patch(m_interface + 4, ++m_endpoints, 1);
    add({usb::kEndpoint, address, attributes, low(packetSize), high(packetSize), bInterval});
}

void DescriptorWriter::isochronous(std::uint8_t address, std::uint8_t attributes,
                                   std::uint32_t bytes, std::uint8_t bInterval) {
    const std::uint32_t transactions = (bytes + 1023) / 1024;
    const std::uint32_t size = (bytes + transactions - 1) / transactions;
    endpoint(address, attributes, static_cast<std::uint16_t>(size | (transactions - 1) << 11),
             bInterval);
}

void DescriptorWriter::dfuFunctional(std::uint8_t attributes, std::uint16_t detachTimeout,
                                     std::uint16_t transferSize) {
    add({usb::kDfuFunctional, attributes, low(detachTimeout), high(detachTimeout),
         low(transferSize), high(transferSize), 0x10, 0x01}); // bcdDFUVersion 1.1
}

void DescriptorWriter::controlHeader(std::uint8_t bCategory) {
    beginTotal(6);
    add({usb::kCsInterface, usb::kHeader, 0x00, 0x02, bCategory, 0, 0, 0});
}

void DescriptorWriter::beginTotal(std::size_t field) {
    m_header = m_bytes.size();
    m_total = m_header + field;
}

// A header's total ends with the interface's own class-specific descriptors.
void DescriptorWriter::endTotal() {
    if (m_total != 0) {
        patch(m_total, m_bytes.size() - m_header, 2);
        m_total = 0;
    }
}

void DescriptorWriter::clockSource(std::uint8_t id, std::uint8_t attributes, std::uint8_t controls,
                                   std::uint8_t iClockSource) {
    add({usb::kCsInterface, usb::kClockSource, id, attributes, controls, 0, iClockSource});
}

void DescriptorWriter::clockSelector(std::uint8_t id, std::initializer_list<std::uint8_t> sources,
                                     std::uint8_t controls, std::uint8_t iClockSelector) {
    const std::size_t at = m_bytes.size();
    add({usb::kCsInterface, usb::kClockSelector, id,
         low(static_cast<std::uint32_t>(sources.size()))});
    for (const std::uint8_t source : sources) {
        m_bytes.push_back(std::byte{source});
    }
    m_bytes.push_back(std::byte{controls});
    m_bytes.push_back(std::byte{iClockSelector});
    patch(at, m_bytes.size() - at, 1);
}

void DescriptorWriter::inputTerminal(std::uint8_t id, std::uint16_t type, std::uint8_t clock,
                                     std::uint8_t channels, std::uint32_t channelConfig,
                                     std::uint8_t iChannelNames, std::uint8_t iTerminal) {
    add({usb::kCsInterface, usb::kInputTerminal, id, low(type), high(type), 0, clock, channels,
         low(channelConfig), high(channelConfig), low(channelConfig >> 16),
         high(channelConfig >> 16), iChannelNames, 0, 0, iTerminal});
}

void DescriptorWriter::outputTerminal(std::uint8_t id, std::uint16_t type, std::uint8_t source,
                                      std::uint8_t clock, std::uint8_t iTerminal) {
    add({usb::kCsInterface, usb::kOutputTerminal, id, low(type), high(type), 0, source, clock, 0, 0,
         iTerminal});
}

void DescriptorWriter::streamGeneral(std::uint8_t terminalLink, std::uint8_t channels,
                                     std::uint32_t channelConfig, std::uint8_t iChannelNames) {
    add({usb::kCsInterface, usb::kAsGeneral, terminalLink, 0, usb::kFormatTypeI, 1, 0, 0,
         0, // bmFormats: PCM
         channels, low(channelConfig), high(channelConfig), low(channelConfig >> 16),
         high(channelConfig >> 16), iChannelNames});
}

void DescriptorWriter::formatTypeI(std::uint8_t subslotBytes, std::uint8_t bits) {
    add({usb::kCsInterface, usb::kFormatType, usb::kFormatTypeI, subslotBytes, bits});
}

void DescriptorWriter::streamEndpoint() {
    add({usb::kCsEndpoint, usb::kEpGeneral, 0, 0, 0, 0, 0});
}

void DescriptorWriter::midiHeader() {
    beginTotal(5);
    add({usb::kCsInterface, usb::kMsHeader, 0x00, 0x01, 0, 0}); // bcdMSC 1.00
}

void DescriptorWriter::midiInJack(std::uint8_t jackType, std::uint8_t id, std::uint8_t iJack) {
    add({usb::kCsInterface, usb::kMidiInJack, jackType, id, iJack});
}

void DescriptorWriter::midiOutJack(std::uint8_t jackType, std::uint8_t id, std::uint8_t source,
                                   std::uint8_t iJack) {
    add({usb::kCsInterface, usb::kMidiOutJack, jackType, id, 1, source, 1, iJack});
}

void DescriptorWriter::midiEndpoint(std::uint8_t address, std::uint16_t packetSize,
                                    std::uint8_t firstJack, std::uint8_t jacks) {
    endTotal();
    patch(m_interface + 4, ++m_endpoints, 1);
    // Two bytes longer than others: bRefresh and bSynchAddress (USB-MIDI, 6.2.1).
    add({usb::kEndpoint, address, kBulk, low(packetSize), high(packetSize), 0, 0, 0});
    const std::size_t at = m_bytes.size();
    add({usb::kCsEndpoint, usb::kMsGeneral, jacks});
    for (unsigned jack = 0; jack < jacks; ++jack) {
        m_bytes.push_back(static_cast<std::byte>(firstJack + jack));
    }
    patch(at, m_bytes.size() - at, 1);
}

std::vector<std::byte> DescriptorWriter::finish() {
    endTotal();
    patch(m_configuration + 2, m_bytes.size() - m_configuration, 2);
    patch(m_configuration + 4, m_interfaces, 1);
    return std::move(m_bytes);
}

} // namespace kelvane::devices
