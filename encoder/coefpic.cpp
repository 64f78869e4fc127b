// Coefficient pictures written as whole streams: baseline with Huffman
// tables optimised for the levels, or progressive (spectral selection and
// successive approximation, T.81 Annex G) with tables optimised per scan.
//
// Every scan is coded twice by the same routine: once counting its symbols,
// once writing them with the tables built from the counts.
#include <cstdlib>
#include <cstring>

#include "encoder/kivoe_int.h"
#include "encoder/nonzero.h"

namespace {

// ---- scan scripts ------------------------------------------------------------------

struct Scan {
    int32_t n;        // components in the scan
    int32_t comp[4];  // their frame indices
    int32_t ss, se, ah, al;
};

// Largest script: four components whose DC scans cannot be interleaved.
constexpr int32_t kMaxScans = 24;

struct Script {
    Scan scan[kMaxScans];
    int32_t n = 0;
    void add(int32_t c, int32_t ss, int32_t se, int32_t ah, int32_t al) { scan[n++] = Scan{1, {c, 0, 0, 0}, ss, se, ah, al}; }
    // Bands of every component (or, with interleave, all of them in one scan).
    void add_all(int32_t n_comp, bool interleave, int32_t ss, int32_t se, int32_t ah, int32_t al) {
        if (!interleave || n_comp == 1) {
            for (int32_t c = 0; c < n_comp; ++c) add(c, ss, se, ah, al);
            return;
        }
        scan[n++] = Scan{n_comp, {0, 1, 2, 3}, ss, se, ah, al};
    }
};

// Baseline: one scan of every component, one scan each when an MCU would
// hold more than ten blocks.
// Progressive: the DC levels but their lowest bit first, then the AC bands
// at reduced precision, then the bits left. Three components (luma first)
// get the low luma frequencies early and the chroma bands whole; other
// counts treat every component alike.
void make_script(int32_t n_comp, bool interleave, int32_t coding, Script *s) {
    if (coding == KIVOE_CODING_BASELINE) {
        s->add_all(n_comp, interleave, 0, 63, 0, 0);
        return;
    }
    s->add_all(n_comp, interleave, 0, 0, 0, 1);
    if (n_comp == 3) {
        s->add(0, 1, 5, 0, 2);
        s->add(2, 1, 63, 0, 1);
        s->add(1, 1, 63, 0, 1);
        s->add(0, 6, 63, 0, 2);
        s->add(0, 1, 63, 2, 1);
        s->add_all(n_comp, interleave, 0, 0, 1, 0);
        s->add(2, 1, 63, 1, 0);
        s->add(1, 1, 63, 1, 0);
        s->add(0, 1, 63, 1, 0);
        return;
    }
    for (int32_t c = 0; c < n_comp; ++c) s->add(c, 1, 5, 0, 2);
    for (int32_t c = 0; c < n_comp; ++c) s->add(c, 6, 63, 0, 2);
    for (int32_t c = 0; c < n_comp; ++c) s->add(c, 1, 63, 2, 1);
    s->add_all(n_comp, interleave, 0, 0, 1, 0);
    for (int32_t c = 0; c < n_comp; ++c) s->add(c, 1, 63, 1, 0);
}

// ---- geometry --------------------------------------------------------------------------

struct Geometry {
    int32_t mcu_w, mcu_h;  // MCUs across and down
    int32_t bw[4], bh[4];  // blocks of each component's own samples
    bool interleave;       // one scan may hold every component
};

// Calls f(c, levels) for every block of the scan in coding order: MCU by
// MCU for several components, the component's own blocks row by row for
// one. Stops when f returns false.
template <class F>
bool for_each_block(const kivoe_coef_pic *pic, const Geometry &g, const Scan &s, F &&f) {
    if (s.n == 1) {
        const int32_t c = s.comp[0];
        for (int32_t by = 0; by < g.bh[c]; ++by) {
            const int16_t *row = pic->coef[c] + static_cast<size_t>(by) * pic->blk_w[c] * 64;
            for (int32_t bx = 0; bx < g.bw[c]; ++bx)
                if (!f(c, row + static_cast<size_t>(bx) * 64)) return false;
        }
        return true;
    }
    for (int32_t my = 0; my < g.mcu_h; ++my)
        for (int32_t mx = 0; mx < g.mcu_w; ++mx)
            for (int32_t k = 0; k < s.n; ++k) {
                const int32_t c = s.comp[k];
                for (int32_t v = 0; v < pic->v[c]; ++v) {
                    const size_t by = static_cast<size_t>(my) * pic->v[c] + v;
                    for (int32_t h = 0; h < pic->h[c]; ++h) {
                        const size_t bx = static_cast<size_t>(mx) * pic->h[c] + h;
                        if (!f(c, pic->coef[c] + (by * pic->blk_w[c] + bx) * 64)) return false;
                    }
                }
            }
    return true;
}

// KIVO_OK when the record describes a picture we can write; fills g.
int32_t check_picture(const kivoe_coef_pic *pic, Geometry *g) {
    if (pic->n_comp < 1 || pic->n_comp > 4 || pic->width < 1 || pic->height < 1 || pic->width > 65535 ||
        pic->height > 65535 || pic->trailer_len < 0 || (pic->trailer_len > 0 && !pic->trailer))
        return KIVO_ERR_INVALID_ARG;
    int32_t hmax = 1, vmax = 1, blocks = 0;
    for (int32_t c = 0; c < pic->n_comp; ++c) {
        if (pic->h[c] < 1 || pic->h[c] > 4 || pic->v[c] < 1 || pic->v[c] > 4 || pic->tq[c] > 3 || !pic->coef[c])
            return KIVO_ERR_INVALID_ARG;
        for (int32_t i = 0; i < 64; ++i)
            if (pic->qt[pic->tq[c]][i] == 0) return KIVO_ERR_INVALID_ARG;
        hmax = pic->h[c] > hmax ? pic->h[c] : hmax;
        vmax = pic->v[c] > vmax ? pic->v[c] : vmax;
        blocks += pic->h[c] * pic->v[c];
    }
    g->mcu_w = (pic->width + 8 * hmax - 1) / (8 * hmax);
    g->mcu_h = (pic->height + 8 * vmax - 1) / (8 * vmax);
    g->interleave = blocks <= 10;
    for (int32_t c = 0; c < pic->n_comp; ++c) {
        // Component size: ceil(X * H / Hmax) by ceil(Y * V / Vmax).
        const int32_t w = (pic->width * pic->h[c] + hmax - 1) / hmax;
        const int32_t h = (pic->height * pic->v[c] + vmax - 1) / vmax;
        g->bw[c] = (w + 7) / 8;
        g->bh[c] = (h + 7) / 8;
        if (pic->blk_w[c] < g->mcu_w * pic->h[c] || pic->blk_h[c] < g->mcu_h * pic->v[c]) return KIVO_ERR_INVALID_ARG;
    }
    return KIVO_OK;
}

// KIVO_ERR_UNSUPPORTED when a DC difference (in the order of the first
// scan) or an AC level lies outside the categories of 8-bit data: beyond
// +-2047 and +-1023.
int32_t check_levels(const kivoe_coef_pic *pic, const Geometry &g, const Script &baseline) {
    for (int32_t i = 0; i < baseline.n; ++i) {
        int32_t pred[4] = {0, 0, 0, 0};
        const bool ok = for_each_block(pic, g, baseline.scan[i], [&pred](int32_t c, const int16_t *b) {
            const int32_t d = b[0] - pred[c];
            pred[c] = b[0];
            bool fits = d >= -2047 && d <= 2047;
            for (int32_t k = 1; k < 64; ++k) fits &= b[k] >= -1023 && b[k] <= 1023;
            return fits;
        });
        if (!ok) return KIVO_ERR_UNSUPPORTED;
    }
    return KIVO_OK;
}

// ---- progressive coding -----------------------------------------------------------------

// Arithmetic shift right without shifting a negative value.
inline int32_t asr(int32_t v, int32_t n) { return v >= 0 ? v >> n : ~(~v >> n); }

inline int32_t bit_length(uint32_t v) { return v ? 32 - __builtin_clz(v) : 0; }

// Most correction bits an end-of-band run holds back before it is written.
constexpr int32_t kCorrectionBits = 1000;

// Bits on their way to the writer, which takes them 32 at a time.
struct BitOut {
    xelo_bsw *bs;
    uint64_t acc;
    int32_t n;  // 0 to 31

    void put(uint32_t v, int32_t len) {  // len: 1 to 16
        acc = acc << len | (v & ((1u << len) - 1));
        n += len;
        if (n >= 32) {
            n -= 32;
            xelo_bsw_write(bs, static_cast<uint32_t>(acc >> n), 32);
        }
    }
    void drain() {
        if (n) xelo_bsw_write(bs, static_cast<uint32_t>(acc), n);
        n = 0;
    }
};

// One table of a scan: counts symbols while counting, writes codes after.
struct Coder {
    BitOut *out;
    bool counting;
    uint64_t *counter;        // per symbol
    const kivoe_code *code;   // per symbol
    int32_t eob_run = 0;      // blocks whose band ends with no more symbols
    int32_t held = 0;         // correction bits of those blocks
    uint8_t bits_held[kCorrectionBits];

    void sym(int32_t s) {
        if (counting) ++counter[s];
        else if (code[s].len) out->put(code[s].code, code[s].len);
    }
    void bits(uint32_t v, int32_t n) {
        if (!counting && n) out->put(v, n);
    }
    void correction_bits(const uint8_t *b, int32_t n) {
        for (int32_t i = 0; i < n; ++i) bits(b[i], 1);
    }
    // Writes the pending end-of-band run: EOBn, then the run's n low bits
    // (its top bit is implied), then the correction bits it held back.
    void flush_eob_run() {
        if (!eob_run) return;
        const int32_t n = bit_length(static_cast<uint32_t>(eob_run)) - 1;
        sym(n << 4);
        bits(static_cast<uint32_t>(eob_run), n);
        correction_bits(bits_held, held);
        eob_run = 0;
        held = 0;
    }
    // One more block ends its band in the run, with its correction bits.
    void end_band(const uint8_t *b, int32_t n) {
        ++eob_run;
        for (int32_t i = 0; i < n; ++i) bits_held[held++] = b[i];
        if (eob_run == 0x7FFF || held > kCorrectionBits - 64) flush_eob_run();
    }
};

void code_dc_first(Coder &t, int32_t *pred, int32_t al, const int16_t *b) {
    const int32_t v = asr(b[0], al);
    const int32_t d = v - *pred;
    *pred = v;
    const int32_t k = kivo::category(d);
    t.sym(k);
    t.bits(static_cast<uint32_t>(d < 0 ? d - 1 : d), k);
}

// Zig-zag positions ss..se of an AC band.
inline uint64_t band_bits(int32_t ss, int32_t se) {
    return (se == 63 ? ~uint64_t(0) : (uint64_t(1) << (se + 1)) - 1) & ~((uint64_t(1) << ss) - 1);
}

inline int32_t ctz64(uint64_t m) { return __builtin_ctzll(m); }

// The AC coders visit only the band's non-zero coefficients (nz: the
// block's zig-zag mask); one that is zero at bit al counts as a zero.
void code_ac_first(Coder &t, int32_t ss, int32_t se, int32_t al, const int16_t *b, uint64_t nz) {
    int32_t next = ss;  // the position after the last one coded
    for (uint64_t m = nz & band_bits(ss, se); m; m &= m - 1) {
        const int32_t k = ctz64(m);
        const int32_t v = b[kivo_tbl_zig_to_ras[k]];
        const int32_t a = (v < 0 ? -v : v) >> al;
        if (!a) continue;
        t.flush_eob_run();
        int32_t run = k - next;
        for (; run > 15; run -= 16) t.sym(0xF0);
        const int32_t n = bit_length(static_cast<uint32_t>(a));
        t.sym(run << 4 | n);
        t.bits(static_cast<uint32_t>(v < 0 ? ~a : a), n);
        next = k + 1;
    }
    if (next <= se) t.end_band(nullptr, 0);
}

// Refinement of the band by bit al: coefficients that become non-zero are
// coded as run/size-1 symbols with their sign; those already non-zero send
// their bit al as a correction bit after the next symbol (or with the end
// of band run that covers them).
void code_ac_refine(Coder &t, int32_t ss, int32_t se, int32_t al, const int16_t *b, uint64_t nz) {
    // One look at the levels: the band's coefficients that become non-zero
    // at bit al, with their signs, and those already non-zero, with their
    // bit al.
    uint64_t fresh = 0, negative = 0, old = 0, correction = 0;
    for (uint64_t m = nz & band_bits(ss, se); m; m &= m - 1) {
        const int32_t k = ctz64(m);
        const int32_t v = b[kivo_tbl_zig_to_ras[k]];
        const int32_t a = (v < 0 ? -v : v) >> al;
        const uint64_t bit = uint64_t(1) << k;
        if (a == 1) {
            fresh |= bit;
            if (v < 0) negative |= bit;
        } else if (a > 1) {
            old |= bit;
            if (a & 1) correction |= bit;
        }
    }
    const int32_t last_new = fresh ? 63 - __builtin_clzll(fresh) : -1;
    uint8_t pending[64];
    int32_t n_pending = 0, run = 0, prev = ss - 1;
    for (uint64_t m = fresh | old; m; m &= m - 1) {
        const int32_t k = ctz64(m);
        run += k - prev - 1;  // the zeros since the last non-zero one
        prev = k;
        // Sixteen zeros before a new coefficient need a ZRL; after the last
        // one the end of band covers them.
        while (run > 15 && k <= last_new) {
            t.flush_eob_run();
            t.sym(0xF0);
            run -= 16;
            t.correction_bits(pending, n_pending);
            n_pending = 0;
        }
        if (old >> k & 1) {
            pending[n_pending++] = static_cast<uint8_t>(correction >> k & 1);
            continue;
        }
        t.flush_eob_run();
        t.sym(run << 4 | 1);
        t.bits(negative >> k & 1 ? 0 : 1, 1);
        t.correction_bits(pending, n_pending);
        n_pending = 0;
        run = 0;
    }
    run += se - prev;
    if (run || n_pending) t.end_band(pending, n_pending);
}

// ---- stream -----------------------------------------------------------------------------

void put(xelo_bsw *bs, uint32_t v, int32_t n) { xelo_bsw_write(bs, v, n); }

void write_dqt(xelo_bsw *bs, const kivoe_coef_pic *pic) {
    bool used[4] = {false, false, false, false};
    for (int32_t c = 0; c < pic->n_comp; ++c) used[pic->tq[c]] = true;
    int32_t length = 2;
    bool wide[4];
    for (int32_t t = 0; t < 4; ++t) {
        wide[t] = false;
        for (int32_t i = 0; i < 64; ++i) wide[t] |= pic->qt[t][i] > 255;
        if (used[t]) length += 65 + (wide[t] ? 64 : 0);
    }
    put(bs, 0xFFDB, 16);
    put(bs, static_cast<uint32_t>(length), 16);
    for (int32_t t = 0; t < 4; ++t) {
        if (!used[t]) continue;
        put(bs, static_cast<uint32_t>((wide[t] ? 0x10 : 0) | t), 8);
        for (int32_t k = 0; k < 64; ++k) put(bs, pic->qt[t][kivo_tbl_zig_to_ras[k]], wide[t] ? 16 : 8);
    }
}

// Table of component c in scan s: scans holding DC levels give the first
// component table 0 and the others table 1; the one component of an AC
// scan uses table 0.
inline int32_t table_of(const Scan &s, int32_t c) { return s.ss == 0 && c ? 1 : 0; }

void write_sos(xelo_bsw *bs, const kivoe_coef_pic *pic, const Scan &s) {
    put(bs, 0xFFDA, 16);
    put(bs, static_cast<uint32_t>(6 + 2 * s.n), 16);
    put(bs, static_cast<uint32_t>(s.n), 8);
    for (int32_t k = 0; k < s.n; ++k) {
        const int32_t c = s.comp[k];
        const int32_t t = table_of(s, c);
        put(bs, pic->id[c], 8);
        put(bs, static_cast<uint32_t>((s.ss == 0 ? t : 0) << 4 | (s.se > 0 ? t : 0)), 8);
    }
    put(bs, static_cast<uint32_t>(s.ss), 8);
    put(bs, static_cast<uint32_t>(s.se), 8);
    put(bs, static_cast<uint32_t>(s.ah << 4 | s.al), 8);
}

// Per call: the counters and code tables of the scan being written.
struct Work {
    kivoe_dc_tbl dc[2];
    kivoe_ac_tbl ac[2];
    kivoe_huff_spec spec[4];
    Coder coder[2];
    BitOut out;
    // Progressive: the zig-zag masks of every block's non-zero AC levels,
    // per component in the order of its levels, made once for all scans.
    uint64_t *nz[4];
};

// Frees w and its masks.
void free_work(Work *w) {
    for (uint64_t *m : w->nz) std::free(m);
    std::free(w);
}

// Codes one scan (counting when the coders count). A sequential scan goes
// through the baseline coder.
void code_scan(const kivoe_coef_pic *pic, const Geometry &g, const Scan &s, Work &w, bool counting, xelo_bsw *bs) {
    int32_t pred[4] = {0, 0, 0, 0};
    if (s.ss == 0 && s.se == 63) {
        for_each_block(pic, g, s, [&](int32_t c, const int16_t *b) {
            const int32_t d = b[0] - pred[c];
            pred[c] = b[0];
            kivoe_dc_tbl *dc = &w.dc[table_of(s, c)];
            kivoe_ac_tbl *ac = &w.ac[table_of(s, c)];
            if (counting) {
                kivoe_vlc_dc_stat(bs, dc, d);
                kivoe_vlc_ac_stat(bs, ac, b);
            } else {
                kivoe_vlc_block(bs, dc, ac, d, b);
            }
            return true;
        });
        return;
    }
    w.out = BitOut{bs, 0, 0};
    for (int32_t i = 0; i < 2; ++i) {
        Coder &t = w.coder[i];
        t.out = &w.out;
        t.counting = counting;
        t.eob_run = t.held = 0;
        t.counter = s.ss ? w.ac[i].counter : w.dc[i].counter;
        t.code = s.ss ? w.ac[i].by_symbol : w.dc[i].code;
    }
    for_each_block(pic, g, s, [&](int32_t c, const int16_t *b) {
        if (s.ss == 0 && s.ah) w.coder[0].bits(static_cast<uint32_t>(asr(b[0], s.al) & 1), 1);
        else if (s.ss == 0) code_dc_first(w.coder[table_of(s, c)], &pred[c], s.al, b);
        else if (s.ah) code_ac_refine(w.coder[0], s.ss, s.se, s.al, b, w.nz[c][(b - pic->coef[c]) >> 6]);
        else code_ac_first(w.coder[0], s.ss, s.se, s.al, b, w.nz[c][(b - pic->coef[c]) >> 6]);
        return true;
    });
    w.coder[0].flush_eob_run();
    w.out.drain();
}

// Counts the scan's symbols, builds its tables and writes DHT, SOS and the
// entropy-coded data.
void write_scan(const kivoe_coef_pic *pic, const Geometry &g, const Scan &s, Work &w, xelo_bsw *bs) {
    for (int32_t i = 0; i < 2; ++i) {
        std::memset(w.dc[i].counter, 0, sizeof(w.dc[i].counter));
        std::memset(w.ac[i].counter, 0, sizeof(w.ac[i].counter));
    }
    const bool dc_codes = s.ss == 0 && s.ah == 0, ac_codes = s.se > 0;
    if (dc_codes || ac_codes) code_scan(pic, g, s, w, true, bs);
    // The tables this scan selects: DC tables of its components' slots
    // (first DC scans and sequential scans), AC tables likewise.
    int32_t n_spec = 0;
    for (int32_t cls = 0; cls < 2; ++cls) {
        if (cls == 0 ? !dc_codes : !ac_codes) continue;
        for (int32_t i = 0; i < 2; ++i) {
            bool used = false;
            for (int32_t k = 0; k < s.n; ++k) used |= table_of(s, s.comp[k]) == i;
            if (!used) continue;
            kivoe_huff_spec &spec = w.spec[n_spec++];
            spec.cls = cls;
            spec.id = i;
            if (cls == 0) kivoe_gen_opt(&spec, w.dc[i].counter, 16, nullptr);
            else kivoe_gen_opt(&spec, w.ac[i].counter, 256, nullptr);
            kivoe_gen_code(&spec, &w.dc[i], &w.ac[i]);
        }
    }
    if (n_spec) kivoe_write_dht(bs, w.spec, n_spec);
    write_sos(bs, pic, s);
    xelo_bsw_sink(bs);
    bs->flush = kivoe_bs_flush_data_seg;
    code_scan(pic, g, s, w, false, bs);
    // The last byte is padded with 1-bits.
    const int32_t used_bits = 32 - bs->free_bits;
    if (used_bits % 8) put(bs, 0xFF, 8 - used_bits % 8);
    xelo_bsw_sink(bs);
    bs->flush = kivoe_bs_flush;
}

}  // namespace

int32_t kivoe_write_coef_pic(const kivoe_coef_pic *pic, int32_t coding, xelo_bsw *bs) {
    if (!pic || !bs || (coding != KIVOE_CODING_BASELINE && coding != KIVOE_CODING_PROGRESSIVE))
        return KIVO_ERR_INVALID_ARG;
    Geometry g;
    int32_t ret = check_picture(pic, &g);
    if (ret < 0) return ret;
    Script baseline, script;
    make_script(pic->n_comp, g.interleave, KIVOE_CODING_BASELINE, &baseline);
    make_script(pic->n_comp, g.interleave, coding, &script);
    ret = check_levels(pic, g, baseline);
    if (ret < 0) return ret;
    Work *w = static_cast<Work *>(std::calloc(1, sizeof(Work)));
    if (!w) return KIVO_ERR_OUT_OF_MEMORY;
    if (coding == KIVOE_CODING_PROGRESSIVE) {
        for (int32_t c = 0; c < pic->n_comp; ++c) {
            const size_t blocks = static_cast<size_t>(pic->blk_w[c]) * pic->blk_h[c];
            w->nz[c] = static_cast<uint64_t *>(std::malloc(blocks * sizeof(uint64_t)));
            if (!w->nz[c]) {
                free_work(w);
                return KIVO_ERR_OUT_OF_MEMORY;
            }
            bool all_coded;  // the levels were checked above
            for (size_t i = 0; i < blocks; ++i) w->nz[c][i] = kivoe_zigzag_ac_mask(pic->coef[c] + 64 * i, &all_coded);
        }
    }

    bs->flush = kivoe_bs_flush;
    put(bs, 0xFFD8, 16);
    kivoe_write_app(bs, pic->app_list);
    write_dqt(bs, pic);
    kivoe_fh fh{};
    fh.length = static_cast<uint16_t>(8 + 3 * pic->n_comp);
    fh.precision = 8;
    fh.height = static_cast<uint16_t>(pic->height);
    fh.width = static_cast<uint16_t>(pic->width);
    fh.n_comp = static_cast<uint8_t>(pic->n_comp);
    bool wide = false;
    for (int32_t c = 0; c < pic->n_comp; ++c) {
        fh.comp_id[c] = pic->id[c];
        fh.h[c] = pic->h[c];
        fh.v[c] = pic->v[c];
        fh.tq[c] = pic->tq[c];
        for (int32_t i = 0; i < 64; ++i) wide |= pic->qt[pic->tq[c]][i] > 255;
    }
    // Quantizers above 255 make a sequential frame extended (SOF1).
    kivoe_write_sof(bs, &fh, coding == KIVOE_CODING_PROGRESSIVE ? 0xC2 : wide ? 0xC1 : 0xC0);
    for (int32_t i = 0; i < script.n && !bs->overflow; ++i) write_scan(pic, g, script.scan[i], *w, bs);
    free_work(w);
    put(bs, 0xFFD9, 16);
    xelo_bsw_sink(bs);
    size_t n = static_cast<size_t>(pic->trailer_len);
    const size_t room = bs->write_ptr && bs->end_ptr > bs->write_ptr ? static_cast<size_t>(bs->end_ptr - bs->write_ptr) : 0;
    if (n > room) {
        n = room;
        bs->overflow = 1;
    }
    if (n) {
        std::memcpy(bs->write_ptr, pic->trailer, n);
        bs->write_ptr += n;
    }
    return KIVO_OK;
}
