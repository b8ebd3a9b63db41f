# cmake -DNM=<nm> -DLIBRARY=<file> -DEXPORTS=<file> -P CheckExports.cmake: fails unless the library
# defines exactly the listed dynamic symbols.
execute_process(COMMAND ${NM} -D --defined-only --format=posix ${LIBRARY}
    OUTPUT_VARIABLE output COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "[^\n]+" lines "${output}")
set(found)
foreach(line IN LISTS lines)
    string(REGEX REPLACE "[ @].*" "" name "${line}")
    list(APPEND found ${name})
endforeach()
file(STRINGS ${EXPORTS} listed)
set(extra ${found})
set(missing ${listed})
list(REMOVE_ITEM extra ${listed})
list(REMOVE_ITEM missing ${found})
if(extra OR missing)
    message(FATAL_ERROR "exported but not listed: ${extra}\nlisted but not exported: ${missing}")
endif()
