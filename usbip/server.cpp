#include "usbip/server.h"

#include "usbip/records.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace kelvane::usbip {
namespace {

using namespace std::chrono_literals;
using Microframes = std::chrono::duration<std::int64_t, std::ratio<1, 8000>>;

constexpr std::size_t kReadBytes = std::size_t{64} << 10; // at once
constexpr std::size_t kMostReads = 16;                    // of one client, in its turn
constexpr auto kOutOfDescriptors = 250ms;                 // until the next try
constexpr std::size_t kImportRequestBytes = sizeof(OperationHeader) + sizeof(BusId);

timespec timeUntil(Server::Clock::time_point deadline) {
    const auto left = std::max<Server::Clock::duration>(deadline - Server::Clock::now(), 0ns);
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
    return {.tv_sec = seconds.count(), .tv_nsec = (left - seconds) / 1ns};
}

} // namespace

Server::Server(devices::UsbDevice& device, const devices::DeviceDescriptors& descriptors,
               const ServerOptions& options, ServerCallbacks callbacks)
    : m_device(device), m_descriptors(descriptors), m_options(options),
      m_callbacks(std::move(callbacks)), m_stop(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)),
      m_listener(listenAt(options.address, options.port)), m_port(portOf(m_listener)) {
    if (m_stop.descriptor() < 0) {
        throw NetworkError("the system has no descriptor to spare");
    }
}

Server::~Server() = default;

Server::Import::Import(Client importer, Server& server)
    : client(std::move(importer)), start(Clock::now()),
      link(server.m_device, server.m_descriptors, kDeviceId, server) {
    reader.feed(std::span(client.input).subspan(kImportRequestBytes)); // URBs already
    client.input.clear();
}

void Server::stop() const {
    constexpr std::uint64_t kOne = 1;
    [[maybe_unused]] const auto ignored = write(m_stop.descriptor(), &kOne, sizeof kOne);
}

// Nothing blocks, so that whoever may have something to say is simply asked.
void Server::run() {
    while (wait()) {
        serveImport();
        serveWaiting();
        acceptClients();
    }
    if (m_import) {
        log(m_import->client, "disconnected: the server ends");
        endImport();
    }
    m_waiting.clear();
}

bool Server::wait() const {
    const bool accepting = m_waiting.size() < kMostWaiting && Clock::now() >= m_acceptFrom;
    std::vector<pollfd> polled{
        {.fd = m_stop.descriptor(), .events = POLLIN, .revents = 0},
        {.fd = accepting ? m_listener.descriptor() : -1, .events = POLLIN, .revents = 0}};
    const auto add = [&polled](const Client& client) {
        const int events = (client.leaving ? 0 : POLLIN) | (client.output.empty() ? 0 : POLLOUT);
        polled.push_back(
            {.fd = client.socket.descriptor(), .events = static_cast<short>(events), .revents = 0});
    };
    std::ranges::for_each(m_waiting, add);
    if (m_import) {
        add(m_import->client);
    }
    const Clock::time_point deadline = nextDeadline();
    const timespec left = timeUntil(deadline);
    ppoll(polled.data(), polled.size(), deadline == Clock::time_point::max() ? nullptr : &left,
          nullptr);
    return polled.front().revents == 0;
}

Server::Clock::time_point Server::nextDeadline() const {
    auto next = Clock::time_point::max();
    for (const Client& client : m_waiting) {
        next = std::min(next, client.deadline);
    }
    if (Clock::now() < m_acceptFrom) {
        next = std::min(next, m_acceptFrom);
    }
    if (m_import && m_import->link.nextWork() != Link::kNever) {
        const Microframes work(static_cast<std::int64_t>(m_import->link.nextWork()));
        next = std::min(next, m_import->start + std::chrono::duration_cast<Clock::duration>(work));
    }
    return next;
}

// --- Clients that have not imported

void Server::acceptClients() {
    if (Clock::now() < m_acceptFrom) {
        return;
    }
    try {
        while (m_waiting.size() < kMostWaiting) {
            auto accepted = acceptAt(m_listener);
            if (!accepted) {
                return;
            }
            ++m_counters.connections;
            m_waiting.push_back({.socket = std::move(accepted->socket),
                                 .name = std::move(accepted->name),
                                 .deadline = Clock::now() + m_options.patience});
            log(m_waiting.back(), "connected");
        }
    } catch (const NetworkError& error) {
        if (m_callbacks.log) {
            m_callbacks.log(fmt::format("a client can't be let in: {}", error.what()));
        }
        m_acceptFrom = Clock::now() + kOutOfDescriptors;
    }
}

void Server::serveWaiting() {
    for (std::size_t i = 0; i < m_waiting.size();) {
        if (serveClient(m_waiting[i])) {
            ++i;
        } else {
            m_waiting.erase(m_waiting.begin() + static_cast<std::ptrdiff_t>(i));
        }
    }
}

// False when it is no longer among those that wait.
bool Server::serveClient(Client& client) {
    try {
        if (!client.leaving) {
            const auto bytes = receive(client);
            client.input.insert(client.input.end(), bytes.begin(), bytes.end());
            if (const auto request = readOperation(client.input)) {
                client.leaving = true;
                perform(client, *request);
            }
        }
        if (client.socket.descriptor() < 0) {
            return false; // it went on to the import
        }
        send(client);
        if (client.leaving && client.output.empty()) {
            return false;
        }
        if (Clock::now() >= client.deadline) {
            cut(client, fmt::format("no whole request within {} ms", m_options.patience.count()));
            return false;
        }
        return true;
    } catch (const ConnectionLost& error) {
        log(client, fmt::format("gone: {}", error.what()));
    } catch (const ProtocolError& error) {
        cut(client, error.what());
    }
    return false;
}

void Server::perform(Client& client, const OperationRequest& request) {
    if (const auto* wanted = std::get_if<ImportRequest>(&request)) {
        requestImport(client, wanted->busId);
        return;
    }
    log(client, "lists the devices");
    appendList(client.output, deviceRecord(m_descriptors, m_device.speed()),
               interfaceRecords(m_descriptors));
}

void Server::requestImport(Client& client, const std::string& busId) {
    if (busId == kBusId && !m_import) {
        startImport(std::move(client));
        return;
    }
    ++m_counters.refusals;
    if (busId != kBusId) {
        log(client,
            fmt::format("refused: it asks for the device '{}'; there is '{}'", busId, kBusId));
        appendRefusedImport(client.output, OperationStatus::NoDevice);
        return;
    }
    log(client, fmt::format("refused: {} has imported the device", m_import->client.name));
    appendRefusedImport(client.output, OperationStatus::Busy);
}

// --- The client that has

void Server::startImport(Client client) {
    ++m_counters.imports;
    log(client, fmt::format("imports {}", kBusId));
    if (m_callbacks.imported) {
        m_callbacks.imported();
    }
    appendImport(client.output, deviceRecord(m_descriptors, m_device.speed()));
    client.leaving = false;
    m_import.emplace(std::move(client), *this);
}

void Server::serveImport() {
    if (!m_import) {
        return;
    }
    try {
        serveUrbs();
        return;
    } catch (const ConnectionLost& error) {
        const std::size_t open = m_import->link.inFlight();
        log(m_import->client, fmt::format("gone: {}; {} request{} in flight", error.what(), open,
                                          open == 1 ? " was" : "s were"));
    } catch (const ProtocolError& error) {
        cut(m_import->client, error.what());
    }
    endImport();
}

void Server::endImport() {
    m_import->link.endAll();
    m_import.reset();
}

void Server::serveUrbs() {
    Import& import = *m_import;
    import.link.advance(microframe());
    // To the end of what is there, so that a client that has gone is not taken for one that stays
    // when the next asks for the device.
    for (std::size_t reads = 0; reads < kMostReads; ++reads) {
        const auto bytes = receive(import.client);
        import.reader.feed(bytes);
        while (auto request = import.reader.next()) {
            if (auto* submission = std::get_if<Submission>(&*request)) {
                import.link.submit(std::move(*submission));
            } else {
                import.link.unlink(std::get<Unlinking>(*request));
            }
        }
        if (bytes.empty()) {
            break;
        }
    }
    send(import.client);
    if (import.client.output.size() > kMostOutputBytes) {
        throw ProtocolError(
            fmt::format("it leaves more than {} bytes of answers untaken", kMostOutputBytes));
    }
}

std::uint64_t Server::microframe() const {
    const auto passed = std::chrono::duration_cast<Microframes>(Clock::now() - m_import->start);
    return static_cast<std::uint64_t>(passed.count());
}

void Server::submitted(const Transfer& transfer, std::uint64_t microframe) {
    if (m_callbacks.watch != nullptr) {
        m_callbacks.watch->submitted(transfer, microframe);
    }
}

void Server::ended(const Transfer& transfer, std::uint64_t microframe) {
    ++m_counters.transfers;
    m_counters.bytes += transfer.moved;
    if (m_callbacks.watch != nullptr) {
        m_callbacks.watch->ended(transfer, microframe);
    }
    if (transfer.status == UrbStatus::Unlinked) {
        return;
    }
    const bool isochronous = transfer.type == devices::TransferType::Isochronous;
    appendSubmissionResult(
        m_import->client.output,
        {.sequence = transfer.request.sequence,
         .in = transfer.request.isIn(),
         .status = transfer.status,
         .moved = transfer.moved,
         .startFrame = isochronous ? static_cast<std::uint32_t>(transfer.firstMicroframe /
                                                                devices::kMicroframesPerFrame)
                                   : 0,
         .buffer = transfer.buffer,
         .packets = transfer.request.packets});
}

void Server::unlinked(std::uint32_t sequence, UrbStatus status) {
    appendUnlinkResult(m_import->client.output, sequence, status);
    if (m_callbacks.watch != nullptr) {
        m_callbacks.watch->unlinked(sequence, status);
    }
}

// --- Connections

void Server::cut(const Client& client, const std::string& why) {
    ++m_counters.failures;
    log(client, "disconnected: " + why);
}

void Server::log(const Client& client, const std::string& what) const {
    if (m_callbacks.log) {
        m_callbacks.log(client.name + ": " + what);
    }
}

// There until the next call; empty when nothing has come.
std::span<const std::byte> Server::receive(const Client& client) {
    m_received.resize(kReadBytes);
    return std::span(m_received).first(client.socket.receive(m_received));
}

void Server::send(Client& client) {
    if (!client.output.empty()) {
        const std::size_t sent = client.socket.send(client.output);
        client.output.erase(client.output.begin(),
                            client.output.begin() + static_cast<std::ptrdiff_t>(sent));
    }
}

} // namespace kelvane::usbip
