#include "webrtcbin_gstreamer.h"

#include <openssl/crypto.h>

#include "webrtcbin_log.h"

namespace engine {
namespace {

// GLib's own handler would write to standard error whatever the level, and some of it to standard output.
void takeGLibMessage(const gchar* domain, GLogLevelFlags level, const gchar* message, gpointer) {
  const LogLevel ours =
      (level & (G_LOG_LEVEL_ERROR | G_LOG_LEVEL_CRITICAL)) != 0 ? LogLevel::kWarning : LogLevel::kEverything;
  log(ours, std::string(domain == nullptr ? "glib" : domain) + ": " + (message == nullptr ? "" : message));
}

bool makeEveryElement() {
  bool complete = true;
  for (const char* name : {"webrtcbin", "nicesrc", "nicesink", "dtlsdec", "dtlsenc", "srtpdec", "srtpenc", "rtpbin",
                           "rtprtxsend", "rtprtxreceive", "appsrc", "appsink", "fakesink"}) {
    GstElement* element = gst_element_factory_make(name, nullptr);
    if (element == nullptr) {
      log(LogLevel::kError, std::string("GStreamer's element ") + name + " is missing");
      complete = false;
      continue;
    }
    gst_object_unref(gst_object_ref_sink(element));
  }
  return complete;
}

bool setUp() {
  // exit() may run on one thread while sessions still encrypt on others: OpenSSL must not dismantle itself then.
  OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
  g_log_set_default_handler(takeGLibMessage, nullptr);
  GError* error = nullptr;
  if (!gst_init_check(nullptr, nullptr, &error)) {
    log(LogLevel::kError, std::string("GStreamer does not start: ") + error->message);
    g_error_free(error);
    return false;
  }
  return makeEveryElement();
}

}  // namespace

bool setUpGStreamer() {
  static const bool ready = setUp();
  return ready;
}

}  // namespace engine
