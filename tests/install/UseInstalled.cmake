# Functions for the scripts of this folder.

# Fails if the command does; stores its output in `text`.
function(run)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE status OUTPUT_VARIABLE text ERROR_VARIABLE text)
    if(NOT status EQUAL 0)
        string(REPLACE ";" " " command "${ARGN}")
        message(FATAL_ERROR "${command}\n${text}")
    endif()
    set(text "${text}" PARENT_SCOPE)
endfunction()

function(expect what text pattern)
    if(NOT text MATCHES "${pattern}")
        message(FATAL_ERROR "${what}: no '${pattern}' in\n${text}")
    endif()
endfunction()

# Uses vcctl as installed under `prefix`, with only the plug-in installed with it.
function(use_installed prefix)
    set(ENV{HOME} ${prefix})
    set(vcctl ${prefix}/bin/vcctl)
    run(${vcctl} --version)
    expect("vcctl --version" "${text}" "^vcctl [0-9]+\\.[0-9]+\\.[0-9]+\n$")
    run(${vcctl} host --help)
    expect("vcctl host --help" "${text}" "--listen ADDR:PORT")
    run(${vcctl} demo --seconds 1)
    expect("vcctl demo" "${text}" "the same on return")

    file(GLOB_RECURSE plugins ${prefix}/lib*/libNorvoCrewsVirtualChannel*)
    file(REMOVE ${plugins})
    execute_process(COMMAND ${vcctl} host --listen 127.0.0.1:0 TIMEOUT 10
        OUTPUT_VARIABLE text ERROR_VARIABLE text)
    expect("vcctl host without its library" "${text}" "cannot load the plug-in library")
endfunction()
