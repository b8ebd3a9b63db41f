// vcctl send: a file or standard input into a stream.
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <optional>
#include <string_view>

#include "CommandError.h"
#include "CommandLine.h"
#include "Descriptor.h"
#include "Progress.h"
#include "SessionClient.h"
#include "StopSignal.h"
#include "TransferTally.h"

namespace vcctl {

namespace {

using support::Descriptor;

constexpr std::size_t kLongestMessage = 64u << 20;
constexpr double kShortestFlush = 2;  // seconds

struct SendOptions {
    std::string stream;
    std::string file = "-";
    unsigned int size = NorvoStreamClient::kDefaultCapacity;
    std::size_t messageSize = 256u << 10;
    std::uint64_t count = UINT64_MAX;
    double wait = 10;
    bool lines = false;
    bool raw = false;
};

// Cuts the input into messages.
class Input {
public:
    explicit Input(const SendOptions& options)
        : m_options(options),
          m_name(options.file == "-" ? "standard input" : options.file),
          m_owned(options.file == "-" ? -1 : open(options.file.c_str(), O_RDONLY | O_CLOEXEC)),
          m_fd(options.file == "-" ? STDIN_FILENO : m_owned.get()) {
        if (m_fd < 0) throw systemError("cannot read " + m_name, errno);
    }

    std::optional<std::uint64_t> size() const {
        struct stat status {};
        const bool isFile = fstat(m_fd, &status) == 0 && S_ISREG(status.st_mode);
        return isFile ? std::optional<std::uint64_t>(status.st_size) : std::nullopt;
    }

    // The next message; false at the end of the input.
    bool next(std::string& message) {
        return m_options.lines ? nextLine(message) : nextBlock(message);
    }

private:
    bool nextBlock(std::string& message) {
        message.resize(m_options.messageSize);
        std::size_t filled = 0;
        while (filled < message.size()) {
            const std::size_t got = readSome(message.data() + filled, message.size() - filled);
            if (got == 0) break;
            filled += got;
        }
        message.resize(filled);
        return filled > 0;
    }

    bool nextLine(std::string& message) {
        message.clear();
        for (bool any = false;; any = true) {
            if (m_ahead.empty() && !readAhead()) return any;
            const std::size_t end = m_ahead.find('\n');
            message += m_ahead.substr(0, end);
            m_ahead.remove_prefix(std::min(end, m_ahead.size() - 1) + 1);
            if (end != std::string_view::npos) return true;
            if (message.size() > kLongestMessage) {
                throw CommandError("a line of " + m_name + " is longer than 64 MiB");
            }
        }
    }

    bool readAhead() {
        m_ahead = {m_buffer.data(), readSome(m_buffer.data(), m_buffer.size())};
        return !m_ahead.empty();
    }

    // 0 at the end. Waits where a signal that stops the program is seen, which a read would sleep
    // on.
    std::size_t readSome(char* to, std::size_t size) const {
        pollfd waited[2] = {{m_fd, POLLIN, 0}, {StopSignal::descriptor(), POLLIN, 0}};
        for (;;) {
            StopSignal::throwIfRequested();
            if (poll(waited, 2, -1) < 0) continue;
            if (waited[1].revents) StopSignal::drain();
            if (!waited[0].revents) continue;
            const ssize_t got = read(m_fd, to, size);
            if (got >= 0) return static_cast<std::size_t>(got);
            if (errno != EINTR && errno != EAGAIN)
                throw systemError("cannot read " + m_name, errno);
        }
    }

    const SendOptions& m_options;
    const std::string m_name;
    const Descriptor m_owned;
    const int m_fd;
    std::array<char, 1u << 16> m_buffer{};
    std::string_view m_ahead;
};

// Tries `step` again and again, until it is done or for `wait` seconds.
template <class Step>
void insist(NorvoStreamClient::Stream& stream, SessionClient& session, double wait, Step step) {
    const auto giveUp = after(wait);
    for (NorvoStreamClient::Status done; !(done = step());) {
        StopSignal::throwIfRequested();
        if (mayPass(done) && std::chrono::steady_clock::now() < giveUp) continue;
        throw CommandError(session.explain(done, stream.name()));
    }
}

void write(NorvoStreamClient::Stream& stream, SessionClient& session, const std::string& message,
           double wait) {
    insist(stream, session, wait,
           [&] { return stream.write(message.data(), message.size(), kPollTime); });
}

int runSend(const SendOptions& options) {
    Input input(options);
    SessionClient session;
    const auto stream =
        session.open(options.stream, NorvoStreamClient::Direction::Write, options.size);
    session.waitUntilUp(*stream, options.wait);

    TransferTally tally;
    Progress progress("send " + options.stream, input.size());
    std::string message;
    while (tally.messages() < options.count && input.next(message)) {
        if (message.empty()) continue;  // the streams know no empty message
        write(*stream, session, message, options.wait);
        tally.add(message.data(), message.size());
        progress.add(message.size());
    }
    if (!options.raw) write(*stream, session, tally.endMark(), options.wait);
    insist(*stream, session, std::max(options.wait, kShortestFlush),
           [&] { return stream->flush(kPollTime); });
    return kOk;
}

}  // namespace

void addSendCommand(CLI::App& app, int& exitCode) {
    auto options = std::make_shared<SendOptions>();
    Command command(app, "send", "Sends a file or standard input through a stream");
    addStreamOptions(command, options->stream, options->size, options->count);
    command.argument("file", options->file, "What to send; - is standard input").showDefault();
    command.argument("--message-size", options->messageSize, "Length of one message")
        .type("BYTES")
        .range(std::size_t{1}, kLongestMessage)
        .showDefault();
    command.flag("--lines", options->lines, "Make each line of the input a message");
    command.flag("--raw", options->raw,
                 "Send no end mark: for a receiver other than vcctl recv, which ends at the mark "
                 "and checks that everything arrived");
    addWaitOption(command, options->wait,
                  "How long to wait for the host, the far side and the stream's reader");
    command.run([=, &exitCode] { exitCode = runSend(*options); });
}

}  // namespace vcctl
