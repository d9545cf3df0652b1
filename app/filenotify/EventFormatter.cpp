#include "EventFormatter.h"

#include <charconv>

#include "Escaping.h"
#include "EventNames.h"
#include "FileNotifyMessage.h"

namespace FileNotifyCli {

namespace {

constexpr std::size_t kMaxCachedMasks = 256;

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
    if (verdict.timedOut) return verdict.lateDeny ? "allow (timed out; the deny came late)" : "allow (timed out)";
    return verdict.wouldDeny ? "allow (dry run: deny)" : "allow";
}

template <class Number>
void AppendNumber(std::string& out, Number value) {
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
    out.append(digits, static_cast<std::size_t>(end - digits));
}

// value with exactly `width` digits (a fraction of a second).
void AppendFraction(std::string& out, long value, int width) {
    char digits[9];
    for (int i = width - 1; i >= 0; --i, value /= 10)
        digits[i] = static_cast<char>('0' + value % 10);
    out.append(digits, static_cast<std::size_t>(width));
}

bool IsLossReport(const Engine::FileNotifyMessage& event) {
    return (event.GetEventMask() & Engine::FileNotifyMessage::kOverflowMask) != 0;
}

// A path-like member: the escaped string, plus its exact bytes in base64
// under name_b64 when it is not UTF-8.
void AppendJsonPath(std::string& out, const char* name, const std::string& value) {
    out += ",\"";
    out += name;
    out += "\":\"";
    if (AppendJsonString(out, value)) {
        out += '"';
        return;
    }
    out += "\",\"";
    out += name;
    out += "_b64\":\"";
    AppendBase64(out, value);
    out += '"';
}

void AppendJsonStat(std::string& out, const struct stat& status) {
    out += ",\"stat\":{\"size\":";
    AppendNumber(out, static_cast<long long>(status.st_size));
    out += ",\"mode\":";
    AppendNumber(out, static_cast<unsigned int>(status.st_mode));
    out += ",\"uid\":";
    AppendNumber(out, static_cast<unsigned int>(status.st_uid));
    out += ",\"gid\":";
    AppendNumber(out, static_cast<unsigned int>(status.st_gid));
    out += ",\"mtime\":";
    AppendNumber(out, static_cast<long long>(status.st_mtime));
    out += '}';
}

}  // namespace

void EventFormatter::Append(std::string& out, const Engine::FileNotifyMessage& event, const struct stat* status,
                            const Verdict* verdict, const struct timespec& now) {
    if (_json) {
        AppendJson(out, event, status, verdict, now);
    } else {
        AppendText(out, event, verdict, now);
    }
}

void EventFormatter::AppendText(std::string& out, const Engine::FileNotifyMessage& event, const Verdict* verdict,
                                const struct timespec& now) {
    out += Second(now.tv_sec);
    out += '.';
    AppendFraction(out, now.tv_nsec / 1000000, 3);
    out += ' ';
    out += Names(event.GetEventMask());
    const std::string path = event.GetEventFilePath();
    if (!path.empty()) {
        out += ' ';
        AppendTextName(out, path);
    }
    const std::string to = event.GetMovetoFile();
    if (!to.empty()) {
        out += " -> ";
        AppendTextName(out, to);
    }
    if (event.GetNotifyType() != 0 && !IsLossReport(event)) {
        out += " pid=";
        AppendNumber(out, event.GetEventProcessId());
        out += " exe=";
        AppendTextName(out, event.GetEventProcess());
    }
    if (event.GetLostCount() > 0) {
        out += " lost=";
        AppendNumber(out, event.GetLostCount());
    }
    // Already there when its folder came into the tree.
    if (event.IsFound()) out += " found";
    if (verdict != nullptr) {
        out += " verdict=";
        out += VerdictText(*verdict);
    }
    out += '\n';
}

void EventFormatter::AppendJson(std::string& out, const Engine::FileNotifyMessage& event, const struct stat* status,
                                const Verdict* verdict, const struct timespec& now) {
    out += "{\"time\":\"";
    out += Second(now.tv_sec);
    out += '.';
    AppendFraction(out, now.tv_nsec / 1000, 6);
    out += "Z\",\"source\":\"";
    out += SourceOf(event.GetNotifyType());
    out += "\",\"events\":[";
    out += Names(event.GetEventMask());
    out += "],\"mask\":";
    AppendNumber(out, event.GetEventMask());
    if (event.GetLostCount() > 0) {
        out += ",\"lost\":";
        AppendNumber(out, event.GetLostCount());
    }
    AppendJsonPath(out, "path", event.GetEventFilePath());
    const std::string to = event.GetMovetoFile();
    if (!to.empty()) AppendJsonPath(out, "to", to);
    AppendJsonPath(out, "watch", event.FormatFolderName(event.GetWatchFile()));
    out += ",\"watch_id\":";
    AppendNumber(out, event.GetWatchId());
    if (event.IsFound()) out += ",\"found\":true";
    if (event.GetNotifyType() != 0 && !IsLossReport(event)) {
        out += ",\"pid\":";
        AppendNumber(out, event.GetEventProcessId());
        AppendJsonPath(out, "exe", event.GetEventProcess());
    }
    if (status != nullptr) AppendJsonStat(out, *status);
    if (verdict != nullptr) {
        out += verdict->deny ? ",\"verdict\":\"deny\"" : ",\"verdict\":\"allow\"";
        if (verdict->wouldDeny && !verdict->deny && !verdict->timedOut) out += ",\"dry_run_verdict\":\"deny\"";
        if (verdict->timedOut) out += ",\"timed_out\":true";
        if (verdict->lateDeny) out += ",\"late_verdict\":\"deny\"";
    }
    out += "}\n";
}

// Text: local time, as people read it. JSON: UTC, ISO 8601.
std::string_view EventFormatter::Second(std::time_t second) {
    if (_second.valid && _second.second == second) return _second.text;
    struct tm parts {};
    if (_json) {
        ::gmtime_r(&second, &parts);
    } else {
        ::localtime_r(&second, &parts);
    }
    char text[64];
    const std::size_t length =
        std::strftime(text, sizeof text, _json ? "%Y-%m-%dT%H:%M:%S" : "%Y-%m-%d %H:%M:%S", &parts);
    _second.text.assign(text, length);
    _second.second = second;
    _second.valid = true;
    return _second.text;
}

// Text: CREATE,ISDIR. JSON: the members of the array, "CREATE","ISDIR".
const std::string& EventFormatter::Names(unsigned int mask) {
    auto known = _names.find(mask);
    if (known != _names.end()) return known->second;
    if (_names.size() >= kMaxCachedMasks) _names.clear();
    std::string joined;
    for (const std::string& name : EventNameListOf(mask)) {
        if (!joined.empty()) joined += ',';
        joined += _json ? '"' + name + '"' : name;
    }
    return _names.emplace(mask, std::move(joined)).first->second;
}

}  // namespace FileNotifyCli
