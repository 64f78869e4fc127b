// Library frame shared by the three codec families: handle creation,
// dispatch and deletion, fork-join over kivo_tpool, CPU features.
#ifndef KIVO_COMMON_INT_H
#define KIVO_COMMON_INT_H

#include <cstddef>
#include <cstdint>

#include "kivo.h"

#define KIVO_EXPORT extern "C" KIVO_API

namespace kivo {

constexpr uint32_t kMagicDecoder = 0x4A504744u;  // 'D','G','P','J'
constexpr uint32_t kMagicEncoder = 0x4A504745u;  // 'E','G','P','J' (encoder and transcoder)
constexpr int kMaxThreads = 8;

// Head of every codec context: magic, then the context's own address.
struct HandleHead {
    uint32_t magic;
    void *self;
};

// What the shared creation and deletion need to know about one family's
// context: its size and magic, where its tpool copy, thread handles and
// procedure table sit, and its family operations.
struct Family {
    uint32_t magic;
    size_t ctx_size;
    size_t off_tpool;    // kivo_tpool copy
    size_t off_threads;  // void *threads[8]
    size_t off_proc;     // procedure table
    size_t proc_size;
    // Fills the procedure table; non-zero refuses the creation.
    int32_t (*platform_init)(void *ctx, const void *create_param);
    // Calls the ready slot when it is set; 0 otherwise.
    int32_t (*ready)(void *ctx);
    // Calls the flush slot when it is set.
    void (*flush)(void *ctx);
    // Releases what else the family holds (may be null).
    void (*finish)(void *ctx);
};

// Allocates, zeroes and sets up a context; returns it with the magic and
// self pointer written, or null with *status set (status may be null).
// Every failure releases the workers made so far and frees the block.
void *handle_create(const Family &fam, const void *create_param, const kivo_tpool *tpool,
                    int32_t *status);
// Releases workers, flushes and frees a handle; ignores null or foreign handles.
void handle_delete(const Family &fam, void *handle);
// The context when the handle carries the magic, else null.
inline void *handle_check(void *handle, uint32_t magic) {
    if (!handle || static_cast<HandleHead *>(handle)->magic != magic) return nullptr;
    return handle;
}

// Fork-join: runs job(args[i]) for i = 1..n-1 on threads[i] and job(args[0])
// on the calling thread, then waits for every started job. The result is the
// last negative status met (the calling thread's first), or 0. When a run is
// refused, the jobs already started are still waited for before returning
// the refusal, so nothing they use is freed under them.
int32_t fork_join(const kivo_tpool &tp, void *const *threads, int n, kivo_job_fn job,
                  void *const *args);

// Thread limit of a tpool copy: max(1, count), at most 8.
inline int thread_limit(const kivo_tpool &tp) {
    return tp.count < 1 ? 1 : (tp.count > kMaxThreads ? kMaxThreads : tp.count);
}

}  // namespace kivo

#endif
