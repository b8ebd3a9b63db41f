// vcctl watch and vcctl ask: show and use the INFO streams.
#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>

#include "CommandError.h"
#include "CommandLine.h"
#include "Output.h"
#include "SegmentList.h"
#include "SessionClient.h"
#include "StopSignal.h"

namespace vcctl {

namespace {

using NorvoStreamClient::Notification;

// In place of a form's last field: any number of names.
constexpr char kNames[] = "[NAME...]";

// Request, its fields, the notification that answers it (empty: none), and what its absence means,
// which may itself be an answer (empty: the agent does not answer).
struct RequestForm {
    const char* name;
    std::vector<const char*> fields;
    const char* answer = "";
    const char* silence = "";
    bool silenceIsAnswer = true;
};

constexpr double kShortestWait = 0.1;                             // seconds
constexpr std::int64_t kLargestSegment = std::int64_t{64} << 20;  // an agent's limit

const std::vector<RequestForm>& requestForms() {
    static const std::vector<RequestForm> forms{
        {"CreateStream", {"NAME", "SIZE"}},
        {"OpenStream", {"NAME", "SIZE"}},
        {"SetHVDClientInfo", {"NUMBER", "NUMBER"}},
        {"RequestVCProcessId", {}, "VCProcessId"},
        {"FlushLog", {}},
        {"RequestNotifyStream",
         {kNames},
         "StreamUp",
         "no such stream runs, or the agents are not connected"},
        {"RequestInvalidStreams", {}, "InvalidStreams", "there are none"},
        {"RequestPeerVersion",
         {},
         "ChannelVersion",
         "the far side has not been heard of yet",
         false},
        {"SetLogPath", {"DIRECTORY"}},
        {"RequestEnviromentType", {}, "EnviromentType"},
        {"IsSeamless", {}, "IsSeamless"},
        {"GetWindowHandle", {"HANDLE"}, "GetWindowHandle"},
        {"IsMultiSession", {}, "IsMultiSession"}};
    return forms;
}

std::string usageOf(const RequestForm& form) {
    std::string text = form.name;
    for (const char* field : form.fields) text += std::string(" ") + field;
    return text;
}

std::string allUsages() {
    std::string text = "Requests:\n";
    for (const auto& form : requestForms()) {
        text += "  " + usageOf(form) +
                (*form.answer ? "   (answer: " + std::string(form.answer) + ")" : "") + "\n";
    }
    return text;
}

// An agent refuses others, and says so in its log only.
bool isStreamName(const std::string& name) {
    constexpr std::size_t kLongest = 255;
    return !name.empty() && name.size() <= kLongest &&
           std::none_of(name.begin(), name.end(), [](unsigned char byte) {
               return byte < 0x20 || byte == 0x7f || byte == '/';
           });
}

// `value` as it will be sent.
std::string checkedField(const std::string& name, std::string value) {
    if (name == "SIZE") value = bytesOf(value);
    std::int64_t number = 0;
    const char* end = value.data() + value.size();
    const auto [stop, error] = std::from_chars(value.data(), end, number);
    const bool isNumber = error == std::errc() && stop == end;
    const bool fits = name == "NAME"        ? isStreamName(value)
                      : name == "DIRECTORY" ? value.starts_with('/')
                      : name == "SIZE"      ? isNumber && number > 0 && number <= kLargestSegment
                      : name == "NUMBER"    ? isNumber && number >= 0 && number <= UINT32_MAX
                                            : isNumber;
    if (fits) return value;
    throw CommandError("'" + value + "' cannot be the request's " + name, kUsage);
}

const RequestForm& formOf(const std::string& request, std::vector<std::string>& fields) {
    const auto& forms = requestForms();
    const auto form = std::find_if(forms.begin(), forms.end(),
                                   [&](const RequestForm& known) { return request == known.name; });
    if (form == forms.end()) {
        throw CommandError("'" + request + "' is not a request. " + allUsages(), kUsage);
    }
    std::vector<std::string> kinds(form->fields.begin(), form->fields.end());
    if (!kinds.empty() && kinds.back() == kNames) {
        kinds.pop_back();
        kinds.resize(std::max(kinds.size(), fields.size()), "NAME");
    }
    if (kinds.size() != fields.size()) {
        throw CommandError("the request is: " + usageOf(*form), kUsage);
    }
    for (std::size_t i = 0; i < fields.size(); ++i) fields[i] = checkedField(kinds[i], fields[i]);
    return *form;
}

void show(const Notification& notification, bool asJson) {
    const auto now =
        std::chrono::time_point_cast<std::chrono::microseconds>(std::chrono::system_clock::now());
    const auto seconds = std::chrono::system_clock::to_time_t(now);
    const auto micros = now.time_since_epoch().count() % 1'000'000;
    const std::string time =
        fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:06}Z", fmt::gmtime(seconds), micros);
    if (asJson) {
        const nlohmann::json line{
            {"time", time}, {"name", notification.name}, {"fields", notification.fields}};
        print(line.dump(-1, ' ', true, nlohmann::json::error_handler_t::replace) + '\n');
    } else {
        std::string text = readable(notification.name);
        for (const auto& field : notification.fields) text += ' ' + readable(field);
        print(fmt::format("{} {}\n", time, text));
    }
    flushOut();
}

struct WatchOptions {
    bool json = false;
    bool all = false;
    std::uint64_t count = UINT64_MAX;
};

int runWatch(const WatchOptions& options) {
    SessionClient session;
    std::vector<std::string> lastProcess;
    std::uint64_t printed = 0;
    while (printed < options.count) {
        Notification notification;
        if (StopSignal::requested()) return kInterrupted;
        if (!session.client().nextNotification(notification, kPollTime)) {
            session.noteSilence();
            continue;
        }
        // Answers to the client library's own requests reach everyone; only a change is news.
        if (notification.name == "VCProcessId" && !options.all) {
            if (notification.fields == lastProcess) continue;
            lastProcess = notification.fields;
        }
        show(notification, options.json);
        ++printed;
    }
    return kOk;
}

struct AskOptions {
    std::string request;
    std::vector<std::string> fields;
    double wait = 5;
    bool json = false;
};

// Answers go to everyone: this one may be to another program that named other streams.
bool isAnswer(const Notification& notification, const AskOptions& options,
              const RequestForm& form) {
    const auto& names = options.fields;
    const bool namesStreams = form.answer == std::string("StreamUp") && !names.empty();
    return notification.name == form.answer &&
           (!namesStreams ||
            (!notification.fields.empty() &&
             std::find(names.begin(), names.end(), notification.fields[0]) != names.end()));
}

// Prints the answer; for streams, all answers until none has come for a while.
int printAnswers(SessionClient& session, const AskOptions& options, const RequestForm& form) {
    using Clock = std::chrono::steady_clock;
    const bool several = std::string(form.answer) == "StreamUp";
    const auto quiet = std::chrono::milliseconds(500);
    auto deadline = after(*form.silence ? std::min(1.0, options.wait) : options.wait);
    bool answered = false;
    while (Clock::now() < deadline) {
        Notification notification;
        if (StopSignal::requested()) return kInterrupted;
        if (!session.client().nextNotification(notification, std::chrono::milliseconds(20)) ||
            !isAnswer(notification, options, form)) {
            continue;
        }
        show(notification, options.json);
        answered = true;
        if (!several) return kOk;
        deadline = Clock::now() + quiet;
    }
    if (answered) return kOk;
    if (!*form.silence) throw CommandError("the agent did not answer '" + options.request + "'");
    std::fprintf(stderr, "vcctl: no answer: %s\n", form.silence);
    return form.silenceIsAnswer ? kOk : kFailed;
}

// Without a host, a client would create the agent's segments and leave them behind.
void waitForSession(double seconds) {
    const auto deadline = after(seconds);
    while (!hasInfoSegments()) {
        StopSignal::throwIfRequested();
        if (std::chrono::steady_clock::now() >= deadline) throw CommandError(noAgentText());
        StopSignal::wait(50);
    }
}

int runAsk(AskOptions& options) {
    const RequestForm& form = formOf(options.request, options.fields);
    waitForSession(options.wait);
    SessionClient session;
    session.waitForAgent(options.wait);
    Notification earlier;
    while (session.client().nextNotification(earlier, std::chrono::milliseconds(0))) {
    }
    const auto wait = std::chrono::milliseconds(static_cast<long>(options.wait * 1000));
    const auto taken = session.client().request(options.request, options.fields, wait);
    if (!taken) {
        throw CommandError("the agent did not take the request '" + options.request +
                           "': " + taken.text());
    }
    return *form.answer ? printAnswers(session, options, form) : kOk;
}

}  // namespace

void addWatchCommand(CLI::App& app, int& exitCode) {
    auto options = std::make_shared<WatchOptions>();
    Command command(app, "watch", "Prints the agent's notifications as they come");
    command.flag("--json", options->json, "One JSON object a line");
    command.flag("--all", options->all, "Also the repeated answers to this program's own requests");
    command.argument("--count", options->count, "Stop after so many").count();
    command.run([=, &exitCode] { exitCode = runWatch(*options); });
}

void addAskCommand(CLI::App& app, int& exitCode) {
    auto options = std::make_shared<AskOptions>();
    Command command(app, "ask", "Sends one request to the agent and prints its answer");
    command.argument("request", options->request, "The request").required();
    command.argument("fields", options->fields, "Its fields");
    addWaitOption(command, options->wait, "How long to wait for the agent and for the answer",
                  kShortestWait);
    command.flag("--json", options->json, "Print answers as JSON objects");
    command.footer(allUsages());
    command.run([=, &exitCode] { exitCode = runAsk(*options); });
}

}  // namespace vcctl
