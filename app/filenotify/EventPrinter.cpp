#include "EventPrinter.h"

#include <iostream>
#include <sstream>

#include <Poco/DateTimeFormatter.h>
#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Stringifier.h>
#include <Poco/LocalDateTime.h>
#include <Poco/Timestamp.h>

#include "EventNames.h"
#include "FileNotifyMessage.h"

namespace FileNotifyCli {

namespace {

const char* SourceOf(int notifyType) {
    switch (notifyType) {
        case 1:
            return "fanotify";
        case 2:
            return "permission";
        default:
            return "inotify";
    }
}

const char* VerdictText(const Verdict& verdict) {
    if (verdict.deny) return "deny";
    return verdict.wouldDeny ? "allow (dry run: deny)" : "allow";
}

Poco::JSON::Object::Ptr StatObject(const struct stat& status) {
    Poco::JSON::Object::Ptr object = new Poco::JSON::Object;
    object->set("size", static_cast<Poco::Int64>(status.st_size));
    object->set("mode", static_cast<unsigned int>(status.st_mode));
    object->set("uid", static_cast<unsigned int>(status.st_uid));
    object->set("gid", static_cast<unsigned int>(status.st_gid));
    object->set("mtime", static_cast<Poco::Int64>(status.st_mtime));
    return object;
}

}  // namespace

EventPrinter::EventPrinter(bool json, const std::string& file) : _json(json), _out(&std::cout) {
    if (file.empty()) return;
    _file.open(file, std::ios::app);
    _out = &_file;
}

void EventPrinter::Print(const Engine::FileNotifyMessage& event, const struct stat* status, const Verdict* verdict) {
    const std::string line = _json ? JsonLine(event, status, verdict) : TextLine(event, verdict);
    std::lock_guard<std::mutex> lock(_mutex);
    *_out << line << std::endl;  // flushed: readers follow the output live
}

std::string EventPrinter::TextLine(const Engine::FileNotifyMessage& event, const Verdict* verdict) {
    std::string line = Poco::DateTimeFormatter::format(Poco::LocalDateTime(), "%Y-%m-%d %H:%M:%S.%i");
    line += " " + EventNamesOf(event.GetEventMask()) + " " + event.GetEventFilePath();
    if (!event.GetMovetoFile().empty()) line += " -> " + event.GetMovetoFile();
    if (event.GetNotifyType() != 0) {
        line += " pid=" + std::to_string(event.GetEventProcessId()) + " exe=" + event.GetEventProcess();
    }
    if (verdict != nullptr) line += std::string(" verdict=") + VerdictText(*verdict);
    return line;
}

std::string EventPrinter::JsonLine(const Engine::FileNotifyMessage& event, const struct stat* status,
                                   const Verdict* verdict) {
    Poco::JSON::Object object(Poco::JSON_PRESERVE_KEY_ORDER);
    object.set("time", Poco::DateTimeFormatter::format(Poco::Timestamp(), "%Y-%m-%dT%H:%M:%S.%FZ"));
    object.set("source", SourceOf(event.GetNotifyType()));
    Poco::JSON::Array::Ptr names = new Poco::JSON::Array;
    for (const std::string& name : EventNameListOf(event.GetEventMask()))
        names->add(name);
    object.set("events", names);
    object.set("mask", event.GetEventMask());
    object.set("path", event.GetEventFilePath());
    if (!event.GetMovetoFile().empty()) object.set("to", event.GetMovetoFile());
    object.set("watch", event.FormatFolderName(event.GetWatchFile()));
    object.set("watch_id", event.GetWatchId());
    if (event.GetNotifyType() != 0) {
        object.set("pid", event.GetEventProcessId());
        object.set("exe", event.GetEventProcess());
    }
    if (status != nullptr) object.set("stat", StatObject(*status));
    if (verdict != nullptr) {
        object.set("verdict", verdict->deny ? "deny" : "allow");
        if (verdict->wouldDeny && !verdict->deny) object.set("dry_run_verdict", "deny");
    }
    // Escaped to ASCII: a byte that is not UTF-8 becomes \u00XX, so every
    // line is valid JSON whatever the file names hold.
    std::ostringstream out;
    Poco::JSON::Stringifier::stringify(object, out, 0, -1, Poco::JSON_WRAP_STRINGS | Poco::JSON_ESCAPE_UNICODE);
    return out.str();
}

}  // namespace FileNotifyCli
