#pragma once

#include <string>

#include "AbstractMessageReceiver.h"
#include "FileNotifyExport.h"
#include "framework/Task.h"

namespace Engine {

// The base of consumer tasks that receive file events: a framework task whose
// receiver part FileNotifyMessage::MessageHandle finds by a checked cast.
// Reference counted like every task: create with new, hold in Poco::AutoPtr.
class FILENOTIFY_API MixedTask : public Framework::Task, public AbstractMessageReceiver {
public:
    MixedTask(const std::string& taskName, const std::string& featureName, Framework::TaskCondition::TaskType type,
              int capacity);

    int Run() override;

protected:
    ~MixedTask() override;
};

}  // namespace Engine
