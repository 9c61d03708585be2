# What reads packetized H.264 back, for the tests and the fuzz targets of the media core.
add_library(signalconn_h264_depacketizer STATIC ${CMAKE_CURRENT_LIST_DIR}/h264_depacketizer.cpp)
target_include_directories(signalconn_h264_depacketizer PUBLIC ${CMAKE_CURRENT_LIST_DIR})
target_link_libraries(signalconn_h264_depacketizer PUBLIC signalconn_engine_media PRIVATE signalconn_warnings)

add_executable(
  engine_media_test
  annexb_test.cpp
  connection_state_test.cpp
  consent_test.cpp
  h264_packetizer_test.cpp
  ice_candidate_test.cpp
  ice_server_url_test.cpp
  jitter_buffer_test.cpp
  key_frame_gate_test.cpp
  media_frame_test.cpp
  media_time_test.cpp
  pcmu_packetizer_test.cpp
  repair_delay_test.cpp
  rtcp_test.cpp
  rtp_packet_test.cpp
  rtp_reception_test.cpp
  rtp_sender_test.cpp
  sdp_answer_test.cpp
  sdp_negotiation_test.cpp
  sdp_offer_test.cpp
  stun_message_test.cpp
  text_test.cpp)
target_link_libraries(
  engine_media_test PRIVATE signalconn_engine_media signalconn_h264_depacketizer signalconn_warnings
                            PkgConfig::cjson PkgConfig::openssl Threads::Threads GTest::gmock GTest::gtest_main)
gtest_discover_tests(engine_media_test PROPERTIES LABELS unit TIMEOUT 120)
