#pragma once

#include "TestSupport.h"

namespace testsupport {

// Identifies a message that contains it, with every byte depending on it.
struct Numbered {
    std::uint32_t source;
    std::uint32_t number;
    std::uint32_t length;  // of the message
};

// At least as long as a Numbered.
inline std::string numberedMessage(std::uint32_t source, std::uint32_t number, std::size_t length) {
    std::string message(std::max(length, sizeof(Numbered)), '\0');
    const Numbered id{source, number, static_cast<std::uint32_t>(message.size())};
    std::memcpy(message.data(), &id, sizeof id);
    for (std::size_t i = sizeof id; i < message.size(); ++i)
        message[i] = static_cast<char>(source * 7 + number * 13 + i + (i >> 8));
    return message;
}

// Empty if any byte differs from what numberedMessage wrote.
inline std::optional<Numbered> readNumbered(const std::string& message) {
    Numbered id{};
    if (message.size() < sizeof id) return std::nullopt;
    std::memcpy(&id, message.data(), sizeof id);
    if (message != numberedMessage(id.source, id.number, message.size())) return std::nullopt;
    return id;
}

}  // namespace testsupport
