# See CMakeLists.txt. Makes the Debian package, unpacks it and uses what is in it.
include(${CMAKE_CURRENT_LIST_DIR}/UseInstalled.cmake)

file(REMOVE_RECURSE ${STAGE})
run(${CPACK} --config ${BUILD}/CPackConfig.cmake -G DEB -B ${STAGE}/made)
file(GLOB package ${STAGE}/made/*.deb)

run(dpkg-deb --contents ${package})
set(share ./usr/share)
foreach(path
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
    string(REPLACE "." "\\." pattern "${path}")
    expect("the package" "${text}" " ${pattern}( |\n)")
endforeach()

run(dpkg-deb --field ${package} Depends)
expect("what the package depends on" "${text}" "libc6.*libstdc\\+\\+6")
run(dpkg-deb --extract ${package} ${STAGE}/unpacked)
use_installed(${STAGE}/unpacked/usr)
