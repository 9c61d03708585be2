#include "exit_gate.h"

#include <unistd.h>

namespace {

thread_local int passesOfThisThread = 0;

}  // namespace

// Counting in before looking at the flag, and setting the flag before looking at the count: one of the two
// sides sees the other.
ExitGate::Pass::Pass(ExitGate* gate) : gate_(gate) {
  gate_->inside_.fetch_add(1);
  ++passesOfThisThread;
  open_ = !gate_->shut_.load();
}

ExitGate::Pass::~Pass() {
  --passesOfThisThread;
  gate_->inside_.fetch_sub(1);
}

void ExitGate::ShutAndWait(int milliseconds) {
  shut_.store(true);
  for (int waited = 0; inside_.load() > passesOfThisThread && waited < milliseconds; ++waited) usleep(1000);
}
