#pragma once

#include <string>

#include <Poco/AutoPtr.h>
#include <Poco/Util/AbstractConfiguration.h>

#include "framework/Export.h"

namespace SDK {

// A "key = value" configuration file ('#' starts a comment), read with POCO's
// property-file configuration. One object holds one loaded file.
class FRAMEWORK_API ConfigUtils {
public:
    ConfigUtils();
    ~ConfigUtils();
    ConfigUtils(const ConfigUtils&) = delete;
    ConfigUtils& operator=(const ConfigUtils&) = delete;

    // False when the file is missing, unreadable or not a property file;
    // the previously loaded content (if any) is then dropped.
    bool LoadConfigFile(const std::string& path);

    // The value of key as a decimal integer; defaultValue when nothing is
    // loaded, the key is missing, or its value is not a number in int range.
    int GetIntValue(const std::string& key, int defaultValue) const;

    // True when the loaded file has key, whatever its value: tells a missing
    // setting from a malformed one.
    bool HasKey(const std::string& key) const;

private:
    Poco::AutoPtr<Poco::Util::AbstractConfiguration> _config;
};

}  // namespace SDK
