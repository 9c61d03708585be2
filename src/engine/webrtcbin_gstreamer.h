// What GLib and GStreamer objects need in C++: owners, and one-time setting up.
#ifndef SIGNALCONN_ENGINE_WEBRTCBIN_GSTREAMER_H
#define SIGNALCONN_ENGINE_WEBRTCBIN_GSTREAMER_H

#include <gst/gst.h>

#include <memory>

namespace engine {

struct Unref {
  void operator()(gpointer object) const { gst_object_unref(object); }
  void operator()(GstCaps* caps) const { gst_caps_unref(caps); }
  void operator()(GstMemory* memory) const { gst_memory_unref(memory); }
};
template <typename T>
using Owned = std::unique_ptr<T, Unref>;

struct Free {
  void operator()(gpointer block) const { g_free(block); }
};
using OwnedText = std::unique_ptr<gchar, Free>;

// Readies GStreamer, once per process, and makes one of each element ahead of the first session, which would
// otherwise wait for their plug-ins to load. Returns false when one is missing; the log says which.
bool setUpGStreamer();

}  // namespace engine

#endif  // SIGNALCONN_ENGINE_WEBRTCBIN_GSTREAMER_H
