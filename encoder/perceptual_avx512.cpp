// AVX-512 statistics pass of the perceptual selection at level 1, bit-exact
// to the plain kernel. As in the AVX2 one, a strip of analysis blocks is
// reduced to 2 x 2 means row pair by row pair across its width, four blocks
// a vector, into a buffer; the blocks are then transformed two at a time,
// one in each half of a vector, their magnitudes summed in registers.
#include "encoder/fdct_avx512.h"

#include "encoder/enc_simd.h"

namespace {

// Blocks reduced into the buffer at a time (20 KiB of it), and blocks whose
// 16-bit sums (at most 1024 a block) are taken before they reach 2^16.
constexpr int kWide = 160, kChunk = 32;
// Row pairs read ahead of the one reduced.
constexpr int kAhead = 3;

// fdct8_pair's columns P[i] from the buffer's rows of two blocks: rows y
// and y + 1 joined in a vector (row y's 16 words, block a's 8 then b's, then
// row y + 1's). Lane w of half h of P[i] is row w % 8 of block w % 16 / 8,
// column kPairColumns[i][h]; one permute takes rows 0 to 3 from the first
// two vectors, the same permute rows 4 to 7 from the other two.
struct WordIndex {
    alignas(64) uint16_t w[4][32];
};

constexpr WordIndex make_word_index() {
    WordIndex t{};
    for (int i = 0; i < 4; ++i)
        for (int w = 0; w < 32; ++w) {
            const int col = kPairColumns[i][w / 16], blk = w % 16 / 8, y = w % 8;
            t.w[i][w] = static_cast<uint16_t>(16 * (y % 4) + 8 * blk + col);
        }
    return t;
}

inline constexpr WordIndex kWordIndex = make_word_index();

// The 2 x 2 means of 64 samples of rows a and b (32 of them).
inline __m512i means(__m512i a, __m512i b) {
    const __m512i one = _mm512_set1_epi8(1);
    return _mm512_srli_epi16(_mm512_add_epi16(_mm512_maddubs_epi16(a, one), _mm512_maddubs_epi16(b, one)), 2);
}

}  // namespace

void kivoe_box2_strip_avx512(const uint8_t *src, int32_t stride, int32_t n, uint32_t *acc) {
    alignas(64) int16_t buf[8][8 * kWide];
    for (int32_t b0 = 0; b0 < n; b0 += kWide) {
        const int32_t nb = n - b0 < kWide ? n - b0 : kWide;
        for (int j = 0; j < 8; ++j) {
            const uint8_t *r0 = src + static_cast<ptrdiff_t>(2 * j) * stride + 16 * b0, *r1 = r0 + stride;
            // The row pair kAhead on (past the strip's last, the next
            // strip's), asked for a line at a time while this one is
            // reduced; the addresses are formed as integers, a prefetch past
            // the plane does not fault.
            const uintptr_t next = reinterpret_cast<uintptr_t>(r0) + kAhead * 2 * static_cast<uintptr_t>(static_cast<ptrdiff_t>(stride));
            for (int32_t k = 0; k < nb; k += 4) {
                __builtin_prefetch(reinterpret_cast<const void *>(next + 16 * static_cast<uintptr_t>(k)));
                __builtin_prefetch(reinterpret_cast<const void *>(next + static_cast<uintptr_t>(static_cast<ptrdiff_t>(stride)) +
                                                                  16 * static_cast<uintptr_t>(k)));
                // The strip's last blocks, fewer than four, through masks:
                // nothing past them is read or written.
                const int32_t left = nb - k < 4 ? nb - k : 4;
                const __mmask64 bytes = left == 4 ? ~__mmask64(0) : (__mmask64(1) << (16 * left)) - 1;
                const __m512i a = _mm512_maskz_loadu_epi8(bytes, r0 + 16 * k);
                const __m512i b = _mm512_maskz_loadu_epi8(bytes, r1 + 16 * k);
                _mm512_mask_storeu_epi16(&buf[j][8 * k], static_cast<__mmask32>((uint64_t(1) << (8 * left)) - 1), means(a, b));
            }
        }
        for (int32_t c0 = 0; c0 < nb; c0 += kChunk) {
            const int32_t end = nb - c0 < kChunk ? nb : c0 + kChunk;
            // Rows 0 to 3 of the sums, rows 4 to 7; lane 0 takes the DC
            // coefficient's mean level (F + 1024) >> 3 instead of its
            // magnitude.
            __m512i sum[2] = {_mm512_setzero_si512(), _mm512_setzero_si512()};
            auto add = [&sum](const __m512i c[2]) {
                const __m512i mean = _mm512_srai_epi16(_mm512_add_epi16(c[0], _mm512_set1_epi16(1024)), 3);
                sum[0] = _mm512_add_epi16(sum[0], _mm512_mask_blend_epi16(1, _mm512_abs_epi16(c[0]), mean));
                sum[1] = _mm512_add_epi16(sum[1], _mm512_abs_epi16(c[1]));
            };
            for (int32_t k = c0; k < end; k += 2) {
                // A last block alone goes through the transform twice.
                const bool pair = k + 1 < end;
                __m256i r[8];
                for (int j = 0; j < 8; ++j)
                    r[j] = pair ? _mm256_load_si256(reinterpret_cast<const __m256i *>(&buf[j][8 * k]))
                                : _mm256_broadcastsi128_si256(_mm_load_si128(reinterpret_cast<const __m128i *>(&buf[j][8 * k])));
                const __m512i z0 = join(r[0], r[1]), z1 = join(r[2], r[3]), z2 = join(r[4], r[5]), z3 = join(r[6], r[7]);
                __m512i P[4];
                for (int i = 0; i < 4; ++i) {
                    const __m512i idx = _mm512_load_si512(kWordIndex.w[i]);
                    P[i] = _mm512_mask_blend_epi16(0xF0F0F0F0u, _mm512_permutex2var_epi16(z0, idx, z1),
                                                   _mm512_permutex2var_epi16(z2, idx, z3));
                }
                __m512i ca[2], cb[2];
                fdct8_pair(P, ca, cb);
                add(ca);
                if (pair) add(cb);
            }
            for (int h = 0; h < 2; ++h) {
                const __m256i half[2] = {_mm512_castsi512_si256(sum[h]), _mm512_extracti64x4_epi64(sum[h], 1)};
                for (int i = 0; i < 2; ++i) {
                    uint32_t *p = acc + 32 * h + 16 * i;
                    _mm512_storeu_si512(p, _mm512_add_epi32(_mm512_loadu_si512(p), _mm512_cvtepu16_epi32(half[i])));
                }
            }
        }
    }
}
