target_sources(norvo_tests PRIVATE
    AgentHandshakeTest.cpp
    AgentHostileTest.cpp
    AgentInfoTest.cpp
    AgentLifecycleTest.cpp
    AgentStreamTest.cpp)
target_link_libraries(norvo_tests PRIVATE norvo_agent)

# Runs that take minutes, by hand: `cmake --build . --target full_runs`.
add_custom_target(full_runs
    COMMAND ${CMAKE_COMMAND} -E env NORVO_HOSTILE_MESSAGES=1000000
            $<TARGET_FILE:norvo_tests> --gtest_filter=AgentHostile.*
    USES_TERMINAL VERBATIM)
