#include "tests/cli/command.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <fcntl.h>
#include <regex.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kelvane::test {
namespace {

std::filesystem::path makeFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "kelvane-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error("no temporary folder");
    }
    return name;
}

void redirect(const std::filesystem::path& path, int descriptor) {
    const int file = open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0666);
    dup2(file, descriptor);
    close(file);
}

} // namespace

std::string contents(const std::filesystem::path& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

bool matches(const std::string& text, const std::string& pattern) {
    regex_t compiled;
    if (regcomp(&compiled, pattern.c_str(), REG_EXTENDED | REG_NOSUB) != 0) {
        throw std::invalid_argument("no regular expression: " + pattern);
    }
    const bool found = regexec(&compiled, text.c_str(), 0, nullptr, 0) == 0;
    regfree(&compiled);
    return found;
}

Workplace::Workplace() : m_folder(makeFolder()), m_streams(makeFolder()) {}

Workplace::~Workplace() {
    std::filesystem::remove_all(m_folder);
    std::filesystem::remove_all(m_streams);
}

std::vector<std::string> Workplace::names() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(m_folder)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

Result Workplace::run(const std::vector<std::string>& arguments) const {
    return finish(start(arguments));
}

Result Workplace::runOnTerminal(const std::vector<std::string>& arguments) const {
    const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (terminal < 0 || grantpt(terminal) != 0 || unlockpt(terminal) != 0) {
        throw std::runtime_error("no pseudo-terminal");
    }
    // Kept open here too, so that what was written can still be read after the command has ended.
    const std::string name = ptsname(terminal);
    const int kept = open(name.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    Result result = finish(start(arguments, name));
    std::string buffer(65536, '\0');
    fcntl(terminal, F_SETFL, O_NONBLOCK);
    const ssize_t count = read(terminal, buffer.data(), buffer.size());
    result.err = buffer.substr(0, static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    close(kept);
    close(terminal);
    return result;
}

pid_t Workplace::start(const std::vector<std::string>& arguments) const {
    return start(arguments, m_streams / "err");
}

pid_t Workplace::start(const std::vector<std::string>& arguments,
                       const std::string& errorFile) const {
    std::vector<std::string> words = {KELVANE_COMMAND};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> pointers;
    pointers.reserve(words.size() + 1);
    for (std::string& word : words) {
        pointers.push_back(word.data());
    }
    pointers.push_back(nullptr);
    const pid_t process = fork();
    if (process == 0) {
        redirect(m_streams / "out", STDOUT_FILENO);
        redirect(errorFile, STDERR_FILENO);
        if (chdir(m_folder.c_str()) == 0) {
            execv(pointers[0], pointers.data());
        }
        _exit(127);
    }
    return process;
}

bool Workplace::waitForPart(std::uintmax_t bytes) const {
    for (int i = 0; i < 3000; ++i) {
        std::uintmax_t written = 0;
        for (const auto& entry : std::filesystem::directory_iterator(m_folder)) {
            written += entry.path().extension() == ".part" ? entry.file_size() : 0;
        }
        if (written >= bytes) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

std::string Workplace::printed() const {
    return contents(m_streams / "out");
}

Result Workplace::finish(pid_t process) const {
    int status = 0;
    waitpid(process, &status, 0);
    return {.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status),
            .out = contents(m_streams / "out"),
            .err = contents(m_streams / "err")};
}

void expectRefusals(const Workplace& place, int status, const std::vector<Refusal>& refusals) {
    const auto files = [&place] {
        std::map<std::string, std::string> found; // what is in each, of plain files
        for (const std::string& name : place.names()) {
            found[name] = std::filesystem::is_regular_file(place.path(name))
                              ? contents(place.path(name))
                              : std::string();
        }
        return found;
    };
    const auto before = files();
    for (const Refusal& refusal : refusals) {
        SCOPED_TRACE(testing::PrintToString(refusal.words));
        const Result result = place.run(refusal.words);
        EXPECT_EQ(result.status, status);
        EXPECT_EQ(result.out, "");
        EXPECT_TRUE(matches(result.err, refusal.message)) << result.err;
        EXPECT_TRUE(matches(result.err, status == 2 ? "--help" : "^kelvane: ")) << result.err;
        EXPECT_EQ(result.err.find('\x1b'), std::string::npos)
            << "colour where there is no terminal";
        EXPECT_EQ(files(), before);
    }
}

} // namespace kelvane::test
