# The engine's pure half: bytes and times in, bytes and events out. No socket, no clock, no thread of its own.
add_library(
  signalconn_engine_media STATIC
  annexb.cpp
  connection_state.cpp
  consent.cpp
  h264_packetizer.cpp
  h264_parameter_sets.cpp
  ice_candidate.cpp
  ice_server_url.cpp
  jitter_buffer.cpp
  key_frame_gate.cpp
  media_frame.cpp
  media_time.cpp
  pcmu_packetizer.cpp
  repair_delay.cpp
  rtcp.cpp
  rtp_history.cpp
  rtp_packet.cpp
  rtp_reception.cpp
  rtp_sender.cpp
  sdp_answer.cpp
  sdp_negotiation.cpp
  sdp_offer.cpp
  stun_message.cpp
  text.cpp)
target_include_directories(signalconn_engine_media PUBLIC ${CMAKE_CURRENT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include)
target_link_libraries(signalconn_engine_media PRIVATE signalconn_warnings PkgConfig::cjson PkgConfig::openssl)
