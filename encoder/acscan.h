// The progressive coder's bit tools and its refinement scans, shared by
// the plain kernels (encoder/coefpic.cpp, encoder/refine.cpp) and the
// variant built for BMI2 machines (encoder/refine_bmi2.cpp), which count
// bits and find set bits in one instruction each. Internal linkage keeps
// each copy compiled for its own CPU level.
#ifndef KIVO_ENCODER_ACSCAN_H
#define KIVO_ENCODER_ACSCAN_H

#include <cstring>

#include "common/nonzero.h"
#include "encoder/kivoe_int.h"
#include "encoder/stuffing.h"

namespace {

// Bits of v up to its highest set one (0 for 0).
inline int32_t bit_length(uint32_t v) { return v ? 32 - __builtin_clz(v) : 0; }

using kivo_nz::MaskWord;
using kivo_nz::kMaskBits;
using kivo_nz::ctz;

// Calls f(k, base) for every bit k set in m, lowest first; base is the
// first bit of k's register, for bit().
template <class F>
inline void for_each_bit(uint64_t m, F &&f) {
    for (int32_t base = 0; base < 64; base += kMaskBits)
        for (MaskWord w = static_cast<MaskWord>(m >> base); w; w &= w - 1) f(base + ctz(w), base);
}

// Bit k of x, k in the register starting at base.
inline uint32_t bit(uint64_t x, int32_t k, int32_t base) {
    return static_cast<uint32_t>(static_cast<MaskWord>(x >> base) >> (k - base) & 1);
}

// Set bits of m: one instruction where the file is built for it.
inline int32_t popcount(uint64_t m) {
#if defined(__POPCNT__)
    return __builtin_popcountll(m);
#else
    m -= m >> 1 & 0x5555555555555555u;
    m = (m & 0x3333333333333333u) + (m >> 2 & 0x3333333333333333u);
    m = (m + (m >> 4)) & 0x0F0F0F0F0F0F0F0Fu;
    return static_cast<int32_t>((m * 0x0101010101010101u) >> 56);
#endif
}

// Positions after p, and before p (p: 0 to 63).
inline uint64_t after(int32_t p) { return ~((uint64_t(2) << p) - 1); }
inline uint64_t before(int32_t p) { return (uint64_t(1) << p) - 1; }

// Zig-zag positions ss..se of an AC band.
inline uint64_t band_bits(int32_t ss, int32_t se) {
    return (se == 63 ? ~uint64_t(0) : (uint64_t(1) << (se + 1)) - 1) & ~((uint64_t(1) << ss) - 1);
}

// Most correction bits an end-of-band run holds back before it is written.
constexpr int32_t kCorrectionBits = 1000;

// Bits on their way to the output, 32 at a time: stored straight to memory
// with byte stuffing while there is room for a word stuffed, and from then
// on through the writer, which notes an output too small.
struct BitOut {
    xelo_bsw *bs;
    uint64_t acc = 0;
    int32_t n = 0;  // 0 to 31 pending bits, the low bits of acc
    uint8_t *p;
    bool direct;

    // bs: with the stuffing flush, or null while counting.
    explicit BitOut(xelo_bsw *b)
        : bs(b), p(b ? b->write_ptr : nullptr), direct(p && b->free_bits == 32) {}

    void put(uint32_t v, int32_t len) {  // len: 0 to 32, v: no bits above len
        acc = acc << len | v;
        n += len;
        if (n < 32) return;
        n -= 32;
        const uint32_t w = static_cast<uint32_t>(acc >> n);
        if (direct && bs->end_ptr - p < 8) {
            bs->write_ptr = p;
            direct = false;
        }
        if (!direct) {
            xelo_bsw_write(bs, w, 32);
        } else if (__builtin_expect(kivoe_stuff::has_ff(w), 0)) {
            p = kivoe_stuff::store_stuffed(p, static_cast<uint64_t>(w) << 32, 4);
        } else {
            const uint32_t be = kivoe_stuff::big_endian(w);
            std::memcpy(p, &be, 4);
            p += 4;
        }
    }
    void put64(uint64_t v, int32_t len) {  // len: 0 to 64
        if (len > 32) {
            put(static_cast<uint32_t>(v >> 32), len - 32);
            len = 32;
        }
        put(static_cast<uint32_t>(v), len);
    }
    // Hands the bits left to the writer.
    void drain() {
        if (direct) bs->write_ptr = p;
        direct = false;
        if (n) xelo_bsw_write(bs, static_cast<uint32_t>(acc) & ((1u << n) - 1), n);
        n = 0;
    }
};

// Where a scan's symbols and a refinement's correction bits go: counted
// (the correction bits need no count here), or written with the scan's
// codes.
struct SymbolCount {
    static constexpr bool kKeepsBits = false;
    uint64_t *counter;

    void symbol(uint32_t sym, uint64_t, int32_t) { ++counter[sym]; }
    void bits(uint64_t, int32_t) {}
};

struct SymbolWrite {
    static constexpr bool kKeepsBits = true;
    BitOut out;
    const kivoe_code *code;

    SymbolWrite(xelo_bsw *bs, const kivoe_code *c) : out(bs), code(c) {}

    // A symbol and its n extra bits (the low bits of extra; n up to 64).
    void symbol(uint32_t sym, uint64_t extra, int32_t n) {
        const kivoe_code c = code[sym];
        if (c.len + n <= 32) {
            out.put(static_cast<uint32_t>(c.code) << n | static_cast<uint32_t>(extra), c.len + n);
        } else {
            out.put(c.code, c.len);
            out.put64(extra, n);
        }
    }
    // n bits, the low bits of v.
    void bits(uint64_t v, int32_t n) { out.put64(v, n); }
};

// End-of-band runs, with the correction bits they hold (first bit in the
// top of held_bits[0]) where the sink takes them. The sink comes with each
// call, so that it may keep its state in registers.
template <class Sink>
struct EobRun {
    int32_t run = 0, held = 0;
    uint64_t held_bits[kCorrectionBits / 64 + 1] = {};

    // EOBn, then the run's n low bits (its top bit is implied), then the
    // correction bits it held back.
    void flush(Sink &sink) {
        if (!run) return;
        const int32_t n = bit_length(static_cast<uint32_t>(run)) - 1;
        sink.symbol(static_cast<uint32_t>(n << 4), static_cast<uint32_t>(run) & ((1u << n) - 1), n);
        if (Sink::kKeepsBits) {
            int32_t i = 0;
            for (; (i + 1) * 64 <= held; ++i) sink.bits(held_bits[i], 64);
            if (held & 63) sink.bits(held_bits[i] >> (64 - (held & 63)), held & 63);
        }
        run = held = 0;
    }
    // One more block ends its band in the run, with its n correction bits
    // (the low bits of v, first bit highest).
    void end_band(Sink &sink, uint64_t v, int32_t n) {
        ++run;
        if (Sink::kKeepsBits && n) {
            const int32_t used = held & 63, room = 64 - used;
            uint64_t *w = &held_bits[held >> 6];
            if (!used) *w = 0;
            if (n <= room) {
                *w |= v << (room - n);
            } else {
                *w |= v >> (n - room);
                w[1] = v << (64 - (n - room));
            }
        }
        held += n;
        if (run == 0x7FFF || held > kCorrectionBits - 64) flush(sink);
    }
};

// The refinement's symbols are its new levels, each with the zeros
// since the previous one (levels already non-zero do not count) and
// its sign, followed by the correction bits of the levels already
// non-zero that it passed; after the last, an end of band holds the
// correction bits left. Every sixteen zeros before a non-zero level
// (already or newly) give a ZRL, which the correction bits passed so
// far follow. The correction bits come packed per block
// (kivoe_planes::corr), the first at the top, and each symbol takes
// its own from there. Returns the correction bits.
template <class Sink>
uint64_t refine(const kivoe_ac_scan &s, Sink &sink) {
    const int32_t ss = s.ss, se = s.se, al = s.al;
    EobRun<Sink> eob;
    const uint64_t band = band_bits(ss, se), under = before(ss);
    uint64_t corrections = 0;
    for (const kivoe_planes *pp = s.planes, *end = s.planes + s.n; pp != end; ++pp) {
        const kivoe_planes &p = *pp;
        const uint64_t nz = p.nz[al] & band, old = p.nz[al + 1] & band, fresh = nz & ~old;
        corrections += static_cast<uint32_t>(popcount(old));
        // Correction bits of levels before the band are skipped.
        uint64_t bits = p.corr[al] << popcount(p.nz[al + 1] & under);
        int32_t prev = ss - 1;  // the last new level
        if (fresh) eob.flush(sink);
        for_each_bit(fresh, [&](int32_t k, int32_t base) {
            const uint64_t span = after(prev) & before(k);
            int32_t run = popcount(span & ~nz);
            int32_t held = popcount(old & span);  // correction bits before k
            if (run > 15) {
                run = 0;
                held = 0;
                int32_t q = prev;
                for_each_bit((old & span) | uint64_t(1) << k, [&](int32_t j, int32_t) {
                    run += popcount(span & ~nz & after(q) & before(j));
                    q = j;
                    for (; run > 15; run -= 16) {
                        sink.symbol(0xF0, 0, 0);
                        if (held) sink.bits(bits >> (64 - held), held);
                        bits <<= held;
                        held = 0;
                    }
                    held += j != k;
                });
            }
            // The sign, then the top held bits (none for held 0, without a
            // branch on it).
            const uint64_t sign = bit(p.neg, k, base) ^ 1;
            sink.symbol(static_cast<uint32_t>(run << 4 | 1), sign << held | bits >> 1 >> (63 - held), 1 + held);
            bits <<= held;
            prev = k;
        });
        if (prev < se) {
            const int32_t n = popcount(old & after(prev));
            eob.end_band(sink, n ? bits >> (64 - n) : 0, n);
        }
    }
    eob.flush(sink);
    return corrections;
}

}  // namespace

#endif
