// Library frame: shared handle creation and deletion with a recording thread
// pool, the fork-join status rule, picture buffers.
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

struct Recorder {
    std::vector<int> created, released;
    int fail_at = -1;
} *g_rec = nullptr;

void *rec_create(kivo_tpool *, int32_t idx) {
    return idx == g_rec->fail_at ? nullptr : (g_rec->created.push_back(idx), new int(idx));
}
int32_t rec_release(void *t) {
    g_rec->released.push_back(*static_cast<int *>(t));
    return delete static_cast<int *>(t), 0;
}

struct FakeCtx {
    kivo::HandleHead head;
    int ready_calls;
    kivo_tpool tpool;
    void *threads[8];
    void *proc[2];
};

const kivo::Family kFake = {0x4B414B46u, sizeof(FakeCtx), offsetof(FakeCtx, tpool), offsetof(FakeCtx, threads),
                            offsetof(FakeCtx, proc), sizeof(void *) * 2,
                            [](void *, const void *) -> int32_t { return 0; },
                            [](void *ctx) -> int32_t { return ++static_cast<FakeCtx *>(ctx)->ready_calls, 0; },
                            [](void *) {}, nullptr};

TEST(Frame, HandleCreationMakesClampedWorkersAndUnwinds) {
    // tpool count (-2: no record), worker index that fails (-1: none),
    // allocation that fails (0: none), workers made in order 1.., status.
    const struct { int count, fail_at, fail_mem, workers, status; } cases[] = {
        {0, -1, 0, 0, 0}, {1, -1, 0, 0, 0}, {-1, -1, 0, 0, 0}, {3, -1, 0, 2, 0}, {9, -1, 0, 7, 0}, {-2, -1, 0, 0, 0},
        {5, 3, 0, 2, KIVO_ERR_THREAD}, {3, -1, 1, 0, KIVO_ERR_OUT_OF_MEMORY}};
    for (const auto &tc : cases) {
        SCOPED_TRACE(testing::Message() << "count " << tc.count << " fail " << tc.fail_at << " mem " << tc.fail_mem);
        Recorder rec;
        rec.fail_at = tc.fail_at;
        g_rec = &rec;
        kivo_tpool tp{};
        tp.create = rec_create, tp.release = rec_release, tp.count = tc.count;
        const int32_t live = xelo_mem_live();
        int32_t status = 12345;
        xelo_mem_fail_at(tc.fail_mem);
        FakeCtx *ctx = static_cast<FakeCtx *>(kivo::handle_create(kFake, nullptr, tc.count == -2 ? nullptr : &tp, &status));
        xelo_mem_fail_at(0);
        std::vector<int> order(static_cast<size_t>(tc.workers));
        for (int i = 0; i < tc.workers; ++i) order[i] = i + 1;
        EXPECT_TRUE(status == tc.status && rec.created == order);
        if (ctx) {
            EXPECT_TRUE(ctx->head.magic == kFake.magic && ctx->head.self == ctx && ctx->ready_calls == 1);
            EXPECT_TRUE(ctx->tpool.count == (tc.count == -2 ? 1 : std::min(tc.count, 8)) && reinterpret_cast<uintptr_t>(ctx) % 32 == 0);
            kivo::handle_delete(kFake, ctx);
        }
        EXPECT_TRUE((ctx == nullptr) == (tc.status != 0) && rec.released == rec.created && xelo_mem_live() == live);
    }
    xelo_mem_fail_at(1);  // a null status pointer is allowed
    EXPECT_EQ(kivo::handle_create(kFake, nullptr, nullptr, nullptr), nullptr);
    xelo_mem_fail_at(0);
    FakeCtx foreign{};  // null and foreign handles are ignored by deletion
    foreign.head.magic = kivo::kMagicDecoder;
    kivo::handle_delete(kFake, &foreign);
    kivo::handle_delete(kFake, nullptr);
}

struct ForkArgs { int32_t result; int runs; };
int32_t fork_job(void *arg) { return ++static_cast<ForkArgs *>(arg)->runs, static_cast<ForkArgs *>(arg)->result; }
int g_runs_allowed = 0, g_waits = 0;

// Every job runs once and the last negative status wins; when the pool
// refuses to run a job, the started ones are still waited for and the
// caller's own share does not start.
TEST(Frame, ForkJoinStatusRule) {
    kivo_tpool tp{};
    kivo_tpool_std(&tp, 4);
    void *threads[4] = {nullptr};
    for (int i = 1; i < 4; ++i) threads[i] = tp.create(&tp, i);
    const struct { int32_t results[4], want; } cases[] = {
        {{0, 0, 0, 0}, 0}, {{5, 1, 2, 3}, 0}, {{-7, 0, 0, 0}, -7}, {{-7, -8, 0, 0}, -8}, {{-7, -8, 0, -9}, -9}, {{0, -8, -3, 0}, -3}};
    ForkArgs a[4];
    void *args[4] = {&a[0], &a[1], &a[2], &a[3]};
    for (const auto &tc : cases) {
        for (int i = 0; i < 4; ++i) a[i] = {tc.results[i], 0};
        EXPECT_EQ(kivo::fork_join(tp, threads, 4, fork_job, args), tc.want);
        for (const ForkArgs &x : a) EXPECT_EQ(x.runs, 1);
    }
    for (int i = 1; i < 4; ++i) tp.release(threads[i]);

    tp.run = [](void *, kivo_job_fn job, void *arg) -> int32_t { return g_runs_allowed-- <= 0 ? -55 : (job(arg), 0); };
    tp.wait = [](void *, int32_t *status) -> int32_t { return ++g_waits, *status = 0; };
    void *fake[4] = {nullptr, &tp, &tp, &tp};
    for (ForkArgs &x : a) x = {0, 0};
    g_runs_allowed = 2;
    EXPECT_EQ(kivo::fork_join(tp, fake, 4, fork_job, args), -55);
    EXPECT_TRUE(g_waits == 2 && a[0].runs == 0);
}

// In a child process allowed no further thread, every constructor given the
// ready pool fails with KIVO_ERR_THREAD and the process goes on.
TEST(Frame, RefusedThreadFailsTheConstructors) {
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        const rlimit none = {0, 0};
        if ((geteuid() == 0 && setuid(65534) != 0) || setrlimit(RLIMIT_NPROC, &none) != 0) _exit(2);
        pthread_t probe;  // threads that are not refused here skip the test
        if (pthread_create(&probe, nullptr, [](void *) -> void * { return nullptr; }, nullptr) == 0) _exit(2);
        kivo_tpool tp;
        kivo_tpool_std(&tp, 4);
        const kivod_create_param dp = {1, &tp};
        const kivoe_create_param ep = {1, 64, 64, 90, XELO_CS_YCBCR420, &tp};
        int32_t st[3] = {0, 0, 0};
        const bool null = !kivod_create(&dp, &st[0]) && !kivoe_create(&ep, &st[1]) && !kivot_create(&ep, &st[2]);
        _exit(null && st[0] == KIVO_ERR_THREAD && st[1] == KIVO_ERR_THREAD && st[2] == KIVO_ERR_THREAD ? 0 : 1);
    }
    int wstatus = 0;
    ASSERT_TRUE(waitpid(pid, &wstatus, 0) == pid && WIFEXITED(wstatus)) << "child ended by signal " << WTERMSIG(wstatus);
    if (WEXITSTATUS(wstatus) == 2) GTEST_SKIP() << "cannot refuse threads in this environment";
    EXPECT_EQ(WEXITSTATUS(wstatus), 0);
}

// A smaller request re-shapes the same record, a larger one makes a new one
// (which the allocator may place where the old one was), grey has no chroma; a record without an image buffer is left alone and an
// image buffer that cannot be made gives KIVO_ERR_IMGB.
TEST(Frame, PictureBufferReuseGrowthAndGrey) {
    kivo_picbuf_param p{kivo_picbuf_alloc, kivo_picbuf_free, 64, 48, XELO_CS_YCBCR420, 4, 4, 64, 48};
    int32_t status = 1;
    kivo_picbuf *pic = kivo_picbuf_alloc(&p, nullptr, &status);
    ASSERT_TRUE(pic && status == 0);
    EXPECT_TRUE(pic->width_c == 32 && pic->height_c == 24 && pic->pad_x == 4 && pic->stride_y == pic->imgb->stride[0]);
    EXPECT_TRUE(pic->plane[3] == pic->plane[2] && pic->plane_alt[2] == pic->imgb->plane[3]);
    const struct { int32_t w, h, cap_w, cap_h, cs; bool same; int32_t wc, hc; } steps[] = {
        {33, 17, 64, 48, XELO_CS_YCBCR420, true, 17, 9}, {200, 100, 200, 100, XELO_CS_YCBCR420, false, 100, 50},
        {20, 10, 200, 100, XELO_CS_YCBCR400, true, 0, 0}};
    for (const auto &s : steps) {
        p.width = s.w, p.height = s.h, p.cap_width = s.cap_w, p.cap_height = s.cap_h, p.color_format = s.cs;
        kivo_picbuf *next = kivo_picbuf_alloc(&p, pic, &status);
        ASSERT_TRUE(next && (next == pic || !s.same) && next->imgb->stride[0] >= s.w) << s.w;
        EXPECT_TRUE(next->width == s.w && next->height == s.h && next->width_c == s.wc && next->height_c == s.hc) << s.w;
        pic = next;
    }
    kivo_picbuf_free(pic), kivo_picbuf_free(nullptr);
    kivo_picbuf bare{};  // not ours to touch
    status = 77;
    EXPECT_EQ(kivo_picbuf_alloc(&p, &bare, &status), nullptr);
    EXPECT_EQ(status, 77);
    p.color_format = 999;
    EXPECT_EQ(kivo_picbuf_alloc(&p, nullptr, &status), nullptr);
    EXPECT_EQ(status, KIVO_ERR_IMGB);
}

}  // namespace
