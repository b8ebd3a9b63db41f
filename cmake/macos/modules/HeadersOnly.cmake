# norvo_headers_only(<target> <name>... [DEFINE <definition>...]): the imported target of a
# header-only library in the build machine's /usr/include. Only the given names are visible to the
# compiler: the rest of /usr/include belongs to another system.
function(norvo_headers_only target)
    cmake_parse_arguments(LIBRARY "" "" "DEFINE" ${ARGN})
    if(TARGET ${target})
        return()
    endif()
    file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/headers)
    foreach(name IN LISTS LIBRARY_UNPARSED_ARGUMENTS)
        file(CREATE_LINK /usr/include/${name} ${PROJECT_BINARY_DIR}/headers/${name} SYMBOLIC)
    endforeach()
    add_library(${target} INTERFACE IMPORTED)
    target_include_directories(${target} INTERFACE ${PROJECT_BINARY_DIR}/headers)
    target_compile_definitions(${target} INTERFACE ${LIBRARY_DEFINE})
endfunction()
