# norvo_layer(<target> [FOLDERS <folder>...] SOURCES <file>... [USES <lower layer>...])
#
# One static library per layer. A layer's folder, or each of FOLDERS in it, is an include directory, and
# the layer sees only its own and those of the layers it names in USES.
function(norvo_layer target)
    cmake_parse_arguments(LAYER "" "" "FOLDERS;SOURCES;USES" ${ARGN})
    if(NOT LAYER_FOLDERS)
        set(LAYER_FOLDERS .)
    endif()
    add_library(${target} STATIC ${LAYER_SOURCES})
    target_include_directories(${target} PUBLIC ${LAYER_FOLDERS})
    target_link_libraries(${target} PUBLIC ${LAYER_USES} PRIVATE norvo_options)
endfunction()
