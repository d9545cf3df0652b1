// The command line of filenotify: the input is its words, split at NUL
// bytes. Any words must end in settings or a usage problem, never in a crash
// or an exception the command does not catch.

#include <cstdint>
#include <string>
#include <vector>

#include "CliSettings.h"
#include "FuzzUtil.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr std::size_t kMaxWords = 32;
    std::vector<std::string> words(1);
    for (std::size_t i = 0; i < size && words.size() <= kMaxWords; ++i) {
        if (data[i] == '\0') {
            words.emplace_back();
        } else {
            words.back() += static_cast<char>(data[i]);
        }
    }
    FileNotifyCli::CliParser parser("/start/dir");
    std::string problem;
    if (!parser.Parse(words, problem)) {
        FUZZ_CHECK(!problem.empty(), "a refusal without a reason");
        return 0;
    }
    const FileNotifyCli::CliSettings& settings = parser.Settings();
    FUZZ_CHECK(settings.mode != FileNotifyCli::CliSettings::Mode::None, "no mode");
    FUZZ_CHECK(!settings.paths.empty(), "no path");
    // An empty path stays empty: the module refuses it with its reason.
    for (const std::string& path : settings.paths)
        FUZZ_CHECK(path.empty() || path.front() == '/', "a path not made absolute");
    (void)settings.RequestMask();
    (void)settings.RequestOptions();
    return 0;
}
