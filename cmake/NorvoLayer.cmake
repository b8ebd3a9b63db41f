# norvo_layer(<target> SOURCES <file>... [USES <lower layer>...])
#
# One static library per layer. A layer's folder is its include directory, and it sees
# only its own folder and those of the layers it names in USES.
function(norvo_layer target)
    cmake_parse_arguments(LAYER "" "" "SOURCES;USES" ${ARGN})
    add_library(${target} STATIC ${LAYER_SOURCES})
    target_include_directories(${target} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
    target_link_libraries(${target} PUBLIC ${LAYER_USES} PRIVATE norvo_options)
endfunction()
