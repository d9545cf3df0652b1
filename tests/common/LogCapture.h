#pragma once

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>

namespace TestUtil {

// Routes one logger into memory at debug level while it lives.
class LogCapture {
public:
    explicit LogCapture(Poco::Logger* logger)
        : _logger(logger), _oldChannel(logger->getChannel()), _oldLevel(logger->getLevel()) {
        _logger->setChannel(_recorder);
        _logger->setLevel(Poco::Message::PRIO_DEBUG);
    }
    ~LogCapture() {
        _logger->setChannel(_oldChannel);
        _logger->setLevel(_oldLevel);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // A record with exactly this priority and text was written.
    bool Has(int priority, const std::string& text) const {
        std::lock_guard<std::mutex> lock(_recorder->mutex);
        const auto& all = _recorder->records;
        return std::find(all.begin(), all.end(), std::make_pair(priority, text)) != all.end();
    }
    // How many records of this priority were written.
    long Count(int priority) const {
        std::lock_guard<std::mutex> lock(_recorder->mutex);
        return std::count_if(_recorder->records.begin(), _recorder->records.end(),
                             [&](const auto& r) { return r.first == priority; });
    }
    // The texts of the records of this priority, in order.
    std::vector<std::string> Texts(int priority) const {
        std::lock_guard<std::mutex> lock(_recorder->mutex);
        std::vector<std::string> texts;
        for (const auto& r : _recorder->records)
            if (r.first == priority) texts.push_back(r.second);
        return texts;
    }
    // All records, for failure messages.
    std::string Dump() const {
        std::lock_guard<std::mutex> lock(_recorder->mutex);
        std::string text;
        for (const auto& r : _recorder->records)
            text += std::to_string(r.first) + " " + r.second + "\n";
        return text;
    }

private:
    struct Recorder : Poco::Channel {
        void log(const Poco::Message& msg) override {
            std::lock_guard<std::mutex> lock(mutex);
            records.emplace_back(msg.getPriority(), msg.getText());
        }
        mutable std::mutex mutex;
        std::vector<std::pair<int, std::string>> records;
    };

    Poco::Logger* const _logger;
    Poco::AutoPtr<Recorder> _recorder{new Recorder};
    Poco::Channel::Ptr _oldChannel;
    int _oldLevel;
};

}  // namespace TestUtil
