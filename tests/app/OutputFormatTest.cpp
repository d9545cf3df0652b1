#include <stdlib.h>
#include <time.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <Poco/AutoPtr.h>
#include <Poco/Base64Decoder.h>
#include <Poco/DateTimeFormatter.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>
#include <Poco/LocalDateTime.h>
#include <Poco/StreamCopier.h>

#include "EventFormatter.h"
#include "FileNotifyMessage.h"
#include "OutputSink.h"
#include "TestUtil.h"
#include "WatchConsumer.h"

namespace {

using FileNotifyCli::EventFormatter;

const struct timespec kSomeTime = {1795400000, 123456789};

std::string Line(bool json, const Engine::FileNotifyMessage& event, const struct timespec& now = kSomeTime) {
    EventFormatter formatter(json);
    std::string line;
    formatter.Append(line, event, nullptr, nullptr, now);
    return line;
}

Poco::JSON::Object::Ptr Parse(const std::string& line) {
    return Poco::JSON::Parser().parse(line).extract<Poco::JSON::Object::Ptr>();
}

std::string FromBase64(const std::string& text) {
    std::istringstream in(text);
    Poco::Base64Decoder decoder(in);
    std::string bytes;
    Poco::StreamCopier::copyToString(decoder, bytes);
    return bytes;
}

// Every byte sequence comes out as ASCII JSON that parses; valid UTF-8 reads
// back as itself, anything else has its exact bytes in *_b64 and each stray
// byte as \u00XX, without swallowing what follows it.
TEST(OutputFormat, JsonNamesAreExactForEveryByteSequence) {
    struct {
        std::string bytes;
        const char* escaped;
        bool valid;
    } cases[] = {
        {"/d/plain name.txt", "\\/d\\/plain name.txt", true},
        {"q\"\\", "q\\\"\\\\", true},
        {"\b\f\n\r\t", "\\b\\f\\n\\r\\t", true},
        {std::string("\x01\x1f\x7f\0z", 5), "\\u0001\\u001F\\u007F\\u0000z", true},
        {"caf\xc3\xa9 \xc2\x80 \xdf\xbf", "caf\\u00E9 \\u0080 \\u07FF", true},
        {"\xe2\x82\xac \xed\x9f\xbf \xee\x80\x80 \xef\xbf\xbf", "\\u20AC \\uD7FF \\uE000 \\uFFFF", true},
        {"\xf0\x90\x80\x80 \xf0\x9f\x98\x80 \xf4\x8f\xbf\xbf", "\\uD800\\uDC00 \\uD83D\\uDE00 \\uDBFF\\uDFFF", true},
        {"caf\xe9", "caf\\u00E9", false},
        {"a \x80 b", "a \\u0080 b", false},
        {"/d/\x80/x", "\\/d\\/\\u0080\\/x", false},
        {"\xc3 x", "\\u00C3 x", false},
        {"y\xe2\x82", "y\\u00E2\\u0082", false},
        {"\xe2\x82/x", "\\u00E2\\u0082\\/x", false},
        {"\xf0\x9f\x98", "\\u00F0\\u009F\\u0098", false},
        {"x\xc0\xaf..\xc0\xaf..\xc0\xaf"
         "etc\xc0\xafshadow",
         "x\\u00C0\\u00AF..\\u00C0\\u00AF..\\u00C0\\u00AFetc\\u00C0\\u00AFshadow", false},
        {"\xc0\x80", "\\u00C0\\u0080", false},
        {"\xe0\x80\xaf \xf0\x80\x80\xaf", "\\u00E0\\u0080\\u00AF \\u00F0\\u0080\\u0080\\u00AF", false},
        {"\xed\xa0\x80 \xed\xbf\xbf", "\\u00ED\\u00A0\\u0080 \\u00ED\\u00BF\\u00BF", false},
        {"\xf4\x90\x80\x80", "\\u00F4\\u0090\\u0080\\u0080", false},
        {"\xf5\x80\x80\x80 \xff", "\\u00F5\\u0080\\u0080\\u0080 \\u00FF", false},
    };
    for (const auto& c : cases) {
        Engine::FileNotifyMessage event(0, c.bytes, 0x100);
        event.SetMoveEvent(c.bytes + ".m");
        const std::string line = Line(true, event);
        SCOPED_TRACE(line);
        ASSERT_EQ(line.find('\n'), line.size() - 1);
        for (const char byte : line)
            ASSERT_EQ(0, byte & 0x80);
        EXPECT_NE(std::string::npos, line.find(std::string("\"path\":\"") + c.escaped + "\""));
        const auto object = Parse(line);
        for (const std::string key : {"path", "to"}) {
            const std::string expected = key == "path" ? c.bytes : c.bytes + ".m";
            EXPECT_EQ(!c.valid, object->has(key + "_b64"));
            const std::string read =
                c.valid ? object->getValue<std::string>(key) : FromBase64(object->getValue<std::string>(key + "_b64"));
            EXPECT_EQ(expected, read) << key;
        }
    }
}

// One event is one line whatever the names hold, and nothing in them reaches
// a terminal as a control.
TEST(OutputFormat, TextNamesStayOnOneLineAndInert) {
    struct {
        std::string bytes;
        std::string printed;
    } cases[] = {
        {"/d/plain name \xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80\xc2\xa0",
         "/d/plain name \xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80\xc2\xa0"},
        {"fake\n2026-11-23 00:00:00.000 DELETE_SELF,ISDIR x", "fake\\x0a2026-11-23 00:00:00.000 DELETE_SELF,ISDIR x"},
        {"\r\t\x01\x7f", "\\x0d\\x09\\x01\\x7f"},
        {"esc\x1b[2J\x1b]0;t\x07", "esc\\x1b[2J\\x1b]0;t\\x07"},
        {"c1 \xc2\x9b\xc2\x85", "c1 \\xc2\\x9b\\xc2\\x85"},
        {"back\\slash\\x0a", "back\\\\slash\\\\x0a"},
        {"caf\xe9 a \x80 b", "caf\\xe9 a \\x80 b"},
        {"\xe2\x82/x \xc0\xaf \xed\xa0\x80", "\\xe2\\x82/x \\xc0\\xaf \\xed\\xa0\\x80"},
    };
    for (const auto& c : cases) {
        Engine::FileNotifyMessage event(1, c.bytes, 0x20);
        event.SetProcess(7, c.bytes);  // exe= is a path as well
        const std::string line = Line(false, event);
        ASSERT_GT(line.size(), 24u);
        EXPECT_EQ("OPEN " + c.printed + " pid=7 exe=" + c.printed + "\n", line.substr(24));
        EXPECT_EQ(line.find('\n'), line.size() - 1);
    }
}

// The time of day is kept per second; it must still be right when the
// second changes, or the clock goes back. Checked against POCO's formatting
// in a zone half an hour off a whole hour.
TEST(OutputFormat, CachedTimeIsAlwaysTheEventsTime) {
    const char* zone = ::getenv("TZ");
    const std::string savedZone = zone != nullptr ? zone : "";
    ::setenv("TZ", "XST-05:30", 1);
    ::tzset();
    EventFormatter text(false);
    EventFormatter json(true);
    const struct timespec times[] = {
        {1795400000, 999999999}, {1795400001, 0}, {1795400001, 500000000}, {1795400000, 1000}, {0, 5000000},
    };
    for (const auto& now : times) {
        const Engine::FileNotifyMessage event(0, "/x", 0x100);
        std::string line;
        text.Append(line, event, nullptr, nullptr, now);
        json.Append(line, event, nullptr, nullptr, now);
        const Poco::Timestamp at(static_cast<Poco::Int64>(now.tv_sec) * 1000000 + now.tv_nsec / 1000);
        EXPECT_EQ(Poco::DateTimeFormatter::format(Poco::LocalDateTime(Poco::DateTime(at)), "%Y-%m-%d %H:%M:%S.%i") +
                      " CREATE /x\n{\"time\":\"" + Poco::DateTimeFormatter::format(at, "%Y-%m-%dT%H:%M:%S.%FZ"),
                  line.substr(0, line.find("\",")));
    }
    if (zone != nullptr) ::setenv("TZ", savedZone.c_str(), 1);
    if (zone == nullptr) ::unsetenv("TZ");
    ::tzset();
}

// A loss report is printed whatever -e chose and is not counted against
// --count; the consumer keeps the totals for the exit and warns at most
// once a second for each cause.
TEST(OutputFormat, LossReportsArePrintedAndCounted) {
    for (const bool json : {false, true}) {
        TestUtil::TempDir dir;
        FileNotifyCli::CliSettings settings;
        settings.mode = FileNotifyCli::CliSettings::Mode::Watch;
        settings.events = 0x100;  // create
        settings.count = 1;
        settings.json = json;
        FileNotifyCli::OutputSink output(dir / "out", nullptr, json);  // both ways of writing
        int stops = 0;
        Poco::AutoPtr<FileNotifyCli::WatchConsumer> consumer(
            new FileNotifyCli::WatchConsumer(settings, output, [&] { ++stops; }));
        const auto report = [](unsigned long long lost) {
            auto* message = new Engine::FileNotifyMessage(0, "", Engine::FileNotifyMessage::kOverflowMask);
            message->SetLostCount(lost);
            return message;
        };
        testing::internal::CaptureStderr();
        for (auto* message : {report(0), report(5), report(7), new Engine::FileNotifyMessage(0, "/d/a", 0x100),
                              new Engine::FileNotifyMessage(0, "/d/b", 0x100), report(2)}) {
            consumer->FileNotifyMessageAction(message);
            delete message;
        }
        consumer->Flush();
        ASSERT_TRUE(output.Drain(std::chrono::milliseconds(5000)));
        const std::string warnings = testing::internal::GetCapturedStderr();

        std::vector<std::string> seen;
        std::ifstream in(dir / "out");
        for (std::string line; std::getline(in, line);) {
            if (!json) {
                seen.push_back(line.substr(24));
                continue;
            }
            const auto object = Parse(line);
            std::string names;
            for (const auto& name : *object->getArray("events"))
                names += name.toString();
            seen.push_back(names + (object->has("lost") ? " lost=" + object->getValue<std::string>("lost") : "") + " " +
                           object->getValue<std::string>("path"));
        }
        const std::vector<std::string> text = {"Q_OVERFLOW", "Q_OVERFLOW lost=5", "Q_OVERFLOW lost=7", "CREATE /d/a"};
        const std::vector<std::string> objects = {"Q_OVERFLOW ", "Q_OVERFLOW lost=5 ", "Q_OVERFLOW lost=7 ",
                                                  "CREATE /d/a"};
        EXPECT_EQ(json ? objects : text, seen);
        EXPECT_EQ(1, stops);
        EXPECT_EQ(14u, consumer->LostReported());
        EXPECT_EQ(1u, consumer->KernelOverflows());
        EXPECT_NE(std::string::npos, warnings.find("sysctl -w fs.inotify.max_queued_events=N")) << warnings;
        EXPECT_NE(std::string::npos, warnings.find("5 events were dropped")) << warnings;
        EXPECT_EQ(std::string::npos, warnings.find("7 events")) << warnings;
    }
}

}  // namespace
