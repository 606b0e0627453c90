// Bus traffic as a pcap file of link type USB_LINUX_MMAPPED, for Wireshark, tshark and their like.
#pragma once

#include "capture/bus_event.h"

#include <cstddef>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace kelvane::capture {

// The file can't be written. The text says which, and why.
class CaptureError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// What stands before the first record, and a record. The bytes go behind what `out` holds already.
void appendFileHeader(std::vector<std::byte>& out);
void appendRecord(std::vector<std::byte>& out, const BusEvent& event);

// Written beside its name, which it gets in the end. One thread at a time.
class PcapFile {
public:
    // Throws CaptureError when nothing can be written there.
    explicit PcapFile(const std::string& path);
    // A file that has records and was not finished is kept as far as it goes: it is wanted most of
    // the run that failed. Without records nothing stays.
    ~PcapFile();
    PcapFile(const PcapFile&) = delete;
    PcapFile& operator=(const PcapFile&) = delete;

    // What can't be written is told by `finish`.
    void write(const BusEvent& event);
    // Throws CaptureError when it couldn't keep everything.
    void finish();

private:
    struct Close {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };
    void put(const std::vector<std::byte>& bytes);
    std::string keep(); // empty, or why that was not possible

    std::string m_path;
    std::string m_part;
    std::unique_ptr<std::FILE, Close> m_file;
    std::vector<std::byte> m_record; // the one being written
    std::string m_error;             // the first
    bool m_hasRecords = false;
};

} // namespace kelvane::capture
