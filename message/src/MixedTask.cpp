#include "MixedTask.h"

namespace Engine {

int AbstractMessageReceiver::FileNotifyMessageAction(FileNotifyMessage*) {
    return 0;
}

int AbstractMessageReceiver::ProcsMessageAction(int, unsigned int, std::shared_ptr<ProcsMessage::procInfo>) {
    return 0;
}

int AbstractMessageReceiver::AssetMessageAction(unsigned int,
                                                const std::map<int, std::shared_ptr<AssetMessage::assetInfo>>&) {
    return 0;
}

int AbstractMessageReceiver::FtraceMessageAction(const FtraceMessage*) {
    return 0;
}

AbstractMessageReceiver::~AbstractMessageReceiver() = default;

MixedTask::MixedTask(const std::string& taskName, const std::string& featureName,
                     Framework::TaskCondition::TaskType type, int capacity)
    : Framework::Task(taskName, featureName, type, capacity) {}

MixedTask::~MixedTask() = default;

int MixedTask::Run() {
    return 0;
}

}  // namespace Engine
