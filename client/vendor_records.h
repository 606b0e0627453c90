// The driver's own property, method and event sets on the wire. Internal to the client.
#pragma once

#include "platform/nt/kernel.h"

namespace kelvane::client {

inline constexpr GUID kVendorProperties = {
    0x86C2FD82, 0xC2A0, 0x4637, {0x9C, 0xB5, 0x29, 0x4F, 0xE8, 0xF5, 0xE1, 0x29}};
inline constexpr GUID kVendorMethods = {
    0x9DDEE3D3, 0xFDF1, 0x4C0F, {0x9D, 0x0D, 0x48, 0x6A, 0x5E, 0xF8, 0x49, 0x02}};
inline constexpr GUID kVendorEvents = {
    0x775CEE85, 0x04ED, 0x4977, {0xA1, 0xA6, 0xD2, 0x94, 0xE5, 0x48, 0x01, 0x3A}};

// Properties.
inline constexpr ULONG kTransferFrames = 0;
inline constexpr ULONG kLockedSampleRate = 1;
inline constexpr ULONG kSampleRates = 2;
inline constexpr ULONG kSampleRate = 3;
inline constexpr ULONG kClockSource = 10;
inline constexpr ULONG kClockSourceInfo = 11;
inline constexpr ULONG kAudioControl = 20;
inline constexpr ULONG kTransferFramesMin = 40;
inline constexpr ULONG kClients = 60;

// Methods.
inline constexpr ULONG kGetDescriptor = 1;
inline constexpr ULONG kControlTransfer = 2;

// Events.
inline constexpr ULONG kEventSampleRate = 0;
inline constexpr ULONG kEventTransferFrames = 1;
inline constexpr ULONG kEventClockStatus = 2;

struct ClockSourceRequest {
    KSPROPERTY property;
    ULONG index;
    ULONG reserved;
};
static_assert(sizeof(ClockSourceRequest) == 32);

struct ClockSourceInfo {
    ULONG index;
    char16_t name[32];
    UCHAR clock;
    UCHAR selector;
    USHORT reserved;
    ULONG attributes;
};
static_assert(sizeof(ClockSourceInfo) == 76);

struct AudioControlRequest {
    KSPROPERTY property;
    UCHAR entity;
    UCHAR request;
    UCHAR selector;
    UCHAR channel;
    ULONG reserved;
};
static_assert(sizeof(AudioControlRequest) == 32);

struct DescriptorRequest {
    KSMETHOD method;
    UCHAR type;
    UCHAR index;
    USHORT language;
    ULONG reserved;
};
static_assert(sizeof(DescriptorRequest) == 32);

struct ControlTransferRequest {
    KSMETHOD method;
    ULONG pipeHandle;
    ULONG transferFlags;
    UCHAR requestType;
    UCHAR request;
    USHORT value;
    USHORT index;
    USHORT length;
};
static_assert(sizeof(ControlTransferRequest) == 40);

} // namespace kelvane::client
