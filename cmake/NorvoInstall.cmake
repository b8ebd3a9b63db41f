# What `cmake --install` installs. Components: runtime (what programs need to run) and development
# (what builds against them need).
include(CMakePackageConfigHelpers)
include(GNUInstallDirs)

# norvo_install_package(<name> DESCRIPTION <text> TARGETS <library>... HEADERS <file>...
#                       [PRIVATE_LIBS <flags>])
#
# Installs libraries and headers so that find_package(<name>) and pkg-config find them,
# wherever the installed tree is moved. PRIVATE_LIBS: further libraries for static linking.
function(norvo_install_package name)
    cmake_parse_arguments(PACKAGE "" "DESCRIPTION;PRIVATE_LIBS" "TARGETS;HEADERS" ${ARGN})
    set(folder ${CMAKE_INSTALL_LIBDIR}/cmake/${name})
    install(TARGETS ${PACKAGE_TARGETS} EXPORT ${name}Targets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
            COMPONENT runtime NAMELINK_COMPONENT development
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
    install(FILES ${PACKAGE_HEADERS}
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
    install(EXPORT ${name}Targets NAMESPACE ${name}:: DESTINATION ${folder} COMPONENT development)

    set(config ${PROJECT_BINARY_DIR}/${name}Config.cmake)
    set(version ${PROJECT_BINARY_DIR}/${name}ConfigVersion.cmake)
    configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/NorvoPackageConfig.cmake.in ${config}
        INSTALL_DESTINATION ${folder})
    write_basic_package_version_file(${version} COMPATIBILITY SameMajorVersion)
    install(FILES ${config} ${version} DESTINATION ${folder} COMPONENT development)

    set(pkgconfig ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
    file(RELATIVE_PATH prefix_from_pc /${pkgconfig} /)
    configure_file(${PROJECT_SOURCE_DIR}/cmake/NorvoPackage.pc.in ${PROJECT_BINARY_DIR}/${name}.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/${name}.pc DESTINATION ${pkgconfig} COMPONENT development)
endfunction()

# For hosts that link the plug-in instead of loading it, or need only the header.
norvo_install_package(NorvoCrewsVirtualChannel
    DESCRIPTION "Virtual-channel plug-in for remote-desktop clients"
    TARGETS NorvoCrewsVirtualChannel
    HEADERS ${PROJECT_SOURCE_DIR}/src/virtualchannel/src/tc/SharedLib/LanguageAbstraction.h)

set_target_properties(NorvoStreamClientStatic PROPERTIES EXPORT_NAME Static)
if(APPLE)
    set(private_libs "-lc++")
else()
    set(private_libs "-lstdc++ -lpthread -lrt")
endif()
norvo_install_package(NorvoStreamClient
    DESCRIPTION "Streams from local processes to the far end of the virtual channel"
    TARGETS NorvoStreamClient NorvoStreamClientStatic
    HEADERS ${PROJECT_SOURCE_DIR}/src/StreamClient/NorvoStreamClient.h
            ${PROJECT_SOURCE_DIR}/src/StreamClient/NorvoStreamClientC.h
            ${PROJECT_SOURCE_DIR}/src/StreamClient/NorvoStreamClientStatus.h
            ${PROJECT_SOURCE_DIR}/src/StreamClient/NorvoStreamConnection.h
    PRIVATE_LIBS "${private_libs}")

if(TARGET vcctl)
    install(TARGETS vcctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
    install(FILES ${PROJECT_SOURCE_DIR}/tools/man/vcctl.1
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT runtime)
    install(FILES ${PROJECT_SOURCE_DIR}/tools/completion/vcctl.bash
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME vcctl
        COMPONENT runtime)
endif()

# CMake strips only programs and shared libraries.
install(CODE "
    if(CMAKE_INSTALL_DO_STRIP)
        execute_process(COMMAND \"${CMAKE_STRIP}\" --strip-debug
            \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/$<TARGET_FILE_NAME:NorvoStreamClientStatic>\"
            COMMAND_ERROR_IS_FATAL ANY)
    endif()" COMPONENT development)

set(documents ${CMAKE_INSTALL_DATADIR}/doc/norvo-virtual-channel)
install(FILES ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/CONTRIBUTING.md
    DESTINATION ${documents} COMPONENT development)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs ${PROJECT_SOURCE_DIR}/examples
    DESTINATION ${documents} COMPONENT development PATTERN CMakeLists.txt EXCLUDE)
