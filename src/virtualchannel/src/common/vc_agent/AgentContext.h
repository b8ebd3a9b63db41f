#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "AgentEnvironment.h"
#include "InfoSegments.h"
#include "Log.h"
#include "VDIClientInfo.h"

namespace VirtualChannelAgent {

// This side's version of the agents' protocol.
inline constexpr char kChannelVersion[] = "1.0.679.0";

// What every part of one agent shares.
struct AgentContext {
    AgentContext(const std::string& name, std::shared_ptr<AgentEnvironment> machine)
        : logPrefix(name + " - "),
          environment(machine ? std::move(machine) : AgentEnvironment::system()),
          infoOutputName(VDIFrameworkCommon::infoNotificationsName(clientName())),
          infoInputName(VDIFrameworkCommon::infoRequestsName(clientName())) {}

    const std::string logPrefix;
    const std::shared_ptr<AgentEnvironment> environment;
    const std::string infoOutputName;  // the agent writes, local processes read
    const std::string infoInputName;   // local processes write, the agent reads

    // Set first thing when the agent ends: nothing is begun after that.
    std::atomic<bool> stopping{false};
    // The handshake is done. Written by ConnectionState only.
    std::atomic<bool> connected{false};

private:
    static std::string clientName() {
        return VDIFrameworkCommon::VDIClientInfo::getInstance().getClientName();
    }
};

// A text from outside as far as a log line shows it.
inline std::string_view shown(std::string_view text) { return text.substr(0, 300); }

}  // namespace VirtualChannelAgent

// A log line of an agent's part: it needs something called m_context in reach.
#define AGENT_LOG(severity, ...) NORVO_LOG(severity, m_context.logPrefix, __VA_ARGS__)
