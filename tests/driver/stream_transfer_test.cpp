// The transfers of a stream: when they go out, how long their packets are, and what happens when
// the bus is late or fails.
#include "tests/support/audio_machine.h"
#include "tests/support/stream_device.h"

#include <gtest/gtest.h>

#include <numeric>

namespace kelvane::tests {
namespace {

using Action = usb::UrbVerdict::Action;

std::uint32_t sum(const std::vector<std::uint32_t>& values) {
    return std::accumulate(values.begin(), values.end(), 0U);
}

usb::FaultRule outputFault(std::uint64_t first, const usb::UrbVerdict& verdict) {
    return isochronousFault(kOutEndpoint, first, verdict);
}

// A machine whose stream is about to run: what the start of the device did is forgotten.
struct Streaming {
    explicit Streaming(const AudioMachineOptions& options = {}, const StreamShape& shape = {},
                       const PcmFormat& format = kPcm16)
        : device(deviceWith(shape)), machine(device, options), m_endpoint(shape.endpoint) {
        pin.emplace(machine.filter(), 0, format);
        machine.recorder.transfers.clear();
        machine.forgetTrace();
        device->heard.clear();
    }
    void run(std::uint32_t milliseconds) {
        pin->run();
        machine.sleep(milliseconds);
    }
    std::vector<IsochRecord> transfers() { return machine.recorder.on(m_endpoint); }

    std::shared_ptr<StreamDevice> device;
    AudioMachine machine;
    std::optional<AudioPin> pin;

private:
    std::uint8_t m_endpoint;
};

TEST(StreamTransfer, TwoTransfersTakeTurnsOnExactFrames) {
    for (const std::uint32_t urbSize : {2U, 10U}) {
        SCOPED_TRACE(urbSize);
        Streaming streaming({.urbSize = urbSize}, {.packetBytes = 196});
        streaming.run(100);
        const std::vector<IsochRecord> transfers = streaming.transfers();
        ASSERT_GE(transfers.size(), 90 / urbSize);
        EXPECT_EQ(transfers[0].startFrame, transfers[0].submittedIn + 10);
        const auto* base = static_cast<const std::uint8_t*>(transfers[0].buffer);
        for (std::size_t i = 0; i < transfers.size(); ++i) {
            SCOPED_TRACE(i);
            const IsochRecord& transfer = transfers[i];
            EXPECT_EQ(transfer.startFrame, transfers[0].startFrame + i * urbSize);
            EXPECT_EQ(transfer.flags, 0U);
            EXPECT_EQ(transfer.buffer, base + i % 2 * urbSize * 8 * 196);
            ASSERT_EQ(transfer.lengths.size(), urbSize * 8);
            std::uint32_t offset = 0; // 48 bytes each, back to back
            for (std::size_t packet = 0; packet < transfer.lengths.size(); ++packet) {
                EXPECT_EQ(transfer.lengths[packet], 48U);
                EXPECT_EQ(transfer.offsets[packet], offset);
                offset += 48;
            }
            EXPECT_EQ(transfer.length, offset);
            if (i >= 2) { // sent again as soon as it came back
                EXPECT_EQ(transfer.submittedIn, transfers[i - 2].startFrame + urbSize);
            }
        }
        EXPECT_EQ(streaming.machine.mentions("completion times"), 0U);
        streaming.pin->stop();
        EXPECT_EQ(streaming.machine.mentions("waiting for 2 IRPs to finish...\n"), 1U);
        EXPECT_EQ(streaming.machine.mentions("completion times min = 0 max = 0\n"), 1U);
    }
}

TEST(StreamTransfer, StreamsOfAllDevicesLieOnOneGrid) {
    Streaming first;
    DEVICE_OBJECT* const other = first.machine.bus().attach(deviceWith());
    ASSERT_EQ(nt::startDevice(first.machine.driver(), other), STATUS_SUCCESS);
    client::KsFile filter = client::KsFile::openFilter(filterLink(other));
    AudioPin second(filter, 0, kPcm16);
    first.run(33);
    const std::uint32_t grid = first.transfers()[0].startFrame;
    first.machine.recorder.transfers.clear();
    second.run();
    IsochRecord joined = first.machine.recorder.transfers.front();
    EXPECT_EQ((joined.startFrame - grid) % 10, 0U);
    EXPECT_GE(joined.startFrame, joined.submittedIn + 5);
    EXPECT_LT(joined.startFrame, joined.submittedIn + 15);

    // The grid ends with the last stream.
    first.pin->stop();
    second.stop();
    first.machine.sleep(3);
    first.machine.recorder.transfers.clear();
    second.run();
    joined = first.machine.recorder.transfers.front();
    EXPECT_EQ(joined.startFrame, joined.submittedIn + 10);

    second.close();
    filter.close();
    nt::removeDevice(other);
    first.machine.bus().detach(other);
}

TEST(StreamTransfer, FrameNumbersMayWrap) {
    Streaming streaming;
    streaming.machine.bus().setFrameNumber(0xFFFFFFF0U);
    streaming.run(100);
    EXPECT_GE(streaming.transfers().size(), 9U);
    EXPECT_EQ(streaming.machine.mentions("startFrame"), 0U);
    EXPECT_GE(streaming.device->heard.size(), (streaming.transfers().size() - 2) * 80);
}

TEST(StreamTransfer, LatenessIsCountedAndOvertakenTransfersAreMoved) {
    struct Case {
        std::uint32_t lateFrames;
        std::size_t bucket;
        bool moved;
    };
    for (const Case& c : {Case{0, 0, false}, Case{3, 3, false}, Case{18, 18, true},
                          Case{19, 19, true}, Case{40, 19, true}}) {
        SCOPED_TRACE(c.lateFrames);
        Streaming streaming;
        streaming.machine.faults.add(outputFault(3, {.lateMicroframes = c.lateFrames * 8}));
        streaming.run(200);
        const client::LatencyStatistics latency = streaming.pin->latency();
        EXPECT_GE(latency.buckets[c.bucket], 1U);
        EXPECT_EQ(std::accumulate(latency.buckets.begin(), latency.buckets.end(), 0U),
                  latency.completions);
        EXPECT_GE(latency.completions, 10U);
        EXPECT_EQ(
            streaming.machine.mentions("!!  UsbAudioStream::ResubmitUrb() : m_NextStartFrame") > 0,
            c.moved);
        streaming.pin->stop();
        EXPECT_EQ(streaming.machine.mentions(
                      "completion times min = 0 max = " + std::to_string(c.lateFrames) + "\n"),
                  1U);
        streaming.run(0); // and the counts begin anew
        EXPECT_EQ(streaming.pin->latency().completions, 0U);
    }
}

TEST(StreamTransfer, APacketErrorIsToldAndNoMore) {
    struct Case {
        USBD_STATUS status;
        const char* name;
    };
    const Case cases[] = {
        {USBD_STATUS_ISO_NOT_ACCESSED_BY_HW, "USBD_STATUS_ISO_NOT_ACCESSED_BY_HW"},
        {USBD_STATUS_ISO_TD_ERROR, "USBD_STATUS_ISO_TD_ERROR"},
        {USBD_STATUS_ISO_NA_LATE_USBPORT, "USBD_STATUS_ISO_NA_LATE_USBPORT"},
        {USBD_STATUS_ISO_NOT_ACCESSED_LATE, "USBD_STATUS_ISO_NOT_ACCESSED_LATE"},
        {USBD_STATUS_CRC, "c0000001"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Streaming streaming;
        usb::FaultRule rule = outputFault(4, {.askPackets = true});
        rule.packets = usb::PacketFault{.index = 3, .verdict = {.status = c.status}};
        streaming.machine.faults.add(rule);
        streaming.run(200);
        EXPECT_EQ(streaming.machine.mentions(
                      std::string("UsbAudioStream::IrpCompletion() - Packet 3 Status = ") + c.name),
                  1U);
        EXPECT_EQ(streaming.machine.mentions("UsbAudioStream::IrpCompletion() - ErrorCount = 1\n"),
                  1U);
        EXPECT_GE(streaming.transfers().size(), 18U);
        EXPECT_EQ(streaming.machine.recorder.aborts, 0);
    }
}

TEST(StreamTransfer, ATransferErrorStopsTheStreamAndRecoversThePipeOnce) {
    struct Case {
        USBD_STATUS status;
        const char* name;
    };
    const Case cases[] = {
        {USBD_STATUS_ENDPOINT_HALTED, "USBD_STATUS_ENDPOINT_HALTED"},
        {USBD_STATUS_BAD_START_FRAME, "USBD_STATUS_BAD_START_FRAME"},
        {USBD_STATUS_ISOCH_REQUEST_FAILED, "USBD_STATUS_ISOCH_REQUEST_FAILED"},
        {USBD_STATUS_XACT_ERROR, "0xc0000011"},
    };
    for (const Case& c : cases) {
        for (const std::uint8_t endpoint : {kOutEndpoint, kInEndpoint}) {
            SCOPED_TRACE(testing::Message() << c.name << " " << +endpoint);
            Streaming streaming({}, {.endpoint = endpoint});
            streaming.machine.faults.add(
                isochronousFault(endpoint, 4, {.action = Action::Fail, .status = c.status}));
            streaming.run(200);
            EXPECT_EQ(streaming.machine.mentions(
                          std::string("UsbAudioStream::IrpCompletion() : stopping streaming after "
                                      "error ") +
                          c.name + " isoutput " + (endpoint == kOutEndpoint ? "1\n" : "0\n")),
                      1U);
            EXPECT_EQ(streaming.machine.recorder.aborts, 1);
            EXPECT_EQ(streaming.machine.recorder.resets, 1);
            EXPECT_EQ(streaming.transfers().size(), 5U);

            streaming.pin->stop();
            streaming.run(100); // the device starts it again
            EXPECT_GE(streaming.transfers().size(), 13U);
        }
    }
}

// Requests are never cancelled, so a stop waits for it, until something else ends it.
TEST(StreamTransfer, ATransferThatNeverEndsEndsWithItsPipeOrItsDevice) {
    for (const bool pulled : {false, true}) {
        SCOPED_TRACE(pulled ? "the cable is pulled" : "the next transfer fails");
        Streaming streaming;
        streaming.machine.faults.add(outputFault(4, {.action = Action::Hold}));
        streaming.machine.faults.add(
            outputFault(9, {.action = Action::Fail, .status = USBD_STATUS_XACT_ERROR}));
        streaming.run(60);
        EXPECT_EQ(streaming.machine.mentions("IRP COMPLETED WITH ERROR"), 0U);
        const std::size_t before = streaming.transfers().size();
        EXPECT_LT(before, 9U) << "the other transfer goes on alone, in every second place";
        if (pulled) {
            streaming.machine.pullOut();
        } else {
            streaming.machine.sleep(140);
        }
        EXPECT_EQ(streaming.machine.recorder.aborts, pulled ? 0 : 1);
        EXPECT_EQ(streaming.machine.mentions(
                      pulled ? "IRP COMPLETED WITH ERROR IoStatus = c000009d UrbStatus = c0007000"
                             : "IRP COMPLETED WITH ERROR IoStatus = c0000120 UrbStatus = c0010000"),
                  pulled ? 2U : 1U);
        streaming.pin->stop();
        if (!pulled) {
            streaming.run(100);
            EXPECT_GE(streaming.transfers().size(), before + 8);
        }
        streaming.pin->close();
        streaming.machine.closeFilter();
    }
}

TEST(StreamTransfer, AStopBesideTheRecoveryWaitsForIt) {
    Streaming streaming;
    streaming.machine.faults.add(
        outputFault(3, {.action = Action::Fail, .status = USBD_STATUS_XACT_ERROR}));
    streaming.pin->run();
    while (streaming.machine.mentions("TriggerErrorRecovery") == 0) {
        streaming.machine.sleep(1);
    }
    streaming.pin->close();
    EXPECT_EQ(streaming.machine.recorder.resets, 1);
}

TEST(StreamTransfer, ARefusedStartLeavesAPinThatCanBeStartedAgain) {
    for (const std::uint64_t refused : {1U, 2U}) {
        SCOPED_TRACE(refused);
        Streaming streaming;
        streaming.machine.faults.add(outputFault(
            refused, {.action = Action::Refuse, .status = USBD_STATUS_BAD_START_FRAME}));
        streaming.run(50);
        EXPECT_EQ(streaming.machine.mentions(
                      "ERROR in UsbAudioStream::StartStreaming() line 506 - (status = "
                      "SubmitAudioUrb(&m_urp[i], nextStartFrame + i*m_UrbSize)) (NTSTATUS was 0x"),
                  1U);
        streaming.pin->stop();
        streaming.run(100);
        EXPECT_GE(streaming.transfers().size(), 8U);
    }
}

TEST(StreamTransfer, ARefusedResubmissionStopsTheStream) {
    Streaming streaming;
    streaming.machine.faults.add(
        outputFault(5, {.action = Action::Refuse, .status = USBD_STATUS_INSUFFICIENT_RESOURCES}));
    streaming.run(200);
    EXPECT_EQ(streaming.machine.mentions("UsbAudioStream::ResubmitUrb : SubmitAudioUrb FAILED."),
              1U);
    EXPECT_EQ(streaming.transfers().size(), 5U);
    streaming.pin->stop();
    streaming.run(100);
    EXPECT_GE(streaming.transfers().size(), 13U);
}

TEST(StreamTransfer, TransferSizesThatNoBusCarriesAreRefusedWhole) {
    for (const std::uint32_t urbSize : {129U, 600U, 2000U, 0x10000000U, 0xFFFFFFFFU}) {
        SCOPED_TRACE(urbSize);
        Streaming streaming({.urbSize = urbSize});
        streaming.run(50);
        EXPECT_TRUE(streaming.device->heard.empty());
        EXPECT_GE(streaming.machine.mentions("ERROR"), 1U);
        streaming.pin->stop();
    }
}

TEST(StreamTransfer, PacketsOutgrowNeitherTheirBuffer) {
    // 24 frames of 8 bytes each in packets of 100.
    Streaming streaming({}, {.packetBytes = 100},
                        {.rate = 192000, .bits = 24, .bytesPerSample = 4});
    streaming.run(30);
    EXPECT_GE(streaming.machine.mentions("length <= m_MaximumTransferSize\n***   Source File: "
                                         "usbdriver/audstream.cpp, line 884\n"),
              1U);
    EXPECT_GE(streaming.machine.mentions("offset <= urb->GetBufferSize()\n***   Source File: "
                                         "usbdriver/audstream.cpp, line 888\n"),
              1U);
    for (const IsochRecord& transfer : streaming.transfers()) {
        EXPECT_LE(transfer.length, 8000U);
        EXPECT_EQ(sum(transfer.lengths), transfer.length);
    }
}

TEST(StreamTransfer, WithoutMemoryAPinStaysSilentUntilTheNextStart) {
    std::uint64_t failing = 0;
    bool failed = true;
    while (failed) {
        SCOPED_TRACE(++failing);
        ASSERT_LT(failing, 200U);
        auto device = deviceWith({.feedback = true});
        AudioMachine machine(device);
        nt::Pool& pool = machine.machine().pool();
        pool.failAllocation(failing);
        try {
            AudioPin pin(machine.filter(), 0, kPcm16);
            pin.run();
            machine.sleep(50);
            pin.stop();
            pool.failAllocation(0);
            device->heard.clear();
            pin.run();
            machine.sleep(50);
            // An interface that lost its own description refuses every setting from then on.
            EXPECT_EQ(device->heard.empty(), machine.mentions("(NTSTATUS was 0xc00000e5)") != 0);
        } catch (const client::StatusError& error) {
            EXPECT_EQ(error.status(), static_cast<std::uint32_t>(STATUS_INSUFFICIENT_RESOURCES));
        }
        failed = pool.counters().failures != 0;
    }
    EXPECT_GE(failing, 20U);
}

// --- Feedback -----------------------------------------------------------------------------------

// The report that works out at `rate` Hz, and not at one less.
std::uint32_t reportOf(std::uint32_t rate) {
    return static_cast<std::uint32_t>((std::uint64_t{rate} * 65536 + 7999) / 8000);
}

TEST(StreamFeedback, AReportIsTakenWhenItIsPlausible) {
    constexpr std::uint32_t kNominal = 441; // frames in 80 packets at 44100 Hz
    struct Case {
        std::uint32_t report;
        std::uint32_t frames; // in 80 packets, afterwards
        const char* rejected;
    };
    const Case cases[] = {
        {0x00058000, 440, nullptr}, // 44000 Hz
        {0, kNominal, nullptr},     // none
        {reportOf(39689), kNominal, "Rejecting reported data rate (39689 vs 44100)\n"},
        {reportOf(39690), 397, nullptr},
        {reportOf(48510), 485, nullptr},
        {reportOf(48511), kNominal, "Rejecting reported data rate (48511 vs 44100)\n"},
        {0xFFFFFFFF, kNominal, "Rejecting reported data rate (524287999 vs 44100)\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << std::hex << c.report);
        PcmFormat format = kPcm16;
        format.rate = 44100;
        Streaming streaming({}, {.feedback = true}, format);
        streaming.device->feedbackValue = c.report;
        streaming.run(100);
        const std::vector<IsochRecord> transfers = streaming.transfers();
        ASSERT_GE(transfers.size(), 8U);
        // The first two were there before the device could say anything: 5, 6, 5, 6, ...
        EXPECT_EQ(transfers[0].lengths[0], 5U * 8);
        EXPECT_EQ(transfers[0].lengths[1], 6U * 8);
        EXPECT_EQ(sum(transfers[0].lengths), 440U * 8); // the value is truncated: 440.9998
        EXPECT_EQ(sum(transfers[1].lengths), 441U * 8);
        for (std::size_t i = 4; i < transfers.size(); ++i) {
            const std::uint32_t frames = sum(transfers[i].lengths) / 8;
            EXPECT_GE(frames, c.frames - 1) << i;
            EXPECT_LE(frames, c.frames + 1) << i;
        }
        EXPECT_EQ(streaming.machine.mentions("Rejecting"), c.rejected == nullptr ? 0U : 1U);
        EXPECT_EQ(streaming.machine.mentions(c.rejected == nullptr ? "Rejecting" : c.rejected),
                  c.rejected == nullptr ? 0U : 1U);
        EXPECT_EQ(streaming.device->feedbackReports, 1U);
        streaming.pin->stop();
        streaming.run(50);
        EXPECT_EQ(streaming.device->feedbackReports, 2U); // one for each start
    }
}

TEST(StreamFeedback, AFailedRequestChangesNothing) {
    Streaming streaming({}, {.feedback = true});
    streaming.device->feedbackValue = reportOf(47000);
    streaming.machine.faults.add(isochronousFault(
        kFeedbackEndpoint, 1, {.action = Action::Fail, .status = USBD_STATUS_XACT_ERROR}));
    streaming.run(100);
    EXPECT_EQ(streaming.machine.mentions("Feedback request failed, IRP status: 0x"), 1U);
    EXPECT_EQ(streaming.machine.mentions("URB status: 0xc0000011\n"), 1U);
    for (const IsochRecord& transfer : streaming.transfers()) {
        EXPECT_EQ(sum(transfer.lengths), 480U * 8);
    }
}

} // namespace
} // namespace kelvane::tests
