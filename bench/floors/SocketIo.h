// Sockets, and transfer of whole blocks through descriptors. Failures throw std::runtime_error.
#pragma once

#include <cstddef>
#include <string>

#include "Descriptor.h"

namespace bench {

using support::Descriptor;

void writeAll(int fd, const void* data, std::size_t length);
// Fills `message`.
void readAll(int fd, std::string& message);

// Makes calls on a socket time out after kHopPatienceMs.
void limitWaits(int socket);

// A listening Unix-domain socket, and one connected to it; `name` is in Linux's abstract
// namespace, so nothing is left to remove.
Descriptor listenOnAbstract(const std::string& name);
Descriptor connectToAbstract(const std::string& name);

// The same on the loopback interface, without delays for small segments. Port 0: any free one.
Descriptor listenOnLoopback(unsigned short port);
Descriptor connectToLoopback(unsigned short port);
unsigned short boundPort(const Descriptor& listener);

// The first connection to `listener`, with limited waits.
Descriptor acceptOne(const Descriptor& listener);

}  // namespace bench
