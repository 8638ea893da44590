// SPDX-License-Identifier: MIT
//
// malloc and operator new of a program that watches them.

#include "runtime_allocator.h"

#include <cstdlib>
#include <new>

extern "C" {
// The sanitizers' allocator, where there is one, and the C library's.
// NOLINTBEGIN(bugprone-reserved-identifier): these are their names
__attribute__((weak)) void* __interceptor_malloc(std::size_t size);
__attribute__((weak)) void* __interceptor_calloc(std::size_t count,
                                                 std::size_t size);
__attribute__((weak)) void* __interceptor_realloc(void* block,
                                                  std::size_t size);
__attribute__((weak)) void __interceptor_free(void* block);
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void __libc_free(void* block);
// NOLINTEND(bugprone-reserved-identifier)
}

namespace allocator {

Watched g_watched;

namespace {

// Malloc is called before the sanitizers are ready for instrumented code.
#define UNCHECKED __attribute__((no_sanitize("address", "undefined")))
// All libraries are to find it in this program.
#define EVERYONES UNCHECKED __attribute__((visibility("default")))

/// Notes a request; whether it is to fail.
UNCHECKED bool refused(By by, std::size_t size) {
  if (!g_watched.on) return false;
  if (g_watched.requests < kMostRequests) {
    g_watched.made[g_watched.requests] = {by, size, nullptr};
  }
  ++g_watched.requests;
  switch (g_watched.mode) {
    case Fail::One:
      return g_watched.requests == g_watched.fail_at;
    case Fail::AllFromThere:
      return g_watched.requests >= g_watched.fail_at;
    case Fail::None:
      break;
  }
  return false;
}

UNCHECKED void* noted(void* block) {
  if (!g_watched.on || block == nullptr) return block;
  if (g_watched.requests <= kMostRequests) {
    g_watched.made[g_watched.requests - 1].block = block;
  }
  if (g_watched.live < kMostRequests) {
    g_watched.blocks[g_watched.live++] = block;
  }
  return block;
}

UNCHECKED void forget(void* block) {
  if (g_watched.on && block != nullptr) {
    ++g_watched.frees;
    g_watched.last_freed = block;
  }
  for (long i = g_watched.live - 1; i >= 0; --i) {
    if (g_watched.blocks[i] != block) continue;
    g_watched.blocks[i] = g_watched.blocks[--g_watched.live];
    break;
  }
}

UNCHECKED void* real_malloc(std::size_t size) {
  return __interceptor_malloc != nullptr ? __interceptor_malloc(size)
                                         : __libc_malloc(size);
}

UNCHECKED void real_free(void* block) {
  if (__interceptor_free != nullptr) {
    __interceptor_free(block);
  } else {
    __libc_free(block);
  }
}

UNCHECKED void* new_block(std::size_t size) {
  if (refused(By::New, size)) return nullptr;
  return noted(real_malloc(size == 0 ? 1 : size));
}

UNCHECKED void* new_block_or_throw(std::size_t size) {
  void* const block = new_block(size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

UNCHECKED void delete_block(void* block) {
  forget(block);
  real_free(block);
}

}  // namespace
}  // namespace allocator

using namespace allocator;

extern "C" {

EVERYONES void* malloc(std::size_t size) noexcept {
  return refused(By::Malloc, size) ? nullptr : noted(real_malloc(size));
}

EVERYONES void* calloc(std::size_t count, std::size_t size) noexcept {
  if (refused(By::Calloc, count * size)) return nullptr;
  return noted(__interceptor_calloc != nullptr
                   ? __interceptor_calloc(count, size)
                   : __libc_calloc(count, size));
}

EVERYONES void* realloc(void* block, std::size_t size) noexcept {
  if (refused(By::Realloc, size)) return nullptr;
  forget(block);
  return noted(__interceptor_realloc != nullptr
                   ? __interceptor_realloc(block, size)
                   : __libc_realloc(block, size));
}

EVERYONES void free(void* block) noexcept { delete_block(block); }

}  // extern "C"

void* operator new(std::size_t size) { return new_block_or_throw(size); }
void* operator new[](std::size_t size) { return new_block_or_throw(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return new_block(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return new_block(size);
}
void operator delete(void* block) noexcept { delete_block(block); }
void operator delete[](void* block) noexcept { delete_block(block); }
void operator delete(void* block, std::size_t) noexcept { delete_block(block); }
void operator delete[](void* block, std::size_t) noexcept {
  delete_block(block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept {
  delete_block(block);
}
void operator delete[](void* block, const std::nothrow_t&) noexcept {
  delete_block(block);
}
