# Fuzz targets of the media core's parsers. seeds/<subject> is what each begins with, dictionaries/<subject>, where there
# is one, what its inputs are made of.
function(add_media_fuzz_target subject)
  add_executable(engine_fuzz_${subject} ${CMAKE_CURRENT_LIST_DIR}/${subject}_fuzz.cpp)
  target_link_libraries(engine_fuzz_${subject} PRIVATE signalconn_engine_media signalconn_h264_depacketizer)
  set(dictionary ${CMAKE_CURRENT_LIST_DIR}/dictionaries/${subject})
  if(EXISTS ${dictionary})
    set(dictionary_option -dict=${dictionary})
  endif()
  signalconn_fuzz_test(engine_fuzz_${subject} seeds/${subject} ${dictionary_option})
endfunction()

foreach(subject h264_packetizer ice_candidate ice_server_url jitter_buffer rtcp rtp_packet sdp stun_message)
  add_media_fuzz_target(${subject})
endforeach()
