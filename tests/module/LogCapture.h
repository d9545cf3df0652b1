#pragma once

#include <mutex>
#include <string>
#include <vector>

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>

#include "FileNotifyLog.h"  // the priorities that Has() takes, and the module logger

namespace TestUtil {

// Routes the module logger into memory at debug level for the life of the
// object, then restores its channel and level.
class LogCapture {
public:
    LogCapture() : _logger(Engine::FileNotifyUtils::GetLoggerPtr()), _channel(new Recorder) {
        if (_logger == nullptr) return;
        _oldChannel = _logger->getChannel();
        _oldLevel = _logger->getLevel();
        _logger->setChannel(_channel);
        _logger->setLevel(Poco::Message::PRIO_DEBUG);
    }
    ~LogCapture() {
        if (_logger == nullptr) return;
        _logger->setChannel(_oldChannel);
        _logger->setLevel(_oldLevel);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // A record with exactly this text and priority was written.
    bool Has(int priority, const std::string& text) const { return _channel->Has(priority, text); }
    // All texts, for failure messages.
    std::string Dump() const { return _channel->Dump(); }

private:
    class Recorder : public Poco::Channel {
    public:
        void log(const Poco::Message& msg) override {
            std::lock_guard<std::mutex> lock(_mutex);
            _records.emplace_back(msg.getPriority(), msg.getText());
        }
        bool Has(int priority, const std::string& text) const {
            std::lock_guard<std::mutex> lock(_mutex);
            for (const auto& record : _records) {
                if (record.first == priority && record.second == text) return true;
            }
            return false;
        }
        std::string Dump() const {
            std::lock_guard<std::mutex> lock(_mutex);
            std::string all;
            for (const auto& record : _records) all += std::to_string(record.first) + " " + record.second + "\n";
            return all;
        }

    private:
        mutable std::mutex _mutex;
        std::vector<std::pair<int, std::string>> _records;
    };

    Poco::Logger* _logger;
    Poco::AutoPtr<Recorder> _channel;
    Poco::Channel::Ptr _oldChannel;
    int _oldLevel = Poco::Message::PRIO_INFORMATION;
};

}  // namespace TestUtil
