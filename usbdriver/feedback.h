// How many sample frames each microframe's output packet carries, and what of the device's own
// account of its rate is believed. Pure arithmetic on 16.16 fixed-point sample frames per
// microframe, the form of a high-speed feedback report (USB 2.0, 5.12.4.2).
#pragma once

#include <cstdint>

#include "usbdriver/shared.h"

constexpr std::uint32_t kMicroframesPerSecond = 8000;

// Truncated: at 44100 Hz a second of packets carries 44099 frames until the device reports.
constexpr std::uint32_t NominalFeedback(std::uint32_t sampleRate) {
    return static_cast<std::uint32_t>(std::uint64_t{sampleRate} * 65536 / kMicroframesPerSecond);
}

// The rate in Hz that a feedback report works out at, truncated.
constexpr std::uint32_t ReportedRate(std::uint32_t feedbackValue) {
    return static_cast<std::uint32_t>(std::uint64_t{feedbackValue} * kMicroframesPerSecond >> 16);
}

// A report more than a tenth off the rate in force is noise.
constexpr bool IsPlausibleRate(std::uint32_t reported, std::uint32_t sampleRate) {
    const std::uint32_t difference =
        reported > sampleRate ? reported - sampleRate : sampleRate - reported;
    return difference <= sampleRate / 10;
}

// The fraction of a frame that a packet couldn't carry waits in the accumulator for the next.
// NextPacketFrames runs in one completion at a time; Adopt may run beside it on another processor.
class PacketSizer {
public:
    void Reset(std::uint32_t sampleRate) {
        m_FeedbackValue.Set(NominalFeedback(sampleRate));
        m_FeedbackAccumulator = 0;
    }

    void Adopt(std::uint32_t feedbackValue) { m_FeedbackValue.Set(feedbackValue); }

    std::uint32_t NextPacketFrames() {
        m_FeedbackAccumulator += m_FeedbackValue.Get();
        const std::uint32_t frames = m_FeedbackAccumulator >> 16;
        m_FeedbackAccumulator &= 0xFFFF;
        return frames;
    }

    std::uint32_t FeedbackValue() const { return m_FeedbackValue.Get(); }

private:
    Shared<std::uint32_t> m_FeedbackValue;   // 16.16 sample frames per microframe
    std::uint32_t m_FeedbackAccumulator = 0; // between packets: the fraction alone, below 65536
};
