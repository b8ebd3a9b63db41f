// vcctl send: a file or standard input into a stream.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <optional>

#include "Capture.h"
#include "Command.h"
#include "EndMark.h"
#include "Progress.h"
#include "SessionClient.h"

namespace vcctl {

namespace {

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
          m_owned(options.file == "-" ? nullptr : std::fopen(options.file.c_str(), "rbe")),
          m_file(options.file == "-" ? stdin : m_owned.get()) {
        if (!m_file) throw systemError("cannot read " + options.file, errno);
    }

    std::optional<std::uint64_t> size() const {
        struct stat status {};
        const bool isFile = fstat(fileno(m_file), &status) == 0 && S_ISREG(status.st_mode);
        return isFile ? std::optional<std::uint64_t>(status.st_size) : std::nullopt;
    }

    bool next(std::string& message) {
        const bool got = m_options.lines ? nextLine(message) : nextBlock(message);
        if (!got && std::ferror(m_file)) throw systemError("cannot read " + m_options.file, errno);
        return got;
    }

private:
    bool nextBlock(std::string& message) {
        message.resize(m_options.messageSize);
        message.resize(std::fread(message.data(), 1, message.size(), m_file));
        return !message.empty();
    }
    bool nextLine(std::string& message) {
        message.clear();
        int c = std::getc(m_file);
        if (c == EOF) return false;
        for (; c != EOF && c != '\n'; c = std::getc(m_file)) message += static_cast<char>(c);
        return true;
    }

    const SendOptions& m_options;
    File m_owned;
    std::FILE* m_file;
};

void write(NorvoStreamClient::Stream& stream, SessionClient& session, const std::string& message,
           double wait) {
    const auto give_up = std::chrono::steady_clock::now() + std::chrono::duration<double>(wait);
    while (!stream.write(message.data(), message.size(), kPollTime)) {
        if (!SessionClient::goesOn()) throw CommandError("interrupted", kInterrupted);
        if (std::chrono::steady_clock::now() < give_up) continue;
        session.waitUntilUp(stream, 0);
        throw CommandError("the host takes nothing from the stream '" + stream.name() + "'");
    }
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
    stream->flush(std::chrono::seconds(2));
    return kOk;
}

}  // namespace

void addSendCommand(CLI::App& app, int& exitCode) {
    auto options = std::make_shared<SendOptions>();
    CLI::App* command =
        app.add_subcommand("send", "Sends a file or standard input through a stream");
    command->add_option("stream", options->stream, "The stream, for example Media")->required();
    command->add_option("file", options->file, "What to send; - is standard input")
        ->capture_default_str();
    command->add_option("--size", options->size, "Capacity of the stream's segment in bytes")
        ->capture_default_str();
    command->add_option("--message-size", options->messageSize, "Bytes of one message")
        ->check(CLI::Range(1u, 64u << 20))
        ->capture_default_str();
    command->add_option("--count", options->count, "Stop after so many messages");
    command->add_flag("--lines", options->lines, "Make each line of the input a message");
    command->add_flag(
        "--raw", options->raw,
        "Send no end mark: for a receiver other than vcctl recv, which ends at the mark "
        "and checks that everything arrived");
    command
        ->add_option("--wait", options->wait,
                     "Seconds to wait for the host, the far side and the stream's reader")
        ->capture_default_str();
    command->callback([=, &exitCode] { exitCode = runSend(*options); });
}

}  // namespace vcctl
