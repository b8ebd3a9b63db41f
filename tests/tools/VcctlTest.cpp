// vcctl end to end: real hosts with the real library, joined over loopback TCP.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <thread>
#include <vector>

#include "Eventually.h"
#include "FileContent.h"
#include "SessionObjects.h"
#include "Subprocess.h"
#include "TempDir.h"

namespace {

using namespace std::chrono_literals;
using support::Subprocess;
using testsupport::contentOf;
using testsupport::TempDir;

struct Outcome {
    int status;
    std::string text;  // of standard output and standard error
};

// One end: a session namespace with a home directory of its own.
class Side {
public:
    explicit Side(std::string name) : m_namespace(std::move(name)) {
        std::filesystem::create_directories(home());
    }
    ~Side() { support::removeSessionObjects(m_namespace); }
    Side(const Side&) = delete;
    Side& operator=(const Side&) = delete;

    std::filesystem::path home() const { return std::filesystem::path(m_directory / "home"); }
    std::filesystem::path file(const std::string& name) const {
        return std::filesystem::path(m_directory / name);
    }

    // `arguments` as in a shell, standard error joined to standard output.
    Subprocess start(const std::string& arguments) const {
        return startShell("exec " VCCTL_PROGRAM " " + arguments + " 2>&1");
    }
    Subprocess startShell(const std::string& command) const {
        return Subprocess({"/bin/sh", "-c", command},
                          {"NORVO_VDI_NAMESPACE=" + m_namespace, "HOME=" + home().string(),
                           "TMPDIR=" + m_directory.path()});
    }
    Outcome run(const std::string& arguments) const {
        Subprocess process = start(arguments);
        std::string text = process.readAll();
        return {process.wait(20s), std::move(text)};
    }

private:
    const std::string m_namespace;
    const TempDir m_directory;
};

std::string uniqueName(const std::string& side) {
    static std::atomic<int> count{0};
    return "nvt" + std::to_string(getpid()) + "v" + std::to_string(++count) + side;
}

// Waits for the line that starts so; what came instead when it does not come.
std::string lineStarting(Subprocess& process, const std::string& start) {
    std::string seen;
    for (std::string line; !(line = process.readLine(20s)).empty(); seen += line + '\n') {
        if (line.rfind(start, 0) == 0) return line;
    }
    return seen;
}

class VcctlAcrossProcesses : public ::testing::Test {
protected:
    // `before`: shell commands that the near host is started after.
    void joinHosts(const std::string& nearOptions = "", const std::string& before = "") {
        m_nearHost = std::make_unique<Subprocess>(m_near.startShell(
            before + "exec " VCCTL_PROGRAM " host --listen 127.0.0.1:0 " + nearOptions + " 2>&1"));
        const std::string line = lineStarting(*m_nearHost, "listening on ");
        m_address = line.substr(line.rfind(' ') + 1);
        m_farHost = std::make_unique<Subprocess>(m_far.start("host --connect " + m_address));
        ASSERT_EQ(lineStarting(*m_nearHost, "joined").substr(0, 6), "joined");
    }
    // The exit status of both.
    static int end(Subprocess& host) {
        host.signal(SIGTERM);
        return host.wait(10s);
    }

    Side m_near{uniqueName("a")};
    Side m_far{uniqueName("b")};
    std::string m_address;
    std::unique_ptr<Subprocess> m_nearHost;
    std::unique_ptr<Subprocess> m_farHost;
};

TEST_F(VcctlAcrossProcesses, AFileGoesThroughWholeAndTheCaptureTellsTheStory) {
    joinHosts("--capture " + m_near.file("session.pcapng").string());
    std::string content(3'000'000, '\0');
    for (std::size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i * i >> 7);
    std::ofstream(m_near.file("original"), std::ios::binary) << content;

    Subprocess receiver = m_far.start("recv Media " + m_far.file("copy").string());
    const Outcome sent = m_near.run("send Media " + m_near.file("original").string());
    EXPECT_EQ(sent.status, 0) << sent.text;
    EXPECT_EQ(receiver.wait(20s), 0);
    EXPECT_TRUE(contentOf(m_far.file("copy")) == content);

    const Outcome streams = m_near.run("streams");
    EXPECT_NE(streams.text.find("Media"), std::string::npos) << streams.text;
    EXPECT_NE(streams.text.find("Info_VC2STREAM"), std::string::npos) << streams.text;

    EXPECT_EQ(end(*m_nearHost), 0);
    const Outcome decoded = m_near.run("decode " + m_near.file("session.pcapng").string());
    EXPECT_EQ(decoded.status, 0);
    for (const char* part : {"-> CTL_CONNECT", "<- CTL_CONNECT", "CTL_S_CREATE stream=\"Media\"",
                             "-> CTL_S_ROUTE stream=\"Media\"", "channel-version=\"1.0.679.0\""}) {
        EXPECT_NE(decoded.text.find(part), std::string::npos) << part;
    }
    EXPECT_EQ(end(*m_farHost), 0);
}

TEST_F(VcctlAcrossProcesses, LinesArriveOneByOneAndInBothDirections) {
    joinHosts();
    Subprocess receiver = m_near.start("recv Generic --lines --count 2 --raw");
    Subprocess sender = m_far.start("send Generic --lines --raw");
    sender.writeLine("first");
    EXPECT_EQ(receiver.readLine(), "first");
    sender.writeLine("");
    sender.writeLine("second");
    EXPECT_EQ(receiver.readLine(), "second");
    sender.closeInput();
    EXPECT_EQ(sender.wait(20s), 0);
    EXPECT_EQ(receiver.wait(20s), 0);
}

TEST_F(VcctlAcrossProcesses, QuestionsAreAnsweredAndNewsIsPrinted) {
    joinHosts();
    const Outcome kind = m_near.run("ask RequestEnviromentType");
    EXPECT_EQ(kind.status, 0);
    EXPECT_NE(kind.text.find("EnviromentType tcp"), std::string::npos) << kind.text;
    EXPECT_EQ(m_near.run("ask FlushLog").status, 0);
    const Outcome handle = m_near.run("ask GetWindowHandle --json 4711");
    EXPECT_NE(handle.text.find("\"fields\":[\"0\"],\"name\":\"GetWindowHandle\""),
              std::string::npos)
        << handle.text;

    Subprocess watcher = m_far.start("watch --json");
    EXPECT_NE(watcher.readLine(), "");  // it hears the agent
    m_farHost->signal(SIGHUP);
    EXPECT_NE(lineStarting(*m_farHost, "left").find("dropped on request"), std::string::npos);
    std::string line;
    do {
        line = watcher.readLine();
    } while (!line.empty() && line.find("\"ChannelDown\"") == std::string::npos);
    EXPECT_NE(line, "") << "the loss of the channel was not announced";
    watcher.signal(SIGINT);
    EXPECT_EQ(watcher.wait(10s), 130);
}

TEST_F(VcctlAcrossProcesses, AHostThatIsKilledIsReplacedAndTheStreamGoesOn) {
    joinHosts();
    m_farHost->kill();
    m_farHost->wait(10s);
    EXPECT_EQ(lineStarting(*m_nearHost, "left").substr(0, 4), "left");
    m_farHost = std::make_unique<Subprocess>(m_far.start("host --connect " + m_address));
    EXPECT_EQ(lineStarting(*m_nearHost, "joined").substr(0, 6), "joined");
    Subprocess receiver = m_far.start("recv Basic --lines");
    const Outcome sent = m_near.run("send Basic --lines /etc/hostname");
    EXPECT_EQ(sent.status, 0) << sent.text;
    EXPECT_EQ(receiver.readLine() + '\n', contentOf("/etc/hostname"));
    EXPECT_EQ(receiver.wait(20s), 0);
}

TEST_F(VcctlAcrossProcesses, AStrangerEndsItsConnectionAndNotTheHost) {
    Subprocess host = m_near.start("host --listen 127.0.0.1:0");
    const std::string line = lineStarting(host, "listening on ");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port =
        htons(static_cast<std::uint16_t>(std::stoi(line.substr(line.rfind(':') + 1))));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int stranger = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(connect(stranger, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    const std::string request = "GET / HTTP/1.1\r\n\r\n";
    ASSERT_EQ(write(stranger, request.data(), request.size()),
              static_cast<ssize_t>(request.size()));
    EXPECT_NE(lineStarting(host, "left").find("not a host of this kind"), std::string::npos);
    close(stranger);

    const std::string port = line.substr(line.rfind(' ') + 1);
    const Outcome second = m_far.run("host --listen " + port);
    EXPECT_EQ(second.status, 1);
    EXPECT_NE(second.text.find("the port is in use"), std::string::npos) << second.text;
    EXPECT_EQ(end(host), 0);
}

struct WrongUse {
    const char* arguments;
    int status;
    const char* text;
};

TEST_F(VcctlAcrossProcesses, MistakesAreAnsweredWithWhatToDo) {
    const WrongUse uses[] = {
        {"", 2, "subcommand"},
        {"nonsense", 2, "'nonsense' is no command"},
        {"host", 2, "--listen ADDR:PORT or --connect ADDR:PORT"},
        {"host --listen 192.0.2.1:7000", 2, "--allow-remote"},
        {"host --listen nonsense", 2, "ADDR:PORT"},
        {"host --listen 127.0.0.1:70000", 2, "ADDR:PORT"},
        {"host --kind morse --listen 127.0.0.1:0", 2, "--kind"},
        {"host --listen 127.0.0.1:0 --library /etc/hostname", 1, "cannot load the plug-in library"},
        {"host --listen 127.0.0.1:0 --capture /dev/full", 1, "No space left"},
        {"ask Nonsense", 2, "RequestVCProcessId"},
        {"ask CreateStream Media", 2, "CreateStream NAME SIZE"},
        {"ask CreateStream Media -1", 2, "'-1' cannot be the request's SIZE"},
        {"ask RequestVCProcessId --wait 0.3", 1, "no agent answers in session namespace"},
        {"send Media --wait 0.3 /etc/hostname", 1, "vcctl host"},
        {"send Nonsense --wait 0.3 /etc/hostname", 1, "'Nonsense' is none of the usual streams"},
        {"send Media /no/such/file", 1, "No such file"},
        {"send Media --message-size 0 /etc/hostname", 2, "--message-size"},
        {"recv a/b", 2, "letters, digits"},
        {"recv Media --wait 0.3", 1, "no agent answers"},
        {"recv Media /no/such/folder/file", 1, "cannot write"},
        {"decode /etc/hostname", 1, "not a pcapng capture"},
        {"demo /no/such/file", 2, "/no/such/file"},
    };
    for (const WrongUse& use : uses) {
        const Outcome outcome = m_near.run(use.arguments);
        EXPECT_EQ(outcome.status, use.status) << use.arguments << '\n' << outcome.text;
        EXPECT_NE(outcome.text.find(use.text), std::string::npos) << use.arguments << '\n'
                                                                  << outcome.text;
    }
}

TEST_F(VcctlAcrossProcesses, ASendThatWaitsForInputEndsWhenItIsInterrupted) {
    joinHosts();
    Subprocess receiver = m_far.start("recv Basic --lines --raw");
    Subprocess sender = m_near.start("send Basic --lines");
    sender.writeLine("arrives");
    EXPECT_EQ(receiver.readLine(), "arrives");
    sender.signal(SIGINT);
    EXPECT_EQ(sender.wait(10s), 130);
}

TEST_F(VcctlAcrossProcesses, AReceiverIsInterruptedWhileMessagesKeepComing) {
    joinHosts();
    std::string lines;
    while (lines.size() < 6'000'000) lines += "y\n";
    std::ofstream(m_far.file("lines"), std::ios::binary) << lines;
    const std::filesystem::path copy = m_near.file("copy");
    Subprocess receiver = m_near.start("recv Basic " + copy.string());
    const Subprocess sender = m_far.start("send Basic --lines " + m_far.file("lines").string());
    for (int i = 0; i < 2000 && contentOf(copy).empty(); ++i) std::this_thread::sleep_for(10ms);
    EXPECT_FALSE(contentOf(copy).empty());
    receiver.signal(SIGINT);
    EXPECT_EQ(receiver.wait(10s), 130);
}

// Clock ticks of the processor that it has used.
long ticksOf(const Subprocess& process) {
    const std::string stat = contentOf("/proc/" + std::to_string(process.pid()) + "/stat");
    std::istringstream fields(stat.substr(stat.rfind(')') + 1));
    std::string skipped;
    for (int i = 0; i < 11; ++i) fields >> skipped;
    long user = 0;
    long system = 0;
    fields >> user >> system;
    return user + system;
}

TEST_F(VcctlAcrossProcesses, AHangUpEndsACommandAndMeansNothingToAHostThatWaits) {
    struct sigaction hangUp {};
    sigaction(SIGHUP, nullptr, &hangUp);
    if (hangUp.sa_handler != SIG_IGN) {
        Subprocess follower = m_near.start("streams --follow");
        EXPECT_NE(lineStarting(follower, "STREAM").find("CAPACITY"), std::string::npos);
        follower.signal(SIGHUP);
        EXPECT_EQ(follower.wait(10s), 130);
    }
    Subprocess host = m_near.start("host --listen 127.0.0.1:0");
    const std::string line = lineStarting(host, "listening on ");
    const long before = ticksOf(host);
    host.signal(SIGHUP);
    std::this_thread::sleep_for(300ms);
    EXPECT_LT(ticksOf(host) - before, sysconf(_SC_CLK_TCK) / 6) << "it does not wait any more";

    Subprocess other = m_far.start("host --connect " + line.substr(line.rfind(' ') + 1));
    EXPECT_EQ(lineStarting(host, "joined").substr(0, 6), "joined");
    EXPECT_EQ(m_near.run("ask RequestEnviromentType").status, 0);
    EXPECT_EQ(end(host), 0);
    EXPECT_EQ(host.readAll().find("dropped on request"), std::string::npos);
    EXPECT_EQ(end(other), 0);
}

TEST_F(VcctlAcrossProcesses, TheExampleOfAHostJoinsTwoSessions) {
    const auto startHost = [](const Side& side, const std::string& in, const std::string& out) {
        return side.startShell("export LD_LIBRARY_PATH=" NORVO_PLUGIN_FOLDER "; exec 3<>" + in +
                               " 4<>" + out + "; exec " NORVO_EXAMPLE_HOST " <&3 >&4");
    };
    const std::string there = m_near.file("there");
    const std::string back = m_near.file("back");
    ASSERT_EQ(mkfifo(there.c_str(), 0600), 0);
    ASSERT_EQ(mkfifo(back.c_str(), 0600), 0);
    const Subprocess nearHost = startHost(m_near, back, there);
    const Subprocess farHost = startHost(m_far, there, back);
    Subprocess receiver = m_far.start("recv Basic --lines");
    const Outcome sent = m_near.run("send Basic --lines /etc/hostname");
    EXPECT_EQ(sent.status, 0) << sent.text;
    EXPECT_EQ(receiver.readLine() + '\n', contentOf("/etc/hostname"));
}

TEST_F(VcctlAcrossProcesses, AFullDiskIsReportedAndTheSessionGoesOn) {
    const std::string capture = m_near.file("session.pcapng").string();
    joinHosts("--capture " + capture, "trap '' XFSZ; ulimit -f 2048; ");  // of 512 bytes
    Subprocess receiver = m_far.start("recv Media /dev/full");
    const Outcome sent = m_near.run("send Media " VCCTL_PROGRAM);
    EXPECT_EQ(sent.status, 0) << sent.text;
    EXPECT_NE(receiver.readAll().find("No space left"), std::string::npos);
    EXPECT_EQ(receiver.wait(20s), 1);
    EXPECT_EQ(end(*m_nearHost), 0);
    EXPECT_NE(m_nearHost->readAll().find("the capture to " + capture + " stops here"),
              std::string::npos);
    EXPECT_EQ(end(*m_farHost), 0);
}

TEST_F(VcctlAcrossProcesses, TheDemoPassesOnEveryTransportAndLeavesNothing) {
    std::ofstream(m_near.file("small"), std::ios::binary) << std::string(100'000, 'n');
    for (const char* kind : {"tcp", "citrix", "vmware", "rdp"}) {
        Subprocess demo = m_near.start("demo --seconds 1 --kind " + std::string(kind) + " " +
                                       m_near.file("small").string());
        const std::string text = demo.readAll();
        EXPECT_EQ(demo.wait(20s), 0) << text;
        EXPECT_NE(text.find("the same on return"), std::string::npos) << text;
        const std::string mark = "demo" + std::to_string(demo.pid());
        for (const auto& entry : std::filesystem::directory_iterator("/dev/shm")) {
            EXPECT_EQ(entry.path().filename().string().find(mark), std::string::npos)
                << entry.path();
        }
    }
}

// Processes that have not ended, by what the system tells of them.
std::vector<std::string> childrenOf(pid_t process) {
    const std::string list = "/proc/" + std::to_string(process);
    std::istringstream numbers(contentOf(list + "/task/" + std::to_string(process) + "/children"));
    return {std::istream_iterator<std::string>(numbers), {}};
}
bool isAlive(const std::string& process) {
    const std::string state = contentOf("/proc/" + process + "/stat");
    return !state.empty() && state.find(") Z ") == std::string::npos;
}

TEST_F(VcctlAcrossProcesses, ADemoThatIsKilledTakesItsProcessesWithIt) {
    Subprocess demo = m_near.start("demo --seconds 60");
    ASSERT_NE(lineStarting(demo, "four streams are up").find("streams are up"), std::string::npos);
    const std::vector<std::string> children = childrenOf(demo.pid());
    ASSERT_EQ(children.size(), 4U);
    demo.kill();
    demo.wait(10s);
    for (const std::string& child : children) {
        EXPECT_TRUE(testsupport::eventually([&] { return !isAlive(child); }));
    }
    for (const char* end : {"a", "b"}) {
        support::removeSessionObjects("demo" + std::to_string(demo.pid()) + end);
    }
}

}  // namespace
