// Aligned allocation and fills; in the static library that tests link, also
// the live-block counter and allocation fault injection (xelo_hooks.h).
//
// Both allocator pairs sit on posix_memalign with 32-byte alignment. They are
// kept as two entry points so the codec can route hot-path buffers through
// the "fast" pair later without touching its callers; a block must still go
// back through the pair that produced it. A request of 0 bytes returns a
// unique 32-byte block (never null unless allocation fails), so callers can
// treat null as "out of memory" only.
#include <stdlib.h>

#include <atomic>
#include <cstring>

#include "xelo.h"
#include "xelo/xelo_hooks.h"

namespace xelo {
namespace {

constexpr size_t kAlign = 32;

#if defined(KIVO_TEST_HOOKS)
// Blocks handed out by either aligned allocator and not yet returned.
std::atomic<int32_t> g_live{0};
// Countdown for fault injection: when it moves from 1 to 0 that allocation
// fails. Values <= 0 mean no fault is armed.
std::atomic<int32_t> g_fail_countdown{0};

// Consumes one step of the fault countdown; true when this allocation must
// fail. Safe under concurrent callers: exactly one of them sees the 1 -> 0
// transition.
bool injected_failure() {
    int32_t c = g_fail_countdown.load(std::memory_order_relaxed);
    while (c > 0) {
        if (g_fail_countdown.compare_exchange_weak(c, c - 1, std::memory_order_relaxed))
            return c == 1;
    }
    return false;
}
#endif

void *aligned_alloc32(size_t size) {
#if defined(KIVO_TEST_HOOKS)
    if (injected_failure()) return nullptr;
#endif
    void *p = nullptr;
    if (posix_memalign(&p, kAlign, size ? size : kAlign) != 0) return nullptr;
#if defined(KIVO_TEST_HOOKS)
    g_live.fetch_add(1, std::memory_order_relaxed);
#endif
    return p;
}

void aligned_free32(void *p) {
    if (!p) return;
#if defined(KIVO_TEST_HOOKS)
    g_live.fetch_sub(1, std::memory_order_relaxed);
#endif
    free(p);
}

void fill(void *dst, int value, size_t size) {
    if (!dst || size == 0) return;
    std::memset(dst, value, size);
}

}  // namespace
}  // namespace xelo

extern "C" {

XELO_API void *xelo_malloc_align32(size_t size) { return xelo::aligned_alloc32(size); }
XELO_API void xelo_mfree_align32(void *p) { xelo::aligned_free32(p); }
XELO_API void *xelo_malloc_fast_align32(size_t size) { return xelo::aligned_alloc32(size); }
XELO_API void xelo_mfree_fast_align32(void *p) { xelo::aligned_free32(p); }

// Both fills accept any size; the "a" variant is the one callers use on
// blocks from the aligned allocators.
XELO_API void xelo_mset_x64(void *dst, int value, size_t size) { xelo::fill(dst, value, size); }
XELO_API void xelo_mset_x64a(void *dst, int value, size_t size) { xelo::fill(dst, value, size); }

#if defined(KIVO_TEST_HOOKS)
int32_t xelo_mem_live(void) { return xelo::g_live.load(std::memory_order_relaxed); }

void xelo_mem_fail_at(int32_t n) {
    xelo::g_fail_countdown.store(n > 0 ? n : 0, std::memory_order_relaxed);
}
#endif

}  // extern "C"
