# Fuzz targets of the media core's parsers. seeds/<subject> is what each begins with; the test runs over the seeds
# and a little beyond. To search on: engine_fuzz_<subject> -dict=dictionaries/<subject> <new corpus> seeds/<subject>
function(add_media_fuzz_target subject)
  add_executable(engine_fuzz_${subject} ${CMAKE_CURRENT_LIST_DIR}/${subject}_fuzz.cpp)
  target_link_libraries(engine_fuzz_${subject} PRIVATE signalconn_engine_media signalconn_h264_depacketizer
                                                       signalconn_warnings)
  target_link_options(engine_fuzz_${subject} PRIVATE -fsanitize=fuzzer)
  # A copy of the seeds: libFuzzer writes what it finds into the first directory.
  set(corpus ${CMAKE_CURRENT_BINARY_DIR}/corpus/${subject})
  file(MAKE_DIRECTORY ${corpus})
  add_test(NAME engine_fuzz_${subject} COMMAND engine_fuzz_${subject} -runs=20000 -seed=1 ${corpus}
                                               ${CMAKE_CURRENT_LIST_DIR}/seeds/${subject})
  set_tests_properties(engine_fuzz_${subject} PROPERTIES LABELS fuzz TIMEOUT 600)
endfunction()

foreach(subject h264_packetizer ice_candidate ice_server_url jitter_buffer rtcp rtp_packet sdp stun_message)
  add_media_fuzz_target(${subject})
endforeach()
