#pragma once

#include <string>

#include "LocalMutex.h"

namespace VDIFrameworkCommon {

namespace VDIClientType {
enum VDIClientTypeEnum { Unknown = 0, Crews = 2, Meetings = 3 };
}

// Identity of this side and, as reported, of the peer: one per process, thread-safe.
class VDIClientInfo {
public:
    static VDIClientInfo& getInstance();

    void setClientType(VDIClientType::VDIClientTypeEnum type);
    VDIClientType::VDIClientTypeEnum getClientType() const;

    // Defaults: "NorvoCrews", the project's version and 1, which the plug-in keeps: it exports none
    // of this.
    void setClientName(const std::string& name);
    std::string getClientName() const;
    void setClientVersion(const std::string& version);
    std::string getClientVersion() const;
    void setMyInternalVersion(int version);
    int getMyInternalVersion() const;

    void setPeerClientVersion(const std::string& version);
    std::string getPeerClientVersion() const;
    void setPeerInternalVersion(int version);
    int getPeerInternalVersion() const;

private:
    VDIClientInfo();

    mutable LocalMutex m_mutex;
    VDIClientType::VDIClientTypeEnum m_type NORVO_GUARDED_BY(m_mutex) = VDIClientType::Unknown;
    std::string m_name NORVO_GUARDED_BY(m_mutex);
    std::string m_version NORVO_GUARDED_BY(m_mutex);
    int m_internalVersion NORVO_GUARDED_BY(m_mutex) = 1;
    std::string m_peerVersion NORVO_GUARDED_BY(m_mutex);
    int m_peerInternalVersion NORVO_GUARDED_BY(m_mutex) = 0;
};

}  // namespace VDIFrameworkCommon
