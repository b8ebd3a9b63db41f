# xxHash::headers: xxHash compiled into its user (XXH_INLINE_ALL).
find_path(xxHash_INCLUDE_DIR xxhash.h)
include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(xxHash REQUIRED_VARS xxHash_INCLUDE_DIR)
if(xxHash_FOUND AND NOT TARGET xxHash::headers)
    add_library(xxHash::headers INTERFACE IMPORTED)
    target_include_directories(xxHash::headers INTERFACE ${xxHash_INCLUDE_DIR})
endif()
