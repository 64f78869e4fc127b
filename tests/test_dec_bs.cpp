// Bit-stream reader. Expected bits come from a separate bit-vector model of
// the input with stuffing removed; inputs are allocated to their exact size
// so the sanitizer catches any read past the caller's bytes.
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "decoder/kivod_int.h"

namespace {

// Exactly sized copy of some bytes, plus a reader opened on it.
struct MemInput {
    std::unique_ptr<uint8_t[]> data;
    xelo_bitb bitb{};
    kivod_bs bs{};
    explicit MemInput(const std::vector<uint8_t> &bytes) : data(new uint8_t[bytes.size()]) {
        std::copy(bytes.begin(), bytes.end(), data.get());
        bitb.addr = data.get();
        bitb.ssize = static_cast<int32_t>(bytes.size());
        kivod_input in{KIVOD_INPUT_BITB, &bitb, nullptr};
        EXPECT_EQ(kivod_bs_init(&bs, &in), 0);
    }
};

// The data bits of a byte string, MSB first: a 0x00 right after 0xFF is dropped.
std::vector<int> data_bits(const std::vector<uint8_t> &bytes) {
    std::vector<int> bits;
    int prev = -1;
    for (uint8_t b : bytes) {
        if (!(prev == 0xFF && b == 0x00))
            for (int i = 7; i >= 0; --i) bits.push_back((b >> i) & 1);
        prev = b;
    }
    return bits;
}

uint32_t ref_value(const std::vector<int> &bits, size_t pos, int n) {
    uint32_t v = 0;
    for (int i = 0; i < n; ++i) v = (v << 1) | static_cast<uint32_t>(bits[pos + i]);
    return v;
}

// Random bytes rich in 0xFF, stuffed zeros and restart-like markers.
std::vector<uint8_t> random_stream(std::mt19937 &rng, size_t n) {
    std::vector<uint8_t> s;
    while (s.size() < n) {
        switch (rng() % 8) {
        case 0: s.insert(s.end(), {0xFF, 0x00}); break;
        case 1: s.insert(s.end(), {0xFF, 0xD0}); break;
        case 2: s.push_back(0xFF); break;
        case 3: s.push_back(0x00); break;
        default: s.push_back(static_cast<uint8_t>(rng())); break;
        }
    }
    return s;
}

// Random reads, peeks, skips and alignments, each checked against the model
// while it lies wholly inside the data.
TEST(DecBs, RandomOperationsMatchBitModel) {
    std::mt19937 rng(7);
    for (int round = 0; round < 300; ++round) {
        std::vector<uint8_t> bytes = random_stream(rng, 1 + rng() % 120);
        std::vector<int> bits = data_bits(bytes);
        MemInput in(bytes);
        size_t pos = 0;
        for (;;) {
            int op = rng() % 8, n = 1 + static_cast<int>(rng() % 32);
            if (op == 7) {
                kivod_bs_align_byte(&in.bs);
                pos = (pos + 7) & ~size_t(7);
                continue;
            }
            if (op >= 5) n = 1 + n % 16;
            if (pos + n > bits.size()) break;
            uint32_t want = ref_value(bits, pos, n);
            if (op == 5) {
                ASSERT_EQ(kivod_bs_peek(&in.bs, n), want) << "round " << round << " pos " << pos;
                continue;
            }
            if (op == 6)
                kivod_bs_skip(&in.bs, n);
            else
                ASSERT_EQ(kivod_bs_read(&in.bs, n), want) << "round " << round << " pos " << pos;
            pos += n;
        }
    }
}

TEST(DecBs, DocumentedFigures) {
    {   // FF 00 12 gives the bits of FF 12
        MemInput in({0xFF, 0x00, 0x12});
        EXPECT_EQ(kivod_bs_read(&in.bs, 16), 0xFF12u);
    }
    {   // FF ending one refill, 00 opening the next: the 00 is dropped
        MemInput in({0xAA, 0xBB, 0xCC, 0xFF, 0x00, 0xDD});
        EXPECT_EQ(kivod_bs_read(&in.bs, 32), 0xAABBCCFFu);
        EXPECT_EQ(kivod_bs_read(&in.bs, 8), 0xDDu);
    }
    {   // 16 bits with 5 cached and 2 bytes left
        MemInput in({0x12, 0x34, 0x56, 0x7D, 0x9A, 0xBC});
        EXPECT_EQ(kivod_bs_read(&in.bs, 27), 0x1234567Du >> 5);
        EXPECT_EQ(in.bs.bits, 5);
        EXPECT_EQ(kivod_bs_read(&in.bs, 16), 0xECD5u);  // 11101 then 10011010101
        EXPECT_EQ(in.bs.bits, 5);
    }
    {   // align with 13 bits cached leaves 8
        MemInput in({1, 2, 3, 4});
        kivod_bs_read(&in.bs, 19);
        kivod_bs_align_byte(&in.bs);
        EXPECT_EQ(in.bs.bits, 8);
        EXPECT_EQ(kivod_bs_read(&in.bs, 8), 4u);
    }
}

TEST(DecBs, EndOfInput) {
    MemInput in({0x81, 0xFF, 0x7E});
    EXPECT_EQ(in.bs.refill(&in.bs, 4), 0);  // fewer than 32 bits
    EXPECT_EQ(in.bs.bits, 24);
    EXPECT_TRUE(kivod_bs_input_done(&in.bs));
    EXPECT_EQ(in.bs.refill(&in.bs, 4), KIVO_ERR_UNAVAILABLE);
    EXPECT_EQ(in.bs.bits, 0);
    EXPECT_EQ(in.bs.cache, 0u);
    EXPECT_EQ(kivod_bs_read(&in.bs, 8), 0u);
    EXPECT_EQ(kivod_bs_peek(&in.bs, 16), 0u);
    // A peek that cannot load more keeps the cached bits.
    MemInput p({0xC3});
    EXPECT_EQ(kivod_bs_read(&p.bs, 2), 3u);
    EXPECT_EQ(kivod_bs_peek(&p.bs, 16), 0x0C00u);
    EXPECT_EQ(kivod_bs_read(&p.bs, 6), 3u);
    // Whole bytes past the end read as 0 and cur stops at end + 1.
    MemInput b({0xAB});
    EXPECT_EQ(b.bs.read_byte(&b.bs, 4), 0xAB000000u);
    EXPECT_EQ(b.bs.cur, b.bs.end + 1);
}

TEST(DecBs, RestartSync) {
    struct Case {
        std::vector<uint8_t> bytes;
        int pre_read;     // bits read before the call
        int32_t status;
        int16_t pred0;    // predictor 0 afterwards (starts at 99)
        uint32_t next16;  // next 16 bits afterwards
    } cases[] = {
        {{0xA5, 0x12, 0xFF, 0xD3, 0x5A, 0x77}, 3, 0, 0, 0x5A77},
        {{0x12, 0xFF, 0x00, 0xFF, 0xD1, 0x77, 0x88}, 4, 0, 0, 0x7788},  // stuffed FF before
        {{0x12, 0x34, 0xFF, 0xD9}, 1, 0, 99, 0xFFD9},                   // EOI: nothing consumed
        {{0x12, 0x34, 0x56}, 2, KIVO_ERR_MALFORMED, 99, 0},
    };
    for (const Case &c : cases) {
        MemInput in(c.bytes);
        kivod_bs_read(&in.bs, c.pre_read);
        int16_t pred[4] = {99, 99, 99, 99};
        int32_t mcu = 5;
        EXPECT_EQ(kivod_bs_sync_restart(&in.bs, pred, &mcu), c.status);
        EXPECT_EQ(pred[0], c.pred0);
        if (c.status == 0) {
            EXPECT_EQ(mcu, 0);
            EXPECT_EQ(kivod_bs_read(&in.bs, 16), c.next16);
        }
    }
}

// ---- file input ----------------------------------------------------------------

std::string temp_file(const std::vector<uint8_t> &bytes) {
    char name[] = "/tmp/kivo_bs_XXXXXX";
    int fd = mkstemp(name);
    EXPECT_GE(fd, 0);
    FILE *f = fdopen(fd, "wb");
    fwrite(bytes.data(), 1, bytes.size(), f);
    fclose(f);
    return name;
}

TEST(DecBs, FileInputMatchesMemoryInput) {
    std::mt19937 rng(11);
    for (int round = 0; round < 20; ++round) {
        std::vector<uint8_t> bytes = random_stream(rng, 50 + rng() % 200);
        std::string path = temp_file(bytes);
        kivo_mfal mfal;
        ASSERT_EQ(kivo_mfal_file(&mfal, path.c_str()), 0);
        kivod_input fin{KIVOD_INPUT_MFAL, nullptr, &mfal};
        kivod_bs f;
        ASSERT_EQ(kivod_bs_init(&f, &fin), 0);
        MemInput m(bytes);
        for (int step = 0; step < 200; ++step) {
            int op = rng() % 10, n = 1 + static_cast<int>(rng() % 24);
            uint32_t a, b;
            if (op == 0 && m.bs.end - m.bs.cur > 8) {  // whole bytes after giving the cache back
                ASSERT_EQ(kivod_bs_rewind_cache(&f, step % 3), 0);
                ASSERT_EQ(kivod_bs_rewind_cache(&m.bs, step % 3), 0);
                ASSERT_EQ(f.pos, static_cast<uint32_t>(m.bs.cur - m.bs.start));
                a = f.read_byte(&f, 1 + n % 4);
                b = m.bs.read_byte(&m.bs, 1 + n % 4);
            } else if (op < 3) {
                a = kivod_bs_peek(&f, n % 17 + 1);
                b = kivod_bs_peek(&m.bs, n % 17 + 1);
            } else {
                a = kivod_bs_read(&f, n);
                b = kivod_bs_read(&m.bs, n);
            }
            ASSERT_EQ(a, b) << "round " << round << " step " << step;
            ASSERT_EQ(f.bits, m.bs.bits);
            ASSERT_EQ(kivod_bs_input_done(&f), kivod_bs_input_done(&m.bs));
        }
        kivod_bs_deinit(&f);
        std::remove(path.c_str());
    }
}

// A file interface whose operations fail on request.
struct Fake {
    bool open_ok = true, size_ok = true, seek_ok = true;
    int reads_ok = 1 << 30;  // reads that succeed before failing
    int closes = 0;
};
Fake g_fake;

kivo_mfal fake_mfal() {
    kivo_mfal m{};
    m.open = [](kivo_mfal *, int32_t, int32_t) -> void * { return g_fake.open_ok ? &g_fake : nullptr; };
    m.close = [](void *) -> int32_t { return ++g_fake.closes, 0; };
    m.read = [](void *, void *dst, int32_t n) -> int32_t {
        if (g_fake.reads_ok-- <= 0) return 0;
        std::fill_n(static_cast<uint8_t *>(dst), n, uint8_t(0x5A));
        return n;
    };
    m.tell = [](void *, int64_t *p) -> int32_t { return *p = 0, 0; };
    m.seek = [](void *, const int64_t *, int32_t) -> int32_t { return g_fake.seek_ok ? 0 : -1; };
    m.skip = [](void *, const int64_t *, int32_t) -> int32_t { return 0; };
    m.size = [](void *, int64_t *s) -> int32_t { return *s = 100, g_fake.size_ok ? 0 : -1; };
    return m;
}

TEST(DecBs, FileFailures) {
    kivo_mfal m = fake_mfal();
    kivod_input in{KIVOD_INPUT_MFAL, nullptr, &m};
    kivod_bs bs;
    g_fake = Fake{};
    g_fake.open_ok = false;
    EXPECT_EQ(kivod_bs_init(&bs, &in), KIVO_ERR_OPEN);
    g_fake = Fake{};
    g_fake.size_ok = false;
    EXPECT_EQ(kivod_bs_init(&bs, &in), KIVO_ERR_IO);
    EXPECT_EQ(g_fake.closes, 1);

    g_fake = Fake{};
    g_fake.reads_ok = 2;
    ASSERT_EQ(kivod_bs_init(&bs, &in), 0);
    EXPECT_EQ(bs.last, 99u);
    EXPECT_EQ(bs.refill(&bs, 4), KIVO_ERR_IO);  // third byte fails
    EXPECT_EQ(bs.read_byte(&bs, 1), 0u);
    g_fake.seek_ok = false;
    EXPECT_EQ(kivod_bs_rewind_cache(&bs, 1), KIVO_ERR_IO);
    kivod_bs_deinit(&bs);
    EXPECT_EQ(g_fake.closes, 1);

    kivo_mfal f;
    EXPECT_EQ(kivo_mfal_file(&f, nullptr), KIVO_ERR_INVALID_ARG);
    ASSERT_EQ(kivo_mfal_file(&f, "/nonexistent/kivo/file.jpg"), 0);
    kivod_input fin{KIVOD_INPUT_MFAL, nullptr, &f};
    EXPECT_EQ(kivod_bs_init(&bs, &fin), KIVO_ERR_OPEN);
}

}  // namespace
