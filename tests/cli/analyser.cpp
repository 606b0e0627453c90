#include "tests/cli/analyser.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <map>
#include <memory>
#include <sstream>

namespace kelvane::test {

std::vector<Words> tshark(const std::filesystem::path& file, const std::string& filter,
                          const Words& fields) {
    std::string line = "tshark -n -r '" + file.string() + "' -Y \"" + filter + "\" -T fields";
    for (const std::string& field : fields) {
        line += " -e " + field;
    }
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> pipe(
        popen((line + " 2>/dev/null").c_str(), "r"), pclose);
    std::string out;
    std::array<char, 4096> piece{};
    while (const std::size_t got = std::fread(piece.data(), 1, piece.size(), pipe.get())) {
        out.append(piece.data(), got);
    }
    std::vector<Words> rows;
    std::istringstream lines(out);
    for (std::string text; std::getline(lines, text);) {
        Words row(1);
        for (const char c : text) {
            if (c == '\t') {
                row.emplace_back();
            } else {
                row.back() += c;
            }
        }
        rows.push_back(row);
    }
    return rows;
}

std::size_t number(const std::string& text) {
    return text.empty() ? 0 : std::stoul(text, nullptr, 0);
}

void expectSound(const std::filesystem::path& file) {
    const auto frames =
        tshark(file, "frame", {"usb.urb_type", "usb.urb_id", "frame.time_epoch", "_ws.malformed"});
    ASSERT_GT(frames.size(), 0U);
    std::map<std::string, int> open;
    double last = 0;
    for (const Words& frame : frames) {
        ASSERT_EQ(frame.size(), 4U);
        ASSERT_EQ(frame[3], "");
        const bool starts = frame[0] == "'S'";
        ASSERT_TRUE(starts || frame[0] == "'C'") << frame[0];
        int& count = open[frame[1]];
        ASSERT_EQ(count, starts ? 0 : 1) << frame[1];
        count = starts ? 1 : 0;
        ASSERT_GE(std::stod(frame[2]), last);
        last = std::stod(frame[2]);
    }
    for (const auto& [id, count] : open) {
        EXPECT_EQ(count, 0) << id << " hasn't ended";
    }
}

} // namespace kelvane::test
