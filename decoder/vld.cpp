// Huffman decoding of the coefficients of one sequential-scan block.
//
// The routines work on the reader's cache directly. Memory input is topped
// up in place while the next bytes hold no 0xFF; anything else (stuffing,
// markers, file input, the last bytes) goes through kivod_bs_peek, and a code
// whose extra bits do not fit in the cache through kivod_bs_skip/read. After
// a top-up the cache holds at least 24 bits unless the input is nearly used
// up, which covers any code of up to 8 bits together with its extra bits.
//
// Size-0 AC symbols other than end-of-block (run 0) and sixteen zeros
// (run 15) are refused by every routine, so all four consume a stream the
// same way and fail on the same blocks.
//
// Counters: a null dc_count or ac_count means "do not count". The choice is
// made once per block (kivod_vld_ac8 runs one of two instantiations), not
// per symbol.
#include <cstring>

#include "decoder/bs_inline.h"

namespace {

// value x quantizer, kept to 16 bits without signed overflow.
inline int16_t dequant(int32_t value, uint16_t q) {
    return low16(static_cast<uint32_t>(value) * q);
}

// Decodes one AC code and consumes it with its extra bits. Sets run and size
// and, when kValue, the raw extra bits. 0, or -202 for a code the table does
// not hold.
template <bool kValue>
inline int32_t next_symbol(kivod_bs *bs, const kivod_ac_tbl *t, int32_t *run, int32_t *size,
                           uint32_t *extra) {
    top_up(bs);
    uint32_t c = bs->cache;
    const kivod_ac_look e = t->lookup[c >> 24];
    int32_t len;
    if (e.len <= 8) {
        len = e.len;
        *run = e.run;
        *size = e.size;
    } else {
        const int32_t idx = long_ac_code(t, c >> 16, &len);
        if (idx < 0) return KIVO_ERR_MALFORMED;
        *run = t->sym[idx].run;
        *size = t->sym[idx].size;
    }
    int32_t s = *size;
    int32_t total = len + s;
    if (bs->bits >= total) {
        if (kValue) *extra = s ? (c << len) >> (32 - s) : 0;
        bs->cache = c << total;  // total <= 31
        bs->bits -= total;
    } else {
        kivod_bs_skip(bs, len);
        if (kValue)
            *extra = s ? kivod_bs_read(bs, s) : 0;
        else
            kivod_bs_skip(bs, s);
    }
    return KIVO_OK;
}

// Decodes and drops the symbols of a block from zig-zag position k on.
int32_t skip_rest(kivod_bs *bs, const kivod_ac_tbl *t, int32_t k) {
    while (k <= 63) {
        int32_t run, size;
        if (next_symbol<false>(bs, t, &run, &size, nullptr) != 0) return KIVO_ERR_MALFORMED;
        if (size == 0) {
            if (run == 0) return KIVO_OK;
            if (run != 15) return KIVO_ERR_MALFORMED;
            k += 16;
        } else {
            k += run + 1;
        }
    }
    return KIVO_OK;
}

// Stores the coefficients of symbols starting at positions up to kLast,
// then decodes the rest without storing.
template <int kLast>
int32_t ac_partial(kivod_bs *bs, const kivod_qtbl *q, const kivod_ac_tbl *t, int16_t *blk,
                   int16_t *dc_only, int32_t k = 1) {
    if (k == 1) *dc_only = 0;
    while (k <= kLast) {
        int32_t run, size;
        uint32_t v;
        if (next_symbol<true>(bs, t, &run, &size, &v) != 0) return KIVO_ERR_MALFORMED;
        if (size == 0) {
            if (run == 0) {
                if (k == 1) *dc_only = 1;
                return KIVO_OK;
            }
            if (run != 15) return KIVO_ERR_MALFORMED;
            k += 16;
            continue;
        }
        int32_t pos = k + run;
        if (pos > 63) return KIVO_OK;
        blk[kivo_tbl_zig_to_ras[pos]] = dequant(extend(v, size), q->q[pos]);
        k = pos + 1;
    }
    return skip_rest(bs, t, k);
}

// Full block. With kCount, also re-quantizes each coefficient with rq_mul
// and rq_off and counts the symbols an encoder would emit for the result:
// z is the pending zero run, g the pending sixteen-zero groups.
template <bool kCount>
int32_t ac_full(kivod_bs *bs, const kivod_qtbl *q, const kivod_ac_tbl *t, uint64_t *cnt,
                int16_t *blk, int16_t *dc_only, int32_t k = 1) {
    if (k == 1) *dc_only = 0;
    int32_t z = 0, g = 0;
    while (k <= 63) {
        int32_t run, size;
        uint32_t v;
        if (next_symbol<true>(bs, t, &run, &size, &v) != 0) return KIVO_ERR_MALFORMED;
        if (size == 0) {
            if (run == 0) {
                if (k == 1) *dc_only = 1;
                if (kCount) ++cnt[0x00];
                return KIVO_OK;
            }
            if (run != 15) return KIVO_ERR_MALFORMED;
            if (kCount) {
                ++cnt[0xF0];
                z = 0;
            }
            k += 16;
            continue;
        }
        int32_t pos = k + run;
        if (pos > 63) break;
        int16_t c = dequant(extend(v, size), q->q[pos]);
        blk[kivo_tbl_zig_to_ras[pos]] = c;
        k = pos + 1;
        if (kCount) {
            int32_t mag = c < 0 ? -static_cast<int32_t>(c) : c;
            int32_t r0 = ((mag + q->rq_off[pos]) * q->rq_mul[pos]) >> 14;
            int16_t r = low16(static_cast<uint32_t>(c > 0 ? r0 : -r0));
            if (r == 0) {
                if (++z > 15) {
                    z = 0;
                    ++g;
                }
                continue;
            }
            if (g) {
                ++cnt[0xF0];
                --g;
            }
            int32_t n = z + run;
            if (n > 15) n = 14;
            int32_t cat = kivo::category(r);
            if (cat < 0) return KIVO_ERR_UNAVAILABLE;
            ++cnt[16 * n + cat];
            z = 0;
            if (pos == 63) {
                ++cnt[0x00];
                return KIVO_OK;
            }
        }
    }
    if (kCount && z != 0) ++cnt[0x00];
    return KIVO_OK;
}

// ---- 64-bit window over memory input ------------------------------------------
//
// For the length of one block the reader's state is held in a 64-bit
// accumulator, topped up eight bytes at a time while the bytes hold no 0xFF.
// When fewer than 32 bits can be had that way (a 0xFF ahead, or the end of
// the input), the symbol goes through the reader's own refill instead.

struct Window {
    uint64_t acc;  // valid bits at the top, zeros below
    int32_t n;     // valid bits
    const uint8_t *p;
    const uint8_t *end;  // last byte of the input
};

inline bool window_usable(const kivod_bs *bs) {
    return bs->type == KIVOD_INPUT_BITB && bs->bits >= 0 && bs->not_ff != 0;
}

inline void window_open(const kivod_bs *bs, Window *w) {
    w->acc = static_cast<uint64_t>(bs->cache) << 32;
    w->n = bs->bits;
    w->p = bs->cur;
    w->end = bs->end;
}

// Hands the state back to the reader: bytes beyond its 32-bit cache go back
// to the input (they hold no 0xFF, so nothing was dropped from them).
inline void window_close(const Window *w, kivod_bs *bs) {
    int32_t n = w->n;
    const uint8_t *p = w->p;
    if (n > 32) {
        const int32_t back = (n - 32 + 7) >> 3;
        n -= back * 8;
        p -= back;
    }
    const uint64_t acc = n > 0 ? w->acc & (~0ull << (64 - n)) : 0;
    if (p != bs->cur) bs->not_ff = 1;
    bs->cache = static_cast<uint32_t>(acc >> 32);
    bs->bits = n;
    bs->cur = p;
}

inline void window_fill(Window *w) {
    if (w->n > 56) return;
    if (w->end - w->p >= 7) {
        uint64_t x;
        std::memcpy(&x, w->p, 8);
        x = __builtin_bswap64(x);
        const uint64_t inv = ~x;  // a 0xFF byte becomes a zero byte
        const uint64_t ff = (inv - 0x0101010101010101ull) & ~inv & 0x8080808080808080ull;
        if (!ff) {
            const int32_t k = (64 - w->n) >> 3;
            const int32_t kept = w->n + 8 * k;
            const uint64_t keep = kept >= 64 ? ~0ull : ~(~0ull >> kept);
            w->acc |= (x >> w->n) & keep;
            w->p += k;
            w->n = kept;
            return;
        }
    }
    while (w->n <= 56 && w->p <= w->end && *w->p != 0xFF) {
        w->acc |= static_cast<uint64_t>(*w->p++) << (56 - w->n);
        w->n += 8;
    }
}

inline void window_skip(Window *w, int32_t len) {
    w->acc <<= len;
    w->n -= len;
}

// One block's AC symbols through the window. Coefficients of symbols that
// start at zig-zag positions up to kLast are stored; every symbol is read.
template <int kLast>
int32_t ac_window(kivod_bs *bs, const kivod_qtbl *q, const kivod_ac_tbl *t, int16_t *blk,
                  int16_t *dc_only) {
    *dc_only = kLast == 0 ? 1 : 0;
    Window w;
    window_open(bs, &w);
    int32_t k = 1;
    while (k <= 63) {
        if (w.n < 32) window_fill(&w);
        int32_t run, size, value;
        if (w.n >= 32) {
            const int32_t f = t->fast[w.acc >> (64 - kivod_fast_bits)];
            if (f) {
                window_skip(&w, f & 31);
                if (f & (kivod_fast_eob | kivod_fast_zrl)) {
                    if (f & kivod_fast_zrl) {
                        k += 16;
                        continue;
                    }
                    if (k == 1 && kLast > 0) *dc_only = 1;
                    break;
                }
                const int32_t pos = k + ((f >> 8) & 15);
                if (pos > 63) break;
                if (k <= kLast) blk[kivo_tbl_zig_to_ras[pos]] = dequant(f >> 16, q->q[pos]);
                k = pos + 1;
                continue;
            }
            const kivod_ac_look e = t->lookup[w.acc >> 56];
            int32_t len;
            if (e.len <= 8) {
                len = e.len;
                run = e.run;
                size = e.size;
            } else {
                const int32_t idx = long_ac_code(t, static_cast<uint32_t>(w.acc >> 48), &len);
                if (idx < 0) {
                    window_close(&w, bs);
                    return KIVO_ERR_MALFORMED;
                }
                run = t->sym[idx].run;
                size = t->sym[idx].size;
            }
            window_skip(&w, len);
            value = 0;
            if (size) {
                value = extend(static_cast<uint32_t>(w.acc >> (64 - size)), size);
                window_skip(&w, size);
            }
        } else {
            // A 0xFF or the end of the input is near: the reader's refill
            // handles stuffing and running out.
            window_close(&w, bs);
            uint32_t v = 0;
            if (next_symbol<true>(bs, t, &run, &size, &v) != 0) return KIVO_ERR_MALFORMED;
            value = size ? extend(v, size) : 0;
            if (!window_usable(bs)) {
                // The reader holds a 0xFF or has run dry: finish the block
                // with its own routines.
                if (size == 0) {
                    if (run == 0) {
                        if (k == 1 && kLast > 0) *dc_only = 1;
                        return KIVO_OK;
                    }
                    if (run != 15) return KIVO_ERR_MALFORMED;
                    k += 16;
                } else {
                    const int32_t pos = k + run;
                    if (pos > 63) return KIVO_OK;
                    if (k <= kLast) blk[kivo_tbl_zig_to_ras[pos]] = dequant(value, q->q[pos]);
                    k = pos + 1;
                }
                if (kLast >= 63) return k > 63 ? KIVO_OK : ac_full<false>(bs, q, t, nullptr, blk, dc_only, k);
                return k > kLast ? skip_rest(bs, t, k) : ac_partial<kLast>(bs, q, t, blk, dc_only, k);
            }
            window_open(bs, &w);
        }
        if (size == 0) {
            if (run == 0) {
                if (k == 1 && kLast > 0) *dc_only = 1;
                break;
            }
            if (run != 15) {
                window_close(&w, bs);
                return KIVO_ERR_MALFORMED;
            }
            k += 16;
            continue;
        }
        const int32_t pos = k + run;
        if (pos > 63) break;
        if (k <= kLast) blk[kivo_tbl_zig_to_ras[pos]] = dequant(value, q->q[pos]);
        k = pos + 1;
    }
    window_close(&w, bs);
    return KIVO_OK;
}

}  // namespace

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
    if (ac_count) return ac_full<true>(bs, q, t, ac_count, blk, dc_only);
    if (window_usable(bs)) return ac_window<63>(bs, q, t, blk, dc_only);
    return ac_full<false>(bs, q, t, nullptr, blk, dc_only);
}

int32_t kivod_vld_ac4(kivod_bs *bs, const kivod_qtbl *q, const kivod_ac_tbl *t,
                      uint64_t *ac_count, int16_t *blk, int16_t *dc_only) {
    if (window_usable(bs)) return ac_window<9>(bs, q, t, blk, dc_only);
    return ac_partial<9>(bs, q, t, blk, dc_only);
}

int32_t kivod_vld_ac2(kivod_bs *bs, const kivod_qtbl *q, const kivod_ac_tbl *t,
                      uint64_t *ac_count, int16_t *blk, int16_t *dc_only) {
    if (window_usable(bs)) return ac_window<2>(bs, q, t, blk, dc_only);
    return ac_partial<2>(bs, q, t, blk, dc_only);
}

int32_t kivod_vld_ac1(kivod_bs *bs, const kivod_qtbl *q, const kivod_ac_tbl *t,
                      uint64_t *ac_count, int16_t *blk, int16_t *dc_only) {
    if (window_usable(bs)) return ac_window<0>(bs, q, t, blk, dc_only);
    *dc_only = 1;
    return skip_rest(bs, t, 1);
}
