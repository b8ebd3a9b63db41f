# norvo_fuzzer(<name> SOURCES <file>... USES <layer>...)
#
# A libFuzzer program fuzz_<name>. Seed inputs, if any, are the files of corpus/<name>
# beside the calling file. The target norvo_fuzzers builds all fuzzers.
add_custom_target(norvo_fuzzers)
function(norvo_fuzzer name)
    cmake_parse_arguments(FUZZER "" "" "SOURCES;USES" ${ARGN})
    add_executable(fuzz_${name} ${FUZZER_SOURCES})
    target_link_libraries(fuzz_${name} PRIVATE ${FUZZER_USES} norvo_options -fsanitize=fuzzer)
    add_dependencies(norvo_fuzzers fuzz_${name})
endfunction()
