// Huffman decoding of the coefficients of one sequential-scan block.
//
// The routines work on the reader's cache directly. Memory input is topped
// up in place while the next bytes hold no 0xFF; anything else (stuffing,
// markers, file input, the last bytes) goes through kivod_bs_peek, and a code
// whose extra bits do not fit in the cache through kivod_bs_skip/read. After
// a top-up the cache holds at least 24 bits unless the input is nearly used
// up, which covers any code of up to 8 bits together with its extra bits.
//
// Every block goes through one loop (ac_block: a 64-bit window over memory
// input, the reader where the window cannot go) with one rule for what a
// symbol does (apply); the routines differ only in which coefficients they
// store and whether they count symbols, so all of them consume a stream the
// same way and fail on the same blocks. The slices decode DC and AC of a
// block in one pass and keep the window open across the blocks of an MCU;
// the exported AC routines open and close it around their block. Size-0 AC
// symbols other than end-of-block (run 0) and sixteen zeros (run 15) are
// refused.
//
// Counters: a null dc_count or ac_count means "do not count". The choice is
// made once per block (kivod_vld_ac8 and block8_mag run one of two
// instantiations), not per symbol. Magnitudes are added to the statistics
// only by the instantiations that gather them.
#include <cstring>

#include "decoder/bs_inline.h"

namespace {

// value x quantizer, kept to 16 bits without signed overflow. With a
// kivod_make_qz entry for q the raster position's bits only reach bits 16
// and up of the product, which are dropped.
inline int16_t dequant(int32_t value, uint32_t q) {
    return low16(static_cast<uint32_t>(value) * q);
}

// Decodes one AC code through the reader and consumes it with its extra
// bits: run, size and, when `with_value`, the extended value. 0, or -202
// for a code the table does not hold.
inline int32_t reader_symbol(kivod_bs *bs, const kivod_ac_tbl *t, bool with_value, int32_t *run, int32_t *size,
                             int32_t *value) {
    top_up(bs);
    const uint32_t c = bs->cache;
    int32_t len;
    if (ac_code(t, c, &len, run, size) != KIVO_OK) return KIVO_ERR_MALFORMED;
    const int32_t s = *size;
    const int32_t total = len + s;
    *value = 0;
    if (bs->bits >= total) {
        if (with_value && s) *value = extend((c << len) >> (32 - s), s);
        bs->cache = c << total;  // total <= 31
        bs->bits -= total;
    } else {
        kivod_bs_skip(bs, len);
        // Read even when the value is not wanted: every routine then leaves
        // the reader alike, also where the data ends.
        const uint32_t v = s ? kivod_bs_read(bs, s) : 0;
        if (with_value && s) *value = extend(v, s);
    }
    return KIVO_OK;
}

// Symbol counts of the re-quantized block (transcoder): z is the pending
// zero run, g the pending sixteen-zero groups.
struct Requant {
    int32_t z = 0, g = 0;
    // Counts coefficient c at position pos, sent after `run` zeros. Returns
    // false once the block's count is complete (a non-zero value at 63) or
    // has failed (*status).
    bool coefficient(const kivod_qtbl *q, uint64_t *cnt, int16_t c, int32_t pos, int32_t run, int32_t *status) {
        const int32_t mag = c < 0 ? -static_cast<int32_t>(c) : c;
        const int32_t r0 = ((mag + q->rq_off[pos]) * q->rq_mul[pos]) >> 14;
        const int16_t r = low16(static_cast<uint32_t>(c > 0 ? r0 : -r0));
        if (r == 0) {
            if (++z > 15) {
                z = 0;
                ++g;
            }
            return true;
        }
        if (g) {
            ++cnt[0xF0];
            --g;
        }
        int32_t n = z + run;
        if (n > 15) n = 14;
        const int32_t cat = kivo::category(r);
        if (cat < 0) {
            *status = KIVO_ERR_UNAVAILABLE;
            return false;
        }
        ++cnt[16 * n + cat];
        z = 0;
        if (pos == 63) {
            ++cnt[0x00];
            return false;
        }
        return true;
    }
};

// Stores value x quantizer at the raster position of qz (a kivod_make_qz
// entry) and, with kMag, adds its magnitude to the statistics (a block that
// then fails takes its magnitudes back). Returns the coefficient.
template <bool kMag>
inline int16_t put(int16_t *blk, uint32_t *mag, uint32_t qz, int32_t value) {
    const uint32_t r = qz >> 16;
    const int16_t c = dequant(value, qz);
    blk[r] = c;
    if (kMag) mag[r] += static_cast<uint32_t>(c < 0 ? -c : c);
    return c;
}

// Where a block stands after a symbol.
enum class Next { kGoOn, kEnd, kCounted, kBad };

// The one rule for what a decoded symbol does to the block at zig-zag
// position *k: end-of-block, sixteen zeros, a coefficient stored (and
// counted) when it starts at kLast or before, the end of the block past 63.
// Other size-0 symbols are malformed.
template <int kLast, bool kCount, bool kMag>
inline Next apply(int32_t run, int32_t size, int32_t value, int32_t *k, const kivod_qtbl *q, const uint32_t *qz,
                  int16_t *blk,
                  uint32_t *mag, int16_t *dc_only, uint64_t *cnt, Requant *rq, int32_t *status) {
    if (size == 0) {
        if (run == 0) {
            if (*k == 1 && kLast > 0) *dc_only = 1;
            if (kCount) ++cnt[0x00];
            return Next::kCounted;
        }
        if (run != 15) {
            *status = KIVO_ERR_MALFORMED;
            return Next::kBad;
        }
        if (kCount) {
            ++cnt[0xF0];
            rq->z = 0;
        }
        *k += 16;
        return Next::kGoOn;
    }
    const int32_t pos = *k + run;
    if (pos > 63) return Next::kEnd;
    if (*k <= kLast) {
        const int16_t c = put<kMag>(blk, mag, qz[pos], value);
        if (kCount && !rq->coefficient(q, cnt, c, pos, run, status)) return *status ? Next::kBad : Next::kCounted;
    }
    *k = pos + 1;
    return Next::kGoOn;
}

// The end of a counted block that sent no end-of-block: one is counted when
// zeros were pending.
template <bool kCount>
inline int32_t finish(Next n, const Requant &rq, uint64_t *cnt, int32_t status) {
    if (kCount && n != Next::kCounted && n != Next::kBad && rq.z != 0) ++cnt[0x00];
    return status;
}

// A block's symbols from zig-zag position k on, through the reader.
template <int kLast, bool kCount, bool kMag>
int32_t ac_reader(kivod_bs *bs, const kivod_qtbl *q, const uint32_t *qz, const kivod_ac_tbl *t, uint64_t *cnt,
                  int16_t *blk,
                  uint32_t *mag, int16_t *dc_only, int32_t k, Requant *rq) {
    int32_t status = KIVO_OK;
    Next n = Next::kEnd;
    while (k <= 63) {
        int32_t run, size, value;
        if (reader_symbol(bs, t, kCount || k <= kLast, &run, &size, &value) != 0) return KIVO_ERR_MALFORMED;
        n = apply<kLast, kCount, kMag>(run, size, value, &k, q, qz, blk, mag, dc_only, cnt, rq, &status);
        if (n != Next::kGoOn) break;
        n = Next::kEnd;
    }
    return finish<kCount>(n, *rq, cnt, status);
}

// ---- 64-bit window over memory input ------------------------------------------
//
// The reader's state is held in a 64-bit accumulator, topped up eight bytes
// at a time while the bytes hold no 0xFF, else byte by byte, a stuffed 0xFF
// without its zero. When fewer than 32 bits can be had that way (a marker
// ahead, or the end of the input), the window is closed and the reader's
// own refill takes over.

using Window = kivod_win;

// On 32-bit processors a shift of the 64-bit accumulator by a variable
// amount costs several instructions: the blocks that count no symbols are
// decoded there by ac_block32, which keeps the window in two words (and so
// they are on any processor in builds that check that path).
#ifndef KIVO_WORD_WINDOW
#define KIVO_WORD_WINDOW 0
#endif
constexpr bool kWords = sizeof(void *) == 4 || KIVO_WORD_WINDOW;

// Opens the window where the reader allows it.
inline void window_begin(const kivod_bs *bs, Window *w) {
    if (w->open || bs->type != KIVOD_INPUT_BITB || bs->bits < 0 || bs->not_ff == 0) return;
    w->acc = static_cast<uint64_t>(bs->cache) << 32;
    w->n = bs->bits;
    w->p = bs->cur;
    w->end = bs->end;
    w->ff = nullptr;
    w->open = true;
}

// True when a byte of x is 0xFF: its complement then holds a zero byte.
template <class T>
inline bool holds_ff(T x) {
    const T inv = static_cast<T>(~x), ones = static_cast<T>(~T(0)) / 255;  // 0x01 in every byte
    return ((inv - ones) & ~inv & static_cast<T>(ones << 7)) != 0;
}

inline void window_fill(Window *w) {
    if (w->n > 56) return;
    if (w->end - w->p >= 7) {
        uint64_t x;
        std::memcpy(&x, w->p, 8);
        x = __builtin_bswap64(x);
        if (!holds_ff(x)) {
            const int32_t k = (64 - w->n) >> 3;
            const int32_t kept = w->n + 8 * k;
            const uint64_t keep = kept >= 64 ? ~0ull : ~(~0ull >> kept);
            w->acc |= (x >> w->n) & keep;
            w->p += k;
            w->n = kept;
            return;
        }
    }
    // Byte by byte up to a 0xFF that is not stuffed (a marker, or the end
    // of the input next): a stuffed one goes in without its zero byte.
    while (w->n <= 56 && w->p <= w->end) {
        const uint8_t b = *w->p;
        if (b == 0xFF && (w->p == w->end || w->p[1] != 0x00)) break;
        w->acc |= static_cast<uint64_t>(b) << (56 - w->n);
        w->n += 8;
        if (b == 0xFF) w->ff = w->p++;
        ++w->p;
    }
}

inline void window_skip(Window *w, int32_t len) {
    w->acc <<= len;
    w->n -= len;
}

// The DC difference through the open window, which holds at least 32 bits.
inline int32_t dc_window(Window *w, int16_t q0, const kivod_dc_tbl *t, uint64_t *dc_count, int16_t *out) {
    const int32_t f = t->fast[w->acc >> (64 - kivod_fast_bits)];
    if (f) {
        window_skip(w, f & 31);
        *out = dequant(f >> 16, static_cast<uint16_t>(q0));
        if (dc_count) ++dc_count[(f >> 8) & 15];
        return KIVO_OK;
    }
    int32_t len = 0;
    const int32_t cat = dc_category(t, static_cast<uint32_t>(w->acc >> 48), &len);
    if (cat < 0) return KIVO_ERR_MALFORMED;
    window_skip(w, len);
    int16_t d = 0;
    if (cat) {
        d = dequant(extend(static_cast<uint32_t>(w->acc >> (64 - cat)), cat), static_cast<uint16_t>(q0));
        window_skip(w, cat);
    }
    *out = d;
    if (dc_count) ++dc_count[cat];
    return KIVO_OK;
}

// The start of a block for both block loops, on w, the local copy of the
// opened window *wp: the window filled, and the DC code when kDc. Returns
// true with 32 bits or more in w to go on with; false with *ret the block's status when the reader
// has decoded the block (no window could be had) or the DC code failed.
template <int kLast, bool kCount, bool kDc, bool kMag>
inline bool block_start(kivod_bs *bs, Window *wp, const kivod_blk_tbls &s, int16_t *blk, int16_t *diff,
                        int16_t *dc_only, Window &w, int32_t *ret) {
    *dc_only = kLast == 0 ? 1 : 0;
    if (w.open && w.n < 32) window_fill(&w);
    if (!w.open || w.n < 32) {
        *wp = w;
        kivod_win_close(wp, bs);
        if (kDc) {
            *ret = kivod_vld_dc(bs, s.q0, s.dc, s.dc_count, diff);
            if (*ret != KIVO_OK) return false;
        }
        Requant rq;
        *ret = ac_reader<kLast, kCount, kMag>(bs, s.q, s.qz, s.ac, kCount ? s.ac_count : nullptr, blk, s.mag, dc_only,
                                               1, &rq);
        return false;
    }
    if (kDc) {
        *ret = dc_window(&w, s.q0, s.dc, s.dc_count, diff);
        if (*ret != KIVO_OK) {
            *wp = w;
            return false;
        }
    }
    return true;
}

// Eight more bytes under the window (n <= 63 valid bits) when the input
// has them and they hold no 0xFF, whatever the window holds: it then has
// 56 or more. The bits below the valid ones are left as the data's next
// bits, which later loads OR in alike (kivod_win_close clears them).
inline bool fill_ahead(Window &w) {
    if (w.end - w.p < 7) return false;
    uint64_t x;
    std::memcpy(&x, w.p, 8);
    x = __builtin_bswap64(x);
    if (holds_ff(x)) return false;
    w.acc |= x >> w.n;
    w.p += (63 - w.n) >> 3;
    w.n |= 56;
    return true;
}

// The common case of ac_block: eight bytes under the window, then four
// coefficient codes of the one-step look-up (11 bits at most each: 44 of the
// 56 or more), with no branch on the window's bits per code. Stops before a
// code it does not take (sixteen zeros, a code the look-up does not hold,
// a coefficient past 63) and where the window cannot hold four codes (a
// marker or the end of the input near): kGoOn. Else the block is complete,
// as apply() would end it: a coefficient at 63 (kEnd), end-of-block read or
// the count complete (kCounted), the count failed (kBad).
static_assert(kivod_fast_bits < 32 && 4 * kivod_fast_bits <= 56, "four codes after a fill, lengths in bits 0-4");
template <int kLast, bool kCount, bool kMag>
inline Next fast_run(Window &w, const int32_t *fast, const kivod_qtbl *q, const uint32_t *qz, int16_t *blk,
                     uint32_t *mag, int16_t *dc_only, uint64_t *cnt, Requant *rq, int32_t *status, int32_t *kp) {
    int32_t k = *kp;
    Next next = Next::kGoOn;
    for (;;) {
        // A window already full (64 bits) takes its four codes as it is;
        // near a 0xFF the bytes go in one by one.
        if (w.n < 64 && !fill_ahead(w) && w.n < 4 * kivod_fast_bits) {
            window_fill(&w);
            if (w.n < 4 * kivod_fast_bits) break;
        }
        for (int i = 0; i < 4; ++i) {
            const int32_t f = fast[w.acc >> (64 - kivod_fast_bits)];
            const int32_t run = (f >> 8) & 15, pos = k + run;
            if (!(f & kivod_fast_coef) || pos > 63) {
                if (!(f & kivod_fast_eob)) goto out;
                w.acc <<= f & 63;
                w.n -= f & 31;
                if (k == 1) *dc_only = 1;
                if (kCount) ++cnt[0x00];
                next = Next::kCounted;
                goto out;
            }
            // The length is below 32, so f & 63 is it too: the shift needs
            // no mask of its own on x86-64 (one step less between codes).
            w.acc <<= f & 63;
            w.n -= f & 31;
            if (kLast == 63 || k <= kLast) {
                const int16_t c = put<kMag>(blk, mag, qz[pos], f >> 16);
                if (kCount && !rq->coefficient(q, cnt, c, pos, run, status)) {
                    k = pos + 1;
                    next = *status ? Next::kBad : Next::kCounted;
                    goto out;
                }
            }
            k = pos + 1;
            if (k > 63) {
                next = Next::kEnd;
                goto out;
            }
        }
    }
out:
    *kp = k;
    return next;
}

// One block's symbols, with its DC code first when kDc, through the window
// while it can be opened and filled, else through the reader.
// Coefficients of symbols that start at zig-zag positions up to kLast are
// stored; every symbol is read. With kCount, the symbols an encoder would
// send for the re-quantized block are counted.
template <int kLast, bool kCount, bool kDc, bool kMag>
int32_t ac_block(kivod_bs *bs, Window *wp, const kivod_blk_tbls &s, int16_t *blk, int16_t *diff,
                 int16_t *dc_only) {
    const kivod_qtbl *q = s.q;
    const uint32_t *qz = s.qz;
    const kivod_ac_tbl *t = s.ac;
    uint64_t *cnt = s.ac_count;
    uint32_t *mag = s.mag;
    window_begin(bs, wp);
    Window w = *wp;  // a local copy stays in registers
    int32_t ret;
    if (!block_start<kLast, kCount, kDc, kMag>(bs, wp, s, blk, diff, dc_only, w, &ret)) return ret;
    Requant rq;
    int32_t k = 1;
    int32_t status = KIVO_OK;
    Next n = Next::kEnd;
    while (k <= 63) {
        if (kLast > 0) {
            n = fast_run<kLast, kCount, kMag>(w, t->fast, q, qz, blk, mag, dc_only, cnt, &rq, &status, &k);
            if (n != Next::kGoOn) break;
            n = Next::kEnd;
        }
        if (w.n < 32) window_fill(&w);
        if (w.n < 32) {
            // A 0xFF or the end of the input is near: the reader's refill
            // handles stuffing and running out.
            *wp = w;
            kivod_win_close(wp, bs);
            return ac_reader<kLast, kCount, kMag>(bs, q, qz, t, cnt, blk, mag, dc_only, k, &rq);
        }
        const int32_t f = t->fast[w.acc >> (64 - kivod_fast_bits)];
        if (kLast == 0 && f && !(f & kivod_fast_eob)) {
            // Nothing is stored at 1/8: sixteen zeros and a coefficient
            // both only move k on (past 63 the block ends either way).
            window_skip(&w, f & 31);
            k += ((f >> 8) & 15) + 1;
            continue;
        }
        // A coefficient code of the one-step look-up, the common case.
        if (f && !(f & (kivod_fast_eob | kivod_fast_zrl))) {
            window_skip(&w, f & 31);
            const int32_t run = (f >> 8) & 15;
            const int32_t pos = k + run;
            if (pos > 63) break;
            if (k <= kLast) {
                const int16_t c = put<kMag>(blk, mag, qz[pos], f >> 16);
                if (kCount && !rq.coefficient(q, cnt, c, pos, run, &status)) {
                    n = status ? Next::kBad : Next::kCounted;
                    break;
                }
            }
            k = pos + 1;
            continue;
        }
        int32_t run, size, value = 0;
        if (f) {
            window_skip(&w, f & 31);
            run = f & kivod_fast_zrl ? 15 : 0;
            size = 0;
        } else {
            int32_t len;
            if (ac_code(t, static_cast<uint32_t>(w.acc >> 32), &len, &run, &size) != KIVO_OK) {
                *wp = w;
                return KIVO_ERR_MALFORMED;
            }
            window_skip(&w, len);
            if (size) {
                value = extend(static_cast<uint32_t>(w.acc >> (64 - size)), size);
                window_skip(&w, size);
            }
        }
        n = apply<kLast, kCount, kMag>(run, size, value, &k, q, qz, blk, mag, dc_only, cnt, &rq, &status);
        if (n != Next::kGoOn) break;
        n = Next::kEnd;
    }
    *wp = w;
    return finish<kCount>(n, rq, cnt, status);
}

// Closes a window kept in registers: the reader gets a copy, so the
// window's address never escapes and the compiler need not keep it in
// memory between codes.
inline void close_copy(Window &w, kivod_bs *bs) {
    Window c = w;
    kivod_win_close(&c, bs);
    w.open = false;
}

// The skim's walk over one block: the DC code, then the AC codes consumed
// through the skim's look-up, several a step, while its entry keeps them
// inside the block (an end-of-block read at 63 or before, positions moved
// on to 64 at most), else one code as ac_block<0> takes it. Nothing is
// stored; the reader ends where ac_block<0> leaves it, and fails alike.
// w is the MCU's window, kept in the caller's registers from block to
// block; its bits below the count may hold the data's next bits
// (kivod_win_close clears them).
inline __attribute__((always_inline)) int32_t skim_block(kivod_bs *bs, Window &w, const kivod_blk_tbls &s,
                                                         int16_t *diff) {
    window_begin(bs, &w);
    int16_t dc_only;
    // An open window holds 63 bits or fewer here: it was opened from the
    // reader's 32, or the last block took a code after its last fill.
    if (!w.open || (!fill_ahead(w) && (window_fill(&w), w.n < 32))) {
        // No window, or a 0xFF or the end of the input is near: the
        // reader decodes the block.
        close_copy(w, bs);
        const int32_t r = kivod_vld_dc(bs, s.q0, s.dc, nullptr, diff);
        if (r != KIVO_OK) return r;
        Requant rq;
        return ac_reader<0, false, false>(bs, s.q, s.qz, s.ac, nullptr, nullptr, nullptr, &dc_only, 1, &rq);
    }
    if (dc_window(&w, s.q0, s.dc, nullptr, diff) != KIVO_OK) return KIVO_ERR_MALFORMED;
    const uint16_t *const skim = s.skim;
    const int32_t *const fast = s.ac->fast;
    int32_t k = 1;
    // One step with 32 bits or more in the window: 1 when the block ends,
    // 0 when it goes on, or a failure.
    const auto step = [&]() __attribute__((always_inline)) -> int32_t {
        const uint32_t e = skim[w.acc >> (64 - kivod_skim_bits)];
        if (k + static_cast<int32_t>(e >> 8) <= 64) {
            window_skip(&w, e & 63);  // a shift by the entry as it is
            k += (e >> 8) + (e & kivod_skim_eob);  // past 63 at end-of-block
            return k > 63;
        }
        // One code: past 63, or beyond the look-up.
        const int32_t f = fast[w.acc >> (64 - kivod_fast_bits)];
        if (f) {
            window_skip(&w, f & 31);
            if (f & kivod_fast_eob) return 1;
            k += ((f >> 8) & 15) + 1;
            return k > 63;
        }
        int32_t len, run, size;
        if (ac_code(s.ac, static_cast<uint32_t>(w.acc >> 32), &len, &run, &size) != KIVO_OK) return KIVO_ERR_MALFORMED;
        window_skip(&w, len + size);
        if (size == 0 && run == 0) return 1;
        if (size == 0 && run != 15) return KIVO_ERR_MALFORMED;
        k += size ? run + 1 : 16;
        return k > 63;
    };
    // The DC code took at least one bit: the window holds 63 or fewer, as
    // after every step.
    int32_t r;
    for (;;) {
        if (!fill_ahead(w)) {
            window_fill(&w);
            if (w.n < 32) {
                // A 0xFF or the end of the input is near: the reader's
                // refill handles stuffing and running out.
                close_copy(w, bs);
                Requant rq;
                return ac_reader<0, false, false>(bs, s.q, s.qz, s.ac, nullptr, nullptr, nullptr, &dc_only, k, &rq);
            }
        }
        if ((r = step()) != 0) break;
        // After eight bytes ahead two steps fit (entries take 24 bits at most).
        if (w.n < 32) continue;
        if ((r = step()) != 0) break;
    }
    return r > 0 ? KIVO_OK : r;
}

#if defined(KIVO_ARCH_arm) && defined(__arm__) && defined(__ARM_ARCH) && __ARM_ARCH >= 7
#define KIVO_BLOCK_ASM 1
// What coef_run returns when the window needs bytes it could not take four
// at a time (a 0xFF among them, or the input's end near): no table entry
// has bit 15 set.
constexpr int32_t kRunFill = 0x8000;
// The 8-bit look-up sits this many bytes before the one-step one.
constexpr int32_t kLookBack = static_cast<int32_t>(offsetof(kivod_ac_tbl, fast) - offsetof(kivod_ac_tbl, lookup));
static_assert(kLookBack > 0 && kLookBack < 4096, "a 12-bit immediate of the assembly");

// The block loop's common case in ARMv7 assembly: the symbols of the
// one-step look-up, each consumed, a coefficient's value stored
// dequantized, with four-byte refills, until end-of-block, a coefficient
// at 63 or beyond (k its position) or sixteen zeros past 63 (all returned
// consumed), a code the look-up does not hold (returned unconsumed, 0), or
// a refill the four-byte load cannot do (kRunFill). Codes of up to 8 bits
// whose extra bits the one-step look-up cannot hold go through the 8-bit
// look-up here too.
// The compiler kept the quantizer and block pointers on the stack in the C
// loop; here every value the symbols use lives in a register (the end of
// the input, which only the refill reads, in memory). Same arithmetic as
// the C loop of ac_block32.

// Consumes t0 bits of the window hi:lo (n valid).
#define KIVO_CONSUME_T0                                                                          \
    "rsb %[t1], %[t0], #32\n\t" "lsl %[hi], %[hi], %[t0]\n\t" "lsr %[t1], %[lo], %[t1]\n\t"  \
    "orr %[hi], %[hi], %[t1]\n\t" "lsl %[lo], %[lo], %[t0]\n\t" "sub %[n], %[n], %[t0]\n\t"
// Stores value f x quantizer at the raster position of zig-zag position k.
#define KIVO_STORE_F                                                                             \
    "ldr %[t1], [%[qz], %[k], lsl #2]\n\t" "mul %[f], %[f], %[t1]\n\t" "lsr %[t1], %[t1], #16\n\t" \
    "strh %[f], [%[blk], %[t1], lsl #1]\n\t"
// Label 2: a symbol of the one-step look-up (entry f); 4: end-of-block or
// sixteen zeros; 3: the four-byte refill.
#define KIVO_RUN_HEAD                                                                            \
    "cmp %[n], #32\n\t" "blt 3f\n"                                                               \
    "2:\n\t" "lsr %[t0], %[hi], #21\n\t" "ldr %[f], [%[fast], %[t0], lsl #2]\n\t"                \
    "tst %[f], #0x4000\n\t" "beq 4f\n\t" "and %[t0], %[f], #31\n\t" KIVO_CONSUME_T0              \
    "ubfx %[t0], %[f], #8, #4\n\t" "add %[k], %[k], %[t0]\n\t" "cmp %[k], #63\n\t" "bge 9f\n\t"
#define KIVO_RUN_NEXT                                                                            \
    "add %[k], %[k], #1\n\t" "cmp %[n], #32\n\t" "bge 2b\n"                                      \
    "3:\n\t" "ldr %[t0], %[last4]\n\t" "cmp %[p], %[t0]\n\t" "bhi 8f\n\t"                        \
    "ldr %[f], [%[p]]\n\t" "rev %[f], %[f]\n\t" "rsb %[t0], %[f], #0xfefefefe\n\t"               \
    "and %[t0], %[t0], %[f]\n\t" "tst %[t0], #0x80808080\n\t" "bne 8f\n\t"                      \
    "lsr %[t0], %[f], %[n]\n\t" "orr %[hi], %[hi], %[t0]\n\t" "rsb %[t1], %[n], #32\n\t"         \
    "lsl %[lo], %[f], %[t1]\n\t" "add %[n], %[n], #32\n\t" "add %[p], %[p], #4\n\t" "b 2b\n"     \
    "4:\n\t" "tst %[f], #0x3000\n\t" "beq 5f\n\t" "and %[t0], %[f], #31\n\t" KIVO_CONSUME_T0     \
    "tst %[f], #0x1000\n\t" "bne 9f\n\t" "add %[k], %[k], #16\n\t" "cmp %[k], #63\n\t"           \
    "bgt 9f\n\t" "cmp %[n], #32\n\t" "bge 2b\n\t" "b 3b\n"
// Label 5: a code of up to 8 bits whose extra bits do not fit the one-step
// look-up: its length, size and run from the 8-bit look-up (len | sym << 8
// | size << 16 | run << 24), the code consumed and k moved on by the run.
#define KIVO_RUN_LOOKUP8                                                                         \
    "5:\n\t" "lsr %[t0], %[hi], #24\n\t" "add %[t0], %[fast], %[t0], lsl #2\n\t"                \
    "sub %[t0], %[t0], %[back]\n\t" "ldr %[f], [%[t0]]\n\t" "uxtb %[t0], %[f]\n\t"              \
    "cmp %[t0], #8\n\t" "bhi 7f\n\t" "tst %[f], #0xff0000\n\t" "beq 7f\n\t" KIVO_CONSUME_T0      \
    "add %[k], %[k], %[f], lsr #24\n\t" "ubfx %[t0], %[f], #16, #8\n\t"
// The value of the extra bits, extended without a branch (1 - 2^size added
// when its first bit is 0), into f.
#define KIVO_RUN_VALUE                                                                           \
    "rsb %[t1], %[t0], #32\n\t" "lsr %[f], %[hi], %[t1]\n\t" "mvn %[t1], #0\n\t"                 \
    "lsl %[t1], %[t1], %[t0]\n\t" "add %[t1], %[t1], #1\n\t" "bic %[t1], %[t1], %[hi], asr #31\n\t" \
    "add %[f], %[f], %[t1]\n\t"
// Label 6, given: a coefficient at 63 or beyond.
#define KIVO_RUN_TAIL(AT63)                                                                      \
    "add %[k], %[k], #1\n\t" "cmp %[n], #32\n\t" "bge 2b\n\t" "b 3b\n" "6:\n\t" AT63 "b 9f\n"      \
    "7:\n\t" "mov %[f], #0\n\t" "b 9f\n"                                                         \
    "8:\n\t" "mov %[f], #0x8000\n"                                                               \
    "9:\n"
#define KIVO_RUN_OPERANDS                                                                        \
    : [hi] "+r"(hi), [lo] "+r"(lo), [n] "+r"(n), [p] "+r"(p), [k] "+r"(k), [f] "=&r"(f), [t0] "=&r"(t0), \
      [t1] "=&r"(t1)                                                                             \
    : [fast] "r"(fast), [qz] "r"(qz), [blk] "r"(blk), [last4] "m"(last4), [back] "n"(kLookBack)  \
    : "cc", "memory"

inline int32_t coef_run(uint32_t &hi, uint32_t &lo, int32_t &n, const uint8_t *&p, int32_t &k, const int32_t *fast,
                        const uint32_t *qz, int16_t *blk, uintptr_t last4) {
    int32_t f;
    uint32_t t0, t1;
    asm volatile(KIVO_RUN_HEAD "asr %[f], %[f], #16\n\t" KIVO_STORE_F KIVO_RUN_NEXT KIVO_RUN_LOOKUP8
                     KIVO_RUN_VALUE KIVO_CONSUME_T0 "cmp %[k], #63\n\t" "bge 6f\n\t" KIVO_STORE_F
                         // At 63 or beyond: returned as a consumed coefficient entry.
                         KIVO_RUN_TAIL("lsl %[f], %[f], #16\n\t" "orr %[f], %[f], #0x4000\n\t")
                             KIVO_RUN_OPERANDS);
    return f;
}
#undef KIVO_CONSUME_T0
#undef KIVO_STORE_F
#undef KIVO_RUN_HEAD
#undef KIVO_RUN_NEXT
#undef KIVO_RUN_LOOKUP8
#undef KIVO_RUN_VALUE
#undef KIVO_RUN_TAIL
#undef KIVO_RUN_OPERANDS
#else
#define KIVO_BLOCK_ASM 0
#endif

// ac_block for 32-bit processors, blocks whose symbols are not counted: the
// window's top 32 bits in `hi` and the next ones in `lo`, so that a code is
// consumed with single-word shifts, refilled four bytes at a time while
// they hold no 0xFF. The window's state is loaded once and stored back once
// (the block's DC code is decoded from the same words). With kAsm (full
// size, ARMv7) the common symbols go through coef_run; with kSkim (the
// skim's walk at 1/8) codes go several at a time through the skim's
// look-up where its entry decides, as in skim_block. Reads and stores
// exactly what ac_block does.
template <int kLast, bool kDc, bool kMag, bool kAsm = false, bool kSkim = false>
int32_t ac_block32(kivod_bs *bs, Window *wp, const kivod_blk_tbls &s, int16_t *blk, int16_t *diff,
                   int16_t *dc_only) {
    window_begin(bs, wp);
    if (!wp->open) {
        Window w = *wp;
        int32_t ret;
        block_start<kLast, false, kDc, kMag>(bs, wp, s, blk, diff, dc_only, w, &ret);
        return ret;
    }
    // Every symbol takes at most 31 bits of the 32 or more the window holds
    // before it, so at least one is left: the shifts below stay in 1..31.
    uint32_t hi, lo;
    int32_t n;
    const uint8_t *p;
    const auto load = [&]() __attribute__((always_inline)) {
        hi = static_cast<uint32_t>(wp->acc >> 32);
        lo = static_cast<uint32_t>(wp->acc);
        n = wp->n;
        p = wp->p;
    };
    const auto pack = [&]() __attribute__((always_inline)) {
        wp->acc = static_cast<uint64_t>(hi) << 32 | lo;
        wp->n = n;
        wp->p = p;
    };
    load();
    // The last position with four bytes to load.
    const uintptr_t last4 = reinterpret_cast<uintptr_t>(wp->end) - 3;
    const int32_t *const fast = s.ac->fast;
    const uint32_t *const qz = s.qz;
    const auto consume = [&](int32_t len) __attribute__((always_inline)) {
        hi = hi << len | lo >> (32 - len);
        lo <<= len;
        n -= len;
    };
    // Four more bytes when they hold no 0xFF, else the bytes up to the
    // 0xFF; false when that leaves fewer than 32 bits (the state is then
    // packed in *wp). Only at a block's start may the window be empty.
    const auto fill = [&](bool at_start) __attribute__((always_inline)) {
        if (reinterpret_cast<uintptr_t>(p) <= last4) {
            uint32_t x;
            std::memcpy(&x, p, 4);
            x = __builtin_bswap32(x);
            if (!holds_ff(x)) {
                hi |= x >> n;  // the bits below n are zero
                lo = at_start ? (x << 1) << (31 - n) : x << (32 - n);  // n >= 1 past the start
                n += 32;
                p += 4;
                return true;
            }
        }
        pack();
        window_fill(wp);
        load();
        return n >= 32;
    };
    int32_t k = 1;
    // With fewer than 32 bits and no four clean bytes, the byte-wise refill
    // of the shared routines takes over from here: k == 1 still before the
    // DC code.
    bool dc_done = !kDc;
    if (n < 32 && !fill(true)) goto slow;
    if (kDc) {
        const int32_t f = s.dc->fast[hi >> (32 - kivod_fast_bits)];
        if (f) {
            consume(f & 31);
            *diff = dequant(f >> 16, static_cast<uint16_t>(s.q0));
            if (s.dc_count) ++s.dc_count[(f >> 8) & 15];
        } else {
            int32_t len = 0;
            const int32_t cat = dc_category(s.dc, hi >> 16, &len);
            if (cat < 0) {
                pack();
                return KIVO_ERR_MALFORMED;
            }
            consume(len);
            int16_t d = 0;
            if (cat) {
                d = dequant(extend(hi >> (32 - cat), cat), static_cast<uint16_t>(s.q0));
                consume(cat);
            }
            *diff = d;
            if (s.dc_count) ++s.dc_count[cat];
        }
        dc_done = true;
    }
    for (;;) {
        int32_t f;
#if KIVO_BLOCK_ASM
        if (kAsm) {
            static_assert(!kAsm || (kLast == 63 && kDc && !kMag), "the assembly stores every coefficient");
            f = coef_run(hi, lo, n, p, k, fast, qz, blk, last4);
            if (f == kRunFill) {
                if (!fill(false)) goto slow;
                continue;
            }
            if (f & kivod_fast_eob) {
                pack();
                *dc_only = k == 1;
                return KIVO_OK;
            }
            if (f & (kivod_fast_coef | kivod_fast_zrl)) {
                // Consumed, and k is past 63, or the position of a
                // coefficient at 63 or beyond: the block ends.
                if ((f & kivod_fast_coef) && k == 63) put<false>(blk, nullptr, qz[63], f >> 16);
                break;
            }
        } else
#endif
        {
            if (n < 32 && !fill(false)) goto slow;
            if (kSkim) {
                static_assert(!kSkim || (kLast == 0 && kDc && !kMag && !kAsm), "the skim's walk");
                const uint32_t e = s.skim[hi >> (32 - kivod_skim_bits)];
                if (k + static_cast<int32_t>(e >> 8) <= 64) {
                    consume(e & 63);
                    k += (e >> 8) + (e & kivod_skim_eob);
                    if (k > 63) break;
                    continue;
                }
            }
            f = fast[hi >> (32 - kivod_fast_bits)];
        }
        if (f & kivod_fast_coef) {
            // A coefficient code of the one-step look-up, the common case.
            // One at 63 ends the block, one past it ends it unstored.
            consume(f & 31);
            const int32_t pos = k + ((f >> 8) & 15);
            if (pos >= 63) {
                if (pos == 63 && k <= kLast) put<kMag>(blk, s.mag, qz[pos], f >> 16);
                break;
            }
            if (k <= kLast) put<kMag>(blk, s.mag, qz[pos], f >> 16);
            k = pos + 1;
            continue;
        }
        if (f & kivod_fast_eob) {
            consume(f & 31);
            pack();
            *dc_only = kLast == 0 || k == 1;
            return KIVO_OK;
        }
        int32_t run, size, value = 0;
        if (f) {
            consume(f & 31);
            run = 15;
            size = 0;
        } else {
            int32_t len;
            if (ac_code(s.ac, hi, &len, &run, &size) != KIVO_OK) {
                pack();
                return KIVO_ERR_MALFORMED;
            }
            consume(len);
            if (size) {
                value = extend(hi >> (32 - size), size);
                consume(size);
            }
        }
        int16_t eob_dc = 0;
        int32_t status = KIVO_OK;
        Requant rq;
        const Next next =
            apply<kLast, false, kMag>(run, size, value, &k, s.q, qz, blk, s.mag, &eob_dc, nullptr, &rq, &status);
        if (next == Next::kCounted) {
            pack();
            *dc_only = kLast == 0 || eob_dc;
            return KIVO_OK;
        }
        if (next == Next::kBad) {
            pack();
            return status;
        }
        if (next != Next::kGoOn || k > 63) break;
    }
    pack();
    *dc_only = kLast == 0;
    return KIVO_OK;
slow:
    // A 0xFF or the end of the input is near: the reader's refill handles
    // stuffing and running out.
    kivod_win_close(wp, bs);
    *dc_only = kLast == 0 ? 1 : 0;
    if (!dc_done) {
        const int32_t r = kivod_vld_dc(bs, s.q0, s.dc, s.dc_count, diff);
        if (r != KIVO_OK) return r;
    }
    Requant rq;
    return ac_reader<kLast, false, kMag>(bs, s.q, qz, s.ac, nullptr, blk, s.mag, dc_only, k, &rq);
}

// One AC routine on its own: the window opened and closed around the block.
template <int kLast, bool kCount>
int32_t ac_alone(kivod_bs *bs, const kivod_qtbl *q, const kivod_ac_tbl *t, uint64_t *cnt, int16_t *blk,
                 int16_t *dc_only) {
    Window w{};
    uint32_t qz[64];
    kivod_make_qz(q, qz);
    kivod_blk_tbls s{};
    s.q = q;
    s.qz = qz;
    s.ac = t;
    s.ac_count = cnt;
    const int32_t st = kWords && !kCount ? ac_block32<kLast, false, false>(bs, &w, s, blk, nullptr, dc_only)
                                         : ac_block<kLast, kCount, false, false>(bs, &w, s, blk, nullptr, dc_only);
    kivod_win_close(&w, bs);
    return st;
}

// A whole block: DC then AC.
template <int kLast, bool kCount, bool kMag>
int32_t block(kivod_bs *bs, Window *w, const kivod_blk_tbls *s, int16_t *blk, int16_t *diff, int16_t *dc_only) {
    if (kWords && !kCount) return ac_block32<kLast, true, kMag, false>(bs, w, *s, blk, diff, dc_only);
    return ac_block<kLast, kCount, true, kMag>(bs, w, *s, blk, diff, dc_only);
}

// Full size with magnitudes: symbols are counted where the tables ask.
int32_t block8_mag(kivod_bs *bs, Window *w, const kivod_blk_tbls *s, int16_t *blk, int16_t *diff,
                   int16_t *dc_only) {
    if (s->ac_count) return block<63, true, true>(bs, w, s, blk, diff, dc_only);
    return block<63, false, true>(bs, w, s, blk, diff, dc_only);
}

}  // namespace

void kivod_make_qz(const kivod_qtbl *q, uint32_t qz[64]) {
    for (int i = 0; i < 64; ++i) qz[i] = q->q[i] | static_cast<uint32_t>(kivo_tbl_zig_to_ras[i]) << 16;
}

// Hands the state back to the reader: bytes beyond its 32-bit cache go back
// to the input (they hold no 0xFF, so nothing was dropped from them).
void kivod_win_close(kivod_win *w, kivod_bs *bs) {
    if (!w->open) return;
    w->open = false;
    int32_t n = w->n;
    const uint8_t *p = w->p;
    if (n > 32) {
        // Bytes loaded and not used go back to the reader; a 0xFF the
        // window took with its stuffing zero goes back with it.
        const int32_t back = (n - 32 + 7) >> 3;
        n -= back * 8;
        if (!w->ff || w->ff + 1 < p - back) {
            p -= back;
        } else {
            for (int32_t i = 0; i < back; ++i) {
                --p;
                if (*p == 0x00 && p > bs->start && p[-1] == 0xFF) --p;
            }
        }
    }
    const uint64_t acc = n > 0 ? w->acc & (~0ull << (64 - n)) : 0;
    if (p != bs->cur) bs->not_ff = 1;
    bs->cache = static_cast<uint32_t>(acc >> 32);
    bs->bits = n;
    bs->cur = p;
}

int32_t kivod_vld_dc(kivod_bs *bs, int16_t q0, const kivod_dc_tbl *t, uint64_t *dc_count,
                     int16_t *out) {
    top_up(bs);
    const uint32_t c = bs->cache;
    int32_t len = 0;
    const int32_t cat = dc_category(t, c >> 16, &len);
    if (cat < 0) return KIVO_ERR_MALFORMED;
    const int32_t total = len + cat;  // <= 12 + 11
    uint32_t v;
    if (bs->bits >= total) {
        v = cat ? (c << len) >> (32 - cat) : 0;
        bs->cache = c << total;
        bs->bits -= total;
    } else {
        kivod_bs_skip(bs, len);
        v = cat ? kivod_bs_read(bs, cat) : 0;
    }
    *out = cat ? dequant(extend(v, cat), static_cast<uint16_t>(q0)) : 0;
    if (dc_count) ++dc_count[cat];
    return KIVO_OK;
}

int32_t kivod_vld_ac8(kivod_bs *bs, const kivod_qtbl *q, const kivod_ac_tbl *t,
                      uint64_t *ac_count, int16_t *blk, int16_t *dc_only) {
    if (ac_count) return ac_alone<63, true>(bs, q, t, ac_count, blk, dc_only);
    return ac_alone<63, false>(bs, q, t, nullptr, blk, dc_only);
}

int32_t kivod_vld_ac4(kivod_bs *bs, const kivod_qtbl *q, const kivod_ac_tbl *t,
                      uint64_t *, int16_t *blk, int16_t *dc_only) {
    return ac_alone<9, false>(bs, q, t, nullptr, blk, dc_only);
}

int32_t kivod_vld_ac2(kivod_bs *bs, const kivod_qtbl *q, const kivod_ac_tbl *t,
                      uint64_t *, int16_t *blk, int16_t *dc_only) {
    return ac_alone<2, false>(bs, q, t, nullptr, blk, dc_only);
}

int32_t kivod_vld_ac1(kivod_bs *bs, const kivod_qtbl *q, const kivod_ac_tbl *t,
                      uint64_t *, int16_t *blk, int16_t *dc_only) {
    return ac_alone<0, false>(bs, q, t, nullptr, blk, dc_only);
}

#if KIVO_BLOCK_ASM
namespace {
int32_t block8_arm(kivod_bs *bs, Window *w, const kivod_blk_tbls *s, int16_t *blk, int16_t *diff, int16_t *dc_only) {
    return ac_block32<63, true, false, true>(bs, w, *s, blk, diff, dc_only);
}
}  // namespace

kivod_vld_blk_fn kivod_vld_blk_arm_for(int32_t scale) {
    switch (scale) {
        case 0:
        case 1: return block8_arm;
        // Past the few stored positions of the reduced scales the C loop is
        // as short as the assembly, which then only adds its entry and exit.
        default: return kivod_vld_blk_for(scale, false);
    }
}
#endif

int32_t kivod_skim_mcu(kivod_bs *bs, const kivod_blk_tbls *const *blocks, int32_t n, int16_t *diff, int32_t *status) {
    Window w{};
    int32_t i = 0;
    for (; i < n; ++i) {
        int16_t dc_only;
        const int32_t r = kWords ? ac_block32<0, true, false, false, true>(bs, &w, *blocks[i], nullptr, &diff[i], &dc_only)
                                 : skim_block(bs, w, *blocks[i], &diff[i]);
        if (r != KIVO_OK) {
            *status = r;
            break;
        }
    }
    close_copy(w, bs);
    return i;
}

kivod_vld_blk_fn kivod_vld_blk_for(int32_t scale, bool magnitudes) {
    switch (scale) {
        case 0:
        case 1: return magnitudes ? block8_mag : block<63, false, false>;
        case 2: return magnitudes ? block<9, false, true> : block<9, false, false>;
        case 4: return magnitudes ? block<2, false, true> : block<2, false, false>;
        default: return block<0, false, false>;
    }
}
