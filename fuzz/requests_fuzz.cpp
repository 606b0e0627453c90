// The driver's request path: properties, methods and events with any record and any buffer, pins
// opened with any format, buffers queued and states changed, on a device that plays and records.
//
// Requests go through the class driver with buffers that end where they say, so that
// AddressSanitizer sees a byte read or written behind one. Pointers inside of records are an
// application's own: those that it could not have are not made up.
#include "fuzz/fuzz_machine.h"
#include "fuzz/requests_input.h"

#include "client/pinformat.h"
#include "devices/models.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <deque>
#include <span>
#include <vector>

namespace kelvane::fuzz {
namespace {

constexpr GUID kSets[] = {
    {STATIC_KSPROPSETID_Pin},
    {STATIC_KSPROPSETID_Topology},
    {STATIC_KSPROPSETID_General},
    {STATIC_KSPROPSETID_Connection},
    {STATIC_KSPROPSETID_Stream},
    {STATIC_KSPROPSETID_Audio},
    {0x86C2FD82, 0xC2A0, 0x4637, {0x9C, 0xB5, 0x29, 0x4F, 0xE8, 0xF5, 0xE1, 0x29}},
    {0x9DDEE3D3, 0xFDF1, 0x4C0F, {0x9D, 0x0D, 0x48, 0x6A, 0x5E, 0xF8, 0x49, 0x02}},
    {0x775CEE85, 0x04ED, 0x4977, {0xA1, 0xA6, 0xD2, 0x94, 0xE5, 0x48, 0x01, 0x3A}},
};
static_assert(std::size(kSets) == static_cast<std::size_t>(Set::Count));

constexpr std::size_t kMostSteps = 48;
constexpr std::uint32_t kMostMilliseconds = 40; // of one sleep

class Input {
public:
    explicit Input(std::span<const std::uint8_t> bytes) : m_rest(bytes) {}
    bool empty() const { return m_rest.empty(); }
    std::uint8_t byte() {
        if (m_rest.empty()) {
            return 0;
        }
        const std::uint8_t value = m_rest.front();
        m_rest = m_rest.subspan(1);
        return value;
    }
    std::uint16_t word() {
        const std::uint8_t low = byte();
        return static_cast<std::uint16_t>(low | byte() << 8);
    }
    std::vector<std::byte> counted() {
        const std::size_t count = byte();
        std::vector<std::byte> bytes(count);
        for (std::byte& each : bytes) {
            each = std::byte{byte()};
        }
        return bytes;
    }

private:
    std::span<const std::uint8_t> m_rest;
};

// A request under way with the memory that it works on.
struct Request {
    std::vector<std::byte> in;
    std::vector<std::byte> out;
    KSSTREAM_HEADER header{};
    IO_STATUS_BLOCK result{};
    client::Event done;
};

class Application {
public:
    Application(FuzzMachine& box, Input input) : m_box(box), m_input(input) {}
    ~Application() {
        for (auto& pin : m_pins) {
            pin.reset();
        }
        m_box.filter.reset(); // with it go the events that are still enabled
        for (const auto& request : m_pending) {
            if (!request->done.wait(0)) {
                finding("a request is not completed though its file is closed");
            }
        }
    }
    Application(const Application&) = delete;
    Application& operator=(const Application&) = delete;

    void run() {
        for (std::size_t i = 0; i < kMostSteps && !m_input.empty(); ++i) {
            step(static_cast<Step>(m_input.byte() % static_cast<std::uint8_t>(Step::Count)));
        }
    }

private:
    void step(Step which) {
        switch (which) {
        case Step::Property:
            return record(IOCTL_KS_PROPERTY);
        case Step::Method:
            return record(IOCTL_KS_METHOD);
        case Step::EnableEvent:
            return enableEvent();
        case Step::DisableEvent:
            return disableEvent();
        case Step::OpenPin:
            return openPin();
        case Step::ClosePin:
            return slot().reset();
        case Step::SetState:
            return setState();
        case Step::Queue:
            return queue();
        case Step::Sleep:
            return FuzzMachine::sleep(m_input.byte() % kMostMilliseconds);
        case Step::Reset:
            return reset();
        case Step::Count:
            return;
        }
    }

    HANDLE target() {
        const std::uint8_t which = m_input.byte() % (kSlots + 1);
        const bool isPin = which != 0 && m_pins[which - 1U];
        return isPin ? m_pins[which - 1U]->handle() : m_box.filter->handle();
    }
    std::optional<client::KsFile>& slot() { return m_pins[m_input.byte() % kSlots]; }

    // A KSIDENTIFIER and what follows it.
    std::vector<std::byte> identifier() {
        const std::uint8_t set = m_input.byte();
        KSPROPERTY request{};
        request.Set = set < std::size(kSets) ? kSets[set] : GUID{set, 0, 0, {}};
        request.Id = m_input.byte();
        const std::uint16_t flags = m_input.word();
        // The upper bits are those from 0x10000000 on: KSPROPERTY_TYPE_TOPOLOGY and the like.
        request.Flags = (flags & 0xFFFU) | std::uint32_t{flags} >> 12 << 28;
        std::vector<std::byte> bytes(sizeof request);
        std::memcpy(bytes.data(), &request, sizeof request);
        const std::vector<std::byte> extra = m_input.counted();
        bytes.insert(bytes.end(), extra.begin(), extra.end());
        constexpr std::uint8_t kCut = 0xFF; // half an identifier
        if (set == kCut) {
            bytes.resize(bytes.size() / 2);
        }
        bytes.shrink_to_fit();
        return bytes;
    }

    Request& send(HANDLE file, ULONG code, std::vector<std::byte> in, std::vector<std::byte> out) {
        auto& request = *m_pending.emplace_back(std::make_unique<Request>());
        request.in = std::move(in);
        request.out = std::move(out);
        const NTSTATUS status = ZwDeviceIoControlFile(
            file, request.done.handle(), nullptr, nullptr, &request.result, code,
            request.in.empty() ? nullptr : request.in.data(), static_cast<ULONG>(request.in.size()),
            request.out.empty() ? nullptr : request.out.data(),
            static_cast<ULONG>(request.out.size()));
        settle(request, status);
        return request;
    }

    // One that was refused is not completed later; one that is done told no more than there is.
    void settle(const Request& request, NTSTATUS status) {
        if (status != STATUS_PENDING && NT_ERROR(status)) {
            m_pending.pop_back();
        } else if (status == STATUS_SUCCESS && !request.in.empty() &&
                   request.result.Information > request.out.size()) {
            finding(fmt::format("{} bytes told of a buffer of {}", request.result.Information,
                                request.out.size()));
        }
    }

    void record(ULONG code) {
        const HANDLE file = target();
        std::vector<std::byte> in = identifier();
        const std::size_t length = m_input.word() % 1024;
        std::vector<std::byte> data = m_input.counted();
        data.resize(length);
        data.shrink_to_fit();
        if (takesHandle(in)) {
            return;
        }
        send(file, code, std::move(in), std::move(data));
    }

    // Values that hold a handle or a pointer: kernel-mode callers answer for them.
    static bool takesHandle(const std::vector<std::byte>& in) {
        KSPROPERTY request{};
        if (in.size() < sizeof request) {
            return false;
        }
        std::memcpy(&request, in.data(), sizeof request);
        const GUID stream = {STATIC_KSPROPSETID_Stream};
        return std::memcmp(&request.Set, &stream, sizeof stream) == 0 &&
               (request.Flags & KSPROPERTY_TYPE_SET) != 0;
    }

    void enableEvent() {
        constexpr ULONG kKinds[] = {KSEVENTF_EVENT_HANDLE, KSEVENTF_EVENT_HANDLE,
                                    KSEVENTF_SEMAPHORE_HANDLE, 0, 0x80};
        const HANDLE file = target();
        std::vector<std::byte> in = identifier();
        KSEVENTDATA data{};
        data.NotificationType = kKinds[m_input.byte() % std::size(kKinds)];
        data.EventHandle.Event = m_signal.handle();
        std::vector<std::byte> out(std::size_t{m_input.byte()} % 64);
        const auto record = std::as_bytes(std::span(&data, 1));
        std::copy_n(record.begin(), std::min(out.size(), record.size()), out.begin());
        const std::size_t before = m_pending.size();
        const Request& request = send(file, IOCTL_KS_ENABLE_EVENT, std::move(in), std::move(out));
        if (m_pending.size() > before) {
            m_events.emplace_back(file, &request);
        }
    }

    void disableEvent() {
        const HANDLE file = target();
        const std::uint8_t which = m_input.byte();
        std::vector<std::byte> stranger(sizeof(KSEVENTDATA));
        const bool known = which < m_events.size();
        const std::vector<std::byte>& data = known ? m_events[which].second->out : stranger;
        client::Event done;
        IO_STATUS_BLOCK result{};
        // The record is told by its address, which is the input buffer.
        ZwDeviceIoControlFile(file, done.handle(), nullptr, nullptr, &result,
                              IOCTL_KS_DISABLE_EVENT, const_cast<std::byte*>(data.data()),
                              static_cast<ULONG>(data.size()), nullptr, 0);
    }

    void openPin() {
        std::optional<client::KsFile>& pin = slot();
        const std::uint8_t id = m_input.byte();
        constexpr std::uint32_t kRates[] = {44100, 48000, 96000, 192000, 22050, 0, 0xFFFFFFFF};
        const client::PcmFormat format{.rate = kRates[m_input.byte() % std::size(kRates)],
                                       .channels = m_input.byte(),
                                       .bits = m_input.byte(),
                                       .bytesPerSample = m_input.byte()};
        client::PinConnection connection = client::makeConnection(id, format);
        std::vector<std::byte> bytes(sizeof connection);
        std::memcpy(bytes.data(), &connection, sizeof connection);
        // What is left over of the operands replaces the end of the format.
        const std::vector<std::byte> extra = m_input.counted();
        const std::size_t kept =
            sizeof connection - std::min(extra.size(), sizeof connection.format);
        std::copy_n(extra.begin(), sizeof connection - kept,
                    bytes.begin() + static_cast<std::ptrdiff_t>(kept));
        try {
            pin.reset();
            pin.emplace(m_box.filter->createPin(bytes));
        } catch (const client::StatusError&) { // a format that the pin doesn't take
        }
    }

    void setState() {
        const std::optional<client::KsFile>& pin = slot();
        auto state = static_cast<KSSTATE>(m_input.byte() % 6);
        if (pin) {
            const GUID set = {STATIC_KSPROPSETID_Connection};
            pin->property(client::bytesOf(client::makeProperty(set, KSPROPERTY_CONNECTION_STATE,
                                                               KSPROPERTY_TYPE_SET)),
                          client::writableBytesOf(state));
        }
    }

    void queue() {
        const std::optional<client::KsFile>& pin = slot();
        auto request = std::make_unique<Request>();
        request->out.resize(m_input.word());
        request->header.Size = sizeof request->header;
        request->header.PresentationTime = {.Time = 0, .Numerator = 1, .Denominator = 1};
        request->header.FrameExtent = static_cast<ULONG>(request->out.size());
        request->header.DataUsed = m_input.word();
        request->header.Data = request->out.data();
        const std::uint8_t flags = m_input.byte();
        request->header.OptionsFlags = flags & 0x7F;
        if (!pin) {
            return;
        }
        m_pending.push_back(std::move(request));
        Request& kept = *m_pending.back();
        const NTSTATUS status = ZwDeviceIoControlFile(
            pin->handle(), kept.done.handle(), nullptr, nullptr, &kept.result,
            (flags & 0x80) != 0 ? IOCTL_KS_READ_STREAM : IOCTL_KS_WRITE_STREAM, nullptr, 0,
            &kept.header, sizeof kept.header);
        settle(kept, status);
    }

    void reset() {
        const std::optional<client::KsFile>& pin = slot();
        auto type = static_cast<KSRESET>(m_input.byte() % 3);
        if (pin) {
            std::vector<std::byte> in(sizeof type);
            std::memcpy(in.data(), &type, sizeof type);
            send(pin->handle(), IOCTL_KS_RESET_STATE, std::move(in), {});
        }
    }

    FuzzMachine& m_box;
    Input m_input;
    client::Event m_signal; // that enabled events set
    std::array<std::optional<client::KsFile>, kSlots> m_pins;
    std::deque<std::unique_ptr<Request>> m_pending; // sent and not refused, with their memory
    std::vector<std::pair<HANDLE, const Request*>> m_events;
};

void run(std::span<const std::uint8_t> input) {
    FuzzMachine box(devices::makeDevice("duplex"));
    if (!box.filter) {
        finding("the device did not start");
    }
    Application(box, Input(input)).run();
}

} // namespace
} // namespace kelvane::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    kelvane::fuzz::run({data, size});
    return 0;
}
