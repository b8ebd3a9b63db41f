// vcctl recv: what comes out of a stream, to a file or standard output.
#include <cerrno>
#include <cstdio>
#include <memory>

#include "CommandError.h"
#include "CommandLine.h"
#include "File.h"
#include "Progress.h"
#include "SessionClient.h"
#include "StopSignal.h"
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
};

class Output {
public:
    explicit Output(const RecvOptions& options)
        : m_options(options),
          m_owned(options.file == "-" ? nullptr : std::fopen(options.file.c_str(), "wbe")),
          m_file(options.file == "-" ? stdout : m_owned.get()) {
        if (!m_file) throw systemError("cannot write " + options.file, errno);
    }

    void write(const std::string& message) {
        check(std::fwrite(message.data(), 1, message.size(), m_file) == message.size());
        if (m_options.lines) {
            check(std::fputc('\n', m_file) != EOF);
            check(std::fflush(m_file) == 0);
        }
    }
    void flush() { check(std::fflush(m_file) == 0); }

private:
    void check(bool done) const {
        if (!done) {
            throw outputError(m_options.file == "-" ? "standard output" : m_options.file);
        }
    }

    const RecvOptions& m_options;
    File m_owned;
    std::FILE* m_file;
};

// The next message; false when the wait for the first one is over.
bool readNext(SessionClient& session, NorvoStreamClient::Stream& stream, Output& output,
              std::string& message, std::chrono::steady_clock::time_point giveUp) {
    bool flushed = false;
    for (;;) {
        StopSignal::throwIfRequested();
        const auto got = stream.read(message, kPollTime);
        if (got) return true;
        if (!mayPass(got)) throw CommandError(session.explain(got, stream.name()));
        if (std::chrono::steady_clock::now() >= giveUp) return false;
        session.noteSilence(&stream);
        if (!flushed) output.flush();
        flushed = true;
    }
}

int runRecv(const RecvOptions& options) {
    using Clock = std::chrono::steady_clock;
    SessionClient session;
    const auto stream =
        session.open(options.stream, NorvoStreamClient::Direction::Read, options.size);
    Output output(options);
    const auto giveUp = options.wait > 0 ? after(options.wait) : Clock::time_point::max();
    TransferTally tally;
    Progress progress("recv " + options.stream, std::nullopt);
    std::string message;
    while (tally.messages() < options.count) {
        const auto until = tally.messages() == 0 ? giveUp : Clock::time_point::max();
        if (!readNext(session, *stream, output, message, until)) {
            session.waitUntilUp(*stream, 0);
            throw CommandError("nothing came through the stream '" + options.stream + "'");
        }
        if (!options.raw) {
            if (const auto verdict = tally.judge(message)) {
                output.flush();
                if (!verdict->empty()) throw CommandError(*verdict);
                return kOk;
            }
        }
        tally.add(message.data(), message.size());
        output.write(message);
        progress.add(message.size());
    }
    output.flush();
    return kOk;
}

}  // namespace

void addRecvCommand(CLI::App& app, int& exitCode) {
    auto options = std::make_shared<RecvOptions>();
    Command command(app, "recv", "Writes what comes through a stream to a file or standard output");
    addStreamOptions(command, options->stream, options->size, options->count);
    command.argument("file", options->file, "Where to write; - is standard output").showDefault();
    command.flag("--lines", options->lines, "End each message with a line end");
    command.flag("--raw", options->raw,
                 "Know no end mark: write every message, until --count or an interruption");
    addWaitOption(command, options->wait,
                  "How long to wait for the first message (0: without limit)");
    command.run([=, &exitCode] { exitCode = runRecv(*options); });
}

}  // namespace vcctl
