// Frames on their way through a pin: queued by a client, walked over by the driver, completed.
#include "tests/support/ks_driver.h"

namespace kelvane::ks_test {
namespace {

class KsStream : public KsTest {
protected:
    void open(ULONG id, KSSTATE state = KSSTATE_RUN) {
        start();
        m_filter = openFilter();
        m_pin = openPin(m_filter, id);
        m_ks = ksPin(m_pin);
        if (state != KSSTATE_STOP) {
            ASSERT_EQ(STATUS_SUCCESS, setState(m_pin, state).status);
        }
        m_script.log.clear();
    }
    // What a transfer's completion does: it attempts processing at DISPATCH_LEVEL.
    void attemptAtDispatch() {
        KIRQL before = PASSIVE_LEVEL;
        KeRaiseIrql(DISPATCH_LEVEL, &before);
        KsPinAttemptProcessing(m_ks, FALSE);
        EXPECT_EQ(DISPATCH_LEVEL, KeGetCurrentIrql());
        KeLowerIrql(before);
    }
    static PKSSTREAM_POINTER leading(PKSPIN pin) {
        return KsPinGetLeadingEdgeStreamPointer(pin, KSSTREAM_POINTER_STATE_LOCKED);
    }

    File m_filter;
    File m_pin;
    PKSPIN m_ks = nullptr;
};

TEST_F(KsStream, TakesFramesOnlyWhereTheyBelong) {
    start();
    File filter = openFilter();
    File render = openPin(filter, kRender);
    File capture = openPin(filter, kCapture);
    Frames in(1, 8, true);
    Frames out(1, 8, false);
    EXPECT_EQ(STATUS_INVALID_DEVICE_STATE, in.send(render));
    EXPECT_EQ(STATUS_SUCCESS, setState(render, KSSTATE_ACQUIRE).status);
    EXPECT_EQ(STATUS_SUCCESS, setState(capture, KSSTATE_ACQUIRE).status);
    EXPECT_EQ(STATUS_INVALID_DEVICE_REQUEST, out.send(render));
    EXPECT_EQ(STATUS_INVALID_DEVICE_REQUEST, in.send(capture));
    EXPECT_EQ(STATUS_INVALID_DEVICE_REQUEST, in.send(filter));
    EXPECT_EQ(STATUS_PENDING, in.send(render));
    EXPECT_EQ(STATUS_PENDING, out.send(capture));
}

TEST_F(KsStream, RefusesHeadersThatAreNotWhatTheySay) {
    open(kRender);
    struct {
        const char* what;
        std::function<void(KSSTREAM_HEADER&)> change;
        ULONG bytes;
        NTSTATUS status;
    } const cases[] = {
        {"no header", [](KSSTREAM_HEADER&) {}, 0, STATUS_INVALID_BUFFER_SIZE},
        {"half a header", [](KSSTREAM_HEADER&) {}, 28, STATUS_INVALID_BUFFER_SIZE},
        {"one and a half", [](KSSTREAM_HEADER&) {}, 84, STATUS_INVALID_BUFFER_SIZE},
        {"size 0", [](KSSTREAM_HEADER& h) { h.Size = 0; }, 56, STATUS_INVALID_BUFFER_SIZE},
        {"size too small", [](KSSTREAM_HEADER& h) { h.Size = 48; }, 56, STATUS_INVALID_BUFFER_SIZE},
        {"size beyond the end", [](KSSTREAM_HEADER& h) { h.Size = 64; }, 56,
         STATUS_INVALID_BUFFER_SIZE},
        {"size not aligned", [](KSSTREAM_HEADER& h) { h.Size = 60; }, 60,
         STATUS_INVALID_BUFFER_SIZE},
        {"more used than there is", [](KSSTREAM_HEADER& h) { h.DataUsed = 9; }, 56,
         STATUS_INVALID_BUFFER_SIZE},
        {"no data", [](KSSTREAM_HEADER& h) { h.Data = nullptr; }, 56, STATUS_ACCESS_VIOLATION},
    };
    static_assert(sizeof(KSSTREAM_HEADER) == 56);
    for (const auto& test : cases) {
        SCOPED_TRACE(test.what);
        std::array<std::byte, 8> data{};
        std::array<KSSTREAM_HEADER, 2> headers{};
        headers[0].Size = sizeof(KSSTREAM_HEADER);
        headers[0].FrameExtent = 8;
        headers[0].DataUsed = 8;
        headers[0].Data = data.data();
        test.change(headers[0]);
        EXPECT_EQ(
            test.status,
            control(m_pin, IOCTL_KS_WRITE_STREAM, nullptr, 0, headers.data(), test.bytes).status);
    }
    EXPECT_EQ(nullptr, leading(m_ks));
}

// Partial use of a frame, as a transfer that is shorter or longer than the frame asks for.
TEST_F(KsStream, KeepsARequestPendingUntilItsLastFrameIsUsedUp) {
    open(kRender);
    Frames first(2, 100, true);
    Frames second(1, 50, true);
    first.data()[0] = std::byte{42};
    EXPECT_EQ(STATUS_PENDING, first.send(m_pin));
    EXPECT_EQ(STATUS_PENDING, second.send(m_pin));
    ULONG room = 0;
    std::vector<ULONG> remaining;
    m_script.process = [&](PKSPIN pin) {
        EXPECT_EQ(DISPATCH_LEVEL, KeGetCurrentIrql());
        PKSSTREAM_POINTER pointer = leading(pin);
        EXPECT_NE(nullptr, pointer);
        EXPECT_EQ(pin, pointer->Pin);
        EXPECT_EQ(&pointer->OffsetIn, pointer->Offset);
        remaining.push_back(pointer->OffsetIn.Remaining);
        const ULONG used = std::min(room, pointer->OffsetIn.Remaining);
        pointer->StreamHeader->PresentationTime.Time += used;
        pointer->StreamHeader->OptionsFlags |= KSSTREAM_HEADER_OPTIONSF_TIMEVALID;
        room -= used;
        KsStreamPointerAdvanceOffsetsAndUnlock(pointer, used, 0, FALSE);
        return room == 0 ? STATUS_PENDING : STATUS_SUCCESS;
    };
    LONG in = 0;
    KsPinGetAvailableByteCount(m_ks, &in, nullptr);
    EXPECT_EQ(250, in);
    room = 60;
    attemptAtDispatch();
    EXPECT_EQ((std::vector<ULONG>{100}), remaining);
    KsPinGetAvailableByteCount(m_ks, &in, nullptr);
    EXPECT_EQ(190, in);
    room = 60;
    attemptAtDispatch();
    EXPECT_EQ((std::vector<ULONG>{100, 40, 100}), remaining);
    EXPECT_FALSE(first.done());
    room = 85;
    attemptAtDispatch();
    EXPECT_TRUE(first.done());
    EXPECT_FALSE(second.done());
    EXPECT_EQ(STATUS_SUCCESS, first.status());
    EXPECT_EQ(2 * sizeof(KSSTREAM_HEADER), first.information());
    EXPECT_EQ(100, first.header(0).PresentationTime.Time);
    EXPECT_EQ(100, first.header(1).PresentationTime.Time);
    EXPECT_EQ(ULONG{KSSTREAM_HEADER_OPTIONSF_TIMEVALID}, first.header(0).OptionsFlags);
    EXPECT_EQ(100u, first.header(1).DataUsed);
    room = 1000; // more than there is: the routine is not called without a frame
    attemptAtDispatch();
    EXPECT_TRUE(second.done());
    EXPECT_EQ(955u, room);
    remaining.clear();
    attemptAtDispatch();
    EXPECT_TRUE(remaining.empty());
}

TEST_F(KsStream, FillsCaptureFramesAndTellsHowFar) {
    open(kCapture, KSSTATE_PAUSE);
    int calls = 0;
    m_script.process = [&](PKSPIN pin) {
        ++calls;
        EXPECT_EQ(PASSIVE_LEVEL, KeGetCurrentIrql());
        PKSSTREAM_POINTER pointer = leading(pin);
        EXPECT_EQ(&pointer->OffsetOut, pointer->Offset);
        EXPECT_EQ(16u, pointer->OffsetOut.Count);
        const ULONG used = calls == 2 ? 0 : 12;
        std::memset(pointer->OffsetOut.Data, 0x5A, used);
        KsStreamPointerAdvanceOffsetsAndUnlock(pointer, 0, used, TRUE);
        return STATUS_SUCCESS;
    };
    Frames frames(3, 16, false);
    frames.header(1).DataUsed = 99; // left over from another use: a read starts empty
    frames.header(1).OptionsFlags = KSSTREAM_HEADER_OPTIONSF_ENDOFSTREAM;
    EXPECT_EQ(STATUS_PENDING, frames.send(m_pin)); // whose arrival initiates the processing
    EXPECT_EQ(3, calls);
    ASSERT_TRUE(frames.done());
    for (const std::size_t i : {0u, 1u, 2u}) {
        EXPECT_EQ(i == 1 ? 0u : 12u, frames.header(i).DataUsed);
        EXPECT_EQ(0u, frames.header(i).OptionsFlags);
        EXPECT_EQ(i == 1 ? std::byte{0} : std::byte{0x5A}, frames.data(i)[11]);
        EXPECT_EQ(std::byte{0}, frames.data(i)[12]);
    }
}

TEST_F(KsStream, ProcessesInTheStatesThatThePinNames) {
    open(kRender, KSSTATE_STOP);
    File worker = openPin(m_filter, kWorker);
    PKSPIN ksWorker = ksPin(worker);
    std::map<PKSPIN, int> calls;
    m_script.process = [&](PKSPIN pin) {
        ++calls[pin];
        return STATUS_PENDING;
    };
    Frames one(1, 8, true);
    Frames two(1, 8, true);
    for (const KSSTATE state : {KSSTATE_ACQUIRE, KSSTATE_PAUSE, KSSTATE_RUN}) {
        SCOPED_TRACE(state);
        EXPECT_EQ(STATUS_SUCCESS, setState(m_pin, state).status);
        EXPECT_EQ(STATUS_SUCCESS, setState(worker, state).status);
        if (state == KSSTATE_ACQUIRE) {
            EXPECT_EQ(STATUS_PENDING, one.send(m_pin));
            EXPECT_EQ(STATUS_PENDING, two.send(worker));
        }
        sleep(1);
        // Entering a state that processes initiates it, unless the pin forbids that.
        EXPECT_EQ(0, calls[m_ks]);
        EXPECT_EQ(state - KSSTATE_ACQUIRE, calls[ksWorker]);
        attemptAtDispatch();
        EXPECT_EQ(state == KSSTATE_RUN ? 1 : 0, calls[m_ks]);
    }
}

TEST_F(KsStream, LooksAgainAfterAnAttemptThatCameWhileItRan) {
    open(kWorker);
    int calls = 0;
    int depth = 0;
    m_script.process = [&](PKSPIN pin) {
        EXPECT_EQ(1, ++depth);
        EXPECT_EQ(PASSIVE_LEVEL, KeGetCurrentIrql());
        if (++calls == 1) {
            KsPinAttemptProcessing(pin, FALSE); // does not enter
            KsPinAttemptProcessing(pin, TRUE);
            sleep(5); // and neither does the worker that it queued
        }
        --depth;
        return STATUS_PENDING;
    };
    Frames frames(1, 8, true);
    EXPECT_EQ(STATUS_PENDING, frames.send(m_pin));
    EXPECT_EQ(0, calls); // asynchronous: on a worker
    sleep(20);
    EXPECT_EQ(2, calls);
    attemptAtDispatch(); // not at this level: on a worker as well
    EXPECT_EQ(2, calls);
    sleep(1);
    EXPECT_EQ(3, calls);
}

TEST_F(KsStream, GivesEverythingBackOnStopAndReset) {
    open(kRender);
    std::vector<std::unique_ptr<Frames>> frames;
    const auto queue = [&] {
        frames.push_back(std::make_unique<Frames>(2, 8, true));
        EXPECT_EQ(STATUS_PENDING, frames.back()->send(m_pin));
    };
    queue();
    queue();
    PKSSTREAM_POINTER pointer = leading(m_ks);
    ASSERT_NE(nullptr, pointer);
    EXPECT_EQ(STATUS_SUCCESS, setState(m_pin, KSSTATE_STOP).status);
    EXPECT_FALSE(frames[0]->done()); // the driver holds its first frame
    EXPECT_TRUE(frames[1]->done());
    EXPECT_EQ(STATUS_CANCELLED, frames[1]->status());
    EXPECT_EQ(0u, frames[1]->information());
    KsStreamPointerAdvanceOffsetsAndUnlock(pointer, 3, 0, FALSE);
    EXPECT_TRUE(frames[0]->done());
    EXPECT_EQ(STATUS_CANCELLED, frames[0]->status());

    EXPECT_EQ(STATUS_SUCCESS, setState(m_pin, KSSTATE_PAUSE).status);
    queue();
    m_script.log.clear();
    ULONG reset = KSRESET_BEGIN;
    EXPECT_EQ(STATUS_SUCCESS,
              control(m_pin, IOCTL_KS_RESET_STATE, &reset, sizeof(reset), nullptr, 0).status);
    EXPECT_EQ((Log{"Reset"}), m_script.log);
    EXPECT_EQ(STATUS_CANCELLED, frames[2]->status());
    Frames refused(1, 8, true);
    EXPECT_EQ(STATUS_DEVICE_NOT_READY, refused.send(m_pin));
    reset = KSRESET_END;
    EXPECT_EQ(STATUS_SUCCESS,
              control(m_pin, IOCTL_KS_RESET_STATE, &reset, sizeof(reset), nullptr, 0).status);
    queue();
    EXPECT_FALSE(frames[3]->done());
    reset = KSRESET_END + 1;
    EXPECT_EQ(STATUS_INVALID_PARAMETER,
              control(m_pin, IOCTL_KS_RESET_STATE, &reset, sizeof(reset), nullptr, 0).status);
    m_pin.close();
    EXPECT_TRUE(frames[3]->done());
}

TEST_F(KsStream, CancelsSingleRequests) {
    open(kRender);
    Frames held(1, 8, true);
    Frames waiting(1, 8, true);
    EXPECT_EQ(STATUS_PENDING, held.send(m_pin));
    EXPECT_EQ(STATUS_PENDING, waiting.send(m_pin));
    PKSSTREAM_POINTER pointer = leading(m_ks);
    BOOLEAN first = FALSE;
    BOOLEAN last = FALSE;
    PIRP irp = KsStreamPointerGetIrp(pointer, &first, &last);
    EXPECT_TRUE(first && last);
    EXPECT_TRUE(IoCancelIrp(irp));
    EXPECT_FALSE(held.done());
    KsStreamPointerUnlock(pointer, FALSE);
    EXPECT_TRUE(held.done());
    EXPECT_EQ(STATUS_CANCELLED, held.status());
    pointer = leading(m_ks); // has moved on
    ASSERT_NE(nullptr, pointer);
    EXPECT_NE(irp, KsStreamPointerGetIrp(pointer, nullptr, nullptr));
    KsStreamPointerUnlock(pointer, FALSE);
    IO_STATUS_BLOCK io = {};
    EXPECT_EQ(STATUS_SUCCESS, ZwCancelIoFile(m_pin.get(), &io));
    EXPECT_EQ(STATUS_CANCELLED, waiting.status());
    EXPECT_EQ(nullptr, leading(m_ks));
}

TEST_F(KsStream, AdvancesALockedPointerFromFrameToFrame) {
    open(kRender);
    Frames frames(3, 8, true);
    frames.header(1).DataUsed = 0; // an empty frame is a frame
    EXPECT_EQ(STATUS_PENDING, frames.send(m_pin));
    PKSSTREAM_POINTER pointer = leading(m_ks);
    EXPECT_EQ(STATUS_SUCCESS, KsStreamPointerAdvanceOffsets(pointer, 5, 0, FALSE));
    EXPECT_EQ(3u, pointer->OffsetIn.Remaining);
    EXPECT_EQ(reinterpret_cast<UCHAR*>(frames.data(0)) + 5, pointer->OffsetIn.Data);
    EXPECT_EQ(STATUS_SUCCESS, KsStreamPointerAdvanceOffsets(pointer, 99, 0, FALSE));
    EXPECT_EQ(0u, pointer->OffsetIn.Count);
    EXPECT_EQ(STATUS_SUCCESS, KsStreamPointerAdvanceOffsets(pointer, 0, 0, FALSE));
    EXPECT_EQ(reinterpret_cast<UCHAR*>(frames.data(2)), pointer->OffsetIn.Data);
    EXPECT_EQ(STATUS_SUCCESS, KsStreamPointerSetStatusCode(pointer, STATUS_DATA_OVERRUN));
    EXPECT_EQ(STATUS_DEVICE_NOT_READY, KsStreamPointerAdvance(pointer));
    EXPECT_EQ(STATUS_DEVICE_NOT_READY, KsStreamPointerLock(pointer));
    EXPECT_TRUE(frames.done());
    EXPECT_EQ(STATUS_DATA_OVERRUN, frames.status());
}

int g_cancelledClones;
void NTAPI onCloneCancelled(PKSSTREAM_POINTER clone) {
    ++g_cancelledClones;
    KsStreamPointerDelete(clone);
}

TEST_F(KsStream, HoldsFramesThatClonesStandOn) {
    open(kRender);
    g_cancelledClones = 0;
    Frames first(1, 8, true);
    Frames second(1, 8, true);
    EXPECT_EQ(STATUS_PENDING, first.send(m_pin));
    EXPECT_EQ(STATUS_PENDING, second.send(m_pin));
    PKSSTREAM_POINTER pointer = leading(m_ks);
    PKSSTREAM_POINTER one = nullptr;
    PKSSTREAM_POINTER two = nullptr;
    ASSERT_EQ(STATUS_SUCCESS, KsStreamPointerClone(pointer, onCloneCancelled, 16, &one));
    KsStreamPointerAdvanceOffsetsAndUnlock(pointer, 8, 0, FALSE);
    EXPECT_FALSE(first.done());
    pointer = leading(m_ks);
    ASSERT_EQ(STATUS_SUCCESS, KsStreamPointerClone(pointer, onCloneCancelled, 0, &two));
    EXPECT_NE(nullptr, one->Context);
    PKSSTREAM_POINTER plain = nullptr;
    ASSERT_EQ(STATUS_SUCCESS, KsStreamPointerClone(one, nullptr, 0, &plain));
    EXPECT_EQ(nullptr, plain->Context) << "not the original's";
    KsStreamPointerDelete(plain);
    EXPECT_EQ(one, KsPinGetFirstCloneStreamPointer(m_ks));
    EXPECT_EQ(two, KsStreamPointerGetNextClone(one));
    EXPECT_EQ(nullptr, KsStreamPointerGetNextClone(two));
    KsStreamPointerUnlock(pointer, TRUE);
    EXPECT_EQ(STATUS_SUCCESS, KsStreamPointerAdvance(one)); // to where the other one stands
    EXPECT_TRUE(first.done());
    KsStreamPointerDelete(two);
    EXPECT_FALSE(second.done());
    KsStreamPointerUnlock(one, FALSE);
    EXPECT_EQ(STATUS_SUCCESS, setState(m_pin, KSSTATE_STOP).status);
    EXPECT_EQ(1, g_cancelledClones);
    EXPECT_EQ(STATUS_CANCELLED, second.status());
}

TEST_F(KsStream, CompletesInOrderAndWithTheTrailingEdgeWhereThePinAsksForIt) {
    open(kFifo);
    constexpr GUID kConnectionEvents = {STATIC_KSEVENTSETID_Connection};
    const File ended = makeEvent();
    KSEVENTDATA eventData = {};
    eventData.NotificationType = KSEVENTF_EVENT_HANDLE;
    eventData.EventHandle.Event = ended.get();
    KSEVENT enable =
        makeProperty(kConnectionEvents, KSEVENT_CONNECTION_ENDOFSTREAM, KSEVENT_TYPE_ENABLE);
    EXPECT_EQ(STATUS_SUCCESS, control(m_pin, IOCTL_KS_ENABLE_EVENT, &enable, sizeof(enable),
                                      &eventData, sizeof(eventData))
                                  .status);
    Frames first(1, 8, true);
    Frames second(1, 8, true);
    second.header().OptionsFlags = KSSTREAM_HEADER_OPTIONSF_ENDOFSTREAM;
    EXPECT_EQ(STATUS_PENDING, first.send(m_pin));
    EXPECT_EQ(STATUS_PENDING, second.send(m_pin));
    PKSSTREAM_POINTER held = nullptr;
    PKSSTREAM_POINTER pointer = leading(m_ks);
    ASSERT_EQ(STATUS_SUCCESS, KsStreamPointerClone(pointer, nullptr, 0, &held));
    EXPECT_EQ(STATUS_SUCCESS, KsStreamPointerAdvance(pointer));
    EXPECT_EQ(STATUS_DEVICE_NOT_READY, KsStreamPointerAdvance(pointer));
    PKSSTREAM_POINTER trailing =
        KsPinGetTrailingEdgeStreamPointer(m_ks, KSSTREAM_POINTER_STATE_LOCKED);
    ASSERT_NE(nullptr, trailing);
    EXPECT_EQ(STATUS_SUCCESS, KsStreamPointerAdvance(trailing));
    EXPECT_EQ(STATUS_DEVICE_NOT_READY, KsStreamPointerAdvance(trailing));
    EXPECT_FALSE(first.done());
    EXPECT_FALSE(second.done()); // used up, but behind the first
    EXPECT_FALSE(isSet(ended));
    KsStreamPointerDelete(held);
    EXPECT_TRUE(first.done());
    EXPECT_TRUE(second.done());
    EXPECT_EQ(STATUS_SUCCESS, second.status());
    EXPECT_TRUE(isSet(ended));
    EXPECT_EQ(nullptr, KsPinGetTrailingEdgeStreamPointer(m_ks, KSSTREAM_POINTER_STATE_LOCKED));
}

// The promise that the completion path rests on.
TEST_F(KsStream, AllocatesNothingOnceTheQueueIsWarm) {
    open(kRender);
    m_script.process = [&](PKSPIN pin) {
        PKSSTREAM_POINTER pointer = leading(pin);
        KsStreamPointerAdvanceOffsetsAndUnlock(pointer, pointer->OffsetIn.Remaining, 0, FALSE);
        return STATUS_SUCCESS;
    };
    std::vector<std::unique_ptr<Frames>> frames;
    for (int i = 0; i < 8; ++i) {
        frames.push_back(std::make_unique<Frames>(1, 1768, true));
    }
    std::uint64_t allocations = 0;
    for (int round = 0; round < 1000; ++round) {
        for (auto& one : frames) {
            ASSERT_EQ(STATUS_PENDING, one->send(m_pin));
        }
        if (round == 0) {
            allocations = m_machine->pool().counters().allocations;
        }
        attemptAtDispatch();
        for (auto& one : frames) {
            ASSERT_TRUE(one->done());
        }
    }
    EXPECT_EQ(allocations, m_machine->pool().counters().allocations);
}

} // namespace
} // namespace kelvane::ks_test
