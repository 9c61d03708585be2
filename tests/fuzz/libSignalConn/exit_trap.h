// Handling a message in a fuzz target: where the library ends the process, only the handling ends, and nothing
// of it is left.
#ifndef SIGNALCONN_TESTS_EXIT_TRAP_H
#define SIGNALCONN_TESTS_EXIT_TRAP_H

#include <functional>

// Runs handling. Returns whether it came to its end; false: exit() was called inside, and the stack above was
// abandoned. What handling allocates (new, cJSON) and has not freed is freed then, so it must keep nothing
// outside. Link with --wrap=exit.
bool RunTrappingExit(const std::function<void()>& handling);

#endif  // SIGNALCONN_TESTS_EXIT_TRAP_H
