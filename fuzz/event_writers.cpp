// The text and JSON event writers fed any bytes as path, destination, exe
// and watch, with any mask. A JSON line must parse, and give back the exact
// bytes of each name (in *_b64 when they are not UTF-8); a text line must
// stay one line, with no control character in it.

#include <sys/stat.h>

#include <cstdint>
#include <sstream>
#include <string>

#include <Poco/Base64Decoder.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>
#include <Poco/StreamCopier.h>

#include "EventFormatter.h"
#include "FileNotifyMessage.h"
#include "FuzzUtil.h"

namespace {

std::string FromBase64(const std::string& text) {
    std::istringstream in(text);
    Poco::Base64Decoder decoder(in);
    std::string bytes;
    Poco::StreamCopier::copyToString(decoder, bytes);
    return bytes;
}

// The member name, or name_b64 decoded when it is there, is exactly bytes.
void CheckName(const Poco::JSON::Object& line, const std::string& name, const std::string& bytes) {
    FUZZ_CHECK(line.has(name), "a name is missing");
    const std::string shown = line.getValue<std::string>(name);
    if (line.has(name + "_b64")) {
        FUZZ_CHECK(FromBase64(line.getValue<std::string>(name + "_b64")) == bytes, "base64 is not the bytes");
    } else {
        FUZZ_CHECK(shown == bytes, "a UTF-8 name does not read back as itself");
    }
}

void CheckJson(const std::string& text, const Engine::FileNotifyMessage& event) {
    FUZZ_CHECK(!text.empty() && text.find('\n') == text.size() - 1, "a JSON record is not one line");
    Poco::JSON::Object::Ptr line;
    try {
        line = Poco::JSON::Parser().parse(text).extract<Poco::JSON::Object::Ptr>();
    } catch (const Poco::Exception& error) {
        std::fprintf(stderr, "%s\n%s\n", error.displayText().c_str(), text.c_str());
        FUZZ_CHECK(false, "a JSON line does not parse");
    }
    CheckName(*line, "path", event.GetEventFilePath());
    if (!event.GetMovetoFile().empty()) CheckName(*line, "to", event.GetMovetoFile());
    CheckName(*line, "watch", event.FormatFolderName(event.GetWatchFile()));
    if (line->has("exe")) CheckName(*line, "exe", event.GetEventProcess());
    FUZZ_CHECK(line->getValue<unsigned int>("mask") == event.GetEventMask(), "the mask changed");
}

void CheckText(const std::string& text) {
    FUZZ_CHECK(!text.empty() && text.back() == '\n', "a text line without its end");
    for (std::size_t i = 0; i + 1 < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        FUZZ_CHECK(byte >= 0x20 && byte != 0x7f, "a control character in a text line");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // Reused, as the command reuses them: their caches of names and seconds
    // carry over from input to input.
    static FileNotifyCli::EventFormatter json(true);
    static FileNotifyCli::EventFormatter text(false);
    FuzzUtil::Input in(data, size);
    const auto mask = in.Take<std::uint32_t>();
    const int notifyType = in.Take<std::uint8_t>() % 3;
    Engine::FileNotifyMessage event(notifyType, in.String(), mask);
    const std::string to = in.String();
    if (!to.empty()) event.SetMoveEvent(to);
    event.SetProcess(in.Take<std::uint32_t>(), in.String());
    event.SetWatchFile(in.Take<std::int32_t>(), in.String());
    event.SetFound(in.Bit());
    if (in.Bit()) event.SetLostCount(in.Take<std::uint64_t>());
    FileNotifyCli::Verdict verdict{in.Bit(), in.Bit(), in.Bit(), in.Bit()};
    const FileNotifyCli::Verdict* given = in.Bit() ? &verdict : nullptr;
    struct stat status {};
    status.st_size = in.Take<std::int64_t>();
    const struct stat* statusGiven = in.Bit() ? &status : nullptr;
    // Any time of the years 1970 to 2106, as CLOCK_REALTIME gives it.
    const struct timespec now = {static_cast<time_t>(in.Take<std::uint32_t>()), in.Take<std::uint32_t>() % 1000000000};

    std::string line;
    json.Append(line, event, statusGiven, given, now);
    CheckJson(line, event);
    line.clear();
    text.Append(line, event, nullptr, given, now);
    CheckText(line);
    return 0;
}
