# The tests of what the engine puts around the media core, each room by itself.
add_executable(
  engine_transport_test
  callback_thread_test.cpp
  dtls_transport_test.cpp
  frame_queue_test.cpp
  host_resolver_test.cpp
  network_thread_test.cpp
  recent_frames_test.cpp
  session_table_test.cpp
  srtp_transport_test.cpp
  streamer_test.cpp
  stun_discovery_test.cpp
  udp_inlet_test.cpp
  udp_path_test.cpp
  video_input_test.cpp
  viewer_session_test.cpp
  viewer_media_test.cpp)
target_include_directories(engine_transport_test PRIVATE ${PROJECT_SOURCE_DIR}/src/engine)
target_link_libraries(
  engine_transport_test PRIVATE signalconn_engine signalconn_engine_media signalconn_engine_sanitizers signalconn_warnings PkgConfig::nice
                                PkgConfig::openssl GTest::gmock GTest::gtest_main)
gtest_discover_tests(engine_transport_test PROPERTIES LABELS unit TIMEOUT 120)
