#include "FileNotifyPermitAnswer.h"

#include <utility>

namespace Engine {

std::shared_ptr<FileNotifyPermitAnswer> FileNotifyPermitAnswer::Create(Writer writer) {
    return std::make_shared<FileNotifyPermitAnswer>(std::move(writer));
}

FileNotifyPermitAnswer::FileNotifyPermitAnswer(Writer writer) : _writer(std::move(writer)) {}

void FileNotifyPermitAnswer::Detach() {
    std::lock_guard<std::mutex> lock(_mutex);
    _writer = nullptr;
    if (_state == State::Pending) _state = State::AllowedByTimeout;
}

void FileNotifyPermitAnswer::Decide(int verdict) {
    std::lock_guard<std::mutex> lock(_mutex);
    _verdict = verdict;
    if (_state != State::Pending) return;
    const bool allow = verdict != 2;
    const bool inTime = _writer && _writer(allow);
    if (!inTime) {
        _state = State::AllowedByTimeout;
    } else {
        _state = allow ? State::Allowed : State::Denied;
    }
}

void FileNotifyPermitAnswer::Expire() {
    std::lock_guard<std::mutex> lock(_mutex);
    if (_state != State::Pending) return;
    if (_writer) _writer(true);
    _state = State::AllowedByTimeout;
}

FileNotifyPermitAnswer::State FileNotifyPermitAnswer::GetState() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _state;
}

int FileNotifyPermitAnswer::GetVerdict() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _verdict;
}

}  // namespace Engine
