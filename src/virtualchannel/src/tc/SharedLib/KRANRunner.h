// Keeps the companion application running while the agents are connected: launches it if it is not
// running, checks about every two seconds, and ends it on disconnection. While a marker file
// exists, it is not launched.
//
// VDIClientInfo's client type determines what is launched and how. The state is per process. Any
// thread.
#pragma once

#include <string>

namespace NorvoVirtualChannel::tc {

// Names shared with other programs of the product family. A launch mutex keeps processes from
// launching at the same time: one for the meetings client, one for all others, and one for the log
// collector, which the runner does not launch.
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

// Starts the runner's thread; only logs a trace line if it is running.
void startKRAN();

// Ends the thread and the application, and returns when both have ended (the application has about
// a second to exit by itself). Only logs a trace line if the thread is not running.
void stopKRAN();

// The body of the runner's thread: returns after stopKRAN.
void runKRANThread();

// Count one plug-in instance of this process more, or less.
void addRunner();
void removeRunner();

// Removes nothing: local processes may still use their segments after the last runner has ended.
void cleanupSharedMemory();

}  // namespace NorvoVirtualChannel::tc
