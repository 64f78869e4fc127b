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

int32_t kivoe_init_huff_tbl(kivoe_ctx *ctx) {
    set_spec(&ctx->huff_spec[0], 0, kDcLumaBits, nullptr, 12);
    set_spec(&ctx->huff_spec[1], 1, kAcLumaBits, kAcLumaVals, 162);
    set_spec(&ctx->huff_spec[2], 2, kDcChromaBits, nullptr, 12);
    set_spec(&ctx->huff_spec[3], 3, kAcChromaBits, kAcChromaVals, 162);
    return kivoe_gen_code_tbl(ctx);
}

int32_t kivoe_gen_code_tbl(kivoe_ctx *ctx) {
    for (int i = 0; i < 4; ++i) {
        const kivoe_huff_spec &s = ctx->huff_spec[i];
        const int id = s.id & 3;
        uint32_t code = 0;
        int k = 0;
        if (s.cls == 0) {
            kivoe_dc_tbl &t = ctx->dc_tbl[id];
            for (auto &c : t.code) c.len = 0;
            for (int l = 1; l <= 16; ++l) {
                for (int n = 0; n < s.bits[l - 1] && k < s.count; ++n, ++k, ++code) {
                    const int v = s.vals[k] & 0xFF;
                    t.code[v].code = static_cast<uint16_t>(code);
                    t.code[v].len = static_cast<uint8_t>(l);
                }
                code <<= 1;
            }
            t.count = s.count;
            for (int l = 0; l < 16; ++l) t.bits[l] = s.bits[l];
        } else {
            kivoe_ac_tbl &t = ctx->ac_tbl[id];
            t.count = s.count + 1;
            for (int p = 0; p <= s.count && p < 257; ++p) t.code[p].len = 0;
            for (auto &c : t.by_symbol) c.len = 0;
            for (int l = 1; l <= 16; ++l) {
                for (int n = 0; n < s.bits[l - 1] && k < s.count; ++n, ++k, ++code) {
                    const int v = s.vals[k] & 0xFF;
                    kivoe_ac_code &e = t.code[k];
                    e.code = static_cast<uint16_t>(code);
                    e.len = static_cast<uint8_t>(l);
                    e.run = static_cast<uint8_t>(v >> 4);
                    e.size = static_cast<uint8_t>(v & 15);
                    t.index[v] = k;
                    t.by_symbol[v].code = e.code;
                    t.by_symbol[v].len = e.len;
                }
                code <<= 1;
            }
            for (int l = 0; l < 16; ++l) t.bits[l] = s.bits[l];
        }
    }
    return KIVO_OK;
}

int32_t kivoe_gen_opt_spec(kivoe_ctx *ctx) {
    const char *overflow_message =
        ctx->huff_overflow_msg ? ctx->huff_overflow_msg : "Error : Huffman code size table overflow";
    for (int i = 0; i < 4; ++i) {
        kivoe_huff_spec &s = ctx->huff_spec[i];
        const int id = s.id & 3;
        int32_t bits[33] = {0};
        int32_t codesize[257] = {0};
        int32_t others[257];
        uint32_t freq[257] = {0};
        for (int32_t &o : others) o = -1;
        std::memset(s.bits, 0, sizeof(s.bits));
        std::memset(s.vals, 0, sizeof(s.vals));
        if (s.cls == 0) {
            for (int v = 0; v < 26; ++v) freq[v] = static_cast<uint32_t>(ctx->dc_tbl[id].counter[v]);
        } else {
            for (int v = 0; v < 256; ++v) freq[v] = static_cast<uint32_t>(ctx->ac_tbl[id].counter[v]);
        }
        freq[256] = 1;  // reserved: no code may be all 1-bits
        for (;;) {
            // The two least frequent symbols; ties go to the larger index.
            int a = -1, b = -1;
            uint32_t fa = 1000000000u, fb = 1000000000u;
            for (int v = 0; v <= 256; ++v)
                if (freq[v] && freq[v] <= fa) {
                    fa = freq[v];
                    a = v;
                }
            for (int v = 0; v <= 256; ++v)
                if (freq[v] && freq[v] <= fb && v != a) {
                    fb = freq[v];
                    b = v;
                }
            if (a < 0 || b < 0) break;
            freq[a] += freq[b];
            freq[b] = 0;
            ++codesize[a];
            int e = a;
            while (others[e] >= 0) {
                e = others[e];
                ++codesize[e];
            }
            others[e] = b;
            ++codesize[b];
            e = b;
            while (others[e] >= 0) {
                e = others[e];
                ++codesize[e];
            }
        }
        for (int v = 0; v <= 256; ++v) {
            if (!codesize[v]) continue;
            int size = codesize[v];
            if (size > 32) {
                std::printf("%s\n", overflow_message);
                size = 32;  // counted inside the table; the limit below still applies
            }
            ++bits[size];
        }
        for (int l = 32; l > 16; --l) {
            while (bits[l] > 0) {
                int j = l - 2;
                while (j > 0 && bits[j] == 0) --j;
                if (j <= 0) break;
                bits[l] -= 2;
                bits[l - 1] += 1;
                bits[j + 1] += 2;
                bits[j] -= 1;
            }
        }
        for (int l = 16; l > 0; --l) {
            if (bits[l] > 0) {
                --bits[l];
                break;
            }
        }
        for (int l = 1; l <= 16; ++l) s.bits[l - 1] = bits[l];
        int count = 0;
        for (int l = 1; l <= 32; ++l)
            for (int v = 0; v < 256; ++v)
                if (codesize[v] == l && count < 256) s.vals[count++] = v;
        s.count = count;
    }
    return KIVO_OK;
}

int32_t kivoe_opt_huff_tbl(kivoe_ctx *ctx) {
    int32_t ret = kivoe_gen_opt_spec(ctx);
    if (ret < 0) return ret;
    ret = kivoe_gen_code_tbl(ctx);
    return ret < 0 ? ret : KIVO_OK;
}
