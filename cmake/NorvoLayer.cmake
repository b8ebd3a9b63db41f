# norvo_layer(<target> [FOLDERS <folder>...] [SOURCES <file>...] [USES <lower layer>...])
#
# One static library per layer, or an interface library for a header-only layer. A layer's folder, or each of FOLDERS
# in it, is an include directory, and the layer sees only its own and those of the layers it names in USES.
# Each source gets its path from the top of the tree, without suffix, for its log lines (NORVO_SOURCE, Log.h).
function(norvo_layer target)
    cmake_parse_arguments(LAYER "" "" "FOLDERS;SOURCES;USES" ${ARGN})
    if(NOT LAYER_FOLDERS)
        set(LAYER_FOLDERS .)
    endif()
    if(LAYER_SOURCES)
        add_library(${target} STATIC ${LAYER_SOURCES})
        target_include_directories(${target} PUBLIC ${LAYER_FOLDERS})
        target_link_libraries(${target} PUBLIC ${LAYER_USES} PRIVATE norvo_options)
    else()
        add_library(${target} INTERFACE)
        target_include_directories(${target} INTERFACE ${LAYER_FOLDERS})
        target_link_libraries(${target} INTERFACE ${LAYER_USES})
    endif()
    foreach(source IN LISTS LAYER_SOURCES)
        cmake_path(ABSOLUTE_PATH source BASE_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR} OUTPUT_VARIABLE path)
        cmake_path(RELATIVE_PATH path BASE_DIRECTORY ${PROJECT_SOURCE_DIR})
        cmake_path(REMOVE_EXTENSION path LAST_ONLY)
        set_property(SOURCE ${source} APPEND PROPERTY COMPILE_DEFINITIONS NORVO_SOURCE="${path}")
    endforeach()
    norvo_layer_rule(${target} USES ${LAYER_USES})
endfunction()

# norvo_layer_rule(<layer> [FILE <header>] [USES <lower layer>...]): files in the current folder, except in other
# layers' folders below it (or only FILE), may include only their own headers and those of the layers in USES and of
# the layers these use in turn. A test enforces it (CheckLayers.cmake), even where the compiler would find more.
function(norvo_layer_rule layer)
    cmake_parse_arguments(RULE "" "FILE" "USES" ${ARGN})
    file(RELATIVE_PATH folder ${PROJECT_SOURCE_DIR} ${CMAKE_CURRENT_SOURCE_DIR})
    list(TRANSFORM RULE_USES REPLACE "^norvo_" "")
    string(REGEX REPLACE "^norvo_" "" name ${layer})
    list(JOIN RULE_USES " " uses)
    set_property(GLOBAL APPEND_STRING PROPERTY NORVO_LAYER_RULES "layer(${name} ${folder}/${RULE_FILE} ${uses})\n")
endfunction()

# norvo_write_layer_rules(<file>): the rules of all folders added so far, for CheckLayers.cmake.
function(norvo_write_layer_rules file)
    get_property(rules GLOBAL PROPERTY NORVO_LAYER_RULES)
    file(CONFIGURE OUTPUT ${file} CONTENT "${rules}" @ONLY)
endfunction()
