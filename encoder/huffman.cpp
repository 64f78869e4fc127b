// Huffman code tables: the typical tables of T.81 Annex K.3, and optimal
// tables built from the symbol counters (T.81 Annex K.2, codes of at most
// 16 bits).
#include <cstdio>
#include <cstring>

#include "encoder/kivoe_int.h"

namespace {

const uint8_t kDcLumaBits[16] = {0, 1, 5, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0, 0, 0};
const uint8_t kDcChromaBits[16] = {0, 3, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0};
const uint8_t kAcLumaBits[16] = {0, 2, 1, 3, 3, 2, 4, 3, 5, 5, 4, 4, 0, 0, 1, 0x7d};
const uint8_t kAcChromaBits[16] = {0, 2, 1, 2, 4, 4, 3, 4, 7, 5, 4, 4, 0, 1, 2, 0x77};
const uint8_t kAcLumaVals[162] = {
    0x01, 0x02, 0x03, 0x00, 0x04, 0x11, 0x05, 0x12, 0x21, 0x31, 0x41, 0x06, 0x13, 0x51, 0x61, 0x07, 0x22, 0x71,
    0x14, 0x32, 0x81, 0x91, 0xa1, 0x08, 0x23, 0x42, 0xb1, 0xc1, 0x15, 0x52, 0xd1, 0xf0, 0x24, 0x33, 0x62, 0x72,
    0x82, 0x09, 0x0a, 0x16, 0x17, 0x18, 0x19, 0x1a, 0x25, 0x26, 0x27, 0x28, 0x29, 0x2a, 0x34, 0x35, 0x36, 0x37,
    0x38, 0x39, 0x3a, 0x43, 0x44, 0x45, 0x46, 0x47, 0x48, 0x49, 0x4a, 0x53, 0x54, 0x55, 0x56, 0x57, 0x58, 0x59,
    0x5a, 0x63, 0x64, 0x65, 0x66, 0x67, 0x68, 0x69, 0x6a, 0x73, 0x74, 0x75, 0x76, 0x77, 0x78, 0x79, 0x7a, 0x83,
    0x84, 0x85, 0x86, 0x87, 0x88, 0x89, 0x8a, 0x92, 0x93, 0x94, 0x95, 0x96, 0x97, 0x98, 0x99, 0x9a, 0xa2, 0xa3,
    0xa4, 0xa5, 0xa6, 0xa7, 0xa8, 0xa9, 0xaa, 0xb2, 0xb3, 0xb4, 0xb5, 0xb6, 0xb7, 0xb8, 0xb9, 0xba, 0xc2, 0xc3,
    0xc4, 0xc5, 0xc6, 0xc7, 0xc8, 0xc9, 0xca, 0xd2, 0xd3, 0xd4, 0xd5, 0xd6, 0xd7, 0xd8, 0xd9, 0xda, 0xe1, 0xe2,
    0xe3, 0xe4, 0xe5, 0xe6, 0xe7, 0xe8, 0xe9, 0xea, 0xf1, 0xf2, 0xf3, 0xf4, 0xf5, 0xf6, 0xf7, 0xf8, 0xf9, 0xfa};
const uint8_t kAcChromaVals[162] = {
    0x00, 0x01, 0x02, 0x03, 0x11, 0x04, 0x05, 0x21, 0x31, 0x06, 0x12, 0x41, 0x51, 0x07, 0x61, 0x71, 0x13, 0x22,
    0x32, 0x81, 0x08, 0x14, 0x42, 0x91, 0xa1, 0xb1, 0xc1, 0x09, 0x23, 0x33, 0x52, 0xf0, 0x15, 0x62, 0x72, 0xd1,
    0x0a, 0x16, 0x24, 0x34, 0xe1, 0x25, 0xf1, 0x17, 0x18, 0x19, 0x1a, 0x26, 0x27, 0x28, 0x29, 0x2a, 0x35, 0x36,
    0x37, 0x38, 0x39, 0x3a, 0x43, 0x44, 0x45, 0x46, 0x47, 0x48, 0x49, 0x4a, 0x53, 0x54, 0x55, 0x56, 0x57, 0x58,
    0x59, 0x5a, 0x63, 0x64, 0x65, 0x66, 0x67, 0x68, 0x69, 0x6a, 0x73, 0x74, 0x75, 0x76, 0x77, 0x78, 0x79, 0x7a,
    0x82, 0x83, 0x84, 0x85, 0x86, 0x87, 0x88, 0x89, 0x8a, 0x92, 0x93, 0x94, 0x95, 0x96, 0x97, 0x98, 0x99, 0x9a,
    0xa2, 0xa3, 0xa4, 0xa5, 0xa6, 0xa7, 0xa8, 0xa9, 0xaa, 0xb2, 0xb3, 0xb4, 0xb5, 0xb6, 0xb7, 0xb8, 0xb9, 0xba,
    0xc2, 0xc3, 0xc4, 0xc5, 0xc6, 0xc7, 0xc8, 0xc9, 0xca, 0xd2, 0xd3, 0xd4, 0xd5, 0xd6, 0xd7, 0xd8, 0xd9, 0xda,
    0xe2, 0xe3, 0xe4, 0xe5, 0xe6, 0xe7, 0xe8, 0xe9, 0xea, 0xf2, 0xf3, 0xf4, 0xf5, 0xf6, 0xf7, 0xf8, 0xf9, 0xfa};

void set_spec(kivoe_huff_spec *s, int i, const uint8_t *bits, const uint8_t *vals, int count) {
    std::memset(s, 0, sizeof(*s));
    s->cls = i & 1;
    s->id = i >> 1;
    s->count = count;
    for (int l = 0; l < 16; ++l) s->bits[l] = bits[l];
    for (int k = 0; k < count; ++k) s->vals[k] = vals ? vals[k] : k;
}

}  // namespace

void kivoe_default_huff_spec(kivoe_ctx *ctx, int32_t i) {
    static const uint8_t *const kBits[4] = {kDcLumaBits, kAcLumaBits, kDcChromaBits, kAcChromaBits};
    static const uint8_t *const kVals[4] = {nullptr, kAcLumaVals, nullptr, kAcChromaVals};
    set_spec(&ctx->huff_spec[i], i, kBits[i], kVals[i], i & 1 ? 162 : 12);
}

int32_t kivoe_init_huff_tbl(kivoe_ctx *ctx) {
    for (int32_t i = 0; i < 4; ++i) kivoe_default_huff_spec(ctx, i);
    return kivoe_gen_code_tbl(ctx);
}

void kivoe_gen_code(const kivoe_huff_spec *s, kivoe_dc_tbl *dc, kivoe_ac_tbl *ac) {
    const int32_t count = s->count < 0 ? 0 : (s->count > 256 ? 256 : s->count);
    // Canonical codes: consecutive within a length, doubled after each.
    // A code is kept to its length even when the counts overfill it, so
    // that the coder can put code and extra bits side by side.
    uint32_t code = 0;
    int32_t k = 0;
    if (s->cls == 0) {
        kivoe_dc_tbl &t = *dc;
        for (kivoe_code &c : t.code) c = kivoe_code{0, 0};
        // All 16 lengths: an optimised table may hold DC codes longer
        // than the 12 bits of the typical ones.
        for (int32_t l = 1; l <= 16; ++l, code <<= 1) {
            for (int32_t n = 0; n < s->bits[l - 1] && k < count; ++n, ++k, ++code) {
                kivoe_code &c = t.code[s->vals[k] & 0xFF];
                c.code = static_cast<uint16_t>(code & ((1u << l) - 1));
                c.len = static_cast<uint8_t>(l);
            }
        }
        t.count = s->count;
        for (int32_t l = 0; l < 16; ++l) t.bits[l] = s->bits[l];
    } else {
        kivoe_ac_tbl &t = *ac;
        t.count = s->count + 1;
        for (int32_t p = 0; p <= count; ++p) t.code[p].len = 0;
        for (kivoe_code &c : t.by_symbol) c = kivoe_code{0, 0};
        for (int32_t l = 1; l <= 16; ++l, code <<= 1) {
            for (int32_t n = 0; n < s->bits[l - 1] && k < count; ++n, ++k, ++code) {
                const int32_t v = s->vals[k] & 0xFF;
                kivoe_ac_code &e = t.code[k];
                e.code = static_cast<uint16_t>(code & ((1u << l) - 1));
                e.len = static_cast<uint8_t>(l);
                e.run = static_cast<uint8_t>(v >> 4);
                e.size = static_cast<uint8_t>(v & 15);
                t.index[v] = k;
                t.by_symbol[v] = kivoe_code{e.code, e.len};
            }
        }
        for (int32_t v = 0; v < 256; ++v) {
            const uint32_t size = v & 15, shifted = static_cast<uint32_t>(t.by_symbol[v].code) << size;
            t.with_extra[2 * v] = shifted;
            t.with_extra[2 * v + 1] = shifted | ((1u << size) - 1);
            t.len_with_extra[2 * v] = t.len_with_extra[2 * v + 1] = static_cast<uint8_t>(t.by_symbol[v].len + size);
        }
        for (int32_t l = 0; l < 16; ++l) t.bits[l] = s->bits[l];
    }
}

int32_t kivoe_gen_code_tbl(kivoe_ctx *ctx) {
    for (const kivoe_huff_spec &s : ctx->huff_spec) kivoe_gen_code(&s, &ctx->dc_tbl[s.id & 3], &ctx->ac_tbl[s.id & 3]);
    return KIVO_OK;
}

namespace {

// Largest frequency total the merge searches can handle: a node above it
// would never be picked again.
constexpr uint64_t kFreqBound = 1000000000u;

// Code sizes of a Huffman code for freq[0..256] (T.81 Figure K.1): merges
// the two least frequent nodes until one is left; among equal frequencies
// the larger symbol is taken. The searches walk only the symbols still
// counted, in increasing order. Returns the largest code size.
int32_t code_sizes(const uint32_t in[257], int32_t codesize[257]) {
    uint32_t freq[257];
    int32_t others[257], live[257], n_live = 0;
    for (int32_t v = 0; v <= 256; ++v) {
        freq[v] = in[v];
        others[v] = -1;
        codesize[v] = 0;
        if (freq[v]) live[n_live++] = v;
    }
    for (;;) {
        int32_t a = -1, b = -1, at_b = -1;
        uint32_t fa = kFreqBound, fb = kFreqBound;
        for (int32_t i = 0; i < n_live; ++i)
            if (freq[live[i]] <= fa) {
                fa = freq[live[i]];
                a = live[i];
            }
        for (int32_t i = 0; i < n_live; ++i)
            if (freq[live[i]] <= fb && live[i] != a) {
                fb = freq[live[i]];
                b = live[i];
                at_b = i;
            }
        if (a < 0 || b < 0) break;
        freq[a] += freq[b];
        freq[b] = 0;
        for (int32_t i = at_b; i + 1 < n_live; ++i) live[i] = live[i + 1];
        --n_live;
        int32_t e = a;
        ++codesize[e];
        while (others[e] >= 0) ++codesize[e = others[e]];
        others[e] = b;
        e = b;
        ++codesize[e];
        while (others[e] >= 0) ++codesize[e = others[e]];
    }
    int32_t longest = 0;
    for (int32_t v = 0; v <= 256; ++v) longest = codesize[v] > longest ? codesize[v] : longest;
    return longest;
}

// Frequencies from 64-bit counters: scaled down (every non-zero count stays
// at least 1) until their total, the reserved symbol included, is within
// the search bound. Totals within it are taken as they are.
void load_freq(const uint64_t *counter, int32_t n, uint32_t freq[257]) {
    for (int32_t shift = 0; shift < 64; ++shift) {
        uint64_t total = 1;
        const uint64_t round = (uint64_t(1) << shift) - 1;
        for (int32_t v = 0; v < n; ++v) {
            const uint64_t c = counter[v];
            const uint64_t f = c ? (c >> shift) + ((c & round) ? 1 : 0) : 0;
            freq[v] = static_cast<uint32_t>(f > kFreqBound ? kFreqBound : f);
            total += f;
        }
        if (total <= kFreqBound) break;
    }
    for (int32_t v = n; v < 256; ++v) freq[v] = 0;
    freq[256] = 1;  // reserved: no code may consist of 1-bits only
}

}  // namespace

void kivoe_gen_opt(kivoe_huff_spec *s, const uint64_t *counter, int32_t n, const char *overflow_message) {
    std::memset(s->bits, 0, sizeof(s->bits));
    std::memset(s->vals, 0, sizeof(s->vals));
    uint32_t freq[257];
    load_freq(counter, n, freq);

    int32_t codesize[257];
    int32_t bits[33] = {0};
    if (code_sizes(freq, codesize) > 32) {
        // Too deep for the 32-entry count: say so, then flatten the
        // frequencies until the tree fits, so that the code stays a
        // complete prefix code.
        if (overflow_message) std::printf("%s\n", overflow_message);
        do {
            for (uint32_t &f : freq) f = f ? (f + 1) >> 1 : 0;
        } while (code_sizes(freq, codesize) > 32);
    }
    for (int32_t v = 0; v <= 256; ++v)
        if (codesize[v]) ++bits[codesize[v]];

    // Limit to 16 bits (T.81 Figure K.3): a pair of the longest codes
    // becomes one code a bit shorter and a prefix split to hold the other.
    for (int32_t l = 32; l > 16; --l) {
        while (bits[l] > 0) {
            int32_t j = l - 2;
            while (j > 0 && bits[j] == 0) --j;
            if (j == 0) break;
            bits[l] -= 2;
            bits[l - 1] += 1;
            bits[j + 1] += 2;
            bits[j] -= 1;
        }
    }
    // The reserved symbol held one of the longest codes.
    for (int32_t l = 16; l > 0; --l)
        if (bits[l] > 0) {
            --bits[l];
            break;
        }
    for (int32_t l = 1; l <= 16; ++l) s->bits[l - 1] = bits[l];

    // Symbols by code size, then value (T.81 Figure K.4): each size's
    // first place from the counts of the shorter ones.
    int32_t first[34] = {0};
    for (int32_t v = 0; v < 256; ++v)
        if (codesize[v]) ++first[codesize[v] + 1];
    for (int32_t l = 1; l <= 33; ++l) first[l] += first[l - 1];
    for (int32_t v = 0; v < 256; ++v)
        if (codesize[v]) s->vals[first[codesize[v]]++] = v;
    s->count = first[32];
}

int32_t kivoe_gen_opt_spec(kivoe_ctx *ctx) {
    const char *overflow_message =
        ctx->huff_overflow_msg ? ctx->huff_overflow_msg : "Error : Huffman code size table overflow";
    for (kivoe_huff_spec &s : ctx->huff_spec) {
        const int32_t id = s.id & 3;
        if (s.cls == 0) kivoe_gen_opt(&s, ctx->dc_tbl[id].counter, 26, overflow_message);
        else kivoe_gen_opt(&s, ctx->ac_tbl[id].counter, 256, overflow_message);
    }
    return KIVO_OK;
}

int32_t kivoe_opt_huff_tbl(kivoe_ctx *ctx) {
    int32_t ret = kivoe_gen_opt_spec(ctx);
    if (ret < 0) return ret;
    ret = kivoe_gen_code_tbl(ctx);
    return ret < 0 ? ret : KIVO_OK;
}
