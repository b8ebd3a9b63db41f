# GTest::gmock: the system's library, or built from source when cross-compiling, where no library
# is packaged.
if(CMAKE_CROSSCOMPILING)
    set(NORVO_GOOGLETEST_SOURCE /usr/src/googletest CACHE PATH "GoogleTest's source tree")
    set(INSTALL_GTEST OFF)
    add_subdirectory(${NORVO_GOOGLETEST_SOURCE} ${PROJECT_BINARY_DIR}/googletest EXCLUDE_FROM_ALL SYSTEM)
    if(NOT TARGET GTest::gmock)
        add_library(GTest::gmock ALIAS gmock)
    endif()
else()
    find_package(GTest REQUIRED)
endif()
include(GoogleTest)

# norvo_discover_tests(<target> [ALONE <suite>...]): registers each test of the program with ctest, where
# it can run; those of the ALONE suites run while no other test does.
function(norvo_discover_tests target)
    if(CMAKE_CROSSCOMPILING AND NOT CMAKE_CROSSCOMPILING_EMULATOR)
        return()
    endif()
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "" ALONE)
    list(TRANSFORM arg_ALONE APPEND ".*")
    list(JOIN arg_ALONE ":" alone)
    gtest_discover_tests(${target} DISCOVERY_TIMEOUT 120 TEST_FILTER "-${alone}" PROPERTIES TIMEOUT 180)
    if(alone)
        gtest_discover_tests(${target} DISCOVERY_TIMEOUT 120 TEST_FILTER "${alone}" TEST_LIST ${target}_ALONE
                             PROPERTIES TIMEOUT 180 RUN_SERIAL TRUE)
    endif()
endfunction()
