// Huffman decoding tables built from DHT contents, and the magnitude category.
#include <atomic>
#include <cstring>

#include "decoder/bs_inline.h"

namespace {

// The serials of built AC tables: never 0, never twice.
std::atomic<uint64_t> g_ac_serial{0};

int32_t build_dc(const kivod_htbl_spec *spec, kivod_dc_tbl *t) {
    uint32_t total = 0;
    for (int l = 0; l < 16; ++l) total += spec->bits[l];
    if (total > 12) return KIVO_ERR_MALFORMED;
    for (uint32_t k = 0; k < total; ++k)
        if (spec->vals[k] > 11) return KIVO_ERR_MALFORMED;  // no such DC category

    // The picture's category counts go on across a table defined again
    // between scans.
    uint64_t counts[12];
    std::memcpy(counts, t->dc_count, sizeof(counts));
    std::memset(t, 0, sizeof(*t));
    std::memcpy(t->dc_count, counts, sizeof(counts));
    t->count = static_cast<uint16_t>(total);
    std::memset(t->lookup, 255, sizeof(t->lookup));
    // Canonical codes; symbols of lengths 13 to 16 get none.
    uint32_t code = 0, k = 0;
    for (int len = 1; len <= 12; ++len) {
        for (uint32_t i = 0; i < spec->bits[len - 1]; ++i, ++k, ++code) {
            if (code >= (1u << len)) return KIVO_ERR_MALFORMED;  // code space overflow
            uint8_t v = spec->vals[k];
            t->code[v].code = static_cast<uint16_t>(code);
            t->code[v].len = static_cast<uint8_t>(len);
        }
        code <<= 1;
    }
    for (int v = 0; v < 12; ++v) {
        int len = t->code[v].len;
        if (len >= 1 && len <= 8) t->lookup[t->code[v].code << (8 - len)] = static_cast<uint8_t>(v);
    }
    // Every entry without a code start inherits the previous entry, so each
    // short code covers its whole span.
    uint8_t prev = 0;
    for (int i = 0; i < 256; ++i) {
        if (t->lookup[i] == 255) t->lookup[i] = prev;
        prev = t->lookup[i];
    }
    // One-step entries for the codes of up to 8 bits, which the 8-bit
    // look-up resolves by itself (codes are prefix-free, so the look-up
    // gives the category over its code's whole span), when the extra bits
    // fit too: runs of entries with the same extra bits.
    constexpr int kFast = kivod_fast_bits;
    for (uint32_t cat = 0; cat < 12; ++cat) {
        const uint32_t len = t->code[cat].len;
        if (len < 1 || len > 8 || len + cat > uint32_t(kFast)) continue;
        uint32_t j = uint32_t(t->code[cat].code) << (kFast - len);
        if (t->lookup[j >> (kFast - 8)] != cat) continue;
        const uint32_t reps = 1u << (kFast - len - cat);
        for (uint32_t bits = 0; bits < (1u << cat); ++bits) {
            const int32_t value = cat ? extend(bits, static_cast<int32_t>(cat)) : 0;
            const int32_t e = static_cast<int32_t>((static_cast<uint32_t>(value) << 16) | (cat << 8) | (len + cat));
            for (uint32_t r = 0; r < reps; ++r) t->fast[j++] = e;
        }
    }
    return KIVO_OK;
}

int32_t build_ac(const kivod_htbl_spec *spec, kivod_ac_tbl *t) {
    uint32_t total = 0;
    for (int l = 0; l < 16; ++l) total += spec->bits[l];
    if (total > 256) return KIVO_ERR_MALFORMED;

    const bool same = t->whole && t->count == total + 1 && std::memcmp(t->code_bits, spec->bits, 16) == 0 &&
                      std::memcmp(t->code_vals, spec->vals, total) == 0;
    const uint64_t serial = t->serial;
    std::memset(t, 0, sizeof(*t));
    t->serial = same ? serial : ++g_ac_serial;
    t->count = static_cast<uint16_t>(total + 1);
    for (auto &e : t->lookup) e.len = 255;
    for (auto &r : t->range) {
        r.mincode = 0xFFFF;
        r.maxcode = 0;
        r.valptr = 255;
    }
    uint32_t code = 0, k = 0;
    for (int len = 1; len <= 16; ++len) {
        kivod_ac_range &r = t->range[len];
        for (uint32_t i = 0; i < spec->bits[len - 1]; ++i, ++k, ++code) {
            if (code >= (1u << len)) return KIVO_ERR_MALFORMED;  // code space overflow
            uint8_t v = spec->vals[k];
            kivod_ac_sym &s = t->sym[k];
            s.code = static_cast<uint16_t>(code);
            s.len = static_cast<uint8_t>(len);
            s.run = static_cast<uint8_t>(v >> 4);
            s.size = static_cast<uint8_t>(v & 15);
            if (code < r.mincode) r.mincode = static_cast<uint16_t>(code);
            if (code > r.maxcode) r.maxcode = static_cast<uint16_t>(code);
            if (r.valptr == 255) r.valptr = static_cast<uint16_t>(k);
            if (len <= 8) {
                // The code's whole span of the 8-bit look-up.
                uint32_t first = code << (8 - len), n = 1u << (8 - len);
                for (uint32_t j = first; j < first + n; ++j) {
                    t->lookup[j].len = static_cast<uint8_t>(len);
                    t->lookup[j].sym = static_cast<uint8_t>(k);
                    t->lookup[j].size = s.size;
                    t->lookup[j].run = s.run;
                }
            }
        }
        code <<= 1;
    }
    // One-step entries: every code of up to kivod_fast_bits bits whose extra
    // bits fit too, over all patterns of its extra and trailing bits.
    constexpr int kFast = kivod_fast_bits;
    for (uint32_t i = 0; i < total; ++i) {
        const kivod_ac_sym &s = t->sym[i];
        const uint32_t total_len = uint32_t(s.len) + s.size;
        if (total_len > uint32_t(kFast)) continue;
        // Long codes the full decoder refuses stay out of the look-up too.
        if (s.len > 8 && s.len >= t->count && (s.run != 0 || s.size != 0)) continue;
        int32_t flags = kivod_fast_coef;
        if (s.size == 0) {
            if (s.run == 0) flags = kivod_fast_eob;
            else if (s.run == 15) flags = kivod_fast_zrl;
            else continue;  // malformed: left to the full decoder's check
        }
        // Runs of entries with the same extra bits.
        uint32_t j = uint32_t(s.code) << (kFast - s.len);
        const uint32_t reps = 1u << (kFast - total_len);
        for (uint32_t bits = 0; bits < (1u << s.size); ++bits) {
            const int32_t value = s.size ? extend(bits, s.size) : 0;
            const int32_t e = static_cast<int32_t>((static_cast<uint32_t>(value) << 16) | uint32_t(flags) |
                                                   (uint32_t(s.run) << 8) | total_len);
            for (uint32_t r = 0; r < reps; ++r) t->fast[j++] = e;
        }
    }
    t->eob = 255;
    t->zrl = 255;
    for (uint32_t i = 0; i < total; ++i) {
        const kivod_ac_sym &s = t->sym[i];
        if (s.size == 0 && s.run == 0 && t->eob == 255) t->eob = static_cast<uint8_t>(i);
        if (s.size == 0 && s.run == 15 && t->zrl == 255) t->zrl = static_cast<uint8_t>(i);
        if (t->eob != 255 && t->zrl != 255) break;
    }
    t->whole = true;
    std::memcpy(t->code_bits, spec->bits, 16);
    std::memcpy(t->code_vals, spec->vals, total);
    return KIVO_OK;
}

}  // namespace

int32_t kivod_build_htbl(const kivod_htbl_spec *spec, kivod_dc_tbl dc[4], kivod_ac_tbl ac[4]) {
    if (!spec || spec->cls > 1 || spec->id > 3) return KIVO_ERR_MALFORMED;
    if (spec->cls == 0) return build_dc(spec, &dc[spec->id]);
    return build_ac(spec, &ac[spec->id]);
}

void kivod_build_skim(const kivod_ac_tbl *t, uint16_t skim[1 << kivod_skim_bits], uint16_t first[1 << kivod_skim_bits]) {
    constexpr uint32_t kBits = kivod_skim_bits, kMask = (1u << kBits) - 1;
    static_assert(kBits >= 8 && kBits <= 16, "whole 8-bit look-up spans; codes read from 16 bits");
    static_assert(kivod_skim_max_len <= 56 - 32, "two entries fit in the 56 bits a fill leaves");
    // The code that begins each pattern, as the decoders find it: its
    // length (bits 0-4), extra bits (5-8) and the positions it moves on by
    // (9-13: 1 to 16, 0 for end-of-block); 0 where no code of kBits bits or
    // fewer begins, or one the decoders refuse.
    for (uint32_t b8 = 0; b8 < 256; ++b8) {
        const uint32_t span = 1u << (kBits - 8);
        for (uint32_t x = b8 * span; x < (b8 + 1) * span; ++x) {
            int32_t len, run, size;
            uint16_t v = 0;
            if (ac_code(t, x << (32 - kBits), &len, &run, &size) == KIVO_OK && len <= int32_t(kBits)) {
                const int32_t step = size ? run + 1 : (run == 0 ? 0 : (run == 15 ? 16 : -1));
                if (step >= 0) v = static_cast<uint16_t>(len | size << 5 | step << 9);
            }
            first[x] = v;
            // A code of up to 8 bits covers the whole span alike.
            if (x == b8 * span && v && len <= 8) {
                for (++x; x < (b8 + 1) * span; ++x) first[x] = v;
                break;
            }
        }
    }
    for (uint32_t i = 0; i < (1u << kBits); ++i) {
        // Codes one after the other while the known bits hold them; the
        // last one's extra bits may run past them.
        uint32_t used = 0, moved = 0;
        uint16_t e = kivod_skim_none;
        for (;;) {
            const uint32_t f = first[(i << used) & kMask];
            const uint32_t len = f & 31, size = (f >> 5) & 15, step = f >> 9;
            const uint32_t whole = len + size;
            if (!f || len > kBits - used || used + whole > uint32_t(kivod_skim_max_len)) break;
            if (step == 0) {
                e = static_cast<uint16_t>((moved + 1) << 8 | kivod_skim_eob | (used + whole));
                break;
            }
            if (moved + step > 64) break;
            moved += step;
            used += whole;
            e = static_cast<uint16_t>(moved << 8 | used);
            if (used > kBits) break;
        }
        skim[i] = e;
    }
}
