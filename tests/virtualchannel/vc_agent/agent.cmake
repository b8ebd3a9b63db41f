target_sources(norvo_tests PRIVATE
    AgentHandshakeTest.cpp
    AgentHostileTest.cpp
    AgentInfoTest.cpp
    AgentLifecycleTest.cpp
    AgentStreamTest.cpp
    BackToBackTest.cpp
    PluginHost.cpp
    PluginTest.cpp
    TrafficProcesses.cpp)
target_link_libraries(norvo_tests PRIVATE norvo_agent norvo_packets norvo_streamclient)
add_dependencies(norvo_tests NorvoCrewsVirtualChannel)
set_property(SOURCE BackToBackTest.cpp PluginTest.cpp TARGET_DIRECTORY norvo_tests
    APPEND PROPERTY COMPILE_DEFINITIONS
        PLUGIN_LIBRARY="$<TARGET_FILE:NorvoCrewsVirtualChannel>")

# Runs that take minutes, by hand: `cmake --build . --target full_runs`.
add_custom_target(full_runs
    COMMAND ${CMAKE_COMMAND} -E env NORVO_HOSTILE_MESSAGES=1000000
            NORVO_BACK_TO_BACK_MESSAGES=100000 NORVO_BACK_TO_BACK_ROUNDS=100
            $<TARGET_FILE:norvo_tests> --gtest_filter=AgentHostile.*:BackToBack*
    COMMAND $<TARGET_FILE:norvo_tests> --gtest_filter=KilledSender* --gtest_repeat=25
            --gtest_fail_fast
    USES_TERMINAL VERBATIM)
