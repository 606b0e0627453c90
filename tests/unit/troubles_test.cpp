#include "client/troubles.h"

#include <gtest/gtest.h>

namespace kelvane::client {
namespace {

TEST(Troubles, AreToldFromWhatEveryHealthyRunPrints) {
    const char* harmless[] = {
        "dorvel : DriverEntry()\n",
        "RegQueryValue(SampleRate) failed with error c0000034\n",
        "LoadDriverParameters - ZwOpenKey failed - error c0000034\n",
        "ERROR in AudioControlInterface::getClockSelectorControl() line 300 - !_clockSelectorID \n",
        "GenerateKsFilterEvents() Error: KsDeviceGetFirstChildFilterFactory() returned NULL\n",
        "UsbAudioStream::StopStreaming() waiting for 2 IRPs to finish...\n",
        "completion times min = 0 max = 3\n",
        "UsbAudioDevice::PostStart() Using saved sample rate: 96000\n",
    };
    for (const char* line : harmless) {
        EXPECT_FALSE(tellsOfTrouble(line)) << line;
    }
    const char* troubles[] = {
        "ERROR in UsbAudioStream::StreamingSetup() line 385 - !m_Pipe \n",
        "UsbAudioDevice::PostStart() Error - Enumerate() failed with NTSTATUS 0xc00000bb\n",
        "UsbAudioDevice::PostStart() ERROR: KsCreateFilterFactory failed (c0000001)",
        "UsbAudioStream::IrpCompletion() - Packet 3 Status = USBD_STATUS_ISO_TD_ERROR\n",
        "UsbAudioStream::IrpCompletion() - ErrorCount = 1\n",
        "UsbAudioStream::IrpCompletion() : stopping streaming after error 0xc0000011 isoutput 1\n",
        "Rejecting reported data rate (39689 vs 44100)\n",
        "Warning - client 0x1 (out) only processed    10 of   480 samples\n",
        "!!  UsbAudioStream::ResubmitUrb() : m_NextStartFrame (9) <= curFrame (9)\n",
        "Unsupported sample format (GetNumBytesPerSample = 3)\n",
        "kelvane: data rate error on input stream; packet contained 0 bytes\n",
    };
    for (const char* line : troubles) {
        EXPECT_TRUE(tellsOfTrouble(line)) << line;
    }
}

TEST(Troubles, AStreamThatRunsDryCountsWhileItsApplicationGoesOn) {
    const struct {
        Direction direction;
        const char* dry;
    } table[] = {
        {Direction::Output, "Warning - client 0x1 (out) only processed    10 of   480 samples"},
        {Direction::Input, "Warning - client 0x1 (in ) only processed    10 of   480 samples"},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.dry);
        Troubles troubles;
        troubles.consider(row.dry); // not begun
        EXPECT_TRUE(troubles.lines().empty());
        troubles.expectStarvation(row.direction, false);
        troubles.consider(row.dry);
        // Which pin found no buffer doesn't say; the other one has an excuse.
        troubles.consider("Warning: KsPinGetLeadingEdgeStreamPointer failed\n");
        troubles.expectStarvation(row.direction, true);
        troubles.consider(row.dry); // at its end
        EXPECT_EQ(troubles.lines(), std::vector<std::string>{row.dry});
        EXPECT_EQ(troubles.takeAfter(1).size(), 0U);
        EXPECT_EQ(troubles.takeAfter(0), std::vector<std::string>{row.dry});
        EXPECT_TRUE(troubles.lines().empty());
    }
}

} // namespace
} // namespace kelvane::client
