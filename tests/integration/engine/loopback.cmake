# The engine against a viewer of the test's own, in one process.
add_executable(engine_loopback_test engine_loopback_test.cpp loopback_viewer.cpp)
target_include_directories(engine_loopback_test PRIVATE ${PROJECT_SOURCE_DIR}/src/engine)
target_link_libraries(
  engine_loopback_test PRIVATE signalconn_engine signalconn_engine_media signalconn_engine_sanitizers signalconn_warnings PkgConfig::nice
                               PkgConfig::openssl GTest::gmock GTest::gtest_main)
gtest_discover_tests(engine_loopback_test PROPERTIES LABELS integration TIMEOUT 300)
