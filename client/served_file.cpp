#include "client/served_file.h"

#include "client/pinformat.h"
#include "client/served_records.h"
#include "client/topology.h"
#include "client/vendor_records.h"
#include "platform/nt/thread.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace kelvane::client {
namespace {

constexpr int kGreetingMilliseconds = 5000;
constexpr std::size_t kMostRequest = 4096;    // a property request with all that follows it
constexpr std::size_t kMostData = 1 << 20;    // of a property
constexpr std::size_t kMostConnection = 4096; // a pin's connection with its format
constexpr std::size_t kMostTransfers = 256;   // on their way through one pin
constexpr ULONG kLatency = 50;                // the pin's property

constexpr std::uint32_t code(NTSTATUS status) {
    return static_cast<std::uint32_t>(status);
}

// What a pin's connection says of its audio; nothing for one of another kind.
std::optional<OpenStream> audioOf(std::span<const std::byte> connect,
                                  const std::vector<PinInfo>& pins) {
    PinConnection connection{};
    if (connect.size() < sizeof connection) {
        return std::nullopt;
    }
    std::memcpy(&connection, connect.data(), sizeof connection);
    const auto pin = std::ranges::find(pins, connection.connect.PinId, &PinInfo::id);
    if (pin == pins.end()) {
        return std::nullopt;
    }
    const WaveFormat& wave = connection.format.wave;
    const auto bytes =
        static_cast<std::uint16_t>(wave.nChannels == 0 ? 0 : wave.nBlockAlign / wave.nChannels);
    return OpenStream{.input = !pin->intoFilter,
                      .format = {.rate = wave.nSamplesPerSec,
                                 .channels = wave.nChannels,
                                 .bits = wave.wBitsPerSample,
                                 .bytesPerSample = bytes},
                      .latency = {}};
}

} // namespace

Workers::~Workers() {
    {
        const std::lock_guard guard(m_mutex);
        m_ending = true;
    }
    m_changed.notify_all();
    for (std::thread& thread : m_threads) {
        thread.join();
    }
}

void Workers::run(std::function<void()> job) {
    const std::lock_guard guard(m_mutex);
    m_jobs.push_back(std::move(job));
    if (m_jobs.size() > m_idle) {
        m_threads.emplace_back([this] { work(); });
    } else {
        m_changed.notify_one();
    }
}

void Workers::work() {
    std::unique_lock lock(m_mutex);
    while (true) {
        if (m_jobs.empty()) {
            if (m_ending) {
                return;
            }
            ++m_idle;
            m_changed.wait(lock, [this] { return m_ending || !m_jobs.empty(); });
            --m_idle;
            continue;
        }
        const std::function<void()> job = std::move(m_jobs.front());
        m_jobs.pop_front();
        lock.unlock();
        job();
        lock.lock();
    }
}

struct ServedFile::Transfer {
    std::unique_ptr<StreamRequest> request;
    Ask ask = Ask::Write;
    std::uint32_t number = 0;
};

ServedFile::ServedFile(Descriptor socket, std::uint32_t process, const Context& context)
    : m_process(process), m_context(context), m_conversation(std::move(socket)) {}

ServedFile::~ServedFile() = default;

void ServedFile::serve() {
    nt::Thread::current().process = m_process; // whose pin it is
    Message asked;
    auto outcome = greet() ? Conversation::Outcome::TimeOut : Conversation::Outcome::Ended;
    while (outcome != Conversation::Outcome::Ended) {
        outcome = m_conversation.receive(asked, -1);
        if (outcome == Conversation::Outcome::TooLong) {
            Message reply{.ask = asked.ask, .number = asked.number, .status = 0, .payload = {}};
            refuse(reply, code(STATUS_INVALID_BUFFER_SIZE),
                   fmt::format("a message has at most {} bytes", kMostPayload));
            send(reply);
            break;
        }
        if (outcome == Conversation::Outcome::Received) {
            if (asked.ask == Ask::Write || asked.ask == Ask::Read) {
                submit(asked);
            } else {
                send(answer(asked));
            }
        }
    }
    closeFile();
}

bool ServedFile::greet() {
    Message asked;
    Message reply{.ask = Ask::Hello, .number = 0, .status = code(STATUS_SUCCESS), .payload = {}};
    const auto outcome = m_conversation.receive(asked, kGreetingMilliseconds);
    if (outcome == Conversation::Outcome::Ended) {
        return false; // it only looked whether somebody is here
    }
    reply.number = asked.number;
    std::uint32_t version = 0;
    if (outcome == Conversation::Outcome::Received && asked.ask == Ask::Hello &&
        asked.payload.size() == sizeof version) {
        version = PayloadReader(asked.payload).take<std::uint32_t>();
    }
    if (version != kConversationVersion) {
        refuse(reply, code(STATUS_REVISION_MISMATCH), "it is no kelvane of this version");
        send(reply);
        return false;
    }
    Host& host = m_context.host;
    try {
        m_context.opened();
        m_file.emplace(m_context.openFilter());
    } catch (const StatusError& error) {
        refuse(reply, error.status(), error.what());
        send(reply);
        return false;
    }
    reply.payload = PayloadWriter()
                        .put(static_cast<std::uint32_t>(::getpid()))
                        .put(host.seconds())
                        .put(std::uint8_t{host.isSimulated()})
                        .putText(host.device())
                        .putText(host.input())
                        .putText(host.friendlyName())
                        .putText(host.symbolicLink())
                        .take();
    send(reply);
    return true;
}

void ServedFile::send(const Message& message) {
    const std::lock_guard guard(m_sending);
    m_conversation.send(message);
}

void ServedFile::refuse(Message& reply, std::uint32_t status, const std::string& why) {
    m_context.refused(why);
    reply.status = status;
}

Message ServedFile::answer(const Message& asked) {
    Message reply{.ask = asked.ask, .number = asked.number, .status = 0, .payload = {}};
    Host& host = m_context.host;
    try {
        PayloadReader reader(asked.payload);
        switch (asked.ask) {
        case Ask::OpenPin:
            openPin(asked.payload, reply);
            break;
        case Ask::Property:
        case Ask::Method:
            control(asked, reply);
            break;
        case Ask::SoFar:
            soFar(reader, reply);
            break;
        case Ask::WaitEvent:
            waitEvent(reader, reply);
            break;
        case Ask::Describe:
            reply.payload = writeDescription(
                {.interfaces = host.interfaces(), .clocks = host.clocks(), .rates = host.rates()});
            break;
        case Ask::Counters:
            reply.payload = writeCounters(host.counters());
            break;
        case Ask::Warnings: {
            const std::vector<std::string> lines = host.warnings();
            const std::size_t seen = reader.take<std::uint32_t>();
            reply.payload = writeLines(std::span(lines).subspan(std::min(seen, lines.size())));
            break;
        }
        case Ask::Streams:
            reply.payload = writeStreams(m_context.streams());
            break;
        case Ask::ExpectStarvation:
            expectStarvation(reader);
            break;
        default:
            refuse(reply, code(STATUS_INVALID_DEVICE_REQUEST),
                   fmt::format("nothing is asked with {}", static_cast<unsigned>(asked.ask)));
        }
    } catch (const ConversationError& error) {
        refuse(reply, code(STATUS_INVALID_PARAMETER), error.what());
    } catch (const StatusError& error) {
        reply.status = error.status(); // of the driver
    }
    return reply;
}

void ServedFile::openPin(std::span<const std::byte> connect, Message& reply) {
    KSPIN_CONNECT fixed{};
    if (m_isPin || connect.size() < sizeof fixed || connect.size() > kMostConnection) {
        refuse(reply, code(STATUS_INVALID_PARAMETER), "that is no connection of a pin");
        return;
    }
    std::memcpy(&fixed, connect.data(), sizeof fixed);
    if (fixed.PinToHandle != nullptr) {
        refuse(reply, code(STATUS_INVALID_HANDLE), "another process has no handles here");
        return;
    }
    {
        const std::lock_guard guard(m_fileMutex);
        KsFile pin = m_file->createPin(connect);
        m_stream = audioOf(connect, readPins(*m_file));
        m_file = std::move(pin);
    }
    m_isPin = true;
    if (m_stream) {
        m_carrying[m_stream->input ? 1 : 0] = true;
        m_context.changed();
    }
    m_pumping = true;
    m_context.workers.run([this] { pump(); });
}

void ServedFile::control(const Message& asked, Message& reply) {
    PayloadReader reader(asked.payload);
    const auto requestBytes = reader.take<std::uint32_t>();
    const auto dataBytes = reader.take<std::uint32_t>();
    if (requestBytes > kMostRequest || dataBytes > kMostData) {
        refuse(reply, code(STATUS_INVALID_BUFFER_SIZE),
               fmt::format("a request of {} bytes with {} bytes of data", requestBytes, dataBytes));
        return;
    }
    const auto request = reader.takeBytes(requestBytes);
    const auto sent = reader.takeBytes(dataBytes);
    std::vector<std::byte> data(sent.begin(), sent.end());
    std::size_t returned = 0;
    {
        const std::lock_guard guard(m_fileMutex);
        reply.status = code(asked.ask == Ask::Method ? m_file->method(request, data, &returned)
                                                     : m_file->property(request, data, &returned));
    }
    sendBack(); // what has completed is told of ahead of what came of it
    reply.payload = PayloadWriter().put(static_cast<std::uint32_t>(returned)).putBytes(data).take();
}

void ServedFile::submit(const Message& asked) {
    Message reply{.ask = asked.ask, .number = asked.number, .status = 0, .payload = {}};
    try {
        PayloadReader reader(asked.payload);
        auto transfer = std::make_shared<Transfer>();
        transfer->ask = asked.ask;
        transfer->number = asked.number;
        transfer->request = m_file->makeRequest();
        StreamRequest& request = *transfer->request;
        request.header.OptionsFlags = reader.take<std::uint32_t>();
        if (asked.ask == Ask::Write) {
            request.data.assign(reader.rest().begin(), reader.rest().end());
            request.header.DataUsed = static_cast<ULONG>(request.data.size());
        } else {
            const auto room = reader.take<std::uint32_t>();
            request.data.resize(std::min<std::size_t>(room, kMostPayload));
        }
        request.header.Size = sizeof request.header;
        request.header.PresentationTime = {.Time = 0, .Numerator = 1, .Denominator = 1};
        request.header.FrameExtent = static_cast<ULONG>(request.data.size());
        request.header.Data = request.data.data();
        const std::lock_guard guard(m_mutex);
        if (!m_isPin) {
            refuse(reply, code(STATUS_INVALID_DEVICE_REQUEST), "a filter takes no audio");
        } else if (m_transfers.size() >= kMostTransfers) {
            refuse(reply, code(STATUS_INSUFFICIENT_RESOURCES),
                   fmt::format("more than {} buffers at once", kMostTransfers));
        } else {
            reply.status = code(m_file->submit(
                asked.ask == Ask::Write ? IOCTL_KS_WRITE_STREAM : IOCTL_KS_READ_STREAM, request));
            if (NT_SUCCESS(static_cast<NTSTATUS>(reply.status))) {
                m_transfers.push_back(std::move(transfer));
                m_changed.notify_all();
                return;
            }
        }
    } catch (const ConversationError& error) {
        refuse(reply, code(STATUS_INVALID_PARAMETER), error.what());
    }
    send(reply);
}

void ServedFile::soFar(PayloadReader& reader, Message& reply) {
    const auto bytes = reader.take<std::uint32_t>();
    sendBack();
    const std::lock_guard guard(m_mutex);
    if (!m_transfers.empty()) {
        const auto so = m_transfers.front()->request->soFar(bytes);
        reply.payload.assign(so.begin(), so.end());
    }
}

void ServedFile::waitEvent(PayloadReader& reader, Message& reply) {
    const std::uint32_t milliseconds =
        std::min(reader.take<std::uint32_t>(), kMostEventMilliseconds);
    if (!m_events) {
        m_events = m_context.host.openPort({});
    }
    if (const auto raised = m_events->waitForEvent(milliseconds)) {
        reply.payload = PayloadWriter().put(raised->event).putBytes(raised->data).take();
    }
}

void ServedFile::expectStarvation(PayloadReader& reader) {
    const bool input = reader.take<std::uint8_t>() != 0;
    const bool expected = reader.take<std::uint8_t>() != 0;
    m_wanting[index(input ? Direction::Input : Direction::Output)] = !expected;
    m_context.changed();
}

std::optional<OpenStream> ServedFile::stream() {
    const std::lock_guard guard(m_fileMutex);
    if (!m_stream || !m_file) {
        return std::nullopt;
    }
    OpenStream now = *m_stream;
    const KSPROPERTY latency = makeProperty(kVendorProperties, kLatency, KSPROPERTY_TYPE_GET);
    m_file->property(bytesOf(latency), writableBytesOf(now.latency));
    return now;
}

void ServedFile::pump() {
    std::unique_lock lock(m_mutex);
    while (true) {
        m_changed.wait(lock, [this] { return m_closing || !m_transfers.empty(); });
        if (m_transfers.empty()) {
            break;
        }
        const std::shared_ptr<Transfer> oldest = m_transfers.front(); // whoever sends it back
        lock.unlock();
        oldest->request->wait();
        sendBack();
        lock.lock();
    }
    m_pumping = false;
    m_changed.notify_all();
}

void ServedFile::sendBack() {
    const std::lock_guard guard(m_mutex);
    while (!m_transfers.empty() && m_transfers.front()->request->wait(0)) {
        const std::shared_ptr<Transfer> transfer = std::move(m_transfers.front());
        m_transfers.pop_front();
        const StreamRequest& request = *transfer->request;
        PayloadWriter payload;
        payload.put(std::uint32_t{request.header.OptionsFlags})
            .put(std::int64_t{request.header.PresentationTime.Time})
            .put(std::uint32_t{request.header.DataUsed});
        if (transfer->ask == Ask::Read) {
            payload.putBytes(
                std::span(request.data)
                    .first(std::min<std::size_t>(request.header.DataUsed, request.data.size())));
        }
        send({.ask = transfer->ask,
              .number = transfer->number,
              .status = code(request.result.Status),
              .payload = payload.take()});
    }
}

void ServedFile::closeFile() {
    for (const Direction direction : {Direction::Output, Direction::Input}) {
        m_wanting[index(direction)] = false; // nobody gives or takes any more
        m_carrying[index(direction)] = false;
    }
    m_context.changed();
    {
        const std::lock_guard guard(m_fileMutex);
        m_stream.reset();
        if (m_file) {
            m_file->close(); // every request completes
        }
    }
    std::unique_lock lock(m_mutex);
    m_closing = true;
    m_changed.notify_all();
    m_changed.wait(lock, [this] { return !m_pumping; });
    m_events.reset();
}

} // namespace kelvane::client
