// Keeps the companion application running while the agents are connected: launches it when it is
// missing, looks for it about every two seconds, and ends it on disconnection. A marker file tells
// it to leave a stopped application stopped.
//
// What runs and how depends on VDIClientInfo's client type. The state is the process's; every
// function may be called from any thread.
#pragma once

#include <string>

namespace NorvoVirtualChannel::tc {

// Names that other programs of the product family use as well. A launch mutex keeps several
// processes from launching at the same moment: one for the meetings client, one for all others,
// and one for the log collector, which the runner does not launch.
inline constexpr char kStartCrewsMutex[] =
    "START_CREWSTHINCLIENT_MUTEX_203CAB22-C5E7-461C-82D2-838E71504CBB";
inline constexpr char kStartMeetingsMutex[] =
    "START_MEETINGTHINCLIENT_MUTEX_203CAB22-C5E7-461C-82D2-838E71504CBB";
inline constexpr char kStartLogPullMutex[] =
    "START_LOGPULL_MUTEX_203CAB22-C5E7-461C-82D2-838E71504CBB";

inline constexpr char kMarkerDirectory[] = "/tmp/norvo/";
inline constexpr char kStopMarker[] = "stop_thinclient";

inline constexpr char kLauncherBundle[] = "/Applications/TelvaVDIPlugin.app";
inline constexpr char kLauncherIdentifier[] = "com.norvo.TelvaVDIPlugin";
inline constexpr char kMeetingsIdentifier[] = "com.norvo.MeetingsVDI";
// The launcher's first argument; the peer's client version follows.
inline constexpr char kLauncherArgument[] = "launchermode";

// Starts the runner's thread; nothing but a trace line when it runs.
void startKRAN();

// Ends the thread and with it the application, and returns when both have ended (the application
// has about a second to end by itself). Nothing but a trace line when it does not run.
void stopKRAN();

// The body of the runner's thread: returns after stopKRAN.
void runKRANThread();

// One plug-in instance of this process more, or less.
void addRunner();
void removeRunner();

// Removes nothing: local processes may still use their segments when the last runner has gone.
void cleanupSharedMemory();

}  // namespace NorvoVirtualChannel::tc
