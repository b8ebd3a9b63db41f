#include "NorvoStreamClientStatus.h"

#include <system_error>

namespace NorvoStreamClient {

const char* textOf(Reason reason) {
    switch (reason) {
        case Reason::None:
            return "no error";
        case Reason::Timeout:
            return "the time-out passed";
        case Reason::InvalidArgument:
            return "an argument is not valid for this call";
        case Reason::Closed:
            return "it is closed";
        case Reason::NoAgent:
            return "no agent answers in this session";
        case Reason::NotConnected:
            return "the agent is not connected to a far end";
        case Reason::NotTakenUp:
            return "the far end has not taken up the stream";
        case Reason::AlreadyOpen:
            return "this client has the stream open already";
        case Reason::InUseOtherDirection:
            return "the stream is in use in the other direction";
        case Reason::CapacityMismatch:
            return "the stream's segment is in use, too small, and cannot grow here";
        case Reason::NoSpace:
            return "no space is left for the stream's segment";
        case Reason::NoPermission:
            return "the stream's segment belongs to somebody else";
        case Reason::TooLong:
            return "it is too long";
        case Reason::PeerGone:
            return "the other end is gone";
        case Reason::Ended:
            return "the other end has finished";
        case Reason::NoMemory:
            return "no memory is left";
        case Reason::SystemError:
            return "the system refused";
        case Reason::InUse:
            return "another program uses it";
    }
    return "unknown reason";
}

std::string Status::text() const {
    std::string text = textOf(m_reason);
    if (m_capacity > 0) text += " (" + std::to_string(m_capacity) + " bytes)";
    if (m_systemError != 0) text += ": " + std::generic_category().message(m_systemError);
    return text;
}

}  // namespace NorvoStreamClient
