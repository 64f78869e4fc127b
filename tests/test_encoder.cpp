// The encoder through its API: creation and configuration, frame input, the
// statistics pass, and every stream checked against the plan for its
// inputs (header, segments and restart markers) at every output size.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <vector>

#include "decoder/kivod_int.h"
#include "encoder/kivoe_int.h"
#include "support/kivo_encode.h"
#include "xelo/xelo_hooks.h"

namespace {

kivoe_ctx *create(int32_t cs = XELO_CS_YCBCR420, int quality = 90) {
    const kivoe_create_param p{1, 64, 48, quality, cs, nullptr};
    return kivoe_create(&p, nullptr);
}

// Encodes into *out, cut to the stream unless the length is wanted apart.
int32_t encode_into(kivoe_ctx *e, std::vector<uint8_t> *out, int32_t *length = nullptr) {
    xelo_bitb b{};
    b.addr = out->data(), b.ssize = static_cast<int32_t>(out->size());
    kivoe_output o{KIVOD_INPUT_BITB, &b, nullptr};
    int32_t written = 0;
    const int32_t status = kivoe_encode(e, &o, &written);
    if (length) *length = written;
    else out->resize(static_cast<size_t>(written));
    return status;
}

TEST(Encoder, CreationAndConfiguration) {
    const int32_t live = xelo_mem_live();
    const int cases[][3] = {{2, 50, KIVO_ERR_UNSUPPORTED}, {1, 101, KIVO_ERR_INVALID_ARG}, {1, -1, KIVO_ERR_INVALID_ARG}};
    for (const auto &c : cases) {
        kivoe_create_param p{c[0], 16, 16, c[1], 11, nullptr};
        int32_t status = 0;
        EXPECT_TRUE(!kivoe_create(&p, &status) && status == c[2] && xelo_mem_live() == live) << c[0] << " " << c[1];
    }
    kivoe_ctx *e = create();
    ASSERT_TRUE(e && e->job[0] && !e->job[1]);
    const int32_t v = 1, four = 4, two = 2, s127 = 127, s128 = 128;
    uint8_t q[128];
    EXPECT_TRUE(kivoe_config(e, 21004, &v, &four) == KIVO_ERR_UNSUPPORTED && kivoe_config(e, KIVOE_CFG_QUALITY, &v, &two) == KIVO_ERR_INVALID_ARG);
    EXPECT_TRUE(kivoe_config(e, KIVOE_CFG_QTBL, q, &s127) == KIVO_ERR_INVALID_ARG && kivoe_config(nullptr, KIVOE_CFG_OPT_HUFFMAN, &v, &four) == KIVO_ERR_INVALID_ARG);
    for (int i = 0; i < 128; ++i) q[i] = i == 5 ? 0 : 16;  // a zero quantizer byte becomes 1
    ASSERT_EQ(kivoe_config(e, KIVOE_CFG_QTBL, q, &s128), 0);
    EXPECT_TRUE(e->qtbl[0].q[5] == 1 && e->qtbl[0].recip[5] == 16384 && e->qtbl[1].recip[63] == 1024 && e->qtbl[1].half[63] == 8);
    EXPECT_TRUE(kivoe_set_progressive(e, 2) == KIVO_ERR_INVALID_ARG && !e->progressive && kivoe_set_progressive(e, 1) == 0 && e->progressive);
    kivoe_ctx *dec = reinterpret_cast<kivoe_ctx *>(kivod_create(nullptr, nullptr));  // a decoder is not an encoder
    kivoe_delete(dec);
    EXPECT_TRUE(kivoe_config(dec, KIVOE_CFG_OPT_HUFFMAN, &v, &four) == KIVO_ERR_INVALID_ARG && kivoe_set_progressive(dec, 1) == KIVO_ERR_INVALID_ARG);
    kivod_delete(reinterpret_cast<kivod_ctx *>(dec));
    kivoe_delete(e);
}

// Any layout of the caller's buffer gives the same quantizer selection and
// stream: line distances and counts of any alignment (read in place when
// both are multiples of 16, else copied into a buffer that a second push
// reuses), or a margin on one plane only. Refused pushes and formats.
TEST(Encoder, FrameInput) {
    const uint32_t m = XELO_PAIR(32, 32), a16 = XELO_PAIR(16, 16);
    const uint32_t pads[4][4] = {{m, 0, 0, 0}, {0, m, 0, 0}, {0, 0, a16, 0}, {0, 0, 0, m}};
    for (int32_t f : {10, 11, 12, 13, 18, 22, 40, 41, 42, 43, 44, 16, 17, 101}) {
        const auto planes = kivotest::make_picture(f, 201, 125, static_cast<uint64_t>(f));
        std::vector<uint8_t> ref;
        for (int n = 0; n < 11; ++n) {  // the 16-aligned reference, margins on plane n - 1, alignments
            const uint32_t align = n < 5 ? a16 : XELO_PAIR(1 << (n - 5), n % 2 ? 1 : 16);
            xelo_imgb *img = kivotest::to_imgb(f, 201, 125, planes, align, n && n < 5 ? pads[n - 1] : nullptr);
            kivoe_ctx *e = create(f);
            std::vector<uint8_t> out(1 << 17);
            ASSERT_EQ(kivoe_push(e, img), 0);
            const kivo_picbuf *owned = e->pic_owned;
            const bool in_place = img->stride[0] % 16 == 0 && img->lines[0] % 16 == 0;
            EXPECT_TRUE(n < 5 || (e->pic_cur->plane[0] == img->plane[0]) == in_place) << "stride " << img->stride[0] << " lines " << img->lines[0];
            ASSERT_EQ(kivoe_push(e, img), 0);
            EXPECT_TRUE(!owned || e->pic_owned == owned) << "a second push reuses the copy";
            uint8_t q[128];
            ASSERT_EQ(kivoe_get_qtbl(e, 0, q), 0);
            EXPECT_EQ(encode_into(e, &out), f == 16 || f == 17 || f == 101 ? KIVO_ERR_COLOR_FORMAT : 0) << f;
            out.insert(out.end(), q, q + 128);
            EXPECT_TRUE(n == 0 || out == ref) << "format " << f << " layout " << n;
            ref = out;
            img->release(img), kivoe_delete(e);
        }
    }
    kivoe_ctx *e = create();
    xelo_imgb *img = kivotest::to_imgb(XELO_CS_YCBCR420, 40, 20, kivotest::make_picture(XELO_CS_YCBCR420, 40, 20, 1));
    std::vector<uint8_t> out;  // no memory for the stream
    EXPECT_EQ((img->width = 0, kivoe_push(e, img)), KIVO_ERR_INVALID_ARG);
    for (int32_t bad : {9, 200}) EXPECT_EQ((img->width = 40, img->color_format = bad, kivoe_push(e, img)), KIVO_ERR_COLOR_FORMAT);
    // A record short of its format's samples is refused, not read past its end.
    for (int field = 0; field < 3; ++field) {
        xelo_imgb shorter = *img;
        shorter.color_format = field == 2 ? XELO_CS_YCBCR422 : XELO_CS_YCBCR420;  // 4:2:2 chroma: 20 lines
        if (field == 0) shorter.stride[0] = 39;
        if (field == 1) shorter.lines[1] = 9;
        if (field == 2) shorter.lines[1] = shorter.lines[2] = 19;
        EXPECT_EQ(kivoe_push(e, &shorter), KIVO_ERR_IMGB) << field;
    }
    // No place for the size: refused before the encode, the picture stays pushed.
    std::vector<uint8_t> room(1 << 16);
    xelo_bitb b{};
    b.addr = room.data(), b.ssize = static_cast<int32_t>(room.size());
    const kivoe_output o{KIVOD_INPUT_BITB, &b, nullptr};
    EXPECT_TRUE((img->color_format = 11, kivoe_push(e, img)) == 0 && kivoe_encode(e, &o, nullptr) == KIVO_ERR_INVALID_ARG &&
                encode_into(e, &room) == 0);
    EXPECT_TRUE(kivoe_push(e, img) == 0 && encode_into(e, &out) == KIVO_ERR_INVALID_ARG);
    img->release(img), kivoe_delete(e);
}

// The statistics pass writes nothing into the caller's memory, and its
// counts add up over the pictures a handle encodes.
TEST(Encoder, StatisticsPass) {
    kivoe_ctx *e = create(XELO_CS_YCBCR420, 75);
    const int32_t four = 4, on = 1;
    kivoe_config(e, KIVOE_CFG_OPT_HUFFMAN, &on, &four);
    xelo_imgb *img = kivotest::to_imgb(XELO_CS_YCBCR420, 64, 48, kivotest::make_picture(XELO_CS_YCBCR420, 64, 48, 2));
    auto total = [e] { return std::accumulate(e->ac_tbl[0].counter, e->ac_tbl[0].counter + 257, uint64_t(0)); };
    uint64_t counts[3] = {total()};
    for (int i = 1; i < 3; ++i) {
        std::vector<uint8_t> out(65536, 0xA5);
        int32_t written = 0;
        ASSERT_EQ(kivoe_push(e, img), 0);
        ASSERT_EQ(encode_into(e, &out, &written), 0);
        counts[i] = total();
        EXPECT_EQ(out[3], 0xC0);  // the header follows straight after SOI
        EXPECT_EQ(std::count(out.begin() + written, out.end(), 0xA5), 65536 - written);
    }
    EXPECT_TRUE(counts[1] > counts[0] && counts[2] - counts[1] == counts[1] - counts[0]);
    // An encode that fails (memory too small) leaves the counts and tables.
    kivoe_huff_spec spec[4];
    std::memcpy(spec, e->huff_spec, sizeof(spec));
    std::vector<uint8_t> tiny(600);
    ASSERT_EQ(kivoe_push(e, img), 0);
    EXPECT_TRUE(encode_into(e, &tiny) == KIVO_ERR_INVALID_ARG && total() == counts[2] && !std::memcmp(spec, e->huff_spec, sizeof(spec)));
    img->release(img), kivoe_delete(e);
}

// Every layout, size and thread count: the stream follows its plan (one
// thread: no DRI and no RSTn; segments of whole intervals numbered on
// across segments, 200000 MCUs on two threads in intervals of 50000), and
// in memory of every size below what it needs the encode fails without
// writing past the end.
TEST(Encoder, StreamsFollowTheirPlan) {
    const struct { int32_t cs; int w, h, threads; } cases[] = {
        {11, 640, 480, 4}, {11, 640, 480, 1}, {10, 4000, 3200, 2}, {11, 17, 9, 3}, {10, 8, 8, 8}, {12, 40, 8, 8}, {13, 100, 70, 7},
        {18, 33, 47, 2}, {22, 65, 9, 5}, {40, 24, 24, 3}, {41, 30, 30, 2}, {42, 99, 17, 6}, {43, 16, 48, 4}, {44, 21, 35, 8}};
    for (const auto &c : cases) {
        const auto pic = kivotest::make_picture(c.cs, c.w, c.h, 3, c.w > 1000 ? testpic::Kind::Flat : testpic::Kind::Natural);
        kivotest::EncodeOptions o;
        o.threads = c.threads, o.optimize = c.threads % 2;
        const kivotest::Encoded r = kivotest::encode(c.cs, c.w, c.h, pic, o);
        ASSERT_EQ(r.status, 0);
        EXPECT_EQ(kivotest::check_stream(r.jpg, {c.cs, c.w, c.h, c.threads, r.q, !o.optimize, {}, {}}), "")
            << c.cs << " " << c.w << "x" << c.h << " t" << c.threads;
        for (size_t size = 1; c.w * c.h <= 320 && c.threads <= 3 && size < r.jpg.size(); ++size) {
            o.out_size = size;
            ASSERT_LT(kivotest::encode(c.cs, c.w, c.h, pic, o).status, 0) << size;
        }
    }
}

// The segments of the other threads are coded into memory that grows with
// their bytes, not into memory the size of the output's each: with the
// address space held to 1 GiB beyond what the process has, 8 threads encode
// into 512 MiB of output memory (each thread took 512 MiB: -102).
TEST(Encoder, SegmentMemoryFollowsTheStream) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer's own mappings need the address space";
#else
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        kivo_tpool tp;
        kivo_tpool_std(&tp, 8);
        const kivoe_create_param p{1, 64, 64, 100, XELO_CS_YCBCR400, &tp};
        kivoe_ctx *e = kivoe_create(&p, nullptr);
        xelo_imgb *img = kivotest::to_imgb(10, 512, 512, kivotest::make_picture(10, 512, 512, 1, testpic::Kind::Noise));
        const size_t room = size_t(512) << 20;
        uint8_t *mem = static_cast<uint8_t *>(std::malloc(room));  // pages the stream does not reach stay untouched
        FILE *f = std::fopen("/proc/self/statm", "r");
        unsigned long pages = 0;
        if (!e || !mem || !f || std::fscanf(f, "%lu", &pages) != 1) _exit(2);
        std::fclose(f);
        rlimit lim{};
        getrlimit(RLIMIT_AS, &lim);
        lim.rlim_cur = static_cast<rlim_t>(pages) * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + (rlim_t(1) << 30);
        if (setrlimit(RLIMIT_AS, &lim) != 0) _exit(2);
        xelo_bitb b{};
        b.addr = mem, b.ssize = static_cast<int32_t>(room);
        const kivoe_output o{KIVOD_INPUT_BITB, &b, nullptr};
        int32_t written = 0;
        const int32_t status = kivoe_push(e, img) == 0 ? kivoe_encode(e, &o, &written) : -1;
        _exit(status == 0 && written > 512 * 512 ? 0 : 1);
    }
    int wstatus = 0;
    ASSERT_TRUE(waitpid(pid, &wstatus, 0) == pid && WIFEXITED(wstatus)) << "child ended by signal " << WTERMSIG(wstatus);
    if (WEXITSTATUS(wstatus) == 2) GTEST_SKIP() << "cannot hold the address space in this environment";
    EXPECT_EQ(WEXITSTATUS(wstatus), 0);
#endif
}

int32_t g_serial_result = 0;

// A job done with its segment makes levels for another's (the plain loop
// with the typical tables): the bytes must be those of the same segments
// encoded by a pool that runs each job at once, where no job can help
// another. A flat top half makes the first segment's job help the second's;
// an edge and the JND filter take the general block ways.
TEST(Encoder, HelpedSegmentsGiveTheSameBytes) {
    kivo_tpool serial{};
    serial.create = [](kivo_tpool *, int32_t) -> void * { return &g_serial_result; };
    serial.run = [](void *, kivo_job_fn job, void *arg) -> int32_t { return g_serial_result = job(arg), 0; };
    serial.wait = [](void *, int32_t *status) -> int32_t { return *status = g_serial_result, 0; };
    serial.release = [](void *) -> int32_t { return 0; };
    serial.count = 2;
    kivo_tpool threads;
    kivo_tpool_std(&threads, 2);
    const struct { int32_t cs; int w, h; int32_t filter; } cases[] = {
        {XELO_CS_YCBCR420, 512, 512, 0}, {XELO_CS_YCBCR420, 500, 497, 1}, {XELO_CS_YCBCR444, 300, 260, 0},
        {XELO_CS_YCBCR422, 264, 300, 1}};
    for (const auto &c : cases) {
        auto planes = kivotest::make_picture(c.cs, c.w, c.h, 7);
        for (testpic::Plane &p : planes) std::fill(p.px.begin(), p.px.begin() + p.px.size() / 2, 128);
        xelo_imgb *img = kivotest::to_imgb(c.cs, c.w, c.h, planes);
        std::vector<uint8_t> want;
        for (kivo_tpool *pool : {&serial, &threads}) {
            const kivoe_create_param p{1, c.w, c.h, 90, c.cs, pool};
            kivoe_ctx *e = kivoe_create(&p, nullptr);
            ASSERT_NE(e, nullptr);
            const int32_t four = 4;
            ASSERT_EQ(kivoe_config(e, KIVOE_CFG_JND_FILTER, &c.filter, &four), 0);
            for (int run = 0; run < (pool == &serial ? 1 : 8); ++run) {
                std::vector<uint8_t> out(static_cast<size_t>(c.w) * c.h * 4 + 4096);
                ASSERT_EQ(kivoe_push(e, img), 0);
                ASSERT_EQ(encode_into(e, &out), 0);
                if (want.empty()) want = out;
                else EXPECT_EQ(out, want) << c.cs << " " << c.w << "x" << c.h << " run " << run;
            }
            kivoe_delete(e);
        }
        img->release(img);
    }
}

}  // namespace
