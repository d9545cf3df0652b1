#include "sdk/ConfigUtils.h"

#include <charconv>
#include <exception>
#include <sstream>

#include <Poco/Exception.h>
#include <Poco/String.h>
#include <Poco/Util/PropertyFileConfiguration.h>

#include "sdk/FileUtils.h"

namespace SDK {

namespace {

// A configuration file is a few lines; anything larger is not one of ours.
constexpr std::size_t kMaxConfigBytes = 1 << 20;

// Strict decimal: optional sign, digits, nothing else. A "#" ends the value,
// so "cpu = 20  # percent" reads as 20.
bool ParseInt(std::string text, int& value) {
    const auto hash = text.find('#');
    if (hash != std::string::npos) text.erase(hash);
    Poco::trimInPlace(text);
    const char* first = text.data();
    const char* last = text.data() + text.size();
    // from_chars takes a "-" but not a "+"; a "+" must be followed by a digit.
    if (first != last && *first == '+') {
        ++first;
        if (first == last || *first < '0' || *first > '9') return false;
    }
    int parsed = 0;
    const auto result = std::from_chars(first, last, parsed, 10);
    if (result.ec != std::errc() || result.ptr != last) return false;
    value = parsed;
    return true;
}

}  // namespace

ConfigUtils::ConfigUtils() = default;
ConfigUtils::~ConfigUtils() = default;

bool ConfigUtils::LoadConfigFile(const std::string& path) {
    _config.reset();
    // Read through FileUtils rather than POCO's file stream: one bounded read
    // of a regular file, with a close-on-exec descriptor.
    std::string content;
    if (!FileUtils::ReadFile(path, content, kMaxConfigBytes + 1) || content.size() > kMaxConfigBytes) {
        return false;
    }
    try {
        std::istringstream stream(content);
        _config = new Poco::Util::PropertyFileConfiguration(stream);
        return true;
    } catch (const Poco::Exception&) {
    } catch (const std::exception&) {
    }
    return false;
}

int ConfigUtils::GetIntValue(const std::string& key, int defaultValue) const {
    if (_config.isNull()) return defaultValue;
    try {
        // Raw: a "${...}" in a value is not expanded; it is simply not a number.
        if (!_config->hasProperty(key)) return defaultValue;
        int value = 0;
        return ParseInt(_config->getRawString(key), value) ? value : defaultValue;
    } catch (const Poco::Exception&) {
    } catch (const std::exception&) {
    }
    return defaultValue;
}

bool ConfigUtils::HasKey(const std::string& key) const {
    if (_config.isNull()) return false;
    try {
        return _config->hasProperty(key);
    } catch (const Poco::Exception&) {
    } catch (const std::exception&) {
    }
    return false;
}

}  // namespace SDK
