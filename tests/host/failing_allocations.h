// Lets the allocations of operator new fail, one after the other. Replaces operator new, so one
// source of a program includes this.
#ifndef FAILING_ALLOCATIONS_H
#define FAILING_ALLOCATIONS_H

#include <cstddef>
#include <cstdlib>
#include <new>

// Allocations that still succeed before all further ones fail; negative: none fails.
inline long allocations_left = -1;

// Not inlined: seen together with the compiler's own idea of operator new, malloc and free look
// mismatched to it.
__attribute__((noinline)) void *operator new(std::size_t size) {
    if (allocations_left == 0)
        throw std::bad_alloc();
    if (allocations_left > 0)
        allocations_left--;
    if (void *memory = std::malloc(size == 0 ? 1 : size))
        return memory;
    throw std::bad_alloc();
}

__attribute__((noinline)) void operator delete(void *memory) noexcept { std::free(memory); }
__attribute__((noinline)) void operator delete(void *memory, std::size_t) noexcept {
    std::free(memory);
}

// Calls `call` with room for `allowed` allocations.
template <typename Call>
auto with_allocations(long allowed, Call call) {
    struct Limit {
        explicit Limit(long count) { allocations_left = count; }
        ~Limit() { allocations_left = -1; }
    } limit(allowed);
    return call();
}

#endif
