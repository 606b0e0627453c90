// `kelvane report`: one text file for the people who are to find out what went wrong.
#include "cli/bytes.h"
#include "cli/control.h"
#include "cli/controlled_device.h"
#include "cli/descriptor.h"
#include "cli/partfile.h"
#include "cli/runlog.h"
#include "cli/show.h"
#include "cli/status.h"
#include "cli/terminal.h"
#include "client/real_devices.h"

#include <fmt/format.h>
#include <sys/utsname.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace kelvane::cli {
namespace {

constexpr std::uint32_t kStreamed = 2000; // ms that the streams run for the report
constexpr int kColumns = 80;

std::string heading(const std::string& text) {
    return fmt::format("\n{}\n{}\n", text, std::string(text.size(), '-'));
}

std::string systemText(const BugReportOptions& options) {
    std::string text =
        fmt::format("kelvane {}, report on {}\n", KELVANE_VERSION,
                    options.system.socket.empty() ? options.system.device : options.system.socket);
    utsname name{};
    if (uname(&name) == 0) {
        text += fmt::format("system   {} {} {} {}\n", name.sysname, name.release, name.version,
                            name.machine);
    }
    return text;
}

// What can't be had is told in its place; the rest of the report is the more wanted.
template <class Part>
std::string orError(Part part) {
    try {
        return part();
    } catch (const client::StatusError& error) {
        return fmt::format("{}\n", error.what());
    } catch (const client::InputError& error) {
        return fmt::format("{}\n", error.what());
    }
}

std::string descriptorPart(client::Control& control, std::uint8_t type) {
    return orError([&] {
        const std::vector<std::byte> bytes = control.descriptor(type);
        return descriptorText(bytes, readStringsOf(control), false) + '\n' + hexDump(bytes);
    });
}

std::string deviceText(ControlledDevice& device) {
    std::string text = heading("What the driver publishes");
    text += orError([&] { return showText(device.describe()); });
    text += heading(fmt::format("Status after {} s", kStreamed / 1000));
    text += orError([&] {
        device.control().waitForChange(kStreamed);
        return statusText(readStatus(device), kColumns);
    });
    text += heading("Device descriptor") + descriptorPart(device.control(), 1);
    text += heading("Configuration") + descriptorPart(device.control(), 2);
    return text;
}

// The dump of a device that the driver refuses: there is nobody else to ask for its descriptors.
std::string dumpText(const client::SystemOptions& system) {
    if (system.usb) {
        return heading("Dump") +
               orError([&] { return hexDump(client::usbDescriptors(system.device)); });
    }
    const std::string& path = system.device;
    std::ifstream file(path, std::ios::binary);
    if (!std::filesystem::is_regular_file(path) || !file) {
        return {};
    }
    constexpr std::streamsize kMost = 64 << 10; // no descriptors are longer
    std::string bytes(kMost, '\0');
    file.read(bytes.data(), kMost);
    bytes.resize(static_cast<std::size_t>(file.gcount()));
    return heading("Dump") + hexDump(std::as_bytes(std::span(bytes)));
}

// A device that can't stream is told of without, one that the driver refuses by its refusal.
std::string runDevice(const BugReportOptions& options, const RunLog& log, std::string& trace,
                      std::string& refusal) {
    ControlledDeviceOptions device{.system = options.system, .streaming = true};
    log.record(device.system);
    device.system.trace = [&trace](const std::string& line) {
        trace += line;
        trace += line.ends_with('\n') ? "" : "\n";
    };
    std::string noStreams;
    try {
        return deviceText(*startControlledDevice(device));
    } catch (const client::StatusError& error) {
        noStreams = error.what();
    } catch (const client::InputError& error) {
        noStreams = error.what();
    }
    trace.clear();
    device.streaming = false;
    try {
        return heading("No streams") + noStreams + '\n' +
               deviceText(*startControlledDevice(device));
    } catch (const client::StatusError& error) {
        refusal = error.what();
    }
    return heading("The driver refuses the device") + refusal + '\n' + dumpText(options.system);
}

void writeFile(const PartFile& part, const std::string& text) {
    std::FILE* const file = std::fopen(part.partPath().c_str(), "wb");
    if (file == nullptr) {
        part.fail(std::strerror(errno));
    }
    const bool whole = std::fwrite(text.data(), 1, text.size(), file) == text.size();
    const int error = errno;
    if (std::fclose(file) != 0 || !whole) {
        part.fail(std::strerror(whole ? errno : error));
    }
}

} // namespace

int bugReport(const BugReportOptions& options) {
    checkFiles({.read = {options.system.device}, .written = {options.file}, .log = options});
    PartFile part(options.file);
    RunLog log(options);
    std::string trace;
    std::string refusal;
    std::string text = systemText(options);
    text += runDevice(options, log, trace, refusal);
    text += heading("Trace");
    text += options.system.socket.empty()
                ? trace
                : "the driver runs in another process: 'kelvane serve --trace=FILE' writes it\n";
    log.finish();
    writeFile(part, text);
    part.keep();
    fmt::print("written    {}\n", options.file);
    if (!refusal.empty()) {
        fmt::print("note: {}\n", refusal.substr(0, refusal.find('\n')));
    }
    flushStandardOutput();
    return 0;
}

} // namespace kelvane::cli
