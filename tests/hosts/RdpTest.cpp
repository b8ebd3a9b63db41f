// The plug-in in a real RDP client, connected to real remote ends: our own server, and an xrdp
// desktop. Needs no account and uses loopback only.

#include <ctime>

#include "Endpoint.h"
#include "Subprocess.h"
#include "TestSupport.h"
#include "UserEnd.h"

namespace {

using namespace std::chrono_literals;
using support::Subprocess;
using namespace testsupport;
using Side = testsupport::UserEnd;

const std::string kFolder = "/run/xrdp/sockdir";  // a constant of xrdp's

std::string portOf(const std::string& address) { return address.substr(address.rfind(':') + 1); }

std::string freePort() {
    const auto any = vcctl::Endpoint::parse("127.0.0.1:0", false);
    return portOf(any.boundText(any.listen().get()));
}

bool isThere(std::initializer_list<const char*> programs) {
    return std::ranges::all_of(programs, [](const char* program) {
        return access((std::string("/usr/bin/") + program).c_str(), X_OK) == 0 ||
               access((std::string("/usr/sbin/") + program).c_str(), X_OK) == 0;
    });
}

// Asks it to end and waits, so that an X server removes its socket and lock.
void endAndWait(std::optional<Subprocess>& process) {
    if (!process) return;
    process->signal(SIGTERM);
    process->wait(5s);
    process.reset();
}

// User and system time of all threads since the process started.
std::chrono::nanoseconds processorTimeOf(pid_t process) {
    clockid_t clock{};
    timespec time{};
    EXPECT_EQ(clock_getcpuclockid(process, &clock), 0);
    EXPECT_EQ(clock_gettime(clock, &time), 0);
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

// An X server without a screen, on a display number of its own choice.
class Display {
public:
    explicit Display(const Side& side, const std::string& command)
        : m_server(side.startShell("exec " + command + " -displayfd 1 2>/dev/null")),
          m_number(m_server->readLine()) {}
    ~Display() { endAndWait(m_server); }
    const std::string& number() const { return m_number; }

private:
    std::optional<Subprocess> m_server;
    const std::string m_number;
};

// The path, without extension, of a certificate (.pem) and its key (.key).
std::string makeCertificate(const Side& side) {
    std::string base = side.file("tls");
    side.startShell(
            "exec 2>&1; openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=localhost "
            "-keyout " +
            base + ".k -out " + base + ".pem && openssl rsa -traditional -in " + base + ".k -out " +
            base + ".key")
        .wait(20s);
    return base;
}

class FarEnd {
public:
    virtual ~FarEnd() = default;
    const std::string& port() const { return m_port; }
    // Whether the client learns that the remote end is gone.
    bool isMissed() const { return m_isMissed; }
    // The process that has loaded the plug-in.
    virtual void start() = 0;
    std::chrono::nanoseconds processorTime() const { return processorTimeOf(m_host->pid()); }
    void kill() {
        m_host->kill();
        m_host->wait(5s);
        m_host.reset();
    }

protected:
    FarEnd(const Side& side, bool isMissed)
        : m_side(side), m_isMissed(isMissed), m_tls(makeCertificate(side)) {}

    const Side& m_side;
    const bool m_isMissed;
    const std::string m_tls;
    std::string m_port;
    std::optional<Subprocess> m_host;
};

class OwnServer : public FarEnd {
public:
    explicit OwnServer(const Side& side) : FarEnd(side, true) { start(); }
    void start() override {
        m_host.emplace(m_side.startShell(
            "exec " NORVO_RDP_SERVER " --library " NORVO_PLUGIN " --certificate " + m_tls +
                ".pem --key " + m_tls + ".key 2>" + m_side.file("server.log"),
            {"ASAN_OPTIONS=detect_leaks=0"}));
        m_port = portOf(lineStarting(*m_host, "listening on "));
    }
};

// A desktop without log-in: xrdp shows a VNC server, to which the channel server belongs.
class XrdpDesktop : public FarEnd {
public:
    explicit XrdpDesktop(const Side& side)
        : FarEnd(side, false),
          m_display(side, "Xtigervnc -geometry 320x240 -SecurityTypes None -localhost") {
        m_port = freePort();
        std::ofstream(side.file("xrdp.ini"))
            << "[Globals]\nport=tcp://.:" << m_port
            << "\nallow_channels=true\nautorun=Light\nsecurity_layer=tls\n"
            << "ssl_protocols=TLSv1.2, TLSv1.3\ncertificate=" << m_tls << ".pem\nkey_file=" << m_tls
            << ".key\n[Logging]\nLogFile=" << side.file("xrdp.log")
            << "\n[Channels]\nNRVOCW=true\n[Light]\nname=Light\nlib=libvnc.so\nusername=na\n"
            << "password=na\nip=127.0.0.1\nport=" << 5900 + std::stoi(m_display.number())
            << "\nchansrvport=DISPLAY(" << m_display.number() << ")\n";
        startChannelServer();
        m_xrdp.emplace(
            side.startShell("exec xrdp -n -c " + side.file("xrdp.ini") + " >/dev/null 2>&1"));
        EXPECT_TRUE(eventually([&] {
            return std::filesystem::exists(kFolder + "/xrdp_chansrv_socket_" + m_display.number());
        }));
        start();
    }
    // Ending the X server ends xrdp's process for the connection, which outlives its parent.
    ~XrdpDesktop() override {
        endAndWait(m_host);
        endAndWait(m_channels);
        endAndWait(m_xrdp);
        std::error_code ignored;
        std::vector<std::filesystem::path> left;
        for (const auto& entry : std::filesystem::directory_iterator(kFolder, ignored)) {
            if (entry.path().filename().string().ends_with("_" + m_display.number()))
                left.push_back(entry.path());
        }
        for (const auto& path : left) std::filesystem::remove(path, ignored);
    }
    void start() override {
        m_host.emplace(startInDesktop("exec " NORVO_XRDP_AGENT " --library " NORVO_PLUGIN " 2>&1"));
        EXPECT_NE(m_host->readLine(), "");  // says what it waits for, or that it need not wait
    }
    // Why it is not available here; empty when it is.
    static std::string whyNot() {
        if (!getenv("NORVO_TEST_XRDP")) return "./test --only xrdp runs it";
        std::error_code ignored;
        std::filesystem::create_directories(kFolder, ignored);
        chmod(kFolder.c_str(), 01777);
        return isThere({"xrdp", "xrdp-chansrv", "Xtigervnc"}) && access(kFolder.c_str(), W_OK) == 0
                   ? ""
                   : "no xrdp here (packages xrdp tigervnc-standalone-server)";
    }
    std::string outputOfAgent(const std::string& options) {
        return startInDesktop("exec " NORVO_XRDP_AGENT " --library " NORVO_PLUGIN " " + options +
                              " 2>&1")
            .readAll();
    }
    std::string check() { return outputOfAgent("--check --xrdp-ini " + m_side.file("xrdp.ini")); }
    // The open descriptors of the agent, which runs without a client.
    std::size_t descriptors() const {
        const auto folder = "/proc/" + std::to_string(m_host->pid()) + "/fd";
        return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(folder),
                                                      std::filesystem::directory_iterator{}));
    }
    void startChannelServer() {
        m_channels.emplace(startInDesktop("exec xrdp-chansrv >/dev/null 2>&1"));
    }
    void endChannelServer() { endAndWait(m_channels); }
    bool comesToSay(const std::string& text) {
        return eventually([&] { return m_host->readLine(1s).starts_with(text); });
    }
    int agentsStatus() { return m_host->wait(20s); }

private:
    Subprocess startInDesktop(const std::string& command) const {
        return m_side.startShell(
            command, {"DISPLAY=:" + m_display.number(), "LC_ALL=C",
                      "XDG_RUNTIME_DIR=" + m_side.file("home"), "ASAN_OPTIONS=detect_leaks=0"});
    }

    std::optional<Subprocess> m_channels;
    std::optional<Subprocess> m_xrdp;
    Display m_display;
};

class RdpAcrossProcesses : public ::testing::TestWithParam<const char*> {
protected:
    void SetUp() override {
        if (!isThere({"xfreerdp", "Xvfb", "socat", "openssl"}))
            GTEST_SKIP() << "no FreeRDP client here (packages freerdp2-x11 xvfb openssl)";
        if (GetParam() == std::string("xrdp")) {
            const std::string why = XrdpDesktop::whyNot();
            if (!why.empty()) GTEST_SKIP() << why;
            m_farEnd = std::make_unique<XrdpDesktop>(m_far);
        } else {
            m_farEnd = std::make_unique<OwnServer>(m_far);
        }
        m_display.emplace(m_near, "Xvfb -screen 0 320x240x24 -nolisten tcp");
        m_relayPort = freePort();
        startRelay();
        startClient();
    }
    void TearDown() override { endClient(); }

    // FreeRDP reconnects to the same port, so the connection is cut by ending the relay in between.
    void startRelay() {
        m_relay.emplace(
            m_near.startShell("exec 2>&1; exec socat TCP-LISTEN:" + m_relayPort +
                              ",bind=127.0.0.1,reuseaddr,fork TCP:127.0.0.1:" + m_farEnd->port()));
    }
    void cut() {
        const auto children = testsupport::childrenOf(m_relay->pid());
        EXPECT_FALSE(children.empty());
        for (const pid_t child : children) ::kill(child, SIGKILL);
    }

    Subprocess startFreeRdp(const std::string& library, const std::string& output) {
        return m_near.startShell(
            "exec xfreerdp /v:127.0.0.1:" + m_relayPort +
                " /u:na /p:na /sec:tls /cert:ignore +auto-reconnect -clipboard "
                "/vc:NRVOCW,library=" +
                library + " >" + output + " 2>&1",
            {"DISPLAY=:" + m_display->number(), "XDG_CONFIG_HOME=" + m_near.file("home"),
             std::string("LD_PRELOAD=") + NORVO_RDP_PRELOAD,
             std::string("NORVO_TEST_ADDIN=") + NORVO_RDP_ADDIN, "ASAN_OPTIONS=detect_leaks=0"});
    }
    void startClient() {
        m_nearNews.emplace(m_near.start("watch"));
        if (!m_farNews) m_farNews.emplace(m_far.start("watch"));
        m_client.emplace(startFreeRdp(NORVO_PLUGIN, m_near.file("client.log")));
        expectNews("ChannelUp");
    }
    // xfreerdp leaves this behind when killed by a signal.
    void endClient() {
        if (!m_client) return;
        m_client->kill();
        m_client->wait(5s);
        char name[60];
        std::snprintf(name, sizeof name, "/dev/shm/com.freerdp.xfreerdp.tsmf_%016X",
                      m_client->pid());
        std::filesystem::remove(name);
        m_client.reset();
        m_nearNews.reset();
    }
    static void expectNewsOf(std::optional<Subprocess>& news, const std::string& name) {
        testsupport::lineWith(*news, ' ' + name);
    }
    void expectNews(const std::string& name) {
        expectNewsOf(m_nearNews, name);
        expectNewsOf(m_farNews, name);
    }

    // `during` runs while the file is in transit. Returns how long that took.
    std::chrono::milliseconds passesAFile(
        const Side& from, const Side& to, std::size_t size,
        const std::function<void()>& during = [] {}) {
        const std::string content = testsupport::makeFile(from.file("original"), size);
        const auto begun = std::chrono::steady_clock::now();
        Subprocess receiver = to.start("recv Media --wait 30 " + to.file("copy"));
        Subprocess sender = from.start("send Media --wait 30 " + from.file("original"));
        during();
        EXPECT_EQ(sender.wait(60s), 0) << sender.readAll(1s);
        const auto took = testsupport::since(begun);
        EXPECT_EQ(receiver.wait(8s), 0);
        EXPECT_TRUE(contentOf(to.file("copy")) == content);
        return took;
    }

    Side m_near;
    Side m_far;
    std::unique_ptr<FarEnd> m_farEnd;
    std::optional<Display> m_display;
    std::string m_relayPort;
    std::optional<Subprocess> m_relay;
    std::optional<Subprocess> m_client;
    std::optional<Subprocess> m_nearNews;
    std::optional<Subprocess> m_farNews;
};

TEST_P(RdpAcrossProcesses, TwentyStreamsCarryFilesBothWaysAndTheClientNeverWaits) {
    constexpr int kStreams = 20;
    std::vector<std::string> contents;
    for (int i = 0; i < kStreams; ++i)
        contents.push_back(
            testsupport::makeFile((i % 2 ? m_near : m_far).file("in" + std::to_string(i)),
                                  1 + 500 * static_cast<std::size_t>(i * i)));
    const auto start = [](const Side& side, const std::string& own) {
        return side.startShell(
            "cd \"$TMPDIR\"; all=; i=0; while [ $i -lt 20 ]; do "
            "if [ $((i % 2)) = $OWN ]; then $VCCTL send s$i in$i --wait 60 2>>log & "
            "else $VCCTL recv s$i out$i --wait 60 2>>log & fi; all=\"$all $!\"; i=$((i + 1)); "
            "done; "
            "for each in $all; do wait $each || exit 1; done",
            {"OWN=" + own, std::string("VCCTL=") + VCCTL_PROGRAM});
    };
    Subprocess near = start(m_near, "1");
    Subprocess far = start(m_far, "0");
    EXPECT_EQ(near.wait(90s), 0) << contentOf(m_near.file("log"));
    EXPECT_EQ(far.wait(90s), 0) << contentOf(m_far.file("log"));
    for (int i = 0; i < kStreams; ++i) {
        EXPECT_TRUE(contentOf((i % 2 ? m_far : m_near).file("out" + std::to_string(i))) ==
                    contents[static_cast<std::size_t>(i)])
            << "stream s" << i;
    }

    cut();
    expectNews("ChannelDown");
    m_near.run("ask FlushLog");
    const std::string log = m_near.log();
    constexpr char kWaited[] = "the client waited at most ";
    const std::size_t at = log.find(kWaited);
    ASSERT_NE(at, std::string::npos) << log;
    EXPECT_LT(std::stod(log.substr(at + sizeof kWaited - 1)), 50) << "ms";
}

TEST_P(RdpAcrossProcesses, ACutConnectionIsTakenUpAgainInTheMiddleOfAFile) {
    passesAFile(m_near, m_far, 4'000'000, [&] {
        std::this_thread::sleep_for(400ms);  // in the middle of it
        cut();
        expectNews("ChannelDown");
        expectNews("ChannelUp");
    });
    passesAFile(m_far, m_near, 100'000);
}

TEST_P(RdpAcrossProcesses, AKilledClientAndAKilledFarEndAreReplaced) {
    endClient();
    expectNewsOf(m_farNews, "ChannelDown");
    EXPECT_NE(startFreeRdp("/no/such/library", m_near.file("refused")).wait(20s), 0);
    testsupport::expectPart(contentOf(m_near.file("refused")),
                            "NRVOCW: cannot load the plug-in library: /no/such/library");
    startClient();
    passesAFile(m_near, m_far, 100'000);

    m_farEnd->kill();
    if (m_farEnd->isMissed()) expectNewsOf(m_nearNews, "ChannelDown");
    m_farNews.emplace(m_far.start("watch"));
    m_relay.reset();
    m_farEnd->start();
    startRelay();
    expectNewsOf(m_farNews, "ChannelUp");
    passesAFile(m_near, m_far, 100'000);
}

// Run by hand (full_runs), on an idle machine.
TEST_P(RdpAcrossProcesses, AFileFillsTheChannelAndAnIdleSessionCostsNothing) {
    if (!getenv("NORVO_FULL_RUNS")) GTEST_SKIP() << "full_runs runs it";
    constexpr std::size_t kSize = 64U << 20U;
    constexpr double kMostPerSecond = 1476 * 10 / 0.003;  // 3 ms of pause after every 10 packets
    constexpr auto kIdle = 10s;
    for (const bool up : {true, false}) {
        const std::chrono::duration<double> took =
            passesAFile(up ? m_near : m_far, up ? m_far : m_near, kSize);
        const double share = kSize / kMostPerSecond / took.count();
        std::cout << (up ? "up: " : "down: ") << share << " of what the channel lets through\n";
        EXPECT_GE(share, 0.95);
    }
    std::this_thread::sleep_for(2s);
    const auto busy = [&] { return processorTimeOf(m_client->pid()) + m_farEnd->processorTime(); };
    const auto before = busy();
    std::this_thread::sleep_for(kIdle);
    const double share = std::chrono::duration<double>(busy() - before) / kIdle;
    std::cout << "idle: " << 100 * share << " % of a core, both ends together\n";
    EXPECT_LE(share, 0.02);
}

TEST(XrdpAgentAcrossProcesses, SaysWhatIsMissingLeaksNothingAndEndsWithItsDesktop) {
    const std::string why = XrdpDesktop::whyNot();
    if (!why.empty()) GTEST_SKIP() << why;
    const Side side;
    XrdpDesktop desktop(side);
    const std::string checked = desktop.check();
    testsupport::expectPart(checked, "no client is attached");
    EXPECT_EQ(checked.find("MISSING"), std::string::npos) << checked;
    std::ofstream(side.file("xrdp.ini")) << "[Globals]\nallow_channels=false\n";
    testsupport::expectPart(desktop.check(), "set allow_channels=true");
    testsupport::expectPart(desktop.check(), "add the line NRVOCW=true");

    testsupport::expectPart(desktop.outputOfAgent(""), "an agent runs in this desktop already");

    const std::size_t before = desktop.descriptors();
    desktop.endChannelServer();
    EXPECT_TRUE(desktop.comesToSay("waiting for xrdp's channel server"));
    desktop.startChannelServer();
    EXPECT_TRUE(desktop.comesToSay("waiting for a client"));
    desktop.endChannelServer();
    EXPECT_TRUE(desktop.comesToSay("waiting for xrdp's channel server"));
    std::this_thread::sleep_for(3500ms);  // another attempt to open the channel, which fails
    EXPECT_EQ(desktop.descriptors(), before);
    EXPECT_EQ(desktop.agentsStatus(), 0);
}

TEST(XrdpAgentAcrossProcesses, OutsideXrdpSaysWhatIsMissingAndIsNotStartedByDesktops) {
    const Side side;
    const auto run = [&](const std::string& options) {
        Subprocess agent =
            side.startShell("unset XRDP_SESSION; exec " NORVO_XRDP_AGENT " " + options + " 2>&1",
                            {"DISPLAY=", "ASAN_OPTIONS=detect_leaks=0"});
        const std::string text = agent.readAll();
        return text + std::to_string(agent.wait());
    };
    const std::string checked = run("--check --library /no/such");
    testsupport::expectPart(checked, "MISSING  plug-in library /no/such");
    testsupport::expectPart(checked, "MISSING  DISPLAY");
    EXPECT_TRUE(checked.ends_with("\n1")) << checked;
    EXPECT_EQ(run("--autostart"), "0");
    testsupport::expectPart(run(""), "DISPLAY is not set");
}

INSTANTIATE_TEST_SUITE_P(FarEnds, RdpAcrossProcesses, ::testing::Values("server", "xrdp"),
                         [](const auto& row) { return std::string(row.param); });

}  // namespace
