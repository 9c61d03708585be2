# The first engine, on GStreamer webrtcbin. Not linked into anything any more.
pkg_check_modules(gstreamer REQUIRED IMPORTED_TARGET gstreamer-1.0>=1.22 gstreamer-app-1.0 gstreamer-rtp-1.0
                  gstreamer-sdp-1.0 gstreamer-webrtc-1.0)
pkg_check_modules(libcrypto REQUIRED IMPORTED_TARGET libcrypto)

add_library(signalconn_webrtcbin_engine STATIC EXCLUDE_FROM_ALL
            webrtcbin_access_unit.cpp
            webrtcbin_candidate.cpp
            webrtcbin_control.cpp
            webrtcbin_gstreamer.cpp
            webrtcbin_log.cpp
            webrtcbin_media.cpp
            webrtcbin_offer.cpp
            webrtcbin_pipeline.cpp
            webrtcbin_session.cpp
            webrtcbin_streamer.cpp)
target_include_directories(signalconn_webrtcbin_engine PUBLIC ${PROJECT_SOURCE_DIR}/include)
# webrtcbin's library says at every inclusion that its interface may still change.
target_compile_definitions(signalconn_webrtcbin_engine PRIVATE GST_USE_UNSTABLE_API)
target_link_libraries(signalconn_webrtcbin_engine PRIVATE signalconn_warnings PkgConfig::gstreamer PkgConfig::libcrypto
                      PkgConfig::cjson Threads::Threads)
