#include <dlfcn.h>
#include <freerdp/settings.h>
#include <freerdp/svc.h>

#include "TestSupport.h"

namespace {

// What the session that has the channel has passed to FreeRDP.
int g_sessions = 0;
void* g_session = nullptr;
PCHANNEL_INIT_EVENT_EX_FN g_onEvent = nullptr;

UINT VCAPITYPE initialise(LPVOID session, LPVOID, LPVOID, PCHANNEL_DEF, INT, ULONG,
                          PCHANNEL_INIT_EVENT_EX_FN onEvent) {
    ++g_sessions;
    g_session = session;
    g_onEvent = onEvent;
    return CHANNEL_RC_OK;
}

TEST(AddIn, ASecondSessionGoesWithoutTheChannelUntilTheFirstHasEnded) {
    void* const addIn = dlopen(NORVO_RDP_ADDIN, RTLD_NOW | RTLD_LOCAL);
    ASSERT_TRUE(addIn) << dlerror();
    const auto begin =
        reinterpret_cast<PVIRTUALCHANNELENTRYEX>(dlsym(addIn, "VirtualChannelEntryEx"));
    std::string name = "NRVOCW";
    std::string library = "library=" FAKE_PLUGIN;
    char* arguments[] = {name.data(), library.data()};
    std::pair<std::string, const char*> wrong[] = {
        {"library=", "not library="}, {"namespace=a.b", "'a.b'"}, {"other=1", "not other=1"}};
    ADDIN_ARGV given{2, arguments};
    CHANNEL_ENTRY_POINTS_FREERDP_EX functions{};
    functions.cbSize = sizeof functions;
    functions.MagicNumber = FREERDP_CHANNEL_MAGIC_NUMBER;
    functions.pVirtualChannelInitEx = initialise;
    functions.pExtendedData = &given;
    const auto beginOne = [&](BOOL isTaken = TRUE) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(begin(reinterpret_cast<PCHANNEL_ENTRY_POINTS_EX>(&functions), &functions),
                  isTaken);
        return testing::internal::GetCapturedStderr();
    };
    for (auto& [argument, complaint] : wrong) {
        char* refused[] = {name.data(), argument.data()};
        ADDIN_ARGV bad{2, refused};
        functions.pExtendedData = &bad;
        EXPECT_NE(beginOne(FALSE).find(complaint), std::string::npos);
    }
    functions.pExtendedData = &given;
    EXPECT_EQ(beginOne(), "");
    EXPECT_EQ(
        beginOne(),
        "NRVOCW: another session of this program has the channel; this one goes without it\n");
    EXPECT_EQ(g_sessions, 1);
    g_onEvent(g_session, &functions, CHANNEL_EVENT_TERMINATED, nullptr, 0);
    EXPECT_EQ(beginOne(), "");
    EXPECT_EQ(g_sessions, 2);
}

}  // namespace
