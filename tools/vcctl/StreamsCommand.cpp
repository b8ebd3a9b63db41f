// vcctl streams: lists this session's segments and their traffic.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <memory>
#include <optional>

#include "CommandError.h"
#include "CommandLine.h"
#include "Descriptor.h"
#include "InfoSegments.h"
#include "Output.h"
#include "PosixSharedMemory.h"
#include "SegmentList.h"
#include "SharedMemoryLayout.h"
#include "StopSignal.h"

namespace vcctl {

namespace {

using support::Descriptor;

struct StreamsOptions {
    bool follow = false;
    double interval = 1;
};

// One snapshot of a segment's header.
struct Look {
    std::uint64_t capacity;
    long newId;
    long readWord;      // plain: read message ID; broadcast: readers inside a read
    long readersReady;  // broadcast
    shared_memory::ChunkHeader chunk;
};

std::optional<Look> lookAt(const std::string& name) {
    const Descriptor fd(VDIFrameworkCommon::shm_open_mac(segmentObject(name), O_RDONLY, 0));
    struct stat status {};
    if (!fd || fstat(fd.get(), &status) != 0 ||
        static_cast<std::size_t>(status.st_size) < sizeof(shared_memory::SharedMemoryHeader)) {
        return std::nullopt;
    }
    void* address = mmap(nullptr, sizeof(shared_memory::SharedMemoryHeader), PROT_READ, MAP_SHARED,
                         fd.get(), 0);
    if (address == MAP_FAILED) return std::nullopt;
    const auto& header = *static_cast<const shared_memory::SharedMemoryHeader*>(address);
    const Look look{static_cast<std::uint64_t>(status.st_size) - sizeof header,
                    header.newMessageId.load(), header.readMessageId.load(),
                    header.lockWord2.load(), shared_memory::ChunkHeader::load(header)};
    munmap(address, sizeof(shared_memory::SharedMemoryHeader));
    return look;
}

// Judged by name: only an agent's two INFO segments are broadcast segments.
bool isBroadcast(const std::string& name) { return VDIFrameworkCommon::isInfoSegment(name); }

std::string waitingText(const std::string& name, const Look& look) {
    if (isBroadcast(name)) return fmt::format("{} ready", look.readersReady);
    if (look.newId <= look.readWord) return "-";
    return fmt::format("{}/{}, {} of {} B", look.chunk.index, look.chunk.count, look.chunk.length,
                       look.chunk.total);
}

using Looks = std::map<std::string, Look>;

Looks lookAtAll() {
    Looks looks;
    for (const std::string& name : sessionSegments()) {
        if (const auto look = lookAt(name)) looks.emplace(name, *look);
    }
    return looks;
}

std::string table(const Looks& before, const Looks& after) {
    std::string text =
        fmt::format("{:<28} {:>10} {:>12} {:>12}  {:<24} {:<7} {:<7} {}\n", "STREAM", "CAPACITY",
                    "NEW", "READ", "WAITING", "WRITER", "READER", "OBJECT");
    for (const auto& [name, look] : after) {
        const auto earlier = before.find(name);
        const bool known = earlier != before.end();
        const bool writes = known && earlier->second.newId != look.newId;
        const bool reads =
            known && (isBroadcast(name) ? earlier->second.readersReady != look.readersReady
                                        : earlier->second.readWord != look.readWord);
        text += fmt::format(
            "{:<28} {:>10} {:>12} {:>12}  {:<24} {:<7} {:<7} {}\n", readable(name), look.capacity,
            look.newId, isBroadcast(name) ? "-" : std::to_string(look.readWord),
            waitingText(name, look), writes ? "moves" : "still", reads ? "moves" : "still",
            readable(VDIFrameworkCommon::openedSharedMemoryObject(segmentObject(name))));
    }
    if (after.empty()) text += "no segments in this session\n";
    return text;
}

// How many terminal rows `text` takes, counting wrapped lines; 0 without a terminal.
std::size_t rowsOf(const std::string& text) {
    winsize window{};
    if (isatty(STDOUT_FILENO) != 1 || ioctl(STDOUT_FILENO, TIOCGWINSZ, &window) != 0) return 0;
    const std::size_t width = window.ws_col > 0 ? window.ws_col : text.size();
    std::size_t rows = 0;
    for (std::size_t start = 0, end = 0; (end = text.find('\n', start)) != std::string::npos;
         start = end + 1) {
        rows += std::max<std::size_t>(1, (end - start + width - 1) / width);
    }
    return rows;
}

void show(const std::string& text, std::size_t rowsAbove) {
    print(rowsAbove > 0 ? fmt::format("\x1b[{}A\x1b[J{}", rowsAbove, text) : text);
    flushOut();
}

int runStreams(const StreamsOptions& options) {
    constexpr int kFirstLook = 250;
    const int interval = static_cast<int>(options.interval * 1000);
    Looks before = lookAtAll();
    StopSignal::wait(kFirstLook);
    std::size_t rows = 0;
    for (;;) {
        Looks after = lookAtAll();
        const std::string text = table(before, after);
        show(text, rows);
        rows = rowsOf(text);
        if (!options.follow) return kOk;
        if (StopSignal::wait(interval)) return kInterrupted;
        before = std::move(after);
    }
}

}  // namespace

void addStreamsCommand(CLI::App& app, int& exitCode) {
    auto options = std::make_shared<StreamsOptions>();
    Command command(app, "streams", "Lists the segments of this session and whether they move");
    command.flag("-f,--follow", options->follow, "Refresh repeatedly, in place on a terminal");
    command.argument("--interval", options->interval, "Time between two refreshes")
        .type("SECONDS")
        .range(0.1, 3600.0)
        .showDefault();
    command.footer(
        "NEW and READ are the IDs of the last chunk written and taken; a plain segment is\n"
        "full while NEW is greater. Of the agent's own two segments, which every reader\n"
        "sees, WAITING shows how many readers are ready for the next message.");
    command.run([=, &exitCode] { exitCode = runStreams(*options); });
}

}  // namespace vcctl
