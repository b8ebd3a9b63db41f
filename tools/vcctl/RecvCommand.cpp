// vcctl recv: writes a stream's messages to a file or standard output.
#include <cerrno>
#include <cstdio>
#include <memory>
#include <optional>

#include "CommandError.h"
#include "CommandLine.h"
#include "Progress.h"
#include "ReceivedFile.h"
#include "SessionClient.h"
#include "StopSignal.h"
#include "Transfer.h"
#include "TransferTally.h"

namespace vcctl {

namespace {

struct RecvOptions {
    std::string stream;
    std::string file = "-";
    unsigned int size = NorvoStreamClient::kDefaultCapacity;
    std::uint64_t count = UINT64_MAX;
    double wait = 0;
    bool lines = false;
    bool raw = false;
    bool resume = false;
};

// Reads the next message; false when the wait for the first one has timed out.
bool readNext(SessionClient& session, NorvoStreamClient::Stream& stream, ReceivedFile& output,
              std::string& message, std::chrono::steady_clock::time_point giveUp) {
    bool flushed = false;
    for (;;) {
        StopSignal::throwIfRequested();
        const auto got = stream.read(message, kPollTime);
        if (got) return true;
        if (!isTransient(got)) throw CommandError(session.explain(got, stream.name()));
        if (std::chrono::steady_clock::now() >= giveUp) return false;
        session.noteSilence(&stream);
        if (!flushed) output.flush();
        flushed = true;
    }
}

void writeMessage(ReceivedFile& output, const RecvOptions& options, const std::string& message) {
    output.write(message.data(), message.size());
    if (!options.lines) return;
    output.write("\n", 1);
    output.flush();
}

// The data may have no end, so it goes directly to the file as it comes.
int recvRaw(const RecvOptions& options) {
    using Clock = std::chrono::steady_clock;
    SessionClient session;
    const auto stream =
        session.open(options.stream, NorvoStreamClient::Direction::Read, options.size);
    ReceivedFile output(options.file, ReceivedFile::Kind::Direct);
    const auto giveUp = options.wait > 0 ? after(options.wait) : Clock::time_point::max();
    Progress progress("recv " + options.stream, std::nullopt);
    std::string message;
    for (std::uint64_t messages = 0; messages < options.count; ++messages) {
        const auto until = messages == 0 ? giveUp : Clock::time_point::max();
        if (!readNext(session, *stream, output, message, until)) {
            session.waitUntilUp(*stream, 0);
            throw CommandError("nothing came through the stream '" + options.stream + "'");
        }
        writeMessage(output, options, message);
        progress.add(message.size());
    }
    output.flush();
    return kOk;
}

// The part of a transfer over one connection: all of it, unless the connection is lost.
class Receiving {
public:
    Receiving(const RecvOptions& options, SessionClient& session, ReceivedFile& output)
        : m_options(options),
          m_output(output),
          m_link(session, options.stream, TransferLink::Role::Receive, options.size, options.wait) {
    }

    void run() {
        m_link.waitUntilOpen(endOfWait(m_options.wait));
        begin();
        try {
            takeMessages();
            m_output.commit();
        } catch (const LinkLost&) {
            m_output.flush();
            throw;
        } catch (const CommandError& failure) {
            const bool isSilent = *failure.what() == '\0';  // at this end
            giveVerdict(1, isSilent ? "nobody reads its output any more" : failure.what());
            throw;
        }
        giveVerdict(0, std::to_string(m_tally.bytes()));
    }

private:
    void begin() {
        m_output.begin();
        const std::uint64_t offered = m_output.size();
        m_output.count(m_tally);
        m_link.writeTag("NVXOFFER");
        m_link.writeNumber(offered);
        m_link.writeNumber(m_tally.checksum());
        m_link.expectTag("NVXSTART", TransferLink::TimePoint::max());
        const std::uint64_t start = m_link.readNumber();
        const std::uint64_t whole = m_link.readNumber();
        if (start != offered) {
            m_output.clear();
            m_tally.clear();
        }
        m_progress.emplace("recv " + m_options.stream,
                           whole == kUnknownLength ? std::nullopt : std::optional(whole));
        m_progress->set(m_tally.bytes());
    }

    void takeMessages() {
        std::string message;
        while (takeMessage(message)) {
            m_tally.add(message.data(), message.size());
            writeMessage(m_output, m_options, message);
            m_progress->add(message.size());
            if (++m_messages == m_options.count) {
                m_output.flush();
                return;
            }
        }
        const std::uint64_t bytes = m_link.readNumber();
        const std::uint64_t checksum = m_link.readNumber();
        if (bytes != m_tally.bytes() || checksum != m_tally.checksum()) {
            m_output.clear();
            throw CommandError("the data arrived damaged");
        }
    }

    bool takeMessage(std::string& message) {
        std::uint32_t length = 0;
        m_link.read(&length, sizeof length, [this] { m_output.flush(); });
        if (length == kEndOfMessages) return false;
        if (length > kLongestMessage) throw CommandError("the sender breaks the rules");
        message.resize(length);
        m_link.read(message.data(), length);
        return true;
    }

    // At this end the transfer has succeeded or failed, whether or not the sender learns of it.
    void giveVerdict(std::uint32_t failed, std::string text) {
        try {
            if (text.size() > kLongestVerdict) text.resize(kLongestVerdict);
            const auto length = static_cast<std::uint32_t>(text.size());
            m_link.write(&failed, sizeof failed);
            m_link.write(&length, sizeof length);
            m_link.write(text.data(), text.size());
            if (failed == 0) m_link.writeNumber(m_messages);
            m_link.finish();
            m_link.settle(std::chrono::seconds(20));
        } catch (const LinkLost&) {
            if (failed == 0)
                std::fprintf(stderr,
                             "vcctl: note: the sender was lost before it heard of the end\n");
        }
    }

    const RecvOptions& m_options;
    ReceivedFile& m_output;
    TransferLink m_link;
    TransferTally m_tally;
    std::uint64_t m_messages = 0;
    std::optional<Progress> m_progress;
};

int runRecv(const RecvOptions& options) {
    if (options.raw) return recvRaw(options);
    if (options.resume && options.file == "-")
        throw CommandError("--resume needs a file: standard output cannot be read again", kUsage);
    ReceivedFile output(options.file,
                        options.resume ? ReceivedFile::Kind::KeptPart : ReceivedFile::Kind::Part);
    SessionClient session;
    for (;;) {
        try {
            Receiving(options, session, output).run();
            return kOk;
        } catch (const LinkLost& lost) {
            if (!options.resume || !lost.wasOpen())
                throw CommandError(lost.what() + output.advice());
            std::fprintf(stderr, "vcctl: %s; waiting to go on\n", lost.what());
        }
    }
}

}  // namespace

void addRecvCommand(CLI::App& app, int& exitCode) {
    auto options = std::make_shared<RecvOptions>();
    Command command(app, "recv", "Writes what comes through a stream to a file or standard output");
    addStreamOptions(command, options->stream, options->size, options->count);
    command.argument("file", options->file, "Where to write; - is standard output").showDefault();
    command.flag("--lines", options->lines, "End each message with a line end");
    command.flag(
        "--raw", options->raw,
        "Write what a program other than vcctl send puts into the stream, until --count or "
        "an interruption");
    command.flag("--resume", options->resume,
                 "Go on with what an earlier transfer left in FILE.part, and when the sender is "
                 "lost, wait for the next one");
    addWaitOption(command, options->wait,
                  "How long to wait for the sender (0: without limit), also when it is lost on the "
                  "way (0: 60 s)");
    command.run([=, &exitCode] { exitCode = runRecv(*options); });
}

}  // namespace vcctl
