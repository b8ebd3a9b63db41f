#include "VDIClientInfo.h"

namespace VDIFrameworkCommon {

VDIClientInfo::VDIClientInfo() : m_name("NorvoCrews"), m_version(NORVO_PROJECT_VERSION) {}

// Never destroyed: threads of the library may ask until the process is gone.
VDIClientInfo& VDIClientInfo::getInstance() {
    static auto* const instance = new VDIClientInfo;
    return *instance;
}

void VDIClientInfo::setClientType(VDIClientType::VDIClientTypeEnum type) {
    LocalLock lock(m_mutex);
    m_type = type;
}

VDIClientType::VDIClientTypeEnum VDIClientInfo::getClientType() const {
    LocalLock lock(m_mutex);
    return m_type;
}

void VDIClientInfo::setClientName(const std::string& name) {
    LocalLock lock(m_mutex);
    m_name = name;
}

std::string VDIClientInfo::getClientName() const {
    LocalLock lock(m_mutex);
    return m_name;
}

void VDIClientInfo::setClientVersion(const std::string& version) {
    LocalLock lock(m_mutex);
    m_version = version;
}

std::string VDIClientInfo::getClientVersion() const {
    LocalLock lock(m_mutex);
    return m_version;
}

void VDIClientInfo::setMyInternalVersion(int version) {
    LocalLock lock(m_mutex);
    m_internalVersion = version;
}

int VDIClientInfo::getMyInternalVersion() const {
    LocalLock lock(m_mutex);
    return m_internalVersion;
}

void VDIClientInfo::setPeerClientVersion(const std::string& version) {
    LocalLock lock(m_mutex);
    m_peerVersion = version;
}

std::string VDIClientInfo::getPeerClientVersion() const {
    LocalLock lock(m_mutex);
    return m_peerVersion;
}

void VDIClientInfo::setPeerInternalVersion(int version) {
    LocalLock lock(m_mutex);
    m_peerInternalVersion = version;
}

int VDIClientInfo::getPeerInternalVersion() const {
    LocalLock lock(m_mutex);
    return m_peerInternalVersion;
}

}  // namespace VDIFrameworkCommon
