# What `cmake --install` and `cpack` add to the client library: the plug-in with its header, and vcctl.
include(GNUInstallDirs)

install(TARGETS NorvoCrewsVirtualChannel
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development)
install(FILES ${PROJECT_SOURCE_DIR}/src/virtualchannel/src/tc/SharedLib/LanguageAbstraction.h
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
if(TARGET vcctl)
    install(TARGETS vcctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
    install(FILES ${PROJECT_SOURCE_DIR}/tools/man/vcctl.1
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT runtime)
    install(FILES ${PROJECT_SOURCE_DIR}/tools/completion/vcctl.bash
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME vcctl
        COMPONENT runtime)
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME norvo-virtual-channel)
set(CPACK_PACKAGE_VENDOR "norvo")
set(CPACK_PACKAGE_CONTACT "The norvo virtual channel maintainers <maintainers@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY ${PROJECT_DESCRIPTION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
include(CPack)
