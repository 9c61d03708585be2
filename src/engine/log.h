// What the engine says on standard error: plain lines, never more than the level that was asked for.
#ifndef SIGNALCONN_ENGINE_LOG_H
#define SIGNALCONN_ENGINE_LOG_H

namespace kovra {

// The numbers are initKovraLibrary's levels.
enum class LogLevel : unsigned { kError = 1, kWarning = 2, kSession = 3, kEverything = 4 };

// Until it is called, warnings and errors are written. Any thread.
void SetLogLevel(unsigned level);
bool IsLogged(LogLevel level);

// Writes one line, cut at 1000 bytes, with one system call. Any thread. The text brings no line end.
void Log(LogLevel level, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace kovra

#endif  // SIGNALCONN_ENGINE_LOG_H
