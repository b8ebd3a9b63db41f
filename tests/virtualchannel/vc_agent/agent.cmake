target_sources(norvo_tests PRIVATE
    AgentHostileTest.cpp
    ${PROJECT_SOURCE_DIR}/fuzz/ReceivePath.cpp
    AgentInfoTest.cpp
    AgentLifecycleTest.cpp
    AgentSessionTest.cpp
    AgentStreamTest.cpp
    PeerSegmentTest.cpp)
target_link_libraries(norvo_tests PRIVATE norvo_agent norvo_packets)
set_property(SOURCE AgentSessionTest.cpp TARGET_DIRECTORY norvo_tests
    APPEND PROPERTY COMPILE_DEFINITIONS SESSION_TRANSCRIPT="${CMAKE_CURRENT_LIST_DIR}/AgentSession.txt")
set_property(SOURCE AgentHostileTest.cpp TARGET_DIRECTORY norvo_tests
    APPEND PROPERTY COMPILE_DEFINITIONS RECEIVE_PATH_SEEDS="${PROJECT_SOURCE_DIR}/fuzz/corpus/ReceivePath")
set_property(SOURCE ${PROJECT_SOURCE_DIR}/fuzz/ReceivePath.cpp TARGET_DIRECTORY norvo_tests
    APPEND PROPERTY COMPILE_DEFINITIONS LLVMFuzzerTestOneInput=fuzzReceivePath)
set_property(SOURCE ${PROJECT_SOURCE_DIR}/fuzz/ReceivePath.cpp TARGET_DIRECTORY norvo_tests
    APPEND PROPERTY INCLUDE_DIRECTORIES ${CMAKE_CURRENT_SOURCE_DIR})

# Runs of several minutes, started by hand: `cmake --build . --target full_runs`.
add_custom_target(full_runs
    COMMAND ${CMAKE_COMMAND} -E env NORVO_HOSTILE_MESSAGES=1000000
            $<TARGET_FILE:norvo_tests> --gtest_filter=AgentHostile.*
    COMMAND $<TARGET_FILE:norvo_tests> --gtest_filter=KilledSender*:HostsAcross*:*EndToEnd*tcp
            --gtest_repeat=25 --gtest_fail_fast
    COMMAND ${CMAKE_COMMAND} -E env NORVO_FULL_RUNS=1 NORVO_TEST_XRDP=1
            $<TARGET_FILE:norvo_tests> --gtest_filter=*AFileFillsTheChannel*
    USES_TERMINAL VERBATIM)
