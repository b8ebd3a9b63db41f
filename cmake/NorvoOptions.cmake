# Compiler settings shared by every target: link norvo_options privately.
set(THREADS_PREFER_PTHREAD_FLAG ON)
find_package(Threads REQUIRED)

if(APPLE)
    set(NORVO_PLATFORM macos)
else()
    set(NORVO_PLATFORM linux)
endif()

# For MACHO_CURRENT_VERSION: in a Mach-O version, only the first part may exceed 255.
set(NORVO_MACHO_VERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})

add_library(norvo_options INTERFACE)
target_compile_options(norvo_options INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Werror
    $<$<COMPILE_LANGUAGE:CXX>:-Wconversion>
    $<$<COMPILE_LANG_AND_ID:CXX,Clang,AppleClang>:-Wthread-safety>)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    # g++ 12 falsely reports overlaps inside std::string at -O3 (its bug 105651).
    target_compile_options(norvo_options INTERFACE $<$<COMPILE_LANGUAGE:CXX>:-Wno-restrict>)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # The linker merges weak names of the static client library and a static libstdc++, not unique ones.
    target_compile_options(norvo_options INTERFACE $<$<COMPILE_LANGUAGE:CXX>:-fno-gnu-unique>)
endif()
target_link_libraries(norvo_options INTERFACE Threads::Threads)

set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)

# Every object of the tree must agree on the sanitizers, GoogleTest built from source included.
set(NORVO_SANITIZE "" CACHE STRING "Sanitizers, joined by commas: address,undefined or thread")
if(NORVO_SANITIZE)
    # g++ 12 inlines differently around the instrumentation and then falsely reports mismatched
    # operator new and delete and out-of-bounds accesses. Warnings are errors in every other build.
    target_compile_options(norvo_options INTERFACE -Wno-error)
    # -g1: a report needs line numbers but no types.
    add_compile_options(-O1 -g1 -fsanitize=${NORVO_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${NORVO_SANITIZE})
    # The address sanitizer's leak check misreads thread-local variables of a library that was loaded
    # at run time, and then crashes as the process ends, unless they have a fixed place.
    if(NORVO_SANITIZE MATCHES address)
        target_compile_options(norvo_options INTERFACE -ftls-model=initial-exec)
    endif()
endif()
