# macOS 11 and later, cross-compiled on Linux: the presets macos-arm64 and macos-x86_64, or
# cmake --toolchain <this file> -DCMAKE_CXX_COMPILER_TARGET=aarch64-macos.11.0 (and _C_).
# cmake/macos/install-compiler.sh fetches the compiler; the linker and the binary tools are LLVM 19's.
set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_VERSION 20.1)
set(CMAKE_C_COMPILER ${CMAKE_CURRENT_LIST_DIR}/clang)
set(CMAKE_CXX_COMPILER ${CMAKE_CURRENT_LIST_DIR}/clang++)
if(CMAKE_CXX_COMPILER_TARGET MATCHES "^x86_64")
    set(CMAKE_SYSTEM_PROCESSOR x86_64)
else()
    set(CMAKE_SYSTEM_PROCESSOR arm64)
endif()

foreach(tool IN ITEMS ar ranlib nm strip install-name-tool)
    string(TOUPPER ${tool} variable)
    string(REPLACE "-" "_" variable ${variable})
    set(CMAKE_${variable} llvm-${tool}-19 CACHE FILEPATH "")
endforeach()

# No SDK, one architecture per build tree, and the minimum version is part of the target's name.
set(CMAKE_OSX_SYSROOT "" CACHE STRING "" FORCE)
set(CMAKE_OSX_ARCHITECTURES "" CACHE STRING "" FORCE)
set(CMAKE_OSX_DEPLOYMENT_TARGET "" CACHE STRING "" FORCE)

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Header-only libraries are taken from the build machine.
list(APPEND CMAKE_MODULE_PATH ${CMAKE_CURRENT_LIST_DIR}/modules)

# CMake runs a macOS program to see whether @rpath is supported. This file is read again after that.
set(CMAKE_USER_MAKE_RULES_OVERRIDE ${CMAKE_CURRENT_LIST_FILE})
set(CMAKE_SHARED_LIBRARY_RUNTIME_C_FLAG "-Wl,-rpath,")
set(CMAKE_SHARED_LIBRARY_RUNTIME_CXX_FLAG "-Wl,-rpath,")
