#include "devices/audio_source.h"

#include "devices/error.h"
#include "devices/file_source.h"
#include "devices/loopback_source.h"
#include "devices/number.h"
#include "devices/signal_sources.h"

#include <fmt/format.h>

#include <cmath>
#include <filesystem>
#include <string_view>

namespace kelvane::devices {

namespace {

// What follows "tone:".
std::shared_ptr<AudioSource> makeTone(std::string_view text) {
    const auto colon = text.find(':');
    const auto hertz = number(text.substr(0, colon));
    const auto level = colon == std::string_view::npos ? ToneSource::kDefaultLevel
                                                       : number(text.substr(colon + 1));
    const bool whole =
        hertz && *hertz == std::floor(*hertz) && *hertz >= 0 && *hertz <= ToneSource::kMostHertz;
    if (!whole || !level) {
        throw DeviceError(
            fmt::format("\"tone:{}\": is no tone: expected whole Hz and, if wanted, a "
                        "level in dBFS, like tone:1000 or tone:1000:-12",
                        text));
    }
    return std::make_shared<ToneSource>(static_cast<std::uint32_t>(*hertz), *level);
}

} // namespace

std::shared_ptr<AudioSource> makeSource(const std::string& name) {
    const std::string_view text = name;
    if (text == "silence") {
        return std::make_shared<SilenceSource>();
    }
    if (text == "counter") {
        return std::make_shared<CounterSource>();
    }
    if (text == "loopback") {
        return std::make_shared<LoopbackSource>();
    }
    if (text.starts_with("tone:")) {
        return makeTone(text.substr(5));
    }
    if (text.starts_with("loop:")) {
        return std::make_shared<FileSource>(name.substr(5), FileSource::AtEnd::Loop);
    }
    if (!std::filesystem::exists(name)) {
        throw DeviceError(fmt::format("\"{}\": no such input: neither silence, tone:HZ, counter, "
                                      "loopback or loop:FILE nor an audio file",
                                      name));
    }
    return std::make_shared<FileSource>(name, FileSource::AtEnd::Silence);
}

} // namespace kelvane::devices
