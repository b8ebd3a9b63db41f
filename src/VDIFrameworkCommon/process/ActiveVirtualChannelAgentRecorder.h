#pragma once

namespace VDIFrameworkCommon {

// The machine-wide mark of the agent process of this user that is the active one. It is a record
// lock on a file, so it ends with its process, however that dies. All handles of a process share
// one mark. Thread-safe.
class ActiveVirtualChannelAgentRecorder {
public:
    ActiveVirtualChannelAgentRecorder();
    // Does not clear the mark: clearActiveVirtualChannelAgent() or the end of the process does.
    ~ActiveVirtualChannelAgentRecorder();

    // True when this process is marked now; false when another living process is.
    bool markCurrentVirtualChannelAgentAsActive();

    // True when an agent process other than the calling one is marked. Always false in a process
    // that has declared itself a client.
    bool hasOtherActiveVirtualChannelAgent();

    // Removes this process's mark, if any.
    void clearActiveVirtualChannelAgent();

    // Declares that this process is a client of the agent and never competes with it. For the life
    // of the process.
    static void declareClientProcess();
};

}  // namespace VDIFrameworkCommon
