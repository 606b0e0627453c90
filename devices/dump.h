// A device out of a descriptor dump: the 18-byte device descriptor followed by the configuration
// descriptors, as a file under /sys/bus/usb/devices has them or as a firmware build emits them.
#pragma once

#include "devices/descriptors.h"
#include "devices/strings.h"

#include <cstdint>
#include <string>
#include <vector>

namespace kelvane::devices {

// The whole file. Throws DeviceError when it can't be read or is larger than any dump.
std::vector<std::byte> readDumpBytes(const std::string& path);

// Throws DeviceError "FILE: offset N: what is wrong, what was expected".
DeviceDescriptors readDump(const std::string& path);

// The speed that the descriptors imply, since a dump doesn't say at which it was taken. In order:
// - bcdUSB below 2.00, or a bMaxPacketSize0 other than 64: full speed (USB 2.0, 5.5.3 asks 64 of
//   high speed);
// - a bulk or interrupt endpoint above 64 bytes or an isochronous one above 1023: high speed;
//   a bulk endpoint of another size: full speed, since high speed allows 512 only;
// - a UAC2 function: high speed;
// - audio endpoints of Audio 1.0 that are served each (micro)frame, bInterval 1: full speed, since
//   at high speed they would carry eight times what they are dimensioned for;
// - anything else: high speed.
Speed impliedSpeed(const DeviceDescriptors& device);

// Texts for string indices, which no dump holds: "Interface VVVV:PPPP" for the product, "Maker
// VVVV" for the manufacturer, "String N" for every other index except 0xEE, which is not a text.
StringTable dumpStrings(const DeviceDescriptors& device);

// Sampling frequencies to offer, of which no dump tells: those of 44100 to 192000 Hz that every
// streaming interface can carry in at least one of its settings; 48000 when that leaves none.
std::vector<std::uint32_t> plausibleRates(const DeviceDescriptors& device, Speed speed);

} // namespace kelvane::devices
