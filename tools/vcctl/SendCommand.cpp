// vcctl send: sends a file or standard input into a stream.
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>

#include "CommandError.h"
#include "CommandLine.h"
#include "Descriptor.h"
#include "Output.h"
#include "Progress.h"
#include "SessionClient.h"
#include "StopSignal.h"
#include "Transfer.h"
#include "TransferTally.h"

namespace vcctl {

namespace {

using support::Descriptor;

constexpr double kShortestFlush = 2;  // seconds, as the next
constexpr double kShortestAnswer = 2;

struct SendOptions {
    std::string stream;
    std::string file = "-";
    unsigned int size = NorvoStreamClient::kDefaultCapacity;
    std::size_t messageSize = 256u << 10;
    std::uint64_t count = UINT64_MAX;
    double wait = 30;
    bool lines = false;
    bool raw = false;
    bool resume = false;
};

// Cuts the input into messages.
class Input {
public:
    explicit Input(const SendOptions& options)
        : m_options(options),
          m_name(options.file == "-" ? "standard input" : options.file),
          m_owned(options.file == "-" ? -1 : open(options.file.c_str(), O_RDONLY | O_CLOEXEC)),
          m_fd(options.file == "-" ? STDIN_FILENO : m_owned.get()) {
        struct stat status {};
        if (m_fd < 0 || fstat(m_fd, &status) != 0)
            throw systemError("cannot read " + m_name, errno);
        if (S_ISDIR(status.st_mode)) throw systemError("cannot read " + m_name, EISDIR);
    }

    std::optional<std::uint64_t> size() const {
        struct stat status {};
        const bool isFile = fstat(m_fd, &status) == 0 && S_ISREG(status.st_mode);
        return isFile ? std::optional<std::uint64_t>(status.st_size) : std::nullopt;
    }

    // Reads the next message; false at the end of the input. `meanwhile` is called while it waits,
    // about ten times a second, and may throw.
    bool next(std::string& message, std::function<void()> meanwhile = nullptr) {
        m_meanwhile = std::move(meanwhile);
        return m_options.lines ? nextLine(message) : nextBlock(message);
    }

    // Seeks to `offset` if the bytes before it have that checksum, else to the beginning; only for
    // files.
    std::uint64_t continueAt(std::uint64_t offset, std::uint64_t checksum, TransferTally& tally) {
        TransferTally before;
        const auto whole = size();
        bool continues = m_options.resume && whole && offset <= *whole;
        if (continues) before.addFile(m_fd, offset, m_name);
        continues = continues && before.checksum() == checksum;
        if (continues) tally.addFile(m_fd, offset, m_name);
        const std::uint64_t begin = continues ? offset : 0;
        if (m_options.resume && lseek(m_fd, static_cast<off_t>(begin), SEEK_SET) < 0)
            throw systemError("cannot read " + m_name, errno);
        return begin;
    }

private:
    bool nextBlock(std::string& message) {
        message.resize(m_options.messageSize);
        std::size_t filled = 0;
        do {
            const std::size_t got = readSome(message.data() + filled, message.size() - filled);
            if (got == 0) break;
            filled += got;
        } while (m_options.raw && filled < message.size());  // a message of its own size
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

    // 0 at the end. Waits in a poll that a stop signal interrupts; a read would sleep on.
    std::size_t readSome(char* to, std::size_t size) const {
        pollfd waited[2] = {{m_fd, POLLIN, 0}, {StopSignal::descriptor(), POLLIN, 0}};
        const int longest = m_meanwhile ? static_cast<int>(kPollTime.count()) : -1;
        for (;;) {
            StopSignal::throwIfRequested();
            const int ready = poll(waited, 2, longest);
            if (ready == 0) m_meanwhile();
            if (ready <= 0) continue;
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
    std::function<void()> m_meanwhile;
    std::array<char, 1u << 16> m_buffer{};
    std::string_view m_ahead;
};

// Retries `step` until it succeeds, for up to `wait` seconds.
template <class Step>
void retryUntil(NorvoStreamClient::Stream& stream, SessionClient& session, double wait, Step step) {
    const auto giveUp = after(wait);
    for (NorvoStreamClient::Status done; !(done = step());) {
        StopSignal::throwIfRequested();
        if (isTransient(done) && std::chrono::steady_clock::now() < giveUp) continue;
        throw CommandError(session.explain(done, stream.name()));
    }
}

void write(NorvoStreamClient::Stream& stream, SessionClient& session, const std::string& message,
           double wait) {
    retryUntil(stream, session, wait,
               [&] { return stream.write(message.data(), message.size(), kPollTime); });
}

int sendRaw(const SendOptions& options) {
    Input input(options);
    SessionClient session;
    const auto stream =
        session.open(options.stream, NorvoStreamClient::Direction::Write, options.size);
    session.waitUntilUp(*stream, options.wait);

    std::uint64_t messages = 0;
    Progress progress("send " + options.stream, input.size());
    std::string message;
    while (messages < options.count && input.next(message)) {
        if (message.empty()) continue;  // streams have no empty messages
        write(*stream, session, message, options.wait);
        ++messages;
        progress.add(message.size());
    }
    retryUntil(*stream, session, std::max(options.wait, kShortestFlush),
               [&] { return stream->flush(kPollTime); });
    return kOk;
}

// The part of a transfer over one connection: all of it, unless the connection is lost.
class Sending {
public:
    // The receiver may take until `giveUp` to come.
    Sending(const SendOptions& options, SessionClient& session, Input& input, Progress& progress,
            TransferLink::TimePoint giveUp)
        : m_options(options),
          m_giveUp(giveUp),
          m_input(input),
          m_progress(progress),
          m_link(session, options.stream, TransferLink::Role::Send, options.size, options.wait) {}

    void run() {
        m_link.waitUntilOpen(m_giveUp);
        begin();
        try {
            sendAll();
        } catch (const LinkLost&) {  // a receiver that ends early sends its verdict first
            if (!m_hasVerdict && !m_link.hasInput()) throw;
        }
        if (!m_hasVerdict) takeVerdict();
        try {
            m_link.awaitEnd();
        } catch (const LinkLost&) {  // the verdict came last: the receiver has everything
        }
    }

private:
    void sendAll() {
        std::string message;
        while (m_messages < m_options.count &&
               m_input.next(message, [this] { lookAtReceiver(); })) {
            ++m_messages;
            sendMessage(message);
        }
        m_link.write(&kEndOfMessages, sizeof kEndOfMessages);
        m_link.writeNumber(m_tally.bytes());
        m_link.writeNumber(m_tally.checksum());
        m_link.finish();
    }

    void begin() {
        // One that comes at the last moment still has to speak.
        const double answer = std::min(m_options.wait, kShortestAnswer);
        m_link.expectTag("NVXOFFER", std::max(m_giveUp, after(answer)));
        const std::uint64_t offered = m_link.readNumber();
        const std::uint64_t checksum = m_link.readNumber();
        m_begin = m_input.continueAt(offered, checksum, m_tally);
        m_link.writeTag("NVXSTART");
        m_link.writeNumber(m_begin);
        m_link.writeNumber(m_input.size().value_or(kUnknownLength));
        m_overhead = 8 + 2 * sizeof(std::uint64_t);
    }

    void sendMessage(const std::string& message) {
        const auto length = static_cast<std::uint32_t>(message.size());
        const std::uint64_t sent = m_tally.bytes();
        m_tally.add(message.data(), message.size());
        if (m_hasVerdict) tookOnly(std::to_string(sent), m_messages - 1);
        if (m_link.hasInput()) takeVerdict();
        m_overhead += sizeof length;
        m_link.write(&length, sizeof length);
        m_link.write(message.data(), message.size(), [this] {
            showProgress();
            if (!m_hasVerdict && m_link.hasInput()) takeVerdict();
        });
    }

    // Input may take long to come: a receiver that ends meanwhile must not go unnoticed.
    void lookAtReceiver() {
        showProgress();
        if (m_hasVerdict) return;
        if (m_link.hasInput()) return takeVerdict();
        m_link.checkAlive();
    }

    void showProgress() {
        const std::uint64_t acked = m_link.acknowledged();
        m_progress.set(m_begin + (acked > m_overhead ? acked - m_overhead : 0));
    }

    [[noreturn]] void tookOnly(const std::string& bytes, std::optional<std::uint64_t> messages) {
        if (m_options.lines && messages) {
            std::string rest;
            while (m_input.size() && m_messages < m_options.count && m_input.next(rest))
                ++m_messages;
            throw Refused("the receiver took only " + std::to_string(*messages) + " of " +
                          std::to_string(m_messages) + " messages");
        }
        const std::uint64_t all = m_input.size().value_or(m_tally.bytes());
        throw Refused("the receiver took only " + bytes + " of " + std::to_string(all) + " bytes");
    }

    // Throws Refused unless the receiver has taken all that was sent.
    void takeVerdict() {
        std::uint32_t failed = 0;
        std::uint32_t length = 0;
        m_link.read(&failed, sizeof failed, [this] { showProgress(); });
        m_link.read(&length, sizeof length);
        std::string text(std::min<std::size_t>(length, kLongestVerdict), ' ');
        m_link.read(text.data(), text.size());
        if (failed != 0) throw Refused("the receiver: " + readable(text));
        if (text != std::to_string(m_tally.bytes())) tookOnly(readable(text), takenMessages());
        m_hasVerdict = true;
        m_progress.set(m_tally.bytes());
    }

    std::optional<std::uint64_t> takenMessages() {
        try {
            return m_link.readNumber();
        } catch (const LinkLost&) {  // a receiver of another version, or lost
            return std::nullopt;
        }
    }

    const SendOptions& m_options;
    const TransferLink::TimePoint m_giveUp;
    Input& m_input;
    Progress& m_progress;
    TransferLink m_link;
    TransferTally m_tally;
    std::uint64_t m_messages = 0;  // read from the input
    bool m_hasVerdict = false;
    std::uint64_t m_begin = 0;
    std::uint64_t m_overhead = 0;  // in what was written to the connection
};

int runSend(const SendOptions& options) {
    if (options.raw) return sendRaw(options);
    if (options.resume && options.file == "-")
        throw CommandError("--resume needs a file: standard input cannot be read again", kUsage);
    Input input(options);
    SessionClient session;
    Progress progress("send " + options.stream, input.size());
    for (auto giveUp = endOfWait(options.wait);;) {
        try {
            Sending(options, session, input, progress, giveUp).run();
            return kOk;
        } catch (const NoPartner& stranger) {
            if (std::chrono::steady_clock::now() >= giveUp) throw;
            std::fprintf(stderr, "vcctl: waiting: %s\n", stranger.what());
            StopSignal::wait(static_cast<int>(kPollTime.count()));
        } catch (const LinkLost& lost) {
            if (!lost.wasOpen()) throw;
            if (!options.resume)
                throw CommandError(lost.what() + std::string(options.file == "-"
                                                                 ? ""
                                                                 : "; --resume at both ends "
                                                                   "goes on with what came"));
            std::fprintf(stderr, "vcctl: %s; waiting to go on\n", lost.what());
            giveUp = endOfWait(options.wait);
        }
    }
}

}  // namespace

void addSendCommand(CLI::App& app, int& exitCode) {
    auto options = std::make_shared<SendOptions>();
    Command command(app, "send", "Sends a file or standard input through a stream");
    addStreamOptions(command, options->stream, options->size, options->count);
    command.argument("file", options->file, "What to send; - is standard input").showDefault();
    command.argument("--message-size", options->messageSize, "Length of one message")
        .bytes()
        .range(std::size_t{1}, kLongestMessage)
        .showDefault();
    command.flag("--lines", options->lines, "Make each line of the input a message");
    command.flag("--raw", options->raw,
                 "Write plain messages into the stream, for a program other than vcctl recv: "
                 "nobody checks that they arrive");
    command.flag("--resume", options->resume,
                 "When the receiver is lost, wait for the next one and go on where it stopped");
    addWaitOption(
        command, options->wait,
        "How long to wait for the host, the far side and the receiver (0: without limit, with "
        "--raw not at all), also when they are lost on the way (0: 60 s)");
    command.run([=, &exitCode] { exitCode = runSend(*options); });
}

}  // namespace vcctl
