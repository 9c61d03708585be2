#include "exit_trap.h"

#include <cjson/cJSON.h>

#include <csetjmp>
#include <cstddef>
#include <cstdlib>
#include <new>

extern "C" [[noreturn]] void __real_exit(int status);
extern "C" [[noreturn]] void __wrap_exit(int status);

namespace {

// In front of every block; those of a handling form a list.
struct alignas(std::max_align_t) Header {
  Header* next;
  Header* previous;
};

Header blocks{&blocks, &blocks};
thread_local bool handlingNow = false;
std::jmp_buf wayOut;

void* Allocate(std::size_t size) {
  auto* header = static_cast<Header*>(std::malloc(sizeof(Header) + size));
  if (header == nullptr) return nullptr;
  header->next = header->previous = nullptr;
  if (handlingNow) {
    header->next = blocks.next;
    header->previous = &blocks;
    blocks.next->previous = header;
    blocks.next = header;
  }
  return header + 1;
}

void Free(void* block) {
  if (block == nullptr) return;
  Header* header = static_cast<Header*>(block) - 1;
  if (header->next != nullptr) {
    header->next->previous = header->previous;
    header->previous->next = header->next;
  }
  std::free(header);
}

}  // namespace

void* operator new(std::size_t size) {
  void* block = Allocate(size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept { return Allocate(size); }
void operator delete(void* block) noexcept { Free(block); }
void operator delete(void* block, const std::nothrow_t& /*tag*/) noexcept { Free(block); }
void operator delete(void* block, std::size_t /*size*/) noexcept { Free(block); }

void __wrap_exit(int status) {
  if (handlingNow) std::longjmp(wayOut, 1);
  __real_exit(status);
}

bool RunTrappingExit(const std::function<void()>& handling) {
  cJSON_Hooks hooks{Allocate, Free};
  cJSON_InitHooks(&hooks);
  handlingNow = true;
  if (setjmp(wayOut) == 0) {
    handling();
    handlingNow = false;
    return true;
  }
  handlingNow = false;
  while (blocks.next != &blocks) Free(blocks.next + 1);
  return false;
}
