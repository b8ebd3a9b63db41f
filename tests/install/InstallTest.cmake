# See CMakeLists.txt. Fails at the first command that fails.
function(run)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE status OUTPUT_VARIABLE text ERROR_VARIABLE text)
    if(NOT status EQUAL 0)
        string(REPLACE ";" " " command "${ARGN}")
        message(FATAL_ERROR "${command}\n${text}")
    endif()
    set(text "${text}" PARENT_SCOPE)
endfunction()

file(REMOVE_RECURSE ${STAGE})
foreach(component runtime development)
    run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${STAGE}/usr --component ${component})
endforeach()

run(${CMAKE_COMMAND} -S ${ROOT}/tests/install/outside -B ${STAGE}/build
    -DEXAMPLES=${ROOT}/examples -DCMAKE_PREFIX_PATH=${STAGE}/usr -DCMAKE_BUILD_TYPE=${BUILD_TYPE}
    -DCMAKE_C_COMPILER=${C_COMPILER} -DCMAKE_CXX_COMPILER=${CXX_COMPILER}
    -DCMAKE_C_FLAGS=${FLAGS} -DCMAKE_CXX_FLAGS=${FLAGS})
run(${CMAKE_COMMAND} --build ${STAGE}/build)

# Nobody answers in this namespace: status 1, soon, is what a program that could start says.
set(ENV{NORVO_VDI_NAMESPACE} "nvt-install")
foreach(program shared_c static_cpp static_c)
    run(${STAGE}/build/${program})
    if(NOT text MATCHES "no agent")
        message(FATAL_ERROR "${program} said: ${text}")
    endif()
endforeach()
file(GLOB left /dev/shm/nvt-install.*)
if(left)
    file(REMOVE ${left})
endif()

find_program(PKG_CONFIG pkg-config)
if(PKG_CONFIG)
    set(ENV{PKG_CONFIG_PATH} ${STAGE}/usr/${LIBDIR}/pkgconfig)
    run(${PKG_CONFIG} --cflags --libs NorvoStreamClient)
    string(STRIP "${text}" flags)
    separate_arguments(flags UNIX_COMMAND "${flags} ${FLAGS}")
    run(${C_COMPILER} ${ROOT}/tests/install/outside/probe.c -o ${STAGE}/build/pkgconfig_c ${flags})
endif()
