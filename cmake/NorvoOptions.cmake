# Compiler settings shared by every target: link norvo_options privately.
find_package(Threads REQUIRED)

if(APPLE)
    set(NORVO_PLATFORM macos)
else()
    set(NORVO_PLATFORM linux)
endif()

add_library(norvo_options INTERFACE)
target_compile_options(norvo_options INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Werror
    $<$<COMPILE_LANGUAGE:CXX>:-Wconversion>
    $<$<CXX_COMPILER_ID:Clang,AppleClang>:-Wthread-safety>)
target_link_libraries(norvo_options INTERFACE Threads::Threads)

set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
