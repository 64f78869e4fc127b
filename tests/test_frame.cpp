// Library frame: zig-zag tables, shared handle creation and deletion with a
// recording thread pool, the fork-join status rule, picture buffers.
#include <gtest/gtest.h>

#include <pthread.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <vector>

#include "common/kivo_int.h"
#include "kivot.h"
#include "xelo/xelo_hooks.h"

namespace {

TEST(Frame, InitIsIdempotent) {
    kivo_deinit();  // without init: nothing happens
    EXPECT_EQ(kivo_inited, 0);
    EXPECT_EQ(kivo_init(), 0);
    EXPECT_EQ(kivo_init(), 0);
    EXPECT_EQ(kivo_inited, 1);
    kivo_deinit();
    EXPECT_EQ(kivo_inited, 0);
}

TEST(Frame, ZigZagTablesFollowTheDiagonals) {
    // Walk the anti-diagonals the way T.81 orders them: odd diagonals go
    // down-left, even ones up-right.
    std::vector<int> order;
    for (int s = 0; s < 15; ++s) {
        for (int i = 0; i <= s; ++i) {
            const int row = (s % 2) ? i : s - i;
            const int col = s - row;
            if (row < 8 && col < 8) order.push_back(row * 8 + col);
        }
    }
    ASSERT_EQ(order.size(), 64u);
    for (int k = 0; k < 64; ++k) {
        EXPECT_EQ(kivo_tbl_zig_to_ras[k], order[k]) << "zig-zag index " << k;
        EXPECT_EQ(kivo_tbl_ras_to_zig[kivo_tbl_zig_to_ras[k]], k);
        EXPECT_EQ(kivo_tbl_zig_to_ras[kivo_tbl_ras_to_zig[k]], k);
    }
}

TEST(Frame, EveryStatusHasItsOwnText) {
    const int32_t codes[] = {KIVO_OK, KIVO_ERR_OUT_OF_MEMORY, KIVO_ERR_UNSUPPORTED, KIVO_ERR_UNAVAILABLE,
                             KIVO_ERR_INVALID_ARG, KIVO_ERR_OPEN, KIVO_ERR_IO, KIVO_ERR_MALFORMED,
                             KIVO_ERR_IMGB, KIVO_ERR_COLOR_FORMAT, KIVO_ERR_THREAD};
    const std::string unknown = kivo_strerror(-7);
    for (int32_t a : codes) {
        EXPECT_NE(unknown, kivo_strerror(a)) << a;
        for (int32_t b : codes) {
            if (a != b) {
                EXPECT_STRNE(kivo_strerror(a), kivo_strerror(b));
            }
        }
    }
}

// ---- shared handle creation with a recording pool -------------------------------

struct Recorder {
    std::vector<int> created;
    std::vector<int> released;
    int fail_at = -1;
};
Recorder *g_rec = nullptr;

struct FakeThread {
    int idx;
};

void *rec_create(kivo_tpool *, int32_t idx) {
    if (idx == g_rec->fail_at) return nullptr;
    g_rec->created.push_back(idx);
    return new FakeThread{idx};
}
int32_t rec_release(void *t) {
    g_rec->released.push_back(static_cast<FakeThread *>(t)->idx);
    delete static_cast<FakeThread *>(t);
    return 0;
}

struct FakeCtx {
    kivo::HandleHead head;
    int ready_calls;
    int flush_calls;
    kivo_tpool tpool;
    void *threads[8];
    void *proc[2];
};

int32_t fake_platform_init(void *ctx, const void *) {
    static_cast<FakeCtx *>(ctx)->proc[0] = reinterpret_cast<void *>(&rec_create);
    return 0;
}
int32_t fake_ready(void *ctx) {
    ++static_cast<FakeCtx *>(ctx)->ready_calls;
    return 0;
}
void fake_flush(void *ctx) { ++static_cast<FakeCtx *>(ctx)->flush_calls; }

const kivo::Family kFake = {0x4B414B46u, sizeof(FakeCtx), offsetof(FakeCtx, tpool),
                            offsetof(FakeCtx, threads), offsetof(FakeCtx, proc), sizeof(void *) * 2,
                            fake_platform_init, fake_ready, fake_flush, nullptr};

TEST(Frame, HandleCreationMakesClampedWorkersAndUnwinds) {
    struct Case {
        int count;        // tpool count (0 stands for "no tpool record" when no_pool)
        bool no_pool;
        int fail_at;      // create index that fails, -1 for none
        int expect_workers;
        int32_t expect_status;
    };
    const Case cases[] = {
        {0, false, -1, 0, 0}, {1, false, -1, 0, 0}, {-1, false, -1, 0, 0},
        {3, false, -1, 2, 0}, {9, false, -1, 7, 0}, {0, true, -1, 0, 0},
        {5, false, 3, 2, KIVO_ERR_THREAD},
    };
    for (const Case &tc : cases) {
        Recorder rec;
        rec.fail_at = tc.fail_at;
        g_rec = &rec;
        kivo_tpool tp{};
        tp.create = rec_create;
        tp.release = rec_release;
        tp.count = tc.count;
        const int32_t live = xelo_mem_live();
        int32_t status = 12345;
        FakeCtx *ctx = static_cast<FakeCtx *>(kivo::handle_create(kFake, nullptr, tc.no_pool ? nullptr : &tp, &status));
        EXPECT_EQ(status, tc.expect_status) << "count " << tc.count;
        ASSERT_EQ(static_cast<int>(rec.created.size()), tc.expect_workers) << "count " << tc.count;
        for (int i = 0; i < tc.expect_workers; ++i) EXPECT_EQ(rec.created[i], i + 1);
        if (tc.expect_status != 0) {
            EXPECT_EQ(ctx, nullptr);
            EXPECT_EQ(rec.released, rec.created);  // workers 1 and 2 released
            EXPECT_EQ(xelo_mem_live(), live);      // nothing left allocated
            continue;
        }
        ASSERT_NE(ctx, nullptr);
        EXPECT_EQ(ctx->head.magic, kFake.magic);
        EXPECT_EQ(ctx->head.self, ctx);
        EXPECT_EQ(ctx->ready_calls, 1);
        EXPECT_EQ(ctx->tpool.count, tc.no_pool ? 1 : (tc.count > 8 ? 8 : tc.count));
        EXPECT_EQ(reinterpret_cast<uintptr_t>(ctx) % 32, 0u);
        kivo::handle_delete(kFake, ctx);
        EXPECT_EQ(rec.released.size(), rec.created.size());
        EXPECT_EQ(xelo_mem_live(), live);
    }
    // Null and foreign handles are ignored by deletion.
    kivo::handle_delete(kFake, nullptr);
    FakeCtx foreign{};
    foreign.head.magic = kivo::kMagicDecoder;
    kivo::handle_delete(kFake, &foreign);
}

TEST(Frame, HandleCreationReportsMemoryFailure) {
    for (int32_t *status_ptr : {static_cast<int32_t *>(nullptr), new int32_t(0)}) {
        xelo_mem_fail_at(1);
        const int32_t live = xelo_mem_live();
        EXPECT_EQ(kivo::handle_create(kFake, nullptr, nullptr, status_ptr), nullptr);
        xelo_mem_fail_at(0);
        EXPECT_EQ(xelo_mem_live(), live);
        if (status_ptr) {
            EXPECT_EQ(*status_ptr, KIVO_ERR_OUT_OF_MEMORY);
            delete status_ptr;
        }
    }
}

// ---- fork-join -------------------------------------------------------------------

struct ForkArgs {
    int32_t result;
    int runs;
};
int32_t fork_job(void *arg) {
    ForkArgs *a = static_cast<ForkArgs *>(arg);
    ++a->runs;
    return a->result;
}

TEST(Frame, ForkJoinKeepsTheLastNegativeStatus) {
    kivo_tpool tp{};
    kivo_tpool_std(&tp, 4);
    void *threads[4] = {nullptr};
    for (int i = 1; i < 4; ++i) threads[i] = tp.create(&tp, i);
    struct Case {
        int32_t results[4];
        int32_t expect;
    };
    const Case cases[] = {
        {{0, 0, 0, 0}, 0},
        {{5, 1, 2, 3}, 0},  // positive results are not failures
        {{-7, 0, 0, 0}, -7},
        {{-7, -8, 0, 0}, -8},
        {{-7, -8, 0, -9}, -9},
        {{0, -8, -3, 0}, -3},
    };
    for (const Case &tc : cases) {
        ForkArgs a[4];
        void *args[4];
        for (int i = 0; i < 4; ++i) {
            a[i] = {tc.results[i], 0};
            args[i] = &a[i];
        }
        EXPECT_EQ(kivo::fork_join(tp, threads, 4, fork_job, args), tc.expect);
        for (int i = 0; i < 4; ++i) EXPECT_EQ(a[i].runs, 1);
    }
    for (int i = 1; i < 4; ++i) tp.release(threads[i]);
}

int g_runs_allowed = 0;
int32_t limited_run(void *, kivo_job_fn job, void *arg) {
    if (g_runs_allowed-- <= 0) return -55;
    job(arg);  // runs inline: done when wait is called
    return 0;
}
int g_waits = 0;
int32_t counting_wait(void *, int32_t *status) {
    ++g_waits;
    *status = 0;
    return 0;
}

TEST(Frame, ForkJoinRefusedRunWaitsForStartedJobs) {
    kivo_tpool tp{};
    tp.run = limited_run;
    tp.wait = counting_wait;
    void *threads[4] = {nullptr, &tp, &tp, &tp};
    ForkArgs a[4] = {{0, 0}, {0, 0}, {0, 0}, {0, 0}};
    void *args[4] = {&a[0], &a[1], &a[2], &a[3]};
    g_runs_allowed = 2;
    g_waits = 0;
    EXPECT_EQ(kivo::fork_join(tp, threads, 4, fork_job, args), -55);
    EXPECT_EQ(g_waits, 2);     // both started jobs were collected
    EXPECT_EQ(a[0].runs, 0);   // the calling thread's share did not start
}

// In a child process allowed no further thread, every constructor given the
// ready pool fails with KIVO_ERR_THREAD and the process goes on.
TEST(Frame, RefusedThreadFailsTheConstructors) {
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        const rlimit none = {0, 0};
        if ((geteuid() == 0 && setuid(65534) != 0) || setrlimit(RLIMIT_NPROC, &none) != 0) _exit(2);
        pthread_t probe;
        if (pthread_create(&probe, nullptr, [](void *) -> void * { return nullptr; }, nullptr) == 0)
            _exit(2);  // threads are not refused here
        kivo_tpool tp;
        kivo_tpool_std(&tp, 4);
        const kivod_create_param dp = {1, &tp};
        const kivoe_create_param ep = {1, 64, 64, 90, XELO_CS_YCBCR420, &tp};
        int32_t st[3] = {0, 0, 0};
        const bool null = !kivod_create(&dp, &st[0]) && !kivoe_create(&ep, &st[1]) &&
                          !kivot_create(&ep, &st[2]);
        _exit(null && st[0] == KIVO_ERR_THREAD && st[1] == KIVO_ERR_THREAD && st[2] == KIVO_ERR_THREAD
                  ? 0 : 1);
    }
    int wstatus = 0;
    ASSERT_EQ(waitpid(pid, &wstatus, 0), pid);
    ASSERT_TRUE(WIFEXITED(wstatus)) << "child ended by signal " << WTERMSIG(wstatus);
    if (WEXITSTATUS(wstatus) == 2) GTEST_SKIP() << "cannot refuse threads in this environment";
    EXPECT_EQ(WEXITSTATUS(wstatus), 0);
}

// ---- picture buffers ----------------------------------------------------------------

TEST(Frame, PictureBufferReuseGrowthAndGrey) {
    kivo_picbuf_param p{};
    p.alloc = kivo_picbuf_alloc;
    p.free = kivo_picbuf_free;
    p.width = p.cap_width = 64;
    p.height = p.cap_height = 48;
    p.color_format = XELO_CS_YCBCR420;
    p.pad = 4;
    p.margin2 = 4;
    int32_t status = 1;
    kivo_picbuf *pic = kivo_picbuf_alloc(&p, nullptr, &status);
    ASSERT_NE(pic, nullptr);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(pic->width_c, 32);
    EXPECT_EQ(pic->height_c, 24);
    EXPECT_EQ(pic->plane[3], pic->plane[2]);
    EXPECT_EQ(pic->plane_alt[2], pic->imgb->plane[3]);
    EXPECT_EQ(pic->stride_y, pic->imgb->stride[0]);
    EXPECT_EQ(pic->pad_x, 4);

    // Smaller: the same record, re-shaped.
    p.width = 33;
    p.height = 17;
    kivo_picbuf *again = kivo_picbuf_alloc(&p, pic, nullptr);
    EXPECT_EQ(again, pic);
    EXPECT_EQ(again->width, 33);
    EXPECT_EQ(again->height, 17);
    EXPECT_EQ(again->width_c, 17);
    EXPECT_EQ(again->height_c, 9);

    // Larger: a new record sized to the capacity.
    p.width = p.cap_width = 200;
    p.height = p.cap_height = 100;
    kivo_picbuf *grown = kivo_picbuf_alloc(&p, again, &status);
    ASSERT_NE(grown, nullptr);
    EXPECT_EQ(grown->width, 200);
    EXPECT_GE(grown->imgb->stride[0], 200);

    // Grey: no chroma.
    p.color_format = XELO_CS_YCBCR400;
    p.width = 20;
    p.height = 10;
    kivo_picbuf *grey = kivo_picbuf_alloc(&p, grown, &status);
    ASSERT_NE(grey, nullptr);
    EXPECT_EQ(grey->width_c, 0);
    EXPECT_EQ(grey->height_c, 0);
    kivo_picbuf_free(grey);
    kivo_picbuf_free(nullptr);

    // A record without an image buffer is left alone.
    kivo_picbuf bare{};
    status = 77;
    EXPECT_EQ(kivo_picbuf_alloc(&p, &bare, &status), nullptr);
    EXPECT_EQ(status, 77);

    // An image buffer that cannot be made gives -203.
    p.color_format = 999;
    EXPECT_EQ(kivo_picbuf_alloc(&p, nullptr, &status), nullptr);
    EXPECT_EQ(status, KIVO_ERR_IMGB);
}

}  // namespace
