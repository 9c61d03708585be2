// Keeps an object's callers out once its destruction has begun.
#ifndef SIGNALCONN_EXIT_GATE_H
#define SIGNALCONN_EXIT_GATE_H

#include <atomic>

// The engine's threads and the application's encoder threads run on while exit() destroys the connection object. Each
// passes the gate around what it does with the object; the destructor shuts it and waits for those inside.
// Lock-free, and trivially destructible on purpose: in static storage it still answers after destruction.
class ExitGate {
 public:
  // One passage, for the scope. False in a condition: the gate is shut, stay out.
  class Pass {
   public:
    explicit Pass(ExitGate* gate);
    ~Pass();
    Pass(const Pass&) = delete;
    Pass& operator=(const Pass&) = delete;
    explicit operator bool() const { return open_; }

   private:
    ExitGate* gate_;
    bool open_;
  };

  // Shuts the gate and waits for the other threads inside, for milliseconds at most; the calling thread may
  // be inside itself (exit() within a callback).
  void ShutAndWait(int milliseconds);

 private:
  std::atomic<int> inside_{0};
  std::atomic<bool> shut_{false};
};

#endif  // SIGNALCONN_EXIT_GATE_H
