#pragma once

#include <map>
#include <memory>

#include "FileNotifyExport.h"

namespace Engine {

class FileNotifyMessage;

// Messages of other agent modules. Their receiver slots sit in this interface
// so that every consumer shares one slot order; their contents are opaque here.
struct ProcsMessage {
    struct procInfo;
};
struct AssetMessage {
    struct assetInfo;
};
class FtraceMessage;

// What a consumer task implements to receive messages. Every action runs on
// the consumer task's own thread; the message stays owned by the framework,
// which deletes it after the action returns. The result of
// FileNotifyMessageAction is the answer to a permission event (2 denies the
// access, anything else allows it).
class FILENOTIFY_API AbstractMessageReceiver {
public:
    virtual int FileNotifyMessageAction(FileNotifyMessage* message);
    virtual int ProcsMessageAction(int type, unsigned int pid, std::shared_ptr<ProcsMessage::procInfo> info);
    virtual int AssetMessageAction(unsigned int type,
                                   const std::map<int, std::shared_ptr<AssetMessage::assetInfo>>& assets);
    virtual int FtraceMessageAction(const FtraceMessage* message);

protected:
    // A receiver is always part of an object owned through another base
    // (a reference-counted task), never deleted through this interface.
    virtual ~AbstractMessageReceiver();
};

}  // namespace Engine
