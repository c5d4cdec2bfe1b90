// The program's own operator new.
#include "tests/support/refused_memory.h"

// A library of its own calls its own operator new on Windows: there is nothing to refuse from here.
#if defined(_WIN32)

void watch_memory(std::int64_t /*k*/) {}
std::int64_t unwatch_memory() {
    return 0;
}

#else

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

std::atomic<bool> g_Watching{false};
std::atomic<std::int64_t> g_Refused{0};
std::atomic<std::int64_t> g_Count{0};

// Null when refused. Memory comes from the heap, so that sanitizers see its use.
void* take(std::size_t bytes, std::size_t alignment) noexcept {
    if (g_Watching.load(std::memory_order_relaxed) &&
        g_Count.fetch_add(1, std::memory_order_relaxed) + 1 == g_Refused.load(std::memory_order_relaxed)) {
        return nullptr;
    }
    if (alignment <= alignof(std::max_align_t)) {
        return std::malloc(bytes == 0 ? 1 : bytes);
    }
    return std::aligned_alloc(alignment, (bytes + alignment - 1) / alignment * alignment);
}

void* take_or_throw(std::size_t bytes, std::size_t alignment) {
    void* const memory = take(bytes, alignment);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

}  // namespace

void watch_memory(std::int64_t k) {
    g_Count.store(0);
    g_Refused.store(k);
    g_Watching.store(true);
}

std::int64_t unwatch_memory() {
    g_Watching.store(false);
    return g_Count.load();
}

// The forms for arrays and those that take a size end in these. Sanitizers bring all of them, so all are replaced.
void* operator new(std::size_t bytes) {
    return take_or_throw(bytes, 0);
}
void* operator new[](std::size_t bytes) {
    return take_or_throw(bytes, 0);
}
void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept {
    return take(bytes, 0);
}
void* operator new[](std::size_t bytes, const std::nothrow_t&) noexcept {
    return take(bytes, 0);
}
void* operator new(std::size_t bytes, std::align_val_t alignment) {
    return take_or_throw(bytes, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t bytes, std::align_val_t alignment) {
    return take_or_throw(bytes, static_cast<std::size_t>(alignment));
}
void* operator new(std::size_t bytes, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return take(bytes, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t bytes, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return take(bytes, static_cast<std::size_t>(alignment));
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::align_val_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::align_val_t) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t, std::align_val_t) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::align_val_t, const std::nothrow_t&) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::align_val_t, const std::nothrow_t&) noexcept {
    std::free(memory);
}

#endif
