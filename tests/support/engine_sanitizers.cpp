// What the sanitizers have to know in a program that links the engine. They call these by name; without a sanitizer
// nobody does.

extern "C" {

// Whole call stacks, to tell the leak below from others.
const char* __asan_default_options() { return "fast_unwind_on_malloc=0"; }

// GLib's initialiser keeps a block for the life of the process and loses sight of it.
const char* __lsan_default_suppressions() { return "leak:call_init\n"; }

const char* __lsan_default_options() { return "print_suppressions=0"; }

// GLib and libnice synchronise where the sanitizer does not see it: what happens inside them is left out.
const char* __tsan_default_options() { return "ignore_noninstrumented_modules=1"; }

// Threads that still call in at the end of the process read the engine's pointer to its implementation while
// the destructor takes it away. Either value will do for them: what it points to stays.
const char* __tsan_default_suppressions() { return "race_top:std::__uniq_ptr_impl<KovraStreamer::Impl\n"; }

}  // extern "C"
