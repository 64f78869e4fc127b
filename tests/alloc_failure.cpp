// Every allocation libkivo.so makes, failed in turn, for each kind of call:
// the call gives KIVO_ERR_OUT_OF_MEMORY, KIVO_ERR_THREAD or, for a picture
// buffer, KIVO_ERR_IMGB (or, where the library does without the memory, its
// usual output), frees all it took, and the handle works afterwards. The
// program's own malloc family stands in for the C library's (glibc's
// __libc_ entry points); only calls made from the library's code, told by
// their return address, are counted, failed and tracked.
#include <gtest/gtest.h>
#include <link.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "kivoc.h"
#include "kivod.h"
#include "kivoe.h"
#include "kivot.h"

extern "C" {
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);
void __libc_free(void *);
void *__libc_memalign(size_t, size_t);
}

namespace {

uintptr_t g_lo, g_hi;               // libkivo.so's code
std::atomic<long> g_countdown{0};   // the library allocation that fails: 1 = the next
std::atomic<bool> g_persist{false}; // and every one after it, until disarmed
std::atomic<long> g_failed{0};      // allocations failed since armed
std::atomic<long> g_live{0};        // library blocks not freed yet

// The library's live blocks, open-addressed (tombstones are 1).
constexpr size_t kSlots = size_t(1) << 14;
uintptr_t g_slot[kSlots];
std::atomic_flag g_lock = ATOMIC_FLAG_INIT;

struct Locked {
    Locked() { while (g_lock.test_and_set(std::memory_order_acquire)) {} }
    ~Locked() { g_lock.clear(std::memory_order_release); }
};

size_t slot_of(uintptr_t p) { return (p >> 4) * 0x9E3779B97F4A7C15ull >> 48 & (kSlots - 1); }

void track(void *p) {
    if (!p) return;
    Locked l;
    size_t i = slot_of(reinterpret_cast<uintptr_t>(p));
    while (g_slot[i] > 1) i = (i + 1) & (kSlots - 1);
    g_slot[i] = reinterpret_cast<uintptr_t>(p);
    ++g_live;
}

void untrack(void *p) {
    if (!p) return;
    Locked l;
    for (size_t i = slot_of(reinterpret_cast<uintptr_t>(p)), n = 0; g_slot[i] && n < kSlots; i = (i + 1) & (kSlots - 1), ++n)
        if (g_slot[i] == reinterpret_cast<uintptr_t>(p)) {
            g_slot[i] = 1;
            --g_live;
            return;
        }
}

// Drops the tombstones, between calls.
void compact() {
    Locked l;
    static uintptr_t kept[kSlots];
    size_t n = 0;
    for (uintptr_t &v : g_slot) {
        if (v > 1) kept[n++] = v;
        v = 0;
    }
    for (size_t k = 0; k < n; ++k) {
        size_t i = slot_of(kept[k]);
        while (g_slot[i]) i = (i + 1) & (kSlots - 1);
        g_slot[i] = kept[k];
    }
}

bool from_library(void *ret) {
    const uintptr_t a = reinterpret_cast<uintptr_t>(ret);
    return a >= g_lo && a < g_hi;
}

bool fail_now() {
    long c = g_countdown.load();
    while (c > 0)
        if (g_countdown.compare_exchange_weak(c, c == 1 && g_persist ? 1 : c - 1)) {
            if (c != 1) return false;
            ++g_failed;
            errno = ENOMEM;
            return true;
        }
    return false;
}

// An allocation asked for from caller: failed when its turn has come, and
// tracked, when the library asks.
template <class Alloc>
void *take(void *caller, Alloc alloc) {
    if (!from_library(caller)) return alloc();
    if (fail_now()) return nullptr;
    void *p = alloc();
    track(p);
    return p;
}

}  // namespace

extern "C" {

void *malloc(size_t n) { return take(__builtin_return_address(0), [=] { return __libc_malloc(n); }); }

void *calloc(size_t n, size_t size) {
    return take(__builtin_return_address(0), [=] { return __libc_calloc(n, size); });
}

void *aligned_alloc(size_t align, size_t n) {
    return take(__builtin_return_address(0), [=] { return __libc_memalign(align, n); });
}

void *memalign(size_t align, size_t n) {
    return take(__builtin_return_address(0), [=] { return __libc_memalign(align, n); });
}

int posix_memalign(void **out, size_t align, size_t n) {
    void *p = take(__builtin_return_address(0), [=] { return __libc_memalign(align, n); });
    if (!p) return ENOMEM;
    *out = p;
    return 0;
}

void *realloc(void *old, size_t n) {
    if (!from_library(__builtin_return_address(0))) return __libc_realloc(old, n);
    if (fail_now()) return nullptr;
    void *p = __libc_realloc(old, n);
    if (p) {
        untrack(old);
        track(p);
    }
    return p;
}

void free(void *p) {
    untrack(p);
    __libc_free(p);
}

}  // extern "C"

namespace {

int find_library(dl_phdr_info *info, size_t, void *) {
    if (!std::strstr(info->dlpi_name, "libkivo")) return 0;
    for (int k = 0; k < info->dlpi_phnum; ++k) {
        const auto &ph = info->dlpi_phdr[k];
        if (ph.p_type == PT_LOAD && (ph.p_flags & PF_X)) {
            g_lo = info->dlpi_addr + ph.p_vaddr;
            g_hi = g_lo + ph.p_memsz;
        }
    }
    return 1;
}

using Bytes = std::vector<uint8_t>;

uint64_t fnv(const uint8_t *p, size_t n, uint64_t h = 1469598103934665603ull) {
    for (size_t i = 0; i < n; ++i) h = (h ^ p[i]) * 1099511628211ull;
    return h;
}

enum class Kind { Decoder, Encoder, Transcoder };

struct Case {
    const char *name;
    Kind kind;
    bool history;  // a successful call changes what the next one gives
};

// The pictures and streams every call works on, made before any failure.
struct World {
    kivo_tpool pool;
    xelo_imgb *picture = nullptr;      // 4:2:0, edges not on block boundaries
    Bytes baseline, progressive;       // quality-95 streams of it
    char path[64] = "/tmp/kivo_alloc_XXXXXX";  // the baseline stream as a file
    Bytes out;                         // room for any output
    xelo_imgb *planes = nullptr;       // room for any decoded picture

    World() {
        kivo_init();
        kivo_tpool_std(&pool, 2);
        const uint32_t align[4] = {XELO_PAIR(16, 16), XELO_PAIR(16, 16), XELO_PAIR(16, 16), XELO_PAIR(16, 16)};
        const uint32_t pad[4] = {};
        picture = xelo_imgb_create(84, 58, XELO_CS_YCBCR420, 3, align, pad, 0, 0, 0);
        planes = xelo_imgb_create(84, 58, XELO_CS_YCBCR420, 3, align, pad, 0, 0, 0);
        uint32_t s = 12345;
        for (int c = 0; c < 3; ++c) {
            const int w = c ? 42 : 84, h = c ? 29 : 58;
            for (int y = 0; y < h; ++y)
                for (int x = 0; x < w; ++x) {
                    s = s * 1103515245u + 12345u;
                    picture->plane[c][y * picture->stride[c] + x] =
                        static_cast<uint8_t>((x * 3 + y * 2 + c * 60) % 200 + (s >> 27));
                }
        }
        out.resize(1 << 20);
        baseline = with_apps(encode(false));
        progressive = with_apps(encode(true));
        const int fd = mkstemp(path);
        if (fd >= 0) {
            if (write(fd, baseline.data(), baseline.size()) != static_cast<ssize_t>(baseline.size())) path[0] = 0;
            close(fd);
        }
    }
    ~World() {
        unlink(path);
        picture->release(picture);
        planes->release(planes);
    }
    // An Exif-like APP1 and an ICC-like APP2 after SOI, for the decoder's
    // segment list and the transcoder's copies of it.
    static Bytes with_apps(Bytes jpg) {
        if (jpg.size() < 2) return {};
        const uint8_t apps[] = {0xFF, 0xE1, 0x00, 0x0C, 'E', 'x', 'i', 'f', 0, 0, 'M', 'M', 0, 42,
                                0xFF, 0xE2, 0x00, 0x10, 'I', 'C', 'C', '_', 'P', 'R', 'O', 'F', 'I', 'L', 'E', 0, 1, 1};
        jpg.insert(jpg.begin() + 2, apps, apps + sizeof apps);
        return jpg;
    }
    Bytes encode(bool prog) {
        kivoe_create_param cp{1, 84, 58, 95, XELO_CS_YCBCR420, nullptr};
        kivoe_ctx *e = kivoe_create(&cp, nullptr);
        int32_t n = 0;
        xelo_bitb b{};
        b.addr = out.data();
        b.ssize = static_cast<int32_t>(out.size());
        const kivoe_output o{KIVOD_INPUT_BITB, &b, nullptr};
        if (!e || kivoe_set_progressive(e, prog) || kivoe_push(e, picture) || kivoe_encode(e, &o, &n)) n = 0;
        kivoe_delete(e);
        return Bytes(out.begin(), out.begin() + n);
    }
};

World &world() {
    static World w;
    return w;
}

struct Result {
    int32_t status;
    uint64_t hash;
};

// threads: 1 (no pool) or 2.
void *make(Kind kind, int threads, int32_t *status) {
    World &w = world();
    kivo_tpool *pool = threads > 1 ? &w.pool : nullptr;
    if (kind == Kind::Decoder) {
        kivod_create_param cp{1, pool};
        return kivod_create(&cp, status);
    }
    kivoe_create_param cp{1, kind == Kind::Encoder ? 84 : 0, kind == Kind::Encoder ? 58 : 0, 90,
                          kind == Kind::Encoder ? XELO_CS_YCBCR420 : 0, pool};
    return kind == Kind::Encoder ? static_cast<void *>(kivoe_create(&cp, status))
                                 : static_cast<void *>(kivot_create(&cp, status));
}

void destroy(Kind kind, void *h) {
    if (kind == Kind::Decoder) kivod_delete(static_cast<kivod_ctx *>(h));
    else if (kind == Kind::Encoder) kivoe_delete(static_cast<kivoe_ctx *>(h));
    else kivot_delete(static_cast<kivot_ctx *>(h));
}

// A stream in memory, or the baseline stream's file.
struct Input {
    xelo_bitb bitb{};
    kivo_mfal file{};
    kivod_input in{KIVOD_INPUT_BITB, &bitb, nullptr};

    Input(const Bytes &src, bool from_file) {
        bitb.addr = const_cast<uint8_t *>(src.data());
        bitb.ssize = static_cast<int32_t>(src.size());
        if (from_file) {
            kivo_mfal_file(&file, world().path);  // fails only for null arguments
            in = {KIVOD_INPUT_MFAL, nullptr, &file};
        }
    }
    Input(const Input &) = delete;
};

Result decode(kivod_ctx *d, const Bytes &src, const std::string &how) {
    World &w = world();
    const Input input(src, how == "file");
    const kivod_input &in = input.in;
    kivod_frame_info info{};
    kivod_app_node *apps = nullptr;
    info.app_list = &apps;
    const int32_t denom = how == "half" ? 2 : how == "eighth" ? 8 : 1;
    Result r{kivod_set_reduction(d, denom), 0};
    if (!r.status) r.status = kivod_decode(d, &in, &info);
    if (r.status) return r;
    if (how == "rgba") {
        r.status = kivoc_decode_packed(d, w.out.data(), 84 * 4, w.out.size(), KIVOC_RGBA, 0);
        r.hash = fnv(w.out.data(), 84 * 4 * 58);
        return r;
    }
    const uint32_t align[4] = {XELO_PAIR(16, 16), XELO_PAIR(16, 16), XELO_PAIR(16, 16), XELO_PAIR(16, 16)};
    const uint32_t pad[4] = {};
    r.status = xelo_imgb_rebirth(w.planes, (info.width + denom - 1) / denom, (info.height + denom - 1) / denom,
                                 XELO_CS_YCBCR420, 3, align, pad);
    if (!r.status) r.status = kivod_clone(d, w.planes);
    for (int c = 0; c < 3 && !r.status; ++c)
        for (int y = 0; y < (c ? (w.planes->height + 1) / 2 : w.planes->height); ++y)
            r.hash = fnv(w.planes->plane[c] + y * w.planes->stride[c], static_cast<size_t>(c ? (w.planes->width + 1) / 2 : w.planes->width), r.hash);
    return r;
}

Result run(const Case &c, void *h) {
    World &w = world();
    const std::string name = c.name;
    if (c.kind == Kind::Decoder) {
        const Bytes &src = name.find("progressive") != std::string::npos ? w.progressive : w.baseline;
        return decode(static_cast<kivod_ctx *>(h), src, name.substr(name.find(' ') + 1));
    }
    xelo_bitb ob{};
    ob.addr = w.out.data();
    ob.ssize = static_cast<int32_t>(w.out.size());
    const kivoe_output out{KIVOD_INPUT_BITB, &ob, nullptr};
    int32_t written = 0, chosen = 0;  // the choice counts as output
    Result r{0, 0};
    if (c.kind == Kind::Encoder) {
        kivoe_ctx *e = static_cast<kivoe_ctx *>(h);
        const int32_t on = 1, four = 4;
        if (name == "encode optimised") kivoe_config(e, KIVOE_CFG_OPT_HUFFMAN, &on, &four);
        if (name == "encode progressive") kivoe_set_progressive(e, 1);
        if (name == "encode switches") {
            kivoe_config(e, KIVOE_CFG_JND_FILTER, &on, &four);
            kivoe_config(e, KIVOE_CFG_JND_SUPPRESS, &on, &four);
            kivoe_config(e, KIVOE_CFG_ADAPTIVE_ROUNDING, &on, &four);
        }
        r.status = kivoe_push(e, w.picture);
        uint8_t tables[128];
        if (!r.status && name == "encode perceptual") r.status = kivoe_get_qtbl(e, 1, tables);
        if (!r.status) r.status = kivoe_encode(e, &out, &written);
    } else {
        kivot_ctx *t = static_cast<kivot_ctx *>(h);
        const Input input(w.baseline, name == "smallest-of from a file");
        const kivod_input &in = input.in;
        if (name == "pipeline") {
            r.status = kivot_txcode(t, &in, &out, &written);
        } else if (name.rfind("lossless", 0) == 0) {
            const int32_t coding = name == "lossless" ? KIVOT_LOSSLESS_BASELINE : KIVOT_LOSSLESS_PROGRESSIVE;
            r.status = kivot_txcode_lossless(t, &in, &out, &written, coding);
        } else {
            r.status = kivot_txcode_smallest(t, &in, &out, &written, &chosen);
        }
    }
    r.hash = fnv(w.out.data(), static_cast<size_t>(written), static_cast<uint64_t>(written) << 8 | chosen);
    return r;
}

bool lack_of_memory(int32_t status) {
    return status == KIVO_ERR_OUT_OF_MEMORY || status == KIVO_ERR_THREAD || status == KIVO_ERR_IMGB;
}

// The allocation failed alone, or with every one after it (memory that
// stays short, for the ways the library takes without it); on 1 or 2
// threads.
using Param = std::tuple<Case, bool, int>;
class AllocationFailure : public ::testing::TestWithParam<Param> {};

TEST_P(AllocationFailure, ClearStatusNoLeakHandleStillWorks) {
    const Case &c = std::get<0>(GetParam());
    const int threads = std::get<2>(GetParam());
    g_persist = std::get<1>(GetParam());
    World &w = world();
    ASSERT_FALSE(w.baseline.empty());
    ASSERT_FALSE(w.progressive.empty());
    ASSERT_TRUE(w.path[0]);
    if (!g_hi) dl_iterate_phdr(find_library, nullptr);
    ASSERT_NE(g_hi, 0u) << "libkivo.so not loaded";

    const long live = g_live.load();
    int32_t status = 0;
    void *h = make(c.kind, threads, &status);
    ASSERT_NE(h, nullptr);
    const Result ref = run(c, h);
    ASSERT_EQ(ref.status, 0);
    destroy(c.kind, h);
    ASSERT_EQ(g_live.load(), live);

    int failures = 0;
    for (long n = 1;; ++n) {
        SCOPED_TRACE(testing::Message() << c.name << ", allocation " << n << " failed");
        compact();
        g_persist = std::get<1>(GetParam());
        g_failed = 0;
        g_countdown = n;
        status = 0;
        h = make(c.kind, threads, &status);
        Result r{status, 0};
        if (h) r = run(c, h);
        g_countdown = 0;
        g_persist = false;
        const bool failed = g_failed.load() != 0;
        if (!h) {
            EXPECT_TRUE(status == KIVO_ERR_OUT_OF_MEMORY || status == KIVO_ERR_THREAD) << status;
        } else {
            if (r.status) EXPECT_TRUE(lack_of_memory(r.status)) << r.status;
            else EXPECT_EQ(r.hash, ref.hash);
            // The same handle, with nothing failing, gives the reference again.
            if (r.status || !c.history) {
                const Result again = run(c, h);
                EXPECT_EQ(again.status, 0);
                EXPECT_EQ(again.hash, ref.hash);
            }
            destroy(c.kind, h);
        }
        EXPECT_EQ(g_live.load(), live) << "blocks leaked";
        if (!failed) break;
        ++failures;
        if (::testing::Test::HasFailure() || n > 2000) break;
    }
    EXPECT_GT(failures, 0);  // the call took memory of its own, which was failed
}

const Case kCases[] = {
    {"decode full", Kind::Decoder, false},         {"decode half", Kind::Decoder, false},
    {"decode eighth", Kind::Decoder, false},       {"decode rgba", Kind::Decoder, false},
    {"decode file", Kind::Decoder, false},         {"progressive full", Kind::Decoder, false},
    {"progressive rgba", Kind::Decoder, false},    {"encode plain", Kind::Encoder, false},
    {"encode optimised", Kind::Encoder, true},     {"encode progressive", Kind::Encoder, false},
    {"encode switches", Kind::Encoder, false},     {"encode perceptual", Kind::Encoder, false},
    {"pipeline", Kind::Transcoder, false},         {"lossless", Kind::Transcoder, false},
    {"lossless progressive", Kind::Transcoder, false}, {"smallest-of", Kind::Transcoder, false},
    {"smallest-of from a file", Kind::Transcoder, false},
};

INSTANTIATE_TEST_SUITE_P(EveryCall, AllocationFailure, ::testing::Combine(::testing::ValuesIn(kCases), ::testing::Bool(), ::testing::Values(1, 2)),
                         [](const testing::TestParamInfo<Param> &i) {
                             std::string s = std::get<0>(i.param).name;
                             for (char &ch : s)
                                 if (!isalnum(static_cast<unsigned char>(ch))) ch = '_';
                             return s + (std::get<1>(i.param) ? "_and_after_" : "_alone_") +
                                    std::to_string(std::get<2>(i.param)) + "_threads";
                         });

}  // namespace
