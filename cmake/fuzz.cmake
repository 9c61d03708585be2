# Makes a fuzz target of libFuzzer's a test that searches for SIGNALCONN_FUZZ_SECONDS, beginning with these seeds.
# Further arguments: libFuzzer's.
function(signalconn_fuzz_test name seeds)
  target_link_libraries(${name} PRIVATE signalconn_warnings)
  target_link_options(${name} PRIVATE -fsanitize=fuzzer)
  # New inputs go to a corpus of the build, so that a later run goes on where this one ended.
  set(corpus ${CMAKE_CURRENT_BINARY_DIR}/corpus/${name})
  file(MAKE_DIRECTORY ${corpus})
  add_test(NAME ${name}
    COMMAND ${name} -max_total_time=${SIGNALCONN_FUZZ_SECONDS} -timeout=20
      -artifact_prefix=${CMAKE_CURRENT_BINARY_DIR}/ ${ARGN} ${corpus} ${CMAKE_CURRENT_SOURCE_DIR}/${seeds})
  math(EXPR limit "${SIGNALCONN_FUZZ_SECONDS} + 120")
  set_tests_properties(${name} PROPERTIES LABELS fuzz TIMEOUT ${limit})
endfunction()
