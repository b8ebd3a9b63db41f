# See CMakeLists.txt. Fails if any command fails.
include(${CMAKE_CURRENT_LIST_DIR}/UseInstalled.cmake)

file(REMOVE_RECURSE ${STAGE})
foreach(component runtime development)
    run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${STAGE}/usr --component ${component})
endforeach()

function(build_outside folder)
    run(${CMAKE_COMMAND} -S ${ROOT}/tests/install/outside -B ${STAGE}/${folder} ${ARGN}
        -DEXAMPLES=${ROOT}/examples -DCMAKE_PREFIX_PATH=${STAGE}/usr -DCMAKE_BUILD_TYPE=${BUILD_TYPE}
        -DCMAKE_C_COMPILER=${C_COMPILER} -DCMAKE_C_FLAGS=${FLAGS} -DCMAKE_CXX_FLAGS=${FLAGS})
    run(${CMAKE_COMMAND} --build ${STAGE}/${folder})
endfunction()
build_outside(build -DCMAKE_CXX_COMPILER=${CXX_COMPILER})
build_outside(build_c -DLANGUAGES=C)

# The static library's internal names must not clash with those of a program that links it.
find_program(NM nm REQUIRED)
run(${NM} -C --defined-only -g ${STAGE}/usr/${LIBDIR}/libNorvoStreamClient.a)
string(REGEX MATCHALL "[0-9a-f]+ [TDBRSC] [^\n]+" strong "${text}")
list(FILTER strong EXCLUDE REGEX
    " (norvo_[a-z_]+|(NorvoStreamClient::)(Client|Connection|Status|Stream|textOf)(::|[(]).*)$")
if(strong OR NOT text MATCHES " T norvo_client_open")
    message(FATAL_ERROR "names in the static library that are not in its headers:\n${strong}")
endif()

# Nobody answers in this namespace, and a program that starts says so.
set(ENV{NORVO_VDI_NAMESPACE} "nvt-install")
foreach(program build/shared_c build/static_cpp build/static_c build_c/static_c)
    run(${STAGE}/${program})
    expect("${program}" "${text}" "no agent")
endforeach()
run(${CMAKE_COMMAND} -E env HOME=${STAGE} sh -c "${STAGE}/build/host </dev/null >/dev/null")
file(GLOB left /dev/shm/nvt-install.*)
if(left)
    file(REMOVE ${left})
endif()

find_program(PKG_CONFIG pkg-config)
if(PKG_CONFIG)
    set(ENV{PKG_CONFIG_PATH} ${STAGE}/usr/${LIBDIR}/pkgconfig)
    foreach(package NorvoStreamClient NorvoCrewsVirtualChannel)
        run(${PKG_CONFIG} --cflags --libs ${package})
        string(STRIP "${text}" flags)
        separate_arguments(flags UNIX_COMMAND "${flags} ${FLAGS}")
        set(source_NorvoStreamClient ${ROOT}/tests/install/outside/probe.c)
        set(source_NorvoCrewsVirtualChannel ${ROOT}/examples/host.c)
        run(${C_COMPILER} ${source_${package}} -o ${STAGE}/build/pkgconfig_c ${flags})
    endforeach()
endif()

if(TOOL)
    use_installed(${STAGE}/usr)
endif()
