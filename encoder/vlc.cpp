// Entropy coder: baseline Huffman coding of DC differences and AC runs,
// the statistics twins that count symbols instead, restart markers, EOI,
// the rate functions and the two flush procedures of the bit writer.
#include <cstring>

#include "encoder/kivoe_int.h"
#include "encoder/stuffing.h"
#include "common/nonzero.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif


namespace {


using kivo_nz::MaskWord;
using kivo_nz::kMaskBits;
using kivo_nz::ctz;
using kivoe_stuff::big_endian;
using kivoe_stuff::has_ff;
using kivoe_stuff::store_stuffed;

// True for the values that have a size category: -2047 to 2047.
inline bool has_category(int32_t v) { return static_cast<uint32_t>(v + 2047) <= 4094u; }

// Leading zeros of |v| in 32 bits for a non-zero 16-bit v: the size
// category is 32 minus this.
inline int32_t clz_abs(int32_t v) { return __builtin_clz(static_cast<uint32_t>(v < 0 ? -v : v)); }

// Additional bits of a non-zero v whose |v| has `clz` leading zeros: v
// itself when positive, the low bits of v - 1 when negative.
inline uint32_t extra_bits_clz(int32_t v, int32_t clz) {
    const uint32_t u = static_cast<uint32_t>(v - (v < 0 ? 1 : 0));
    return (u << clz) >> clz;
}

// Additional bits of v in category k (0 for k = 0).
inline uint32_t extra_bits(int32_t v, int32_t k) {
    return static_cast<uint32_t>(v - (v < 0 ? 1 : 0)) & ((1u << k) - 1);
}

// ---- bit output ------------------------------------------------------------------

// Entropy-coded bits written straight to memory with byte stuffing. Bits
// gather in a register-wide buffer (32 bits on 32-bit processors, where
// shifting 64 bits takes several instructions) that leaves a whole word at
// a time;
// store() pushes out whole 32-bit words as well, so that the bytes and the
// writer's state are then exactly those of xelo_bsw_write with the
// stuffing flush. Used only when the output has room for a whole block, so
// that nothing here checks the end of the output.
struct FastSink {
    using Acc = MaskWord;
    static constexpr int32_t kBits = 8 * sizeof(Acc);
    Acc acc;    // pending bits in the low n bits (higher bits are stale)
    int32_t n;  // 0 to kBits
    uint8_t *p;

    // The writer's state can be taken over: stuffing flush, a cache that is
    // neither invalid nor full, and room for a block.
    static bool usable(const xelo_bsw *bs) {
        return bs->flush == kivoe_bs_flush_data_seg && bs->free_bits >= 1 && bs->free_bits <= 32 &&
               bs->write_ptr && bs->end_ptr - bs->write_ptr >= kBlockMargin;
    }

    explicit FastSink(const xelo_bsw *bs)
        : acc(static_cast<Acc>(static_cast<uint64_t>(bs->cache) >> bs->free_bits)), n(32 - bs->free_bits),
          p(bs->write_ptr) {}

    void store(xelo_bsw *bs) {
        // Whole words go out as the writer would have written them.
        while (n >= 32) {
            const uint32_t w = static_cast<uint32_t>(acc >> (n - 32));
            if (__builtin_expect(has_ff(w), 0)) {
                p = store_stuffed(p, static_cast<uint64_t>(w) << 32, 4);
            } else {
                const uint32_t be = big_endian(w);
                std::memcpy(p, &be, 4);
                p += 4;
            }
            n -= 32;
        }
        bs->cache = static_cast<uint32_t>(static_cast<uint64_t>(acc) << (32 - n));
        bs->free_bits = 32 - n;
        bs->write_ptr = p;
    }

    // Writes the bytes of w.
    void emit(Acc w) {
        if (__builtin_expect(has_ff(w), 0)) {
            p = store_stuffed(p, static_cast<uint64_t>(w) << (64 - kBits), kBits / 8);
            return;
        }
        const Acc be = big_endian(w);
        std::memcpy(p, &be, sizeof(be));
        p += sizeof(be);
    }

    // Appends v, which has no bits above the low len (len 0 to 31).
    void put(uint32_t v, int32_t len) {
        if (__builtin_expect(n + len <= kBits, 1)) {
            acc = (acc << len) | v;
            n += len;
            return;
        }
        // Fill the buffer (n is at least kBits - 30 here), write it, keep
        // the rest.
        const int32_t rest = n + len - kBits;
        emit((acc << (kBits - n)) | static_cast<Acc>(v >> rest));
        acc = v;
        n = rest;
    }
};

// The writer's own path, bounded by the end of its output.
struct BswSink {
    xelo_bsw *bs;
    void put(uint32_t v, int32_t len) {
        if (len) xelo_bsw_write(bs, v, len);
    }
};

// Codes the 63 AC coefficients into sink; returns 0 or -104 for a value
// without category (the symbols before it stay written). kChecked: some
// value of the block may lack a category.
template <bool kChecked, class Sink>
int32_t code_ac(Sink &sink, const kivoe_ac_tbl *t, const int16_t *blk, uint64_t mask) {
    const kivoe_code *codes = t->by_symbol;
    int32_t next = 1;  // zig-zag position after the last coefficient coded
    for (int32_t base = 0; base < 64; base += kMaskBits) {
        for (MaskWord m = static_cast<MaskWord>(mask >> base); m; m &= m - 1) {
            const int32_t z = base + ctz(m);
            const int32_t v = blk[kivo_tbl_zig_to_ras[z]];
            if (kChecked && !has_category(v)) return KIVO_ERR_UNAVAILABLE;
            int32_t run = z - next;
            next = z + 1;
            if (__builtin_expect(run >= 16, 0)) {
                for (; run >= 16; run -= 16) sink.put(codes[0xF0].code, codes[0xF0].len);
            }
            const int32_t lz = clz_abs(v);
            const int32_t k = 32 - lz;
            const kivoe_code c = codes[run * 16 + k];
            sink.put((static_cast<uint32_t>(c.code) << k) | extra_bits_clz(v, lz), c.len + k);
        }
    }
    if (next != 64) sink.put(codes[0x00].code, codes[0x00].len);
    return KIVO_OK;
}

// code_ac<false> into a fast sink, the writer's state in registers and each
// code with its extra bits taken from the table's with_extra entries. The
// entries are read from pointers moved by 64 (symbol 32 of the non-negative
// entries) so that the index is 2 (16 run - clz |v|) + sign bit.
template <int32_t kBase>
inline void code_half(FastSink &sink, MaskWord m, int32_t &next, const int16_t *blk, const uint32_t *with_extra,
                      const uint8_t *len_with_extra, const kivoe_code zrl) {
    const uint8_t *zig = kivo_tbl_zig_to_ras + kBase;
    for (; m; m &= m - 1) {
        const int32_t at = ctz(m);
        const int32_t v = blk[zig[at]];
        int32_t run = at + kBase - next;
        next = at + kBase + 1;
        if (__builtin_expect(run >= 16, 0)) {
            for (; run >= 16; run -= 16) sink.put(zrl.code, zrl.len);
        }
        const uint32_t s = static_cast<uint32_t>(v >> 31);
        const uint32_t a = (static_cast<uint32_t>(v) ^ s) - s;
        const int32_t i = 2 * (16 * run - __builtin_clz(a)) + static_cast<int32_t>(s & 1);
        sink.put(with_extra[i] ^ a, len_with_extra[i]);
    }
}

// For each level v from -2047 to 2047 (at v + 2047): |v| in the low 16
// bits and 2 size(v) + (1 for v < 0) above them, the with_extra index of v
// for run 0. Looked up on 64-bit processors instead of finding both.
struct LevelTable {
    uint32_t e[4095];
};

constexpr LevelTable make_level_table() {
    LevelTable t{};
    for (int32_t v = -2047; v <= 2047; ++v) {
        const uint32_t a = static_cast<uint32_t>(v < 0 ? -v : v);
        uint32_t size = 0;
        while ((a >> size) != 0) ++size;
        t.e[v + 2047] = (2 * size + (v < 0 ? 1u : 0u)) << 16 | a;
    }
    return t;
}

constexpr LevelTable kLevelTable = make_level_table();

// code_half for the whole mask on 64-bit processors, each level's index and
// magnitude from kLevelTable.
inline int32_t code_mask64(FastSink &sink, uint64_t m, const int16_t *blk, const uint32_t *with_extra,
                           const uint8_t *len_with_extra, const kivoe_code zrl) {
    const uint32_t *level = kLevelTable.e + 2047;
    uint64_t next = 1;
    for (; m; m &= m - 1) {
        const uint64_t at = static_cast<uint64_t>(__builtin_ctzll(m));
        const uint32_t e = level[blk[kivo_tbl_zig_to_ras[at]]];
        uint64_t run = at - next;
        next = at + 1;
        if (__builtin_expect(run >= 16, 0)) {
            for (; run >= 16; run -= 16) sink.put(zrl.code, zrl.len);
        }
        const uint64_t i = 32 * run + (e >> 16);
        sink.put(with_extra[i] ^ (e & 0xFFFF), len_with_extra[i]);
    }
    return static_cast<int32_t>(next);
}

__attribute__((always_inline)) inline int32_t code_ac_fast(FastSink &out, const kivoe_ac_tbl *t, const int16_t *blk,
                                                          uint64_t mask) {
    FastSink sink = out;
    const uint32_t *with_extra = t->with_extra + 64;
    const uint8_t *len_with_extra = t->len_with_extra + 64;
    const kivoe_code zrl = t->by_symbol[0xF0];
    int32_t next = 1;
    if constexpr (kMaskBits == 64) {
        next = code_mask64(sink, mask, blk, t->with_extra, t->len_with_extra, zrl);
    } else {
        code_half<0>(sink, static_cast<MaskWord>(mask), next, blk, with_extra, len_with_extra, zrl);
        code_half<32>(sink, static_cast<MaskWord>(mask >> 32), next, blk, with_extra, len_with_extra, zrl);
    }
    if (next != 64) sink.put(t->by_symbol[0x00].code, t->by_symbol[0x00].len);
    out = sink;
    return KIVO_OK;
}

// Copies n bytes from src to dst with a 0x00 after each 0xFF; returns the
// end of the copy. Sixteen bytes at a time where none is 0xFF.
uint8_t *copy_stuffed(uint8_t *dst, const uint8_t *src, size_t n) {
    size_t i = 0;
#if defined(__SSE2__)
    const __m128i ff = _mm_set1_epi8(-1);
    for (; i + 16 <= n; i += 16) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + i));
        if (__builtin_expect(_mm_movemask_epi8(_mm_cmpeq_epi8(v, ff)) == 0, 1)) {
            _mm_storeu_si128(reinterpret_cast<__m128i *>(dst), v);
            dst += 16;
            continue;
        }
        for (size_t j = i; j < i + 16; ++j) {
            *dst++ = src[j];
            if (src[j] == 0xFF) *dst++ = 0x00;
        }
    }
    // The last bytes as the end of a sixteen-byte copy that overlaps the
    // bytes just copied, when none of the sixteen is 0xFF (so that the
    // overlapped bytes were copied without stuffing, to the same places).
    if (i < n && n >= 16) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + n - 16));
        if (_mm_movemask_epi8(_mm_cmpeq_epi8(v, ff)) == 0) {
            _mm_storeu_si128(reinterpret_cast<__m128i *>(dst - (i - (n - 16))), v);
            return dst + (n - i);
        }
    }
#endif
    for (; i < n; ++i) {
        *dst++ = src[i];
        if (src[i] == 0xFF) *dst++ = 0x00;
    }
    return dst;
}

// On 64-bit processors a block's codes go into the buffer unchecked, two
// codes of at most 28 bits at a time onto the seven bits or fewer that a
// flush leaves, and each flush then writes the buffer's whole bytes: a byte
// count that varies instead of a branch for a full buffer, which the
// processor mispredicts every few codes. A flush stores eight bytes
// whatever the count, so the bytes go to a buffer on the stack first,
// without stuffing, and reach the output stuffed and with their exact
// count: nothing past the stream's end is touched.
struct PairSink {
    // Blocks a stage holds at most.
    static constexpr int32_t kStageBlocks = 10;
    struct Stage {
        uint8_t b[kStageBlocks * kBlockMargin];
    };

    uint64_t acc;  // pending bits in the low n bits (higher bits are stale)
    uint64_t n;    // 0 to 63
    uint8_t *p;    // into the stage

    // Takes over a writer FastSink::usable accepts.
    PairSink(const xelo_bsw *bs, Stage *stage)
        : acc(static_cast<uint64_t>(bs->cache) >> bs->free_bits), n(static_cast<uint64_t>(32 - bs->free_bits)),
          p(stage->b) {}

    // Hands the bytes and the state back to the writer (as FastSink::store
    // with fewer than 32 bits pending).
    void store(xelo_bsw *bs, const Stage *stage) {
        flush();
        bs->write_ptr = copy_stuffed(bs->write_ptr, stage->b, static_cast<size_t>(p - stage->b));
        bs->cache = static_cast<uint32_t>(acc << (32 - n));
        bs->free_bits = static_cast<int32_t>(32 - n);
    }

    // Appends v, which has no bits above the low len; the caller keeps n
    // below 64.
    void put(uint32_t v, uint64_t len) {
        acc = (acc << len) | v;
        n += len;
    }

    // Writes the whole bytes pending; seven bits at most stay.
    void flush() {
        const uint64_t be = big_endian((acc << (63 - n)) << 1);
        std::memcpy(p, &be, sizeof(be));
        p += n >> 3;
        n &= 7;
    }
};

// A block whose AC levels all have a category into a pair sink: its DC
// code (dc_len bits, at most 28, or up to 31 when dc_alone), the AC codes
// of mask m and EOB. The sink's whole bytes are written first; two codes
// at most are put between flushes (ZRLs one at a time), which leaves 50
// bits at most pending after the block.
__attribute__((always_inline)) inline void code_block_pairs(PairSink &sink, uint32_t dc_bits, uint64_t dc_len,
                                                            bool dc_alone, const kivoe_ac_tbl *t, const int16_t *blk,
                                                            uint64_t m) {
    const uint32_t *level = kLevelTable.e + 2047;
    uint64_t next = 1;
    sink.flush();
    sink.put(dc_bits, dc_len);
    if (__builtin_expect(dc_alone, 0)) sink.flush();
    // One AC code, each level's index and magnitude from kLevelTable.
    auto one = [&](uint64_t mm) {
        const uint64_t at = static_cast<uint64_t>(__builtin_ctzll(mm));
        const uint32_t e = level[blk[kivo_tbl_zig_to_ras[at]]];
        uint64_t run = at - next;
        next = at + 1;
        if (__builtin_expect(run >= 16, 0)) {
            const kivoe_code zrl = t->by_symbol[0xF0];
            for (; run >= 16; run -= 16) {
                sink.flush();
                sink.put(zrl.code, zrl.len);
            }
            sink.flush();
        }
        const uint64_t i = 32 * run + (e >> 16);
        sink.put(t->with_extra[i] ^ (e & 0xFFFF), t->len_with_extra[i]);
    };
    while (m) {
        one(m);  // two codes pending
        m &= m - 1;
        sink.flush();
        if (!m) break;
        one(m);  // one code pending
        m &= m - 1;
    }
    if (next != 64) sink.put(t->by_symbol[0x00].code, t->by_symbol[0x00].len);
}

int32_t code_ac(FastSink &sink, const kivoe_ac_tbl *t, const int16_t *blk) {
    bool all_coded;
    const uint64_t mask = kivo_zigzag_ac_mask(blk, &all_coded);
    return all_coded ? code_ac_fast(sink, t, blk, mask) : code_ac<true>(sink, t, blk, mask);
}

template <class Sink>
int32_t code_ac(Sink &sink, const kivoe_ac_tbl *t, const int16_t *blk) {
    bool all_coded;
    const uint64_t mask = kivo_zigzag_ac_mask(blk, &all_coded);
    return all_coded ? code_ac<false>(sink, t, blk, mask) : code_ac<true>(sink, t, blk, mask);
}

// The same walk, counting the symbols that code_ac writes.
int32_t count_ac(kivoe_ac_tbl *t, const int16_t *blk, uint64_t mask, bool all_coded) {
    int32_t next = 1;
    for (int32_t base = 0; base < 64; base += kMaskBits) {
        for (MaskWord m = static_cast<MaskWord>(mask >> base); m; m &= m - 1) {
            const int32_t z = base + ctz(m);
            const int32_t v = blk[kivo_tbl_zig_to_ras[z]];
            if (!all_coded && !has_category(v)) return KIVO_ERR_UNAVAILABLE;
            const int32_t run = z - next;
            next = z + 1;
            t->counter[0xF0] += static_cast<uint32_t>(run >> 4);
            ++t->counter[(run & 15) * 16 + 32 - clz_abs(v)];
        }
    }
    if (next != 64) ++t->counter[0x00];
    return KIVO_OK;
}

// A DC difference as the 16-bit value whose category kivo_category gives.
inline int32_t as_int16(int32_t v) {
    const int32_t s = v & 0xFFFF;
    return s >= 0x8000 ? s - 0x10000 : s;
}

// Writes the bytes of the cache, stuffing a 0x00 after each 0xFF when asked;
// bytes that would reach the end of the output are dropped and flagged.
template <bool kStuff>
int32_t flush_bytes(xelo_bsw *bs) {
    int32_t n = (39 - bs->free_bits) / 8;
    if (n > 4) n = 4;
    uint32_t cache = bs->cache;
    uint8_t *p = bs->write_ptr;
    uint8_t *const end = bs->end_ptr;
    for (int32_t i = 0; i < n; ++i) {
        const uint8_t b = static_cast<uint8_t>(cache >> 24);
        cache <<= 8;
        if (p && p < end) *p++ = b;
        else bs->overflow = 1;
        if (kStuff && b == 0xFF) {
            if (p && p < end) *p++ = 0x00;
            else bs->overflow = 1;
        }
    }
    bs->write_ptr = p;
    bs->cache = 0;
    bs->free_bits = 32;
    return KIVO_OK;
}

// The DC difference's code and extra bits (k its category).
inline uint32_t dc_bits(const kivoe_dc_tbl *dc, int32_t diff, int32_t k) {
    return (static_cast<uint32_t>(dc->code[k].code) << k) | (k ? extra_bits(as_int16(diff), k) : 0);
}

inline void put_dc(FastSink &sink, const kivoe_dc_tbl *dc, int32_t diff, int32_t k) {
    sink.put(dc_bits(dc, diff, k), dc->code[k].len + k);
}

}  // namespace

int32_t kivoe_vlc_dc(xelo_bsw *bs, kivoe_dc_tbl *t, int32_t diff) {
    const int32_t k = kivo::category(diff);
    if (k < 0) return KIVO_ERR_UNAVAILABLE;
    const kivoe_code &c = t->code[k];
    const uint32_t extra = k ? extra_bits(as_int16(diff), k) : 0;
    const int32_t len = c.len + k;
    if (len) xelo_bsw_write(bs, (static_cast<uint32_t>(c.code) << k) | extra, len);
    return KIVO_OK;
}

int32_t kivoe_vlc_block_mask(xelo_bsw *bs, kivoe_dc_tbl *dc, kivoe_ac_tbl *ac, int32_t diff, const int16_t *blk,
                             uint64_t mask) {
    const int32_t k = kivo::category(diff);
    if (k < 0 || !FastSink::usable(bs)) {
        const int32_t ret = kivoe_vlc_dc(bs, dc, diff);
        return ret < 0 ? ret : kivoe_vlc_ac(bs, ac, blk);
    }
    if constexpr (kMaskBits == 64) {
        bool all_coded = true;
        const uint64_t m = ~mask ? mask : kivo_zigzag_ac_mask(blk, &all_coded);
        if (all_coded) {
            PairSink::Stage stage;
            PairSink sink(bs, &stage);
            code_block_pairs(sink, dc_bits(dc, diff, k), static_cast<uint64_t>(dc->code[k].len + k), k > 11, ac, blk, m);
            sink.store(bs, &stage);
            return KIVO_OK;
        }
    }
    FastSink sink(bs);
    put_dc(sink, dc, diff, k);
    const int32_t ret = ~mask ? code_ac_fast(sink, ac, blk, mask) : code_ac(sink, ac, blk);
    sink.store(bs);
    return ret;
}

void kivoe_vlc_blocks(xelo_bsw *bs, const kivoe_block_code *b, int32_t n) {
    int32_t i = 0;
    if constexpr (kMaskBits == 64) {
        PairSink::Stage stage;
        // A stage's worth of blocks at a time while the output has room.
        for (bool failed = false; i < n && !failed && FastSink::usable(bs);) {
            const int32_t end = n - i < PairSink::kStageBlocks ? n : i + PairSink::kStageBlocks;
            if (bs->end_ptr - bs->write_ptr < (end - i) * kBlockMargin) break;
            PairSink sink(bs, &stage);
            for (; i < end; ++i) {
                const int32_t diff = b[i].diff;
                uint64_t mask = b[i].mask;
                bool all_coded = true;
                if (!~mask) mask = kivo_zigzag_ac_mask(b[i].blk, &all_coded);
                if (__builtin_expect(!all_coded, 0)) {
                    failed = true;  // this block and the rest as kivoe_vlc_block_mask codes them
                    break;
                }
                if (static_cast<uint32_t>(diff + 2047) <= 4094u) {
                    // The size, sign and magnitude from kLevelTable; the extra
                    // bits of a negative difference are those of ~|diff|.
                    const uint32_t e = kLevelTable.e[diff + 2047], k = e >> 17;
                    const kivoe_code &c = b[i].dc->code[k];
                    const uint32_t ones = (e >> 16 & 1) ? (1u << k) - 1 : 0;
                    code_block_pairs(sink, ((static_cast<uint32_t>(c.code) << k) | ones) ^ (e & 0xFFFF), c.len + k,
                                     false, b[i].ac, b[i].blk, mask);
                } else {
                    const int32_t k = kivo::category(diff);
                    if (k < 0) continue;  // nothing of the block is written, as in kivoe_vlc_block_mask
                    code_block_pairs(sink, dc_bits(b[i].dc, diff, k), static_cast<uint64_t>(b[i].dc->code[k].len + k),
                                     true, b[i].ac, b[i].blk, mask);
                }
            }
            sink.store(bs, &stage);
        }
    } else if (FastSink::usable(bs) && bs->end_ptr - bs->write_ptr >= n * kBlockMargin) {
        FastSink sink(bs);
        for (; i < n; ++i) {
            const int32_t k = kivo::category(b[i].diff);
            if (k < 0) continue;  // nothing of the block is written, as in kivoe_vlc_block_mask
            put_dc(sink, b[i].dc, b[i].diff, k);
            if (~b[i].mask) code_ac_fast(sink, b[i].ac, b[i].blk, b[i].mask);
            else code_ac(sink, b[i].ac, b[i].blk);
        }
        sink.store(bs);
    }
    for (; i < n; ++i) kivoe_vlc_block_mask(bs, b[i].dc, b[i].ac, b[i].diff, b[i].blk, b[i].mask);
}

int32_t kivoe_vlc_ac(xelo_bsw *bs, kivoe_ac_tbl *t, const int16_t *blk) {
    if (FastSink::usable(bs)) {
        FastSink sink(bs);
        const int32_t ret = code_ac(sink, t, blk);
        sink.store(bs);
        return ret;
    }
    BswSink sink{bs};
    return code_ac(sink, t, blk);
}

int32_t kivoe_vlc_dc_stat(xelo_bsw *, kivoe_dc_tbl *t, int32_t diff) {
    const int32_t k = kivo::category(diff);
    if (k < 0) return KIVO_ERR_UNAVAILABLE;
    ++t->counter[k];
    return KIVO_OK;
}

int32_t kivoe_vlc_ac_stat(xelo_bsw *, kivoe_ac_tbl *t, const int16_t *blk) {
    bool all_coded;
    const uint64_t mask = kivo_zigzag_ac_mask(blk, &all_coded);
    return count_ac(t, blk, mask, all_coded);
}

void kivoe_vlc_block_stat(kivoe_dc_tbl *dc, kivoe_ac_tbl *ac, uint64_t *odd, int32_t diff, const int16_t *blk,
                          uint64_t mask) {
    kivoe_vlc_dc_stat(nullptr, dc, diff);
    bool all_coded = true;
    if (!~mask) mask = kivo_zigzag_ac_mask(blk, &all_coded);
    if (kMaskBits < 64 || !all_coded || !odd) {
        count_ac(ac, blk, mask, all_coded);
        return;
    }
    // The levels' symbols counted into the two arrays in turn: a count
    // added to waits for the one added to before it when both are the same
    // (through memory), and a level's symbol is often that of the level
    // before it. Each level's size from kLevelTable.
    uint64_t *const even = ac->counter;
    const uint32_t *level = kLevelTable.e + 2047;
    uint64_t next = 1, zrl = 0;
    auto one = [&](uint64_t *counter, uint64_t m) {
        const uint64_t at = static_cast<uint64_t>(__builtin_ctzll(m));
        const uint32_t e = level[blk[kivo_tbl_zig_to_ras[at]]];
        const uint64_t run = at - next;
        next = at + 1;
        zrl += run >> 4;
        ++counter[(run & 15) * 16 + (e >> 17)];
    };
    while (mask) {
        one(even, mask);
        mask &= mask - 1;
        if (!mask) break;
        one(odd, mask);
        mask &= mask - 1;
    }
    even[0xF0] += zrl;
    if (next != 64) ++even[0x00];
}

uint64_t kivoe_vlc_ac_stat_mask(kivoe_ac_tbl *t, const int16_t *blk) {
    bool all_coded;
    const uint64_t mask = kivo_zigzag_ac_mask(blk, &all_coded);
    return count_ac(t, blk, mask, all_coded) < 0 ? ~uint64_t(0) : mask;
}

int32_t kivoe_vlc_dri_marker(xelo_bsw *bs, int32_t marker) {
    xelo_bsw_sink(bs);
    xelo_bsw_write(bs, 0xFF, 8);
    xelo_bsw_write(bs, static_cast<uint32_t>(marker) & 0xFF, 8);
    xelo_bsw_sink(bs);
    return KIVO_OK;
}

int32_t kivoe_vlc_null(xelo_bsw *, int32_t) { return KIVO_OK; }

int32_t kivoe_vlc_footer(kivoe_ctx *ctx) {
    xelo_bsw_sink(&ctx->bs);
    xelo_bsw_write(&ctx->bs, 0xFF, 8);
    xelo_bsw_write(&ctx->bs, 0xD9, 8);
    return KIVO_OK;
}

int32_t kivoe_vlc_footer_stat(kivoe_ctx *ctx) {
    if (!ctx->adaptive_rounding) return KIVO_OK;
    // Every symbol gets a code in the tables built next, so that a coding
    // pass that quantizes differently from the counting pass still finds one.
    for (int32_t c = 0; c < ctx->fh.n_comp && c < 4; ++c) {
        kivoe_ac_tbl &t = ctx->ac_tbl[ctx->sh.ta[c] & 3];
        for (int32_t s = 0; s < 256; ++s) ++t.counter[s];
    }
    return KIVO_OK;
}

int32_t get_vlc_dc_bits(const kivoe_dc_tbl *t, int32_t diff) {
    const int32_t k = kivo::category(diff);
    return k < 0 ? KIVO_ERR_UNAVAILABLE : t->code[k].len + k;
}

int32_t get_vlc_ac_bits(const kivoe_ac_tbl *t, int32_t n_zrl, int32_t run, int32_t value) {
    const int32_t k = kivo::category(value);
    if (k < 0) return KIVO_ERR_UNAVAILABLE;
    const int32_t zrl = n_zrl > 0 ? n_zrl * t->by_symbol[0xF0].len : 0;
    return zrl + t->by_symbol[(run * 16 + k) & 0xFF].len + k;
}

int32_t get_vlc_eob_bits(const kivoe_ac_tbl *t) { return t->by_symbol[0x00].len; }

int32_t kivoe_bs_flush(xelo_bsw *bs) { return flush_bytes<false>(bs); }

int32_t kivoe_bs_flush_data_seg(xelo_bsw *bs) { return flush_bytes<true>(bs); }
