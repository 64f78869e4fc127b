// Creation, deletion and fork-join shared by the decoder, encoder and
// transcoder handles.
#include <cstring>

#include "common/kivo_int.h"

namespace kivo {
namespace {

kivo_tpool &tpool_of(const Family &fam, void *ctx) {
    return *reinterpret_cast<kivo_tpool *>(static_cast<uint8_t *>(ctx) + fam.off_tpool);
}
void **threads_of(const Family &fam, void *ctx) {
    return reinterpret_cast<void **>(static_cast<uint8_t *>(ctx) + fam.off_threads);
}

void release_workers(const Family &fam, void *ctx) {
    kivo_tpool &tp = tpool_of(fam, ctx);
    void **threads = threads_of(fam, ctx);
    for (int i = 1; i < kMaxThreads; ++i) {
        if (threads[i]) {
            if (tp.release) tp.release(threads[i]);
            threads[i] = nullptr;
        }
    }
}

void *unwind(const Family &fam, void *ctx, int32_t code, int32_t *status) {
    release_workers(fam, ctx);
    std::memset(static_cast<uint8_t *>(ctx) + fam.off_proc, 0, fam.proc_size);
    xelo_mfree_align32(ctx);
    if (status) *status = code;
    return nullptr;
}

}  // namespace

void *handle_create(const Family &fam, const void *create_param, const kivo_tpool *tpool,
                    int32_t *status) {
    void *ctx = xelo_malloc_align32(fam.ctx_size);
    if (!ctx) {
        if (status) *status = KIVO_ERR_OUT_OF_MEMORY;
        return nullptr;
    }
    xelo_mset_x64a(ctx, 0, fam.ctx_size);

    int32_t ret = fam.platform_init(ctx, create_param);
    if (ret != 0) return unwind(fam, ctx, ret, status);

    kivo_tpool &tp = tpool_of(fam, ctx);
    if (tpool) {
        tp = *tpool;
        if (tp.count > 1) {
            if (tp.count > kMaxThreads) tp.count = kMaxThreads;
            void **threads = threads_of(fam, ctx);
            for (int32_t i = 1; i < tp.count; ++i) {
                threads[i] = tp.create ? tp.create(&tp, i) : nullptr;
                if (!threads[i]) return unwind(fam, ctx, KIVO_ERR_THREAD, status);
            }
        }
    } else {
        tp.count = 1;
    }

    ret = fam.ready ? fam.ready(ctx) : 0;
    if (ret != 0) {
        if (fam.flush) fam.flush(ctx);  // gives back whatever ready made before failing
        return unwind(fam, ctx, ret, status);
    }

    if (status) *status = KIVO_OK;
    HandleHead *head = static_cast<HandleHead *>(ctx);
    head->magic = fam.magic;
    head->self = ctx;
    return ctx;
}

void handle_delete(const Family &fam, void *handle) {
    void *ctx = handle_check(handle, fam.magic);
    if (!ctx) return;
    release_workers(fam, ctx);
    if (fam.flush) fam.flush(ctx);
    if (fam.finish) fam.finish(ctx);
    std::memset(static_cast<uint8_t *>(ctx) + fam.off_proc, 0, fam.proc_size);
    xelo_mfree_align32(ctx);
}

int32_t fork_join(const kivo_tpool &tp, void *const *threads, int n, kivo_job_fn job,
                  void *const *args) {
    if (n < 2) {
        int32_t ret = job(args[0]);
        return ret < 0 ? ret : KIVO_OK;
    }
    int started = 1;
    int32_t refused = KIVO_OK;
    for (int i = 1; i < n; ++i) {
        int32_t ret = tp.run(threads[i], job, args[i]);
        if (ret < 0) {
            refused = ret;
            break;
        }
        started = i + 1;
    }
    int32_t status = KIVO_OK;
    if (refused == KIVO_OK) {
        int32_t ret = job(args[0]);
        if (ret < 0) status = ret;
    }
    for (int i = 1; i < started; ++i) {
        int32_t ret = KIVO_OK;
        tp.wait(threads[i], &ret);
        if (ret < 0) status = ret;
    }
    return refused != KIVO_OK ? refused : status;
}

}  // namespace kivo
