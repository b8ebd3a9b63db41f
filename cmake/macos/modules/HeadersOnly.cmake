# norvo_headers_only(<target> <folder> [<definition>...]): the imported target of a library whose
# headers are all there is to it, from the building machine's /usr/include. Only the library's own
# folder is shown to the compiler: the rest of /usr/include belongs to another system.
function(norvo_headers_only target folder)
    if(TARGET ${target})
        return()
    endif()
    file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/headers)
    file(CREATE_LINK /usr/include/${folder} ${PROJECT_BINARY_DIR}/headers/${folder} SYMBOLIC)
    add_library(${target} INTERFACE IMPORTED)
    target_include_directories(${target} INTERFACE ${PROJECT_BINARY_DIR}/headers)
    target_compile_definitions(${target} INTERFACE ${ARGN})
endfunction()
