#include "usbdriver/midipin.h"

#include "usbdriver/device.h"
#include "usbdriver/guids.h"
#include "usbdriver/midiparser.h"

namespace {

constexpr std::size_t kHeaderBytes = sizeof(KSMUSICFORMAT);
static_assert(kHeaderBytes == 8);

void NTAPI FreeMidiPin(PVOID pin) {
    delete static_cast<UsbMidiPin*>(pin);
}

const KSPIN_DISPATCH kMidiPinDispatch = {
    .Create = UsbMidiPin::DispatchCreate,
    .Close = UsbMidiPin::DispatchClose,
    .Process = UsbMidiPin::DispatchProcess,
    .Reset = nullptr,
    .SetDataFormat = nullptr,
    .SetDeviceState = UsbMidiPin::DispatchSetDeviceState,
    .Connect = nullptr,
    .Disconnect = nullptr,
    .Clock = nullptr,
    .Allocator = nullptr,
};

constexpr GUID kMidiPinCategory = {STATIC_KSCATEGORY_AUDIO};
constexpr GUID kMidiPinName = {STATIC_KSAUDFNAME_MIDI};

constexpr KSDATARANGE_MUSIC MusicRange(const GUID& subFormat) {
    KSDATARANGE_MUSIC range = {};
    range.DataRange.FormatSize = sizeof(range);
    range.DataRange.MajorFormat = {STATIC_KSDATAFORMAT_TYPE_MUSIC};
    range.DataRange.SubFormat = subFormat;
    range.DataRange.Specifier = {STATIC_KSDATAFORMAT_SPECIFIER_NONE};
    range.Technology = {STATIC_KSMUSIC_TECHNOLOGY_PORT};
    range.ChannelMask = 0xFFFF; // all 16 channels
    return range;
}

constexpr KSDATARANGE_MUSIC kMidiRange = MusicRange({STATIC_KSDATAFORMAT_SUBTYPE_MIDI});
constexpr KSDATARANGE_MUSIC kVendorRange = MusicRange(KSDATAFORMAT_SUBTYPE_KELVANE_MIDI);
constexpr PKSDATARANGE kMidiRanges[] = {const_cast<PKSDATARANGE>(&kMidiRange.DataRange)};
constexpr PKSDATARANGE kVendorRanges[] = {const_cast<PKSDATARANGE>(&kVendorRange.DataRange)};

bool OffersVendorFormatOnly(const KSPIN_DESCRIPTOR& descriptor) {
    return descriptor.DataRangesCount == 1 &&
           IsSameGuid(descriptor.DataRanges[0]->SubFormat, KSDATAFORMAT_SUBTYPE_KELVANE_MIDI);
}

UsbMidiPin* FromKsPin(PKSPIN pin) {
    return static_cast<UsbMidiPin*>(pin->Context);
}

bool Contains(std::span<const UCHAR> bytes, UCHAR value) {
    for (const UCHAR byte : bytes) {
        if (byte == value) {
            return true;
        }
    }
    return false;
}

// Whether a status byte is among them that ends an exclusive: any but 0xF0 and real-time ones.
bool EndsSysex(std::span<const UCHAR> bytes) {
    for (const UCHAR byte : bytes) {
        if (IsMidiStatus(byte) && byte != kSysexStart && !IsMidiRealTime(byte)) {
            return true;
        }
    }
    return false;
}

} // namespace

KSPIN_DESCRIPTOR_EX UsbMidiPin::Descriptor(bool input, bool hidden, bool exclusive) {
    KSPIN_DESCRIPTOR_EX pin = {};
    pin.Dispatch = &kMidiPinDispatch;
    pin.PinDescriptor.DataRangesCount = 1;
    pin.PinDescriptor.DataRanges = hidden ? kVendorRanges : kMidiRanges;
    pin.PinDescriptor.DataFlow = input ? KSPIN_DATAFLOW_OUT : KSPIN_DATAFLOW_IN;
    pin.PinDescriptor.Communication = KSPIN_COMMUNICATION_SINK;
    pin.PinDescriptor.Category = &kMidiPinCategory;
    pin.PinDescriptor.Name = &kMidiPinName;
    pin.Flags = KSPIN_FLAG_PROCESS_IN_RUN_STATE_ONLY;
    pin.InstancesPossible = exclusive ? 1 : KSINSTANCE_INDETERMINATE;
    return pin;
}

UsbMidiPin::UsbMidiPin(PKSPIN pin, UsbMidiPort* port)
    : m_KsPin(pin), m_Port(port),
      m_VendorFormat(OffersVendorFormatOnly(pin->Descriptor->PinDescriptor)) {}

// --- Create and close ---------------------------------------------------------------------------

NTSTATUS NTAPI UsbMidiPin::DispatchCreate(PKSPIN pin, PIRP) {
    DbgPrint("UsbMidiPin::DispatchCreate(%d)\n", pin->Id);
    const UsbAudioDevice* const device = UsbAudioDevice::FromKsPin(pin);
    UsbMidiPort* const port = device == nullptr ? nullptr : device->GetMidiPort(pin->Id);
    if (port == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    auto* const object = new (NonPagedPoolCacheAligned) UsbMidiPin(pin, port); // its lookaside list
    if (object == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    const NTSTATUS status = KsAddItemToObjectBag(pin->Bag, object, FreeMidiPin);
    if (!NT_SUCCESS(status)) {
        DbgPrint("%s() : KsAddItemToObjectBag failed (%x)\n", "UsbMidiPin::DispatchCreate", status);
        delete object;
        return status;
    }
    pin->Context = object;
    port->AddPin(object);
    DbgPrint("OK!\n");
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI UsbMidiPin::DispatchClose(PKSPIN pin, PIRP) {
    DbgPrint("UsbMidiPin::DispatchClose()\n");
    if (UsbMidiPin* const object = FromKsPin(pin)) {
        object->m_Port->RemovePin(object);
        if (object->m_InSysex) {
            DbgPrint("UsbMidiPin::DispatchClose() error - closing while sending sysex message\n");
        }
    }
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI UsbMidiPin::DispatchSetDeviceState(PKSPIN pin, KSSTATE toState, KSSTATE) {
    UsbMidiPin* const object = FromKsPin(pin);
    if (object != nullptr && toState == KSSTATE_RUN) {
        object->m_RunFrame.Set(object->m_Port->CurrentFrame());
    }
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI UsbMidiPin::DispatchProcess(PKSPIN pin) {
    UsbMidiPin* const object = FromKsPin(pin);
    if (object == nullptr) {
        return STATUS_PENDING;
    }
    return pin->DataFlow == KSPIN_DATAFLOW_IN ? object->ProcessRender() : object->ProcessCapture();
}

// --- Render -------------------------------------------------------------------------------------

NTSTATUS UsbMidiPin::ProcessRender() {
    while (const PKSSTREAM_POINTER pointer =
               KsPinGetLeadingEdgeStreamPointer(m_KsPin, KSSTREAM_POINTER_STATE_LOCKED)) {
        const KSSTREAM_POINTER_OFFSET& place = pointer->OffsetIn;
        NTSTATUS status = RenderFrame({place.Data, place.Remaining});
        if (!NT_SUCCESS(status)) {
            KsStreamPointerSetStatusCode(pointer, status);
        }
        status = KsStreamPointerAdvanceOffsets(pointer, place.Remaining, 0, FALSE);
        if (!NT_SUCCESS(status)) {
            DbgPrint("%s() : KsStreamPointerAdvanceOffsets failed (%x)\n",
                     "UsbMidiPin::DispatchProcess", status);
        }
    }
    return STATUS_PENDING;
}

// The first event of a frame is sent, the rest of the frame ignored. An empty frame is none; one
// that is too short for its header, or for the bytes that its header promises, is refused whole.
NTSTATUS UsbMidiPin::RenderFrame(std::span<const UCHAR> frame) {
    if (frame.empty()) {
        return STATUS_SUCCESS;
    }
    KSMUSICFORMAT header = {};
    if (frame.size() >= kHeaderBytes) {
        RtlCopyMemory(&header, frame.data(), kHeaderBytes);
    }
    if (frame.size() < kHeaderBytes || header.ByteCount > frame.size() - kHeaderBytes) {
        DbgPrint("%s() : a frame of %u bytes has no room for %u MIDI bytes\n",
                 "UsbMidiPin::DispatchProcess", static_cast<ULONG>(frame.size()), header.ByteCount);
        return STATUS_INVALID_PARAMETER;
    }
    if (header.ByteCount != 0) {
        Write(frame.subspan(kHeaderBytes, header.ByteCount));
    }
    return STATUS_SUCCESS;
}

void UsbMidiPin::Write(std::span<const UCHAR> bytes) {
    if (Contains(bytes, kSysexStart)) {
        m_InSysex = true;
    }
    if (!m_InSysex) {
        m_Port->WriteMessage(bytes, IsVendorFormat());
        return;
    }
    m_Port->WriteSysex(bytes, IsVendorFormat());
    if (EndsSysex(bytes)) {
        m_InSysex = false;
    }
}

// --- Capture ------------------------------------------------------------------------------------

void UsbMidiPin::HandleMidiMessageList(std::span<const MidiMessage> messages, ULONG frame) {
    const ULONG time = frame - m_RunFrame.Get(); // frame numbers wrap
    for (const MidiMessage& message : messages) {
        if (!NT_SUCCESS(m_Queue.Append(message, time))) {
            DbgPrint("UsbMidiPin::HandleMidiMessageList() : EnqueueMidiMessage() failed \n");
        }
    }
    KsPinAttemptProcessing(m_KsPin, TRUE);
}

// Called again and again while it succeeds: once per message, or piece of one, that a client frame
// takes.
NTSTATUS UsbMidiPin::ProcessCapture() {
    if (m_Queue.IsEmpty()) {
        return STATUS_PENDING;
    }
    const PKSSTREAM_POINTER pointer =
        KsPinGetLeadingEdgeStreamPointer(m_KsPin, KSSTREAM_POINTER_STATE_LOCKED);
    if (pointer == nullptr) {
        return MoreToRead();
    }
    const KSSTREAM_POINTER_OFFSET& place = pointer->OffsetOut;
    ULONG used = 0;
    if (place.Remaining < kHeaderBytes) {
        KsStreamPointerSetStatusCode(pointer, STATUS_BUFFER_TOO_SMALL);
    } else {
        used = FillFrame({place.Data, place.Remaining});
    }
    KsStreamPointerAdvanceOffsetsAndUnlock(pointer, 0, used, TRUE);
    return MoreToRead();
}

// Puts the oldest message, or as much of it as there is room for, into a frame. Returns the bytes
// used: whole 32-bit words as far as the frame has them.
ULONG UsbMidiPin::FillFrame(std::span<UCHAR> frame) {
    QueuedMidiMessage* const message = m_Queue.TakeFirst();
    if (message == nullptr) {
        return 0;
    }
    const std::size_t room = frame.size() - kHeaderBytes;
    const ULONG left = message->length - message->offset;
    const ULONG bytes = left < room ? left : static_cast<ULONG>(room);
    const KSMUSICFORMAT header = {.TimeDeltaMs = message->time, .ByteCount = bytes};
    RtlCopyMemory(frame.data(), &header, kHeaderBytes);
    RtlCopyMemory(&frame[kHeaderBytes], &message->data[message->offset], bytes);
    if (bytes < left) {
        message->offset += bytes;
        m_Queue.PutBack(message);
    } else {
        m_Queue.Free(message);
    }
    const std::size_t words = (kHeaderBytes + bytes + 3) & ~std::size_t{3};
    return static_cast<ULONG>(words < frame.size() ? words : frame.size());
}
