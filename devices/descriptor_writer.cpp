#include "devices/descriptor_writer.h"

namespace kelvane::devices {

namespace {

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
    add({usb::kDevice, 0x00, 0x02, // bcdUSB 2.00
         0xEF, 0x02, 0x01,         // class, subclass, protocol: interface associations
         64,                       // bMaxPacketSize0
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
                                 std::uint8_t protocol) {
    endControl();
    m_interface = m_bytes.size();
    m_endpoints = 0;
    if (setting == 0) {
        ++m_interfaces;
    }
    add({usb::kInterface, number, setting, 0, interfaceClass, subClass, protocol, 0});
}

void DescriptorWriter::endpoint(std::uint8_t address, std::uint8_t attributes,
                                std::uint16_t packetSize, std::uint8_t bInterval) {
    endControl();
    patch(m_interface + 4, ++m_endpoints, 1);
    add({usb::kEndpoint, address, attributes, low(packetSize), high(packetSize), bInterval});
}

void DescriptorWriter::controlHeader(std::uint8_t bCategory) {
    m_control = m_bytes.size();
    add({usb::kCsInterface, usb::kHeader, 0x00, 0x02, bCategory, 0, 0, 0});
}

void DescriptorWriter::endControl() {
    if (m_control != 0) {
        patch(m_control + 6, m_bytes.size() - m_control, 2);
        m_control = 0;
    }
}

void DescriptorWriter::clockSource(std::uint8_t id, std::uint8_t attributes, std::uint8_t controls,
                                   std::uint8_t iClockSource) {
    add({usb::kCsInterface, usb::kClockSource, id, attributes, controls, 0, iClockSource});
}

void DescriptorWriter::inputTerminal(std::uint8_t id, std::uint16_t type, std::uint8_t clock,
                                     std::uint8_t channels, std::uint32_t channelConfig) {
    add({usb::kCsInterface, usb::kInputTerminal, id, low(type), high(type), 0, clock, channels,
         low(channelConfig), high(channelConfig), low(channelConfig >> 16),
         high(channelConfig >> 16), 0, 0, 0, 0});
}

void DescriptorWriter::outputTerminal(std::uint8_t id, std::uint16_t type, std::uint8_t source,
                                      std::uint8_t clock) {
    add({usb::kCsInterface, usb::kOutputTerminal, id, low(type), high(type), 0, source, clock, 0, 0,
         0});
}

void DescriptorWriter::streamGeneral(std::uint8_t terminalLink, std::uint8_t channels,
                                     std::uint32_t channelConfig) {
    add({usb::kCsInterface, usb::kAsGeneral, terminalLink, 0, usb::kFormatTypeI, 1, 0, 0,
         0, // bmFormats: PCM
         channels, low(channelConfig), high(channelConfig), low(channelConfig >> 16),
         high(channelConfig >> 16), 0});
}

void DescriptorWriter::formatTypeI(std::uint8_t subslotBytes, std::uint8_t bits) {
    add({usb::kCsInterface, usb::kFormatType, usb::kFormatTypeI, subslotBytes, bits});
}

void DescriptorWriter::streamEndpoint() {
    add({usb::kCsEndpoint, usb::kEpGeneral, 0, 0, 0, 0, 0});
}

std::vector<std::byte> DescriptorWriter::finish() {
    endControl();
    patch(m_configuration + 2, m_bytes.size() - m_configuration, 2);
    patch(m_configuration + 4, m_interfaces, 1);
    return std::move(m_bytes);
}

} // namespace kelvane::devices
