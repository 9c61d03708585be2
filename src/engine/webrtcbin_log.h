// The engine's lines on standard error.
#ifndef SIGNALCONN_ENGINE_WEBRTCBIN_LOG_H
#define SIGNALCONN_ENGINE_WEBRTCBIN_LOG_H

#include <string>

namespace engine {

enum class LogLevel : unsigned int { kNothing, kError, kWarning, kSession, kEverything };

// How much is written from here on; warnings and errors until it is called.
void setLogLevel(LogLevel level);

// Writes text as one line when the level asks for it. Line breaks and other control characters in it become
// blanks and a long text is cut, since parts of it come from viewers. Any thread.
void log(LogLevel level, const std::string& text);

}  // namespace engine

#endif  // SIGNALCONN_ENGINE_WEBRTCBIN_LOG_H
