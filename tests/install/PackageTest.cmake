# See CMakeLists.txt. Makes the Debian packages, unpacks the library's and uses its contents.
include(${CMAKE_CURRENT_LIST_DIR}/UseInstalled.cmake)

file(REMOVE_RECURSE ${STAGE})
run(${CPACK} --config ${BUILD}/CPackConfig.cmake -G DEB -B ${STAGE}/made)
file(GLOB package ${STAGE}/made/norvo-virtual-channel_*.deb)
function(expect_contents name package)
    run(dpkg-deb --contents ${package})
    foreach(path ${ARGN})
        string(REPLACE "." "\\." pattern "${path}")
        expect("${name}" "${text}" " ${pattern}( |\n)")
    endforeach()
endfunction()

set(share ./usr/share)
expect_contents("the package" ${package}
        ./usr/bin/vcctl
        ./usr/include/LanguageAbstraction.h
        ./usr/include/NorvoStreamClient.h
        ./usr/include/NorvoStreamClientC.h
        ./usr/${LIBDIR}/libNorvoCrewsVirtualChannel.so
        ./usr/${LIBDIR}/libNorvoCrewsVirtualChannel.so.1
        ./usr/${LIBDIR}/libNorvoStreamClient.a
        ./usr/${LIBDIR}/libNorvoStreamClient.so
        ./usr/${LIBDIR}/libNorvoStreamClient.so.1
        ./usr/${LIBDIR}/cmake/NorvoCrewsVirtualChannel/NorvoCrewsVirtualChannelConfig.cmake
        ./usr/${LIBDIR}/cmake/NorvoStreamClient/NorvoStreamClientConfig.cmake
        ./usr/${LIBDIR}/pkgconfig/NorvoCrewsVirtualChannel.pc
        ./usr/${LIBDIR}/pkgconfig/NorvoStreamClient.pc
        ${share}/bash-completion/completions/vcctl
        ${share}/doc/norvo-virtual-channel/README.md
        ${share}/doc/norvo-virtual-channel/docs/wire-formats.md
        ${share}/doc/norvo-virtual-channel/examples/host.c
        ${share}/man/man1/vcctl.1)

run(dpkg-deb --field ${package} Depends)
expect("what the package depends on" "${text}" "libc6.*libstdc\\+\\+6")
if(text MATCHES "freerdp|winpr|xrdp")
    message(FATAL_ERROR "the package depends on what only its RDP hosts need: ${text}")
endif()
set(contents_freerdp ./usr/lib/[a-z0-9_-]+/freerdp[23]/libNRVOCW-client.so)
set(contents_xrdp ./usr/bin/norvo-xrdp-agent ./etc/xdg/autostart/norvo-xrdp-agent.desktop
    ${share}/doc/norvo-virtual-channel-xrdp/README.Debian)
foreach(component ${RDP_COMPONENTS})
    file(GLOB extra ${STAGE}/made/norvo-virtual-channel-${component}_*.deb)
    expect_contents(${component} "${extra}" ${contents_${component}})
    run(dpkg-deb --field ${extra} Depends)
    expect("what ${component} depends on" "${text}" "norvo-virtual-channel [(]= .*libstdc")
endforeach()

run(dpkg-deb --extract ${package} ${STAGE}/unpacked)
use_installed(${STAGE}/unpacked/usr)
