# qm_fuzz(NAME SOURCES... LIBS...): a fuzz target. One of the sources defines LLVMFuzzerTestOneInput; fuzz/corpus/NAME/
# holds its inputs, the regression cases among them.
#
# With QM_FUZZ=ON (clang) it is built as the libFuzzer program fuzz_NAME. With QM_BUILD_TESTS=ON the same function is
# also built with a main of our own that runs over the corpus, as the CTest test fuzz_replay_NAME; an empty or
# missing corpus fails the test.
function(qm_fuzz name)
  cmake_parse_arguments(arg "" "" "SOURCES;LIBS" ${ARGN})
  if(QM_FUZZ)
    add_executable(fuzz_${name} ${arg_SOURCES})
    target_link_libraries(fuzz_${name} PRIVATE qm_options ${arg_LIBS})
    target_link_options(fuzz_${name} PRIVATE -fsanitize=fuzzer)
  endif()
  if(QM_BUILD_TESTS)
    add_executable(fuzz_replay_${name} ${arg_SOURCES} "${CMAKE_SOURCE_DIR}/fuzz/replay_main.cpp")
    target_link_libraries(fuzz_replay_${name} PRIVATE qm_options ${arg_LIBS})
    add_test(NAME fuzz_replay_${name}
      COMMAND fuzz_replay_${name} "${CMAKE_SOURCE_DIR}/fuzz/corpus/${name}")
    set_tests_properties(fuzz_replay_${name} PROPERTIES TIMEOUT 120)
  endif()
endfunction()
