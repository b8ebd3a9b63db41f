// vcctl end to end: real hosts with the real library, joined over loopback TCP.
#include <sys/resource.h>

#include <iterator>

#include "Endpoint.h"
#include "SessionObjects.h"
#include "TestSupport.h"
#include "UserEnd.h"

namespace {

using namespace std::chrono_literals;
using support::Subprocess;
using namespace testsupport;
using Side = testsupport::UserEnd;

// Ends it with a signal and returns the exit status.
int end(Subprocess& process, int signal = SIGTERM) {
    process.signal(signal);
    return process.wait(10s);
}

std::uintmax_t sizeOf(const std::string& path) {
    std::error_code none;
    const auto size = std::filesystem::file_size(path, none);
    return none ? 0 : size;
}

void fails(const Side& side, const std::string& arguments, const std::string& text,
           int status = 1) {
    const Outcome outcome = side.run(arguments);
    EXPECT_EQ(outcome.status, status) << arguments << '\n' << outcome.text;
    expectPart(outcome.text, text);
}

support::Descriptor connectTo(const std::string& address) {
    return vcctl::Endpoint::parse(address, false).connect();
}

class VcctlAcrossProcesses : public ::testing::Test {
protected:
    // `before`: shell commands to run before the near host.
    void listen(const std::string& options = "", const std::string& before = "") {
        m_nearHost.emplace(m_near.startShell(
            before + "exec " VCCTL_PROGRAM " host --listen 127.0.0.1:0 " + options + " 2>&1"));
        const std::string line = lineStarting(*m_nearHost, "listening on ");
        m_address = line.substr(line.rfind(' ') + 1);
    }
    void join(const std::string& options = "") {
        m_farHost.emplace(m_far.start("host --connect " + m_address + " " + options));
        lineStarting(*m_nearHost, "joined");
    }
    void joinHosts(const std::string& options = "", const std::string& before = "") {
        listen(options, before);
        join();
    }
    void sendsAFileThatArrives() { sendsAFile(m_near, m_far); }
    static void sendsAFile(const Side& from, const Side& to) {
        Subprocess receiver = to.start("recv Basic --lines");
        from.succeeds("send Basic --lines /etc/hostname");
        std::string line;
        do {
            line = receiver.readLine();
        } while (line.rfind("vcctl: waiting: ", 0) == 0);  // if the host took a moment
        EXPECT_EQ(line + '\n', contentOf("/etc/hostname"));
        EXPECT_EQ(receiver.wait(20s), 0);
    }

    void TearDown() override {
        for (auto* host : {&m_nearHost, &m_farHost}) EXPECT_EQ(*host ? end(**host) : 0, 0);
    }

    Side m_near;
    Side m_far;
    std::string m_address;
    std::optional<Subprocess> m_nearHost;
    std::optional<Subprocess> m_farHost;
};

TEST_F(VcctlAcrossProcesses, AFileArrivesWholeAndTheCaptureShowsTheSession) {
    const std::string capture = m_near.file("session.pcapng");
    { const std::ofstream readableByAll(capture); }
    joinHosts("--capture " + capture);
    EXPECT_EQ(std::filesystem::status(capture).permissions(), std::filesystem::perms{0600});
    const std::string content = makeFile(m_near.file("original"), 3'000'000);

    Subprocess receiver = m_far.start("recv Media " + m_far.file("copy"));
    std::ofstream(m_far.file("copy")) << "the one before";
    m_near.succeeds("send Media " + m_near.file("original"));
    EXPECT_EQ(receiver.wait(20s), 0);
    EXPECT_TRUE(contentOf(m_far.file("copy")) == content);

    expectPart(m_near.run("check").text, "connected, version 1.0.679.0");
    const Outcome streams = m_near.run("streams");
    expectPart(streams.text, "Media");
    expectPart(streams.text, "Info_VC2STREAM");

    EXPECT_EQ(end(*m_nearHost), 0);
    const Outcome decoded = m_near.run("decode - --packets <" + capture);
    EXPECT_EQ(decoded.status, 0);
    expectPart(decoded.text, " of message ");
    for (const char* part : {"-> CTL_CONNECT", "<- CTL_CONNECT", "CTL_S_CREATE stream=\"Media\"",
                             "-> CTL_S_ROUTE stream=\"Media\"", "channel-version=\"1.0.679.0\""}) {
        expectPart(decoded.text, part);
    }

    // Its first packet follows the section and interface blocks.
    std::string bytes = contentOf(capture);
    const auto numberAt = [&](std::size_t place) {
        std::uint32_t number = 0;
        std::memcpy(&number, &bytes.at(place), sizeof number);
        return number;
    };
    const std::size_t packet = numberAt(4) + numberAt(numberAt(4) + 4);
    const std::uint32_t longerThanItsBlock = numberAt(packet + 4) - 31;
    std::memcpy(&bytes.at(packet + 20), &longerThanItsBlock, sizeof longerThanItsBlock);
    std::ofstream(capture, std::ios::binary) << bytes;
    fails(m_near, "decode " + capture, "is damaged: a packet is cut short");
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

    Subprocess listener = m_far.start("recv Basic --lines --raw");
    Subprocess waiting = m_near.start("send Basic --lines --raw");
    waiting.writeLine("arrives");
    EXPECT_EQ(listener.readLine(), "arrives");
    EXPECT_EQ(end(waiting, SIGINT), 130);
}

TEST_F(VcctlAcrossProcesses, RequestsAreAnsweredAndNotificationsArePrinted) {
    joinHosts();
    m_near.succeeds("ask RequestEnviromentType", "EnviromentType tcp");
    m_near.succeeds("ask FlushLog");
    m_near.succeeds("ask GetWindowHandle --json 4711",
                    "\"fields\":[\"0\"],\"name\":\"GetWindowHandle\"");

    Subprocess watcher = m_far.start("watch --json");
    EXPECT_NE(watcher.readLine(), "");  // it is connected to the agent
    m_farHost->signal(SIGHUP);
    expectPart(lineStarting(*m_farHost, "left"), "dropped on request");
    lineWith(watcher, "\"ChannelDown\"");
    EXPECT_EQ(end(watcher, SIGINT), 130);
}

TEST_F(VcctlAcrossProcesses, AHostWithoutADescriptorForItsNextConnectionTriesUntilThereIsOne) {
    if (testsupport::kSanitized) GTEST_SKIP() << "the sanitizer needs a pipe to look at memory";
    if (access("/usr/bin/prlimit", X_OK) != 0) GTEST_SKIP() << "needs prlimit";
    joinHosts();
    rlimit own{};
    getrlimit(RLIMIT_NOFILE, &own);
    const auto limitTo = [&](rlim_t files) {
        return Subprocess({"/usr/bin/prlimit", "--pid", std::to_string(m_farHost->pid()),
                           "--nofile=" + std::to_string(files) + ':'})
            .wait();
    };
    // As many as one poll() of the host covers.
    ASSERT_EQ(limitTo(3), 0);
    m_farHost->signal(SIGHUP);
    expectPart(lineStarting(*m_farHost, "nothing answers"), "Too many open files");
    ASSERT_EQ(limitTo(own.rlim_cur), 0);
    lineStarting(*m_farHost, "joined");
    sendsAFileThatArrives();
}

TEST_F(VcctlAcrossProcesses, AHostThatIsKilledInTheMiddleOfAFileEndsItsSender) {
    joinHosts();
    const std::string copy = m_far.file("copy.part");
    std::ofstream(m_far.file("copy")) << "untouched";
    Subprocess receiver = m_far.start("recv --wait 5 Media " + m_far.file("copy"));
    Subprocess sender = m_near.startShell("head -c 40000000000 /dev/zero | " VCCTL_PROGRAM
                                          " send Media --wait 5 2>&1");
    ASSERT_TRUE(testsupport::eventually([&] { return sizeOf(copy) > 1'000'000; }));
    m_nearHost->kill();
    m_nearHost->wait(10s);
    EXPECT_EQ(sender.wait(20s), 1);
    expectPart(sender.readAll(), "Is a host running there?");
    EXPECT_EQ(receiver.wait(20s), 1);
    expectPart(receiver.readAll(), "go on with --resume");
    EXPECT_EQ(contentOf(m_far.file("copy")), "untouched");

    m_nearHost.emplace(m_near.start("host --listen " + m_address));
    lineStarting(*m_nearHost, "joined");
    sendsAFileThatArrives();
}

TEST_F(VcctlAcrossProcesses, ATransferIsResumedAfterTheKillOfEitherToolAndTheLossOfTheChannel) {
    // On a paced transport, so that none of this comes too late: about 4 s.
    listen("--kind citrix");
    join("--kind citrix");
    const std::string content = makeFile(m_near.file("original"), 60'000'000);
    const std::string part = m_far.file("copy.part");
    const auto startReceiver = [&] {
        return m_far.start("recv Media --resume " + m_far.file("copy"));
    };
    const auto startSender = [&] {
        return m_near.start("send Media --resume " + m_near.file("original"));
    };
    std::uintmax_t reached = 0;
    const auto goesOn = [&] {
        const bool grew =
            testsupport::eventually([&] { return sizeOf(part) > reached + 5'000'000; });
        reached = sizeOf(part);
        return grew;
    };
    std::optional<Subprocess> receiver(startReceiver());
    std::optional<Subprocess> sender(startSender());
    ASSERT_TRUE(goesOn());
    receiver->kill();
    receiver.emplace(startReceiver());
    ASSERT_TRUE(goesOn());
    sender->kill();
    sender.emplace(startSender());
    ASSERT_TRUE(goesOn());
    m_farHost->signal(SIGHUP);
    ASSERT_TRUE(goesOn());
    EXPECT_EQ(sender->wait(), 0) << sender->readAll();
    EXPECT_EQ(receiver->wait(), 0) << receiver->readAll();
    EXPECT_TRUE(contentOf(m_far.file("copy")) == content);
    EXPECT_FALSE(std::filesystem::exists(part));
}

TEST_F(VcctlAcrossProcesses, AStreamChangesItsDirectionOnceNobodyUsesIt) {
    joinHosts();
    sendsAFileThatArrives();
    sendsAFile(m_far, m_near);
    fails(m_far, "send Basic --raw /etc/hostname", "in use in the other direction");
}

TEST_F(VcctlAcrossProcesses, APeerThatIsNoHostLosesItsConnectionOnly) {
    listen();
    fails(m_near, "ask RequestPeerVersion --wait 5", "the far side has not been heard of yet");
    const support::Descriptor stranger = connectTo(m_address);
    constexpr char kRequest[] = "GET / HTTP/1.1\r\n\r\n";
    ASSERT_EQ(write(stranger.get(), kRequest, sizeof kRequest), ssize_t{sizeof kRequest});
    expectPart(lineStarting(*m_nearHost, "left"), "not a host of this kind");

    fails(m_far, "host --listen " + m_address, "the port is in use");
}

TEST_F(VcctlAcrossProcesses, AHostJoinsOneThatACommandStartsAndStartsItAgain) {
    m_nearHost.emplace(m_near.start(
        "host --kind rdp --exec env NORVO_VDI_NAMESPACE=" + m_far.name() +
        " sh -c 'echo $$; exec \"$0\" \"$@\"' " VCCTL_PROGRAM " host --stdio --kind rdp"));
    lineStarting(*m_nearHost, "joined");
    lineStarting(*m_nearHost, "left");  // the number is no packet
    expectPart(lineStarting(*m_nearHost, "'env' has left"), "exit status was 0");
    EXPECT_EQ(end(*m_nearHost), 0);

    m_nearHost.emplace(m_near.start("host --kind rdp --exec env NORVO_VDI_NAMESPACE=" +
                                    m_far.name() + " " VCCTL_PROGRAM " host --stdio --kind rdp"));
    lineStarting(*m_nearHost, "joined");
    sendsAFileThatArrives();
    m_nearHost->signal(SIGHUP);
    lineStarting(*m_nearHost, "'env' has left");
    sendsAFileThatArrives();
}

TEST_F(VcctlAcrossProcesses, AUnixSocketIsForItsUserAndASilentPeerGivesWay) {
    const std::string path = m_near.file("channel");
    m_address = "unix:" + path;
    for (const bool isLeftOver : {false, true}) {
        m_nearHost.emplace(m_near.start("host --listen " + m_address));
        lineStarting(*m_nearHost, "listening on " + m_address);
        EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms{0600});
        if (isLeftOver) break;
        expectPart(m_far.run("host --listen " + m_address).text, "the path is in use");
        expectPart(m_near.run("host --connect " + m_address).text, "--take-over");
        m_nearHost->kill();
        m_nearHost->wait(10s);
    }
    const auto asAnother = [&](std::vector<std::string> command) {
        command.insert(command.begin(), {"/usr/bin/setpriv", "--reuid=65534", "--clear-groups"});
        return Subprocess(command);
    };
    std::filesystem::permissions(path, std::filesystem::perms{0666});
    std::filesystem::permissions(m_near.file(""), std::filesystem::perms{0755});
    if (geteuid() == 0 && asAnother({"/usr/bin/test", "-w", path}).wait(10s) == 0) {
        const Subprocess other = asAnother({"/usr/bin/socat", "-u", "UNIX-CONNECT:" + path, "-"});
        lineStarting(*m_nearHost, "refused a connection of another user");
    }
    // One packet, with a message that requests the connection, and no replies.
    const unsigned char greeting[44] = {91, 0,  91, 0, 1, 0,  0, 0, 1, 0,   0,   0, 1, 0, 0,
                                        0,  20, 0,  0, 0, 44, 0, 0, 0, 203, 203, 0, 0, 2, 20};
    const support::Descriptor silent = connectTo(m_address);
    ASSERT_EQ(write(silent.get(), greeting, sizeof greeting), ssize_t{sizeof greeting});
    lineStarting(*m_nearHost, "joined");
    m_farHost.emplace(m_far.start("host --connect " + m_address));
    expectPart(lineStarting(*m_nearHost, "left"), "it has not greeted as an agent does");
    sendsAFileThatArrives();
    const Side third;
    Subprocess waiting = third.start("host --connect " + m_address);
    lineStarting(waiting, "left");
    EXPECT_EQ(waiting.readLine(500ms), "");
    EXPECT_EQ(end(*m_farHost), 0);
    lineStarting(waiting, "joined");
    EXPECT_EQ(end(waiting), 0);
    EXPECT_EQ(end(*m_nearHost), 0);
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(VcctlAcrossProcesses, MistakesAreAnsweredWithWhatToDo) {
    const std::tuple<const char*, int, const char*> uses[] = {
        {"ask RequestVCProcessId --wait 0.3", 1, "no agent answers in session namespace"},
        {"streams", 0, "no segments in this session"},
        {"check", 1, "MISSING  agent         no agent answers in "},
        {"", 2, "subcommand"},
        {"nonsense", 2, "'nonsense' is not a command"},
        {"host", 2, "--listen, --connect, --stdio and --exec"},
        {"host --stdio --exec cat", 2, "give one of"},
        {"host --exec", 2, "which command?"},
        {"host --stdio --nonsense", 2, "'--nonsense' is no option"},
        {"host --exec /no/such/program", 1, "cannot start '/no/such/program'"},
        {"host --listen unix:", 2, "the path may have"},
        {"host --listen 192.0.2.1:7000", 2, "--allow-remote"},
        {"host --listen nonsense", 2, "ADDR:PORT"},
        {"host --kind morse --listen 127.0.0.1:0", 2, "--kind"},
        {"host --listen 127.0.0.1:0 --library /etc/hostname", 1, "cannot load the plug-in library"},
        {"host --listen 127.0.0.1:0 --capture /dev/full", 1, "No space left"},
        {"host --stdio <&-", 0, "Bad file descriptor"},
        {"host --stdio </bin/sh", 1, "what is no packet"},
        {"host --connect 127.0.0.1:0", 2, "is 1 to 65535"},
        {"ask Nonsense", 2, "RequestVCProcessId"},
        {"ask CreateStream a/b 10", 2, "'a/b' cannot be the request's NAME"},
        {"ask SetLogPath relative", 2, "'relative' cannot be the request's DIRECTORY"},
        {"ask OpenStream foo 999999999", 2, "'999999999' cannot be the request's SIZE"},
        {"ask OpenStream foo 1X", 2, "'1X' is not a number of bytes"},
        {"send Media --size 64X", 2, "--size"},
        {"send Media --size K", 2, "K is not a number of bytes"},
        {"ask CreateStream a b", 2, "'b' is not a number of bytes"},
        {"ask CreateStream Media", 2, "CreateStream NAME SIZE"},
        {"host --listen 127.0.0.1:0 --library libm.so.6", 1, "does not export"},
        {"ask RequestVCProcessId --wait nan", 2, "nan is not a number"},
        {"send Media --wait 0.3 /etc/hostname", 1, "vcctl host"},
        {"send Nonsense --wait 0.3 /etc/hostname", 1, "'Nonsense' is none of the usual streams"},
        {"send Media /no/such/file", 1, "No such file"},
        {"send Media --message-size 0 /etc/hostname", 2, "--message-size"},
        {"send Media .", 1, "Is a directory"},
        {"send Media --size 64 /etc/hostname", 2, "128 bytes"},
        {"recv a/b", 2, "letters, digits"},
        {"send Media --resume -", 2, "--resume needs a file"},
        {"recv Media /no/such/folder/file", 1, "cannot write"},
        {"decode /etc/hostname", 1, "not a pcapng capture"},
        {"decode /etc", 1, "Is a directory"},
        {"demo /dev/null", 2, "not a regular file"},
        {"send Media --count -1 /etc/hostname", 2, "-1 is not a number from 1"},
        {"watch --count 99999999999999999999", 2, "is not a number from 1"},
        {"--help >/dev/full", 1, ""},
    };
    for (const auto& [arguments, status, text] : uses) fails(m_near, arguments, text, status);
}

TEST_F(VcctlAcrossProcesses, EachTroubleOfATransferIsNamed) {
    const std::string large = m_near.file("large");
    makeFile(large, 8'000'000);
    makeFile(m_near.file("message"), 256u << 10);
    listen();
    fails(m_near, "send Media --wait 0.5 " + large, "its channel is not connected to a far end");
    join();
    fails(m_near, "send Media --wait 2 " + large, "nobody receives: start vcctl recv Media there");
    for (const char* name : {"kept", "kept.part"}) std::ofstream(m_far.file(name)) << "before";
    chmod(m_far.file("kept").c_str(), 0600);
    for (const char* how : {"", "--raw "}) {
        fails(m_far, "recv Media --wait 1 " + std::string(how) + m_far.file("kept"), "vcctl: ");
        EXPECT_EQ(contentOf(m_far.file("kept")) + contentOf(m_far.file("kept.part")),
                  "beforebefore");
    }

    for (const bool isAll : {true, false}) {
        Subprocess receiver = m_far.start("recv Media --count 1 " + m_far.file("first"));
        if (isAll) m_near.succeeds("send Media " + m_near.file("message"));
        if (!isAll) fails(m_near, "send Media " + large, "took only 262144 of 8000000 bytes");
        EXPECT_EQ(receiver.wait(20s), 0);
    }

    std::ofstream(m_near.file("lines")) << "a\n\nb\nc\nd\n";
    Subprocess few = m_far.start("recv Media --lines --count 2 " + m_far.file("few"));
    fails(m_near, "send Media --lines " + m_near.file("lines"), "took only 2 of 5 messages");
    EXPECT_EQ(few.wait(20s), 0);

    Subprocess patient = m_near.start("send Media " + m_near.file("message"));
    fails(m_far, "send Media --wait 0.5 /etc/hostname", "'Media' sends, too");
    m_far.succeeds("recv Media " + m_far.file("kept"));
    EXPECT_EQ(std::filesystem::status(m_far.file("kept")).permissions(),
              std::filesystem::perms{0600});
    EXPECT_EQ(patient.wait(20s), 0);

    Subprocess receiver = m_far.start("recv Media " + m_far.file("copy"));
    Subprocess sender = m_near.start("send Media");
    sender.writeLine("begun");
    ASSERT_TRUE(testsupport::eventually([&] { return sizeOf(m_far.file("copy.part")) > 0; }));
    fails(m_far, "recv Media", "another program in session namespace '" + m_far.name() + '\'');
    fails(m_near, "send Media " + large, "another program in session namespace");
    EXPECT_EQ(end(sender, SIGINT), 130);
    EXPECT_EQ(receiver.wait(20s), 1);
    expectPart(receiver.readAll(),
               "the sender is gone; what came is in " + m_far.file("copy.part"));

    Subprocess victim = m_far.start("recv Basic " + m_far.file("dead"));
    Subprocess waiting = m_near.start("send Basic");  // its input stays open
    waiting.writeLine("begun");
    ASSERT_TRUE(testsupport::eventually([&] { return sizeOf(m_far.file("dead.part")) > 0; }));
    end(victim, SIGKILL);
    const Subprocess successor = m_far.start("recv Basic " + m_far.file("dead"));
    EXPECT_EQ(waiting.wait(20s), 1);
    expectPart(waiting.readAll(), "the receiver is gone");

    Subprocess full = m_near.startShell("trap '' XFSZ; ulimit -f 300; exec " VCCTL_PROGRAM
                                        " send Large --raw --size 1M " +
                                        large + " 2>&1");
    expectPart(full.readAll(), "no space is left");
    m_farHost->signal(SIGSTOP);
    fails(m_near, "send Media --raw --wait 1 " + large, "the host takes nothing from the stream");
    fails(m_near, "send Late --raw --wait 1 " + large, "has not taken up the stream 'Late'");
    m_farHost->signal(SIGCONT);
}

TEST_F(VcctlAcrossProcesses, AReceiverIsInterruptedWhileMessagesKeepComing) {
    joinHosts();
    std::string lines;
    while (lines.size() < 6'000'000) lines += "y\n";
    std::ofstream(m_far.file("lines"), std::ios::binary) << lines;
    const std::string copy = m_near.file("copy.part");
    Subprocess receiver = m_near.start("recv Basic " + m_near.file("copy"));
    const Subprocess sender = m_far.start("send Basic --lines " + m_far.file("lines"));
    EXPECT_TRUE(testsupport::eventually([&] { return !contentOf(copy).empty(); }));
    EXPECT_EQ(end(receiver, SIGINT), 130);
}

// The processor time it has used, in clock ticks.
long ticksOf(const Subprocess& process) {
    const std::string stat = contentOf("/proc/" + std::to_string(process.pid()) + "/stat");
    std::istringstream fields(stat.substr(stat.rfind(')') + 1));
    const std::vector<std::string> all{std::istream_iterator<std::string>(fields), {}};
    return std::stol(all.at(11)) + std::stol(all.at(12));
}

TEST_F(VcctlAcrossProcesses, SighupEndsACommandAndIsIgnoredByAHostThatWaits) {
    struct sigaction hangUp {};
    sigaction(SIGHUP, nullptr, &hangUp);
    if (hangUp.sa_handler != SIG_IGN) {
        Subprocess follower = m_near.start("streams --follow");
        expectPart(lineStarting(follower, "STREAM"), "CAPACITY");
        EXPECT_EQ(end(follower, SIGHUP), 130);
    }
    listen();
    const long before = ticksOf(*m_nearHost);
    m_nearHost->signal(SIGHUP);
    std::this_thread::sleep_for(300ms);
    EXPECT_LT(ticksOf(*m_nearHost) - before, sysconf(_SC_CLK_TCK) / 6) << "it waits no more";

    join();
    m_near.succeeds("ask RequestEnviromentType");
    EXPECT_EQ(end(*m_nearHost), 0);
    EXPECT_EQ(m_nearHost->readAll().find("dropped on request"), std::string::npos);
}

TEST_F(VcctlAcrossProcesses, TheExampleHostJoinsTwoSessions) {
    const auto startHost = [](const Side& side, const std::string& in, const std::string& out) {
        return side.startShell("export LD_LIBRARY_PATH=" NORVO_PLUGIN_FOLDER "; exec 3<>" + in +
                               " 4<>" + out + "; exec " NORVO_EXAMPLE_HOST " <&3 >&4");
    };
    const std::string there = m_near.file("there");
    const std::string back = m_near.file("back");
    ASSERT_EQ(mkfifo(there.c_str(), 0600) + mkfifo(back.c_str(), 0600), 0);
    const Subprocess nearHost = startHost(m_near, back, there);
    const Subprocess farHost = startHost(m_far, there, back);
    sendsAFileThatArrives();
}

TEST_F(VcctlAcrossProcesses, AFullDiskIsReportedAndTheSessionGoesOn) {
    const std::string capture = m_near.file("session.pcapng");
    joinHosts("--capture " + capture, "trap '' XFSZ; ulimit -f 300; ");  // of 512 bytes
    Subprocess receiver = m_far.start("recv Media /dev/full");
    fails(m_near, "send Media " VCCTL_PROGRAM,
          "the receiver: cannot write /dev/full: No space left");
    expectPart(receiver.readAll(), "No space left");
    EXPECT_EQ(receiver.wait(20s), 1);
    EXPECT_EQ(end(*m_nearHost), 0);
    expectPart(m_nearHost->readAll(), "the capture to " + capture + " stops here");
}

TEST_F(VcctlAcrossProcesses, TheDemoPassesOnEveryTransportAndLeavesNothing) {
    const std::string file = m_near.file("small");
    std::ofstream(file, std::ios::binary) << std::string(100'000, 'n');
    for (const char* kind : {"tcp", "citrix", "vmware", "rdp"}) {
        Subprocess demo = m_near.start(std::string("demo --seconds 1 --kind ") + kind + " " + file);
        const std::string text = demo.readAll();
        EXPECT_EQ(demo.wait(20s), 0) << text;
        expectPart(text, "the same on return");
        for (const char* side : {"a", "b"})
            EXPECT_EQ(support::removeSessionObjects("demo" + std::to_string(demo.pid()) + side),
                      0U);
    }
}

TEST_F(VcctlAcrossProcesses, ADemoThatIsKilledTakesItsProcessesWithIt) {
    Subprocess demo = m_near.start("demo --seconds 60");
    lineStarting(demo, "four streams are up");
    const std::vector<pid_t> children = testsupport::childrenOf(demo.pid());
    ASSERT_EQ(children.size(), 4U);
    demo.kill();
    demo.wait(10s);
    for (const pid_t child : children) {
        EXPECT_TRUE(testsupport::eventually([&] {
            const std::string state = contentOf("/proc/" + std::to_string(child) + "/stat");
            return state.empty() || state.find(") Z ") != std::string::npos;
        }));
    }
    for (const char* side : {"a", "b"})
        support::removeSessionObjects("demo" + std::to_string(demo.pid()) + side);
}

}  // namespace
