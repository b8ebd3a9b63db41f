// A remote-desktop client in a process of its own: it loads the plug-in library and joins it with
// the other end of a socket.
//
//     arguments: library, kind, "listen" or "connect", path of the socket
//     standard input: "active 0", "active 1"; each is answered with "done". Its end ends the host.
#include <dlfcn.h>

#include <iostream>
#include <mutex>
#include <thread>

#include "ChildProcess.h"
#include "LanguageAbstraction.h"
#include "WireSocket.h"

namespace {

struct Plugin {
    explicit Plugin(const std::string& path) : handle(dlopen(path.c_str(), RTLD_NOW)) {
        if (!handle) throw std::runtime_error(dlerror());
    }
    template <class Function>
    Function* get(const char* name) const {
        return reinterpret_cast<Function*>(dlsym(handle, name));
    }
    void* handle;
};

int append(const void* data, std::uint32_t length, std::uintptr_t, void* socket) {
    return static_cast<testsupport::WireSocket*>(socket)->send(data, length) ? 0 : -1;
}

void handOn(const testsupport::WireSocket& socket, decltype(ReceiveData)* receiveData) {
    std::string packet;
    while (socket.receive(packet, std::chrono::hours(1))) {
        receiveData(reinterpret_cast<unsigned char*>(packet.data()),
                    static_cast<std::uint32_t>(packet.size()));
    }
}

}  // namespace

CHILD_ROLE(pluginHost) {
    const Plugin plugin(args.at(0));
    auto socket = args.at(2) == "listen" ? testsupport::WireSocket::listenAt(args.at(3))
                                         : testsupport::WireSocket::connectTo(args.at(3));
    plugin.get<decltype(InitialiseChannel)>("InitialiseChannel")(
        append, static_cast<std::uint32_t>(std::stoul(args.at(1))), &socket);
    std::thread receiver(handOn, std::cref(socket),
                         plugin.get<decltype(ReceiveData)>("ReceiveData"));
    for (std::string line; std::getline(std::cin, line);) {
        plugin.get<decltype(ChannelActive)>("ChannelActive")(line == "active 1" ? 1 : 0);
        testsupport::say("done");
    }
    plugin.get<decltype(ChannelActive)>("ChannelActive")(0);
    plugin.get<decltype(Shutdown)>("Shutdown")();
    socket.hangUp();
    receiver.join();
    return 0;
}
