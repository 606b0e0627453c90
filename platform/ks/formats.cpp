#include "platform/ks/formats.h"

#include "platform/ks/memory.h"

namespace kelvane::ks {

namespace {

constexpr KSPIN_INTERFACE kStandardInterface = {
    {{{STATIC_KSINTERFACESETID_Standard}, KSINTERFACE_STANDARD_STREAMING, 0}}};
constexpr KSPIN_MEDIUM kStandardMedium = {
    {{{STATIC_KSMEDIUMSETID_Standard}, KSMEDIUM_TYPE_ANYINSTANCE, 0}}};

bool agree(const GUID& left, const GUID& right) {
    return sameGuid(left, right) || sameGuid(left, GUID{}) || sameGuid(right, GUID{});
}

} // namespace

bool formatsAgree(const KSDATAFORMAT& left, const KSDATAFORMAT& right) {
    return agree(left.MajorFormat, right.MajorFormat) && agree(left.SubFormat, right.SubFormat) &&
           agree(left.Specifier, right.Specifier);
}

std::span<const PKSDATARANGE> dataRanges(const KSPIN_DESCRIPTOR& descriptor) {
    return {descriptor.DataRanges, descriptor.DataRangesCount};
}

std::span<const KSPIN_INTERFACE> interfacesOf(const KSPIN_DESCRIPTOR& descriptor) {
    if (descriptor.InterfacesCount == 0) {
        return {&kStandardInterface, 1};
    }
    return {descriptor.Interfaces, descriptor.InterfacesCount};
}

std::span<const KSPIN_MEDIUM> mediumsOf(const KSPIN_DESCRIPTOR& descriptor) {
    if (descriptor.MediumsCount == 0) {
        return {&kStandardMedium, 1};
    }
    return {descriptor.Mediums, descriptor.MediumsCount};
}

} // namespace kelvane::ks
