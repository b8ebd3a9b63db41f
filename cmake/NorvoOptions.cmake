# Compiler settings shared by every target: link norvo_options privately.
set(THREADS_PREFER_PTHREAD_FLAG ON)
find_package(Threads REQUIRED)

if(APPLE)
    set(NORVO_PLATFORM macos)
else()
    set(NORVO_PLATFORM linux)
endif()

# For MACHO_CURRENT_VERSION: the parts of a Mach-O version after the first end at 255.
set(NORVO_MACHO_VERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})

add_library(norvo_options INTERFACE)
target_compile_options(norvo_options INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Werror
    $<$<COMPILE_LANGUAGE:CXX>:-Wconversion>
    $<$<COMPILE_LANG_AND_ID:CXX,Clang,AppleClang>:-Wthread-safety>)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    # g++ 12 finds overlaps inside std::string at -O3 that are not there (its bug 105651).
    target_compile_options(norvo_options INTERFACE $<$<COMPILE_LANGUAGE:CXX>:-Wno-restrict>)
endif()
target_link_libraries(norvo_options INTERFACE Threads::Threads)

set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)

# Every object of the tree must agree on the sanitizers, GoogleTest built from source included.
set(NORVO_SANITIZE "" CACHE STRING "Sanitizers, joined by commas: address,undefined or thread")
if(NORVO_SANITIZE)
    # g++ 12 inlines differently around the instrumentation and then reports, falsely, mismatched
    # operator new and delete and accesses out of bounds. Warnings are errors in every other build.
    target_compile_options(norvo_options INTERFACE -Wno-error)
    # -g1: a report needs lines, and no types.
    add_compile_options(-O1 -g1 -fsanitize=${NORVO_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${NORVO_SANITIZE})
endif()
