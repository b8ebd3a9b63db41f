# What `cmake --install` puts where. Components: runtime (what programs need to run) and development
# (what it takes to build against them).
include(CMakePackageConfigHelpers)
include(GNUInstallDirs)

set(client_headers
    ${PROJECT_SOURCE_DIR}/src/StreamClient/NorvoStreamClient.h
    ${PROJECT_SOURCE_DIR}/src/StreamClient/NorvoStreamClientC.h)
set(client_package ${CMAKE_INSTALL_LIBDIR}/cmake/NorvoStreamClient)

set_target_properties(NorvoStreamClientStatic PROPERTIES EXPORT_NAME Static)
install(TARGETS NorvoStreamClient EXPORT NorvoStreamClientTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development)
install(TARGETS NorvoStreamClientStatic EXPORT NorvoStreamClientTargets
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
install(FILES ${client_headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)

# find_package(NorvoStreamClient): NorvoStreamClient::NorvoStreamClient and ::Static
install(EXPORT NorvoStreamClientTargets NAMESPACE NorvoStreamClient::
    DESTINATION ${client_package} COMPONENT development)
configure_package_config_file(
    ${CMAKE_CURRENT_LIST_DIR}/NorvoStreamClientConfig.cmake.in
    ${PROJECT_BINARY_DIR}/NorvoStreamClientConfig.cmake
    INSTALL_DESTINATION ${client_package})
write_basic_package_version_file(
    ${PROJECT_BINARY_DIR}/NorvoStreamClientConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES
    ${PROJECT_BINARY_DIR}/NorvoStreamClientConfig.cmake
    ${PROJECT_BINARY_DIR}/NorvoStreamClientConfigVersion.cmake
    DESTINATION ${client_package} COMPONENT development)

# pkg-config: works wherever the installed tree is moved to.
file(RELATIVE_PATH client_prefix_from_pc
    /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
if(APPLE)
    set(client_private_libs "-lc++")
else()
    set(client_private_libs "-lstdc++ -lpthread -lrt")
endif()
configure_file(${CMAKE_CURRENT_LIST_DIR}/NorvoStreamClient.pc.in
    ${PROJECT_BINARY_DIR}/NorvoStreamClient.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/NorvoStreamClient.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
