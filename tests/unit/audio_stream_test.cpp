// A stream alone on the bus: its clients, its observer, and the order of its operations, where no
// application can reach them.
#include "tests/support/traced_machine.h"

#include "tests/support/stream_device.h"
#include "usbdriver/audstream.h"
#include "usbdriver/usblib/usbdevice.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <random>
#include <vector>

namespace kelvane::tests {
namespace {

constexpr ULONG kUrbSize = 10; // bus frames
constexpr WAVEFORMATEX kStereo16 = {.wFormatTag = 1,
                                    .nChannels = 2,
                                    .nSamplesPerSec = 48000,
                                    .nAvgBytesPerSec = 192000,
                                    .nBlockAlign = 4,
                                    .wBitsPerSample = 16,
                                    .cbSize = 0};

// A stream on an opened device, ready to be set up.
struct Bench {
    explicit Bench(const StreamShape& shape = {})
        : device(deviceWith(shape)), pdo(box.bus.attach(device)) {
        EXPECT_EQ(usb.Open(pdo), STATUS_SUCCESS);
        stream = new (NonPagedPool) UsbAudioStream;
        EXPECT_TRUE(stream->Init(usb.GetInterface(1), kUrbSize));
        EXPECT_EQ(stream->SetSampleRate(48000, false), STATUS_SUCCESS);
        box.forget();
    }
    ~Bench() {
        delete stream;
        usb.Close();
        box.bus.detach(pdo);
    }
    void start() {
        ASSERT_EQ(stream->StreamingSetup(), STATUS_SUCCESS);
        ASSERT_EQ(stream->StartStreaming(), STATUS_PENDING); // two transfers are in flight
    }
    void sleep(std::uint32_t milliseconds) { TracedMachine::sleep(milliseconds); }

    TracedMachine box;
    std::shared_ptr<StreamDevice> device;
    DEVICE_OBJECT* pdo;
    CUsbDevice usb;
    UsbAudioStream* stream = nullptr;
};

// A pin that plays one 16-bit value for ever.
struct Tone : UsbAudioStreamClient {
    Tone(UsbAudioStream* owner, std::int16_t value) : stream(owner), samples(2 * 480, value) {}

    ULONG ProcessUrb(ULONG clientIndex) override {
        index = clientIndex;
        ++calls;
        ULONG bytes = 0;
        EXPECT_FALSE(stream->WriteOutputBytes(samples.data(),
                                              static_cast<ULONG>(samples.size() * 2), kStereo16,
                                              bytes)); // no room is left
        return bytes / kStereo16.nBlockAlign;
    }
    HANDLE GetProcessId() override { return nullptr; }

    UsbAudioStream* stream;
    std::vector<std::int16_t> samples;
    ULONG index = 0;
    int calls = 0;
};

// What is to be heard when every client adds its samples in turn. Each sum is bounded by itself.
struct Mix {
    std::vector<std::int32_t> heard;
    static constexpr std::size_t kSamples = 2 * 480; // of a transfer

    void begin() { heard.resize(heard.size() + kSamples, 0); }
    void add(std::size_t at, std::int64_t sample) {
        std::int32_t& sum = heard[heard.size() - kSamples + at];
        sum = static_cast<std::int32_t>(
            std::clamp<std::int64_t>(sum + sample, -INT32_MAX, INT32_MAX));
    }
};

// A pin that plays noise as loud as can be.
template <class Sample>
struct Noise : UsbAudioStreamClient {
    Noise(UsbAudioStream* owner, Mix& mixed, unsigned seed)
        : stream(owner), mix(mixed), random(seed) {}

    ULONG ProcessUrb(ULONG clientIndex) override {
        ++calls;
        if (clientIndex == 0) {
            mix.begin();
        }
        std::vector<Sample> samples(Mix::kSamples);
        for (std::size_t i = 0; i < samples.size(); ++i) {
            samples[i] = static_cast<Sample>(random());
            mix.add(i, std::int64_t{samples[i]} << 8 * (4 - sizeof(Sample)));
        }
        WAVEFORMATEX format = kStereo16;
        format.nBlockAlign = 2 * sizeof(Sample);
        ULONG bytes = 0;
        stream->WriteOutputBytes(
            samples.data(), static_cast<ULONG>(samples.size() * sizeof(Sample)), format, bytes);
        return bytes / format.nBlockAlign;
    }
    HANDLE GetProcessId() override { return nullptr; }

    UsbAudioStream* stream;
    Mix& mix;
    std::mt19937 random;
    unsigned calls = 0;
};

// 16-bit and 32-bit ones. The first plays throughout; the others come one after the other, and
// leave in the same order once all are there.
TEST(AudioStream, MixesClientsThatComeAndGo) {
    for (unsigned count = 2; count <= 8; ++count) {
        SCOPED_TRACE(count);
        Bench bench;
        Mix mix;
        Noise<std::int16_t> first(bench.stream, mix, 100 + count);
        std::vector<std::unique_ptr<Noise<std::int32_t>>> others;
        bench.stream->AddClient(&first);
        bench.start();
        bench.sleep(25); // between the ends of the first two transfers
        for (unsigned step = 1; step < 2 * count - 1; ++step) {
            if (step < count) {
                others.push_back(std::make_unique<Noise<std::int32_t>>(bench.stream, mix, step));
                bench.stream->AddClient(others.back().get());
            } else {
                bench.stream->RemoveClient(others[step - count].get());
            }
            bench.sleep(10);
        }
        bench.stream->StopStreaming();
        EXPECT_EQ(bench.device->heardSamples(), mix.heard);
        EXPECT_GT(std::ranges::count(mix.heard, INT32_MAX), 50);
        EXPECT_GT(std::ranges::count(mix.heard, -INT32_MAX), 50);
        for (const auto& other : others) {
            EXPECT_EQ(other->calls, count - 1);
        }
    }
}

TEST(AudioStream, AClientTakesTheFirstFreeSlotAndIsNeverCalledOnceRemoved) {
    Bench bench;
    std::vector<std::unique_ptr<Tone>> tones;
    for (std::int16_t i = 0; i < 9; ++i) { // more than the slots that it begins with
        tones.push_back(std::make_unique<Tone>(bench.stream, i));
        EXPECT_TRUE(bench.stream->AddClient(tones.back().get()));
    }
    Tone stranger(bench.stream, 1);
    bench.stream->RemoveClient(tones[3].get());
    bench.stream->RemoveClient(&stranger); // changes no slot
    EXPECT_EQ(bench.stream->GetClient(2), tones[2].get());
    EXPECT_EQ(bench.stream->GetClient(3), tones[4].get()); // free slots are not counted
    EXPECT_EQ(bench.stream->GetClient(8), nullptr);
    EXPECT_TRUE(bench.stream->AddClient(&stranger));

    bench.start();
    bench.sleep(35);
    EXPECT_EQ(stranger.index, 3U);
    EXPECT_EQ(tones[8]->index, 8U);
    EXPECT_GT(stranger.calls, 0);
    EXPECT_EQ(tones[3]->calls, 0);
    bench.stream->RemoveClient(&stranger);
    const int calls = stranger.calls;
    bench.sleep(35);
    EXPECT_EQ(stranger.calls, calls);
    EXPECT_GT(tones[0]->calls, calls);
}

TEST(AudioStream, ClientsAreCountedByTheirCalls) {
    const nt::Machine machine;
    StreamClients clients;
    clients.Remove(nullptr);
    EXPECT_EQ(clients.Count(), -1);
}

TEST(AudioStream, KeepsTheOrderOfItsOperations) {
    Bench bench;
    UsbAudioStream& stream = *bench.stream;
    EXPECT_EQ(stream.StartStreaming(), STATUS_INTERNAL_ERROR);
    EXPECT_TRUE(
        bench.box.traced("ERROR in UsbAudioStream::StartStreaming() line 480 - !m_DataBuffer \n"));
    bench.start();
    EXPECT_EQ(stream.StreamingCleanup(), STATUS_INTERNAL_ERROR);
    EXPECT_TRUE(
        bench.box.traced("ERROR in UsbAudioStream::StreamingCleanup() line 445 - m_Running \n"));
    EXPECT_EQ(stream.StreamingSetup(), STATUS_INTERNAL_ERROR); // never under a running transfer
    EXPECT_EQ(stream.SetSampleRate(96000, true), STATUS_INTERNAL_ERROR);
    EXPECT_EQ(stream.GetSampleRate(), 48000U);
    EXPECT_TRUE(bench.box.traced("ERROR in UsbAudioStream::SetSampleRate() line 273 - m_Pipe \n"));
    stream.SetUrbSize(20);
    EXPECT_TRUE(bench.box.traced("ERROR in UsbAudioStream::SetUrbSize() line 295 - m_Pipe \n"));

    stream.Resume(); // was not paused
    stream.Pause();
    EXPECT_TRUE(bench.box.traced("Called in UsbAudioStream::Pause() line 303 feedback 16  \n"));
    const std::size_t heard = bench.device->heard.size();
    bench.sleep(50);
    EXPECT_EQ(bench.device->heard.size(), heard);
    stream.Resume();
    bench.sleep(50);
    EXPECT_GT(bench.device->heard.size(), heard);
    stream.StopStreaming();
    stream.Pause(); // is not running
    stream.Resume();
    EXPECT_EQ(stream.StreamingCleanup(), STATUS_SUCCESS);
    EXPECT_EQ(stream.SetSampleRate(96000, true), STATUS_SUCCESS);
}

// Keeps every transfer until the test sends it on.
struct Keeper : UsbAudioStreamObserver {
    void StreamStarted(UsbAudioStream*) override { log += "started "; }
    void StreamStopped(UsbAudioStream*) override { log += "stopped "; }
    void UrbCompleted(UsbAudioStream* stream, CIsocUrb* urb) override {
        EXPECT_FALSE(urb->IsPending());
        log += "completed ";
        if (then) {
            then(stream, urb);
        }
    }
    std::string log;
    std::function<void(UsbAudioStream*, CIsocUrb*)> then;
};

TEST(AudioStream, AnObserverHasTheCompletedTransfersToItself) {
    Bench bench;
    Tone tone(bench.stream, 1);
    Keeper keeper;
    bench.stream->AddClient(&tone);
    bench.stream->SetObserver(&keeper);
    bench.start();
    bench.sleep(100);
    EXPECT_EQ(keeper.log, "started completed completed ");
    EXPECT_EQ(tone.calls, 0);
    bench.stream->StopStreaming(); // nothing is in flight
    EXPECT_EQ(keeper.log, "started completed completed stopped ");
    bench.stream->SetObserver(nullptr);
}

TEST(AudioStream, AnObserverSendsTransfersOnWhenItLikes) {
    Bench bench;
    Tone tone(bench.stream, 1);
    Keeper keeper;
    std::vector<ULONG> next; // start frames behind each resubmission
    ULONG ahead = 0;
    keeper.then = [&](UsbAudioStream* stream, CIsocUrb* urb) {
        stream->ProcessClients(urb);
        const ULONG now = bench.box.bus.frameNumber();
        const ULONG wanted = ahead == 0 ? stream->GetNextStartFrame() : now + ahead;
        EXPECT_EQ(stream->ResubmitUrb(urb, wanted), STATUS_PENDING);
        next.push_back(stream->GetNextStartFrame() - now);
    };
    bench.stream->AddClient(&tone);
    bench.stream->SetObserver(&keeper);
    bench.start();
    bench.sleep(100);
    EXPECT_GT(tone.calls, 6);
    EXPECT_EQ(next, std::vector<ULONG>(next.size(), 2 * kUrbSize)); // it, and the one behind it

    next.clear();
    ahead = 15; // the grid moves
    bench.sleep(40);
    ASSERT_GE(next.size(), 1U);
    EXPECT_EQ(next[0], 15 + kUrbSize);

    ahead = 0; // on the new grid
    bench.sleep(40);
    next.clear();
    ahead = static_cast<ULONG>(-3); // in the past: as if it had just ended
    bench.sleep(40);
    ASSERT_GE(next.size(), 1U);
    EXPECT_EQ(next[0], 2 * kUrbSize);
    EXPECT_GE(bench.box.mentions("!!  UsbAudioStream::ResubmitUrb() :  startFrame ("), 1U);

    next.clear();
    keeper.then = [&](UsbAudioStream* stream, CIsocUrb* urb) {
        EXPECT_EQ(stream->ResubmitUrb(urb, bench.box.bus.frameNumber() + 1025),
                  STATUS_INVALID_PARAMETER);
    };
    bench.sleep(60);
    EXPECT_EQ(bench.box.mentions("is too far in the future"), 1U); // and the stream stands
    bench.stream->StopStreaming();
    bench.stream->SetObserver(nullptr);
}

} // namespace
} // namespace kelvane::tests
