# libNorvoCrewsVirtualChannel: the whole layer below, exporting only the functions in exports.txt.
set(exports ${CMAKE_CURRENT_SOURCE_DIR}/SharedLib/exports.txt)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${exports})
file(STRINGS ${exports} names)

# The library has no source of its own; the empty one tells CMake the language.
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/plugin.cpp "")
add_library(NorvoCrewsVirtualChannel SHARED ${CMAKE_CURRENT_BINARY_DIR}/plugin.cpp)
target_link_libraries(NorvoCrewsVirtualChannel
    PRIVATE norvo_options $<LINK_LIBRARY:WHOLE_ARCHIVE,norvo_channels>)
set_target_properties(NorvoCrewsVirtualChannel PROPERTIES
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR}
    MACHO_CURRENT_VERSION ${NORVO_MACHO_VERSION}
    MACHO_COMPATIBILITY_VERSION ${NORVO_MACHO_VERSION}
    MACOSX_RPATH ON
    INSTALL_NAME_DIR "@rpath"
    BUILD_WITH_INSTALL_NAME_DIR ON)
target_include_directories(NorvoCrewsVirtualChannel
    INTERFACE $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/SharedLib>)

if(APPLE)
    set(list ${CMAKE_CURRENT_BINARY_DIR}/exports.list)
    list(TRANSFORM names PREPEND "_" OUTPUT_VARIABLE symbols)
    string(JOIN "\n" text ${symbols})
    file(CONFIGURE OUTPUT ${list} CONTENT "${text}\n" @ONLY)
    target_link_options(NorvoCrewsVirtualChannel PRIVATE
        "LINKER:-exported_symbols_list,${list}" "LINKER:-dead_strip")
else()
    set(list ${CMAKE_CURRENT_BINARY_DIR}/exports.map)
    string(JOIN ";\n    " text ${names})
    file(CONFIGURE OUTPUT ${list} CONTENT "{\n    global:\n    ${text};\n    local: *;\n};\n" @ONLY)
    target_link_options(NorvoCrewsVirtualChannel PRIVATE
        "LINKER:--version-script,${list}" "LINKER:--no-undefined-version"
        "LINKER:-Bsymbolic-functions" "LINKER:-z,nodelete")
    # A sanitizer's runtime is linked into the program.
    if(NOT NORVO_SANITIZE)
        target_link_options(NorvoCrewsVirtualChannel PRIVATE "LINKER:--no-undefined")
    endif()
endif()
set_target_properties(NorvoCrewsVirtualChannel PROPERTIES LINK_DEPENDS ${list})
