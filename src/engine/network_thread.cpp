#include "network_thread.h"

#include <pthread.h>

#include <system_error>
#include <utility>

namespace kovra {

namespace {

// Tasks run in portions, so that a flood of them leaves the sockets and timers their turn.
constexpr int kTasksAtOnce = 32;

}  // namespace

// A source that is ready when something was posted, without a descriptor of its own: waking the context suffices.
struct NetworkThread::Inbox {
  GSource base;
  NetworkThread* thread;
};

struct LoopTimer::Source {
  GSource base;
  LoopTimer* timer;
};

const NetworkThread::Inbox& NetworkThread::InboxOf(GSource* source) { return *reinterpret_cast<Inbox*>(source); }

NetworkThread::NetworkThread(Task onWake)
    : onWake_(std::move(onWake)), context_(g_main_context_new()), inbox_([] {
        static GSourceFuncs functions{
            [](GSource* source, gint* timeout) -> gboolean {
              *timeout = -1;
              return InboxOf(source).thread->woken_.load(std::memory_order_acquire);
            },
            [](GSource* source) -> gboolean { return InboxOf(source).thread->woken_.load(std::memory_order_acquire); },
            [](GSource* source, GSourceFunc, gpointer) -> gboolean {
              NetworkThread* thread = InboxOf(source).thread;
              // Before the work, so that what is posted meanwhile wakes again.
              thread->woken_.store(false, std::memory_order_release);
              thread->runTasks();
              thread->onWake_();
              return G_SOURCE_CONTINUE;
            },
            nullptr,
            nullptr,
            nullptr};
        return g_source_new(&functions, sizeof(Inbox));
      }()) {
  reinterpret_cast<Inbox*>(inbox_)->thread = this;
  g_source_attach(inbox_, context_);
}

NetworkThread::~NetworkThread() {
  g_source_destroy(inbox_);
  g_source_unref(inbox_);
  g_main_context_unref(context_);
}

bool NetworkThread::start() {
  try {
    thread_ = std::thread([this] {
      pthread_setname_np(pthread_self(), "kovra-network");
      run();
    });
    return true;
  } catch (const std::system_error&) {
    return false;
  }
}

void NetworkThread::stop(Task last) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_) return;
    stopping_ = true;
    tasks_.clear();
    tasks_.push_back(std::move(last));
  }
  wake();
  if (thread_.joinable()) thread_.join();
}

void NetworkThread::post(Task task) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_) return;
    tasks_.push_back(std::move(task));
  }
  wake();
}

void NetworkThread::wake() {
  if (!woken_.exchange(true, std::memory_order_acq_rel)) g_main_context_wakeup(context_);
}

void NetworkThread::run() {
  g_main_context_push_thread_default(context_);
  for (bool stopping = false; !stopping;) {
    g_main_context_iteration(context_, TRUE);
    const std::lock_guard<std::mutex> lock(mutex_);
    stopping = stopping_ && tasks_.empty();
  }
  g_main_context_pop_thread_default(context_);
}

void NetworkThread::runTasks() {
  for (int i = 0; i < kTasksAtOnce; ++i) {
    Task task;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      if (tasks_.empty()) return;
      task = std::move(tasks_.front());
      tasks_.pop_front();
    }
    task();
  }
  wake();
}

LoopTimer::LoopTimer(GMainContext* context, std::function<void()> function)
    : function_(std::move(function)), source_([] {
        static GSourceFuncs functions{nullptr,
                                      nullptr,
                                      [](GSource* source, GSourceFunc, gpointer) -> gboolean {
                                        LoopTimer* timer = reinterpret_cast<Source*>(source)->timer;
                                        timer->set(std::nullopt);
                                        timer->function_();
                                        return G_SOURCE_CONTINUE;
                                      },
                                      nullptr,
                                      nullptr,
                                      nullptr};
        return g_source_new(&functions, sizeof(Source));
      }()) {
  reinterpret_cast<Source*>(source_)->timer = this;
  g_source_attach(source_, context);
}

LoopTimer::~LoopTimer() {
  g_source_destroy(source_);
  g_source_unref(source_);
}

void LoopTimer::set(std::optional<Micros> time) {
  if (time == time_) return;
  time_ = time;
  g_source_set_ready_time(source_, time ? time->count() : -1);
}

}  // namespace kovra
