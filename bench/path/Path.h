// A two-way message path between two processes, with everything between them: two
// hosts with the plug-in, or relays that someone might use instead. One interface, so that all run
// through the same measurements (PathBench.cpp).
//
// A kind is registered by a registrar in its .cpp:
//
//     static const PathKindRegistrar entry({"direct TCP", nullptr, startRelays, joinPath});
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "floors/Hop.h"

namespace bench {

struct PathRun {
    std::string kind;     // of a registered PathKind
    std::string channel;  // the kind of channel between hosts; unused for other paths
    std::size_t size;     // of the near end's messages, in bytes
    std::size_t answer;   // of the far end's
};

enum class PathEnd { Near, Far };

// The processes between the ends, owned by the measuring process: they end with the object.
class PathRelays {
public:
    virtual ~PathRelays() = default;
    // The path's address, for PathKind::join in the end's own process.
    virtual std::string address(PathEnd end) const = 0;
    // Added to the environment of the end's process.
    virtual std::vector<std::string> environment(PathEnd) const { return {}; }
    virtual std::vector<pid_t> processes() const { return {}; }
};

struct PathKind {
    std::string name;
    // Why this kind cannot run here; empty if it can. Null if it always can.
    std::string (*missing)();
    std::unique_ptr<PathRelays> (*start)(const PathRun& run);
    // One end, for sending and receiving. The far end joins first.
    std::unique_ptr<Hop> (*join)(PathEnd end, const std::string& address, const PathRun& run);
};

// Null if there is none of that name.
const PathKind* findPathKind(const std::string& name);

// Why a path of that kind cannot run here; empty if it can.
std::string reasonToLeaveOut(const std::string& name);

struct PathKindRegistrar {
    explicit PathKindRegistrar(PathKind kind);
};

// A unique name for one path, by which the program cleans up.
std::string uniquePathName();

// The role (PeerProcess.h) that runs the program whose path and arguments it is given; like every
// peer, it dies with this process.
inline constexpr char kProgramRole[] = "path_program";

}  // namespace bench
