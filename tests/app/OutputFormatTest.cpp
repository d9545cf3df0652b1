#include <stdlib.h>
#include <time.h>

#include <algorithm>
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

using Engine::FileNotifyMessage;

std::string Line(bool json, const FileNotifyMessage& event) {
    std::string line;
    FileNotifyCli::EventFormatter(json).Append(line, event, nullptr, nullptr, {1795400000, 123456789});
    return line;
}

Poco::JSON::Object::Ptr Parse(const std::string& line) {
    return Poco::JSON::Parser().parse(line).extract<Poco::JSON::Object::Ptr>();
}

// Every byte sequence comes out as ASCII JSON that parses; valid UTF-8 reads
// back as itself, anything else has its exact bytes in path_b64 and each
// stray byte as \u00XX, without swallowing what follows it.
TEST(OutputFormat, JsonNamesAreExactForEveryByteSequence) {
    const struct {
        std::string bytes;
        const char* escaped;
        bool valid;
    } cases[] = {
        {"/d/plain q\"\\", "\\/d\\/plain q\\\"\\\\", true},
        {std::string("\b\f\n\r\t\x01\x1f\x7f\0z", 10), "\\b\\f\\n\\r\\t\\u0001\\u001F\\u007F\\u0000z", true},
        {"\xc2\x80 \xdf\xbf \xe2\x82\xac \xed\x9f\xbf \xee\x80\x80 \xef\xbf\xbf",
         "\\u0080 \\u07FF \\u20AC \\uD7FF \\uE000 \\uFFFF", true},
        {"\xf0\x90\x80\x80 \xf4\x8f\xbf\xbf", "\\uD800\\uDC00 \\uDBFF\\uDFFF", true},
        {"caf\xe9 \x80/x \xc3 y\xe2\x82", "caf\\u00E9 \\u0080\\/x \\u00C3 y\\u00E2\\u0082", false},
        {"\xe2\x82/x \xf0\x9f\x98", "\\u00E2\\u0082\\/x \\u00F0\\u009F\\u0098", false},
        {"\xc0\xaf \xe0\x80\xaf \xf0\x80\x80\xaf", "\\u00C0\\u00AF \\u00E0\\u0080\\u00AF \\u00F0\\u0080\\u0080\\u00AF",
         false},
        {"\xed\xa0\x80 \xf4\x90\x80\x80 \xf5\x80 \xff",
         "\\u00ED\\u00A0\\u0080 \\u00F4\\u0090\\u0080\\u0080 \\u00F5\\u0080 \\u00FF", false},
    };
    for (const auto& c : cases) {
        const std::string line = Line(true, FileNotifyMessage(0, c.bytes, 0x100));
        SCOPED_TRACE(line);
        EXPECT_TRUE(std::all_of(line.begin(), line.end(), [](char byte) { return (byte & 0x80) == 0; }));
        EXPECT_NE(std::string::npos, line.find(std::string("\"path\":\"") + c.escaped + "\""));
        const auto object = Parse(line);
        EXPECT_EQ(!c.valid, object->has("path_b64"));
        std::string read = object->getValue<std::string>("path");
        if (!c.valid) {
            std::istringstream encoded(object->getValue<std::string>("path_b64"));
            Poco::Base64Decoder decoder(encoded);
            read.clear();
            Poco::StreamCopier::copyToString(decoder, read);
        }
        EXPECT_EQ(c.bytes, read);
    }
}

// One event is one line whatever the names hold, and nothing in them reaches
// a terminal as a control.
TEST(OutputFormat, TextNamesStayOnOneLineAndInert) {
    const struct {
        std::string bytes;
        std::string printed;
    } cases[] = {
        {"/d/plain \xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80\xc2\xa0",
         "/d/plain \xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80\xc2\xa0"},
        {"fake\n2026-11-23 00:00:00.000 DELETE x\r\t\x01\x7f",
         "fake\\x0a2026-11-23 00:00:00.000 DELETE x\\x0d\\x09\\x01\\x7f"},
        {"esc\x1b[2J\x07 c1 \xc2\x9b back\\slash\\x0a", "esc\\x1b[2J\\x07 c1 \\xc2\\x9b back\\\\slash\\\\x0a"},
        {"caf\xe9 \x80 \xe2\x82/x \xc0\xaf \xed\xa0\x80", "caf\\xe9 \\x80 \\xe2\\x82/x \\xc0\\xaf \\xed\\xa0\\x80"},
    };
    for (const auto& c : cases) {
        FileNotifyMessage event(1, c.bytes, 0x20);
        event.SetProcess(7, c.bytes);  // exe= is a path as well
        const std::string line = Line(false, event);
        ASSERT_GT(line.size(), 24u);
        EXPECT_EQ("OPEN " + c.printed + " pid=7 exe=" + c.printed + "\n", line.substr(24));
    }
}

// The time of day is kept per second; it must still be right when the
// second changes, or the clock goes back. Checked against POCO's formatting
// in a zone half an hour off a whole hour.
TEST(OutputFormat, CachedTimeIsAlwaysTheEventsTime) {
    const char* zone = ::getenv("TZ");
    const std::string savedZone = zone != nullptr ? zone : "";
    const TestUtil::AtScopeEnd restore([&] {
        zone != nullptr ? ::setenv("TZ", savedZone.c_str(), 1) : ::unsetenv("TZ");
        ::tzset();
    });
    ::setenv("TZ", "XST-05:30", 1);
    ::tzset();
    FileNotifyCli::EventFormatter text(false);
    FileNotifyCli::EventFormatter json(true);
    for (const struct timespec now :
         {timespec{1795400000, 999999999}, timespec{1795400001, 0}, timespec{1795400001, 500000000},
          timespec{1795400000, 1000}, timespec{0, 5000000}}) {
        const FileNotifyMessage event(0, "/x", 0x100);
        std::string line;
        text.Append(line, event, nullptr, nullptr, now);
        json.Append(line, event, nullptr, nullptr, now);
        const Poco::Timestamp at(static_cast<Poco::Int64>(now.tv_sec) * 1000000 + now.tv_nsec / 1000);
        EXPECT_EQ(Poco::DateTimeFormatter::format(Poco::LocalDateTime(Poco::DateTime(at)), "%Y-%m-%d %H:%M:%S.%i") +
                      " CREATE /x\n{\"time\":\"" + Poco::DateTimeFormatter::format(at, "%Y-%m-%dT%H:%M:%S.%FZ"),
                  line.substr(0, line.find("\",")));
    }
}

// A loss report is printed but not counted against --count; the consumer
// keeps the totals for the exit and warns at most once a second per cause.
TEST(OutputFormat, LossReportsArePrintedAndCounted) {
    TestUtil::TempDir dir;
    FileNotifyCli::CliSettings settings;
    settings.count = 1;
    FileNotifyCli::OutputSink output(dir / "out", nullptr, false);
    int stops = 0;
    Poco::AutoPtr<FileNotifyCli::WatchConsumer> consumer(
        new FileNotifyCli::WatchConsumer(settings, output, [&] { ++stops; }));
    constexpr unsigned int kLoss = FileNotifyMessage::kOverflowMask;
    FileNotifyMessage report(0, "", kLoss);
    report.SetLostCount(5);
    EXPECT_NE(std::string::npos, Line(true, report).find(",\"lost\":5,"));
    const auto send = [&](const std::string& path, unsigned int mask, unsigned long long lost) {
        FileNotifyMessage message(0, path, mask);
        message.SetLostCount(lost);
        consumer->FileNotifyMessageAction(&message);
    };
    testing::internal::CaptureStderr();
    for (const unsigned long long lost : {0, 5, 7})
        send("", kLoss, lost);
    send("/d/a", 0x100, 0);
    send("/d/b", 0x100, 0);
    send("", kLoss, 2);
    consumer->Flush();
    ASSERT_TRUE(output.Drain(std::chrono::milliseconds(5000)));
    const std::string warnings = testing::internal::GetCapturedStderr();
    std::vector<std::string> seen;
    std::ifstream in(dir / "out");
    for (std::string line; std::getline(in, line);)
        seen.push_back(line.substr(24));
    EXPECT_EQ((std::vector<std::string>{"Q_OVERFLOW", "Q_OVERFLOW lost=5", "Q_OVERFLOW lost=7", "CREATE /d/a"}), seen);
    EXPECT_EQ(1, stops);
    EXPECT_EQ(14u, consumer->LostReported());
    EXPECT_EQ(1u, consumer->KernelOverflows());
    EXPECT_NE(std::string::npos, warnings.find("sysctl -w fs.inotify.max_queued_events=N")) << warnings;
    EXPECT_NE(std::string::npos, warnings.find("5 events were dropped")) << warnings;
    EXPECT_EQ(std::string::npos, warnings.find("7 events")) << warnings;
}

}  // namespace
