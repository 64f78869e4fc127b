// Coefficient pictures written as whole streams: baseline with Huffman
// tables optimised for the levels, or progressive (spectral selection and
// successive approximation, T.81 Annex G) with tables optimised per scan.
//
// Every scan is coded twice: once counting its symbols, once writing them
// with the tables built from the counts.
#include <atomic>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "encoder/acscan.h"

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
// at reduced precision, then the bits left. Three components of YCbCr
// (luma first) get the low luma frequencies early and the chroma bands
// whole; RGB and other counts treat every component alike.
void make_script(int32_t n_comp, bool rgb, bool interleave, int32_t coding, Script *s) {
    if (coding == KIVOE_CODING_BASELINE) {
        s->add_all(n_comp, interleave, 0, 63, 0, 0);
        return;
    }
    s->add_all(n_comp, interleave, 0, 0, 0, 1);
    if (n_comp == 3 && !rgb) {
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

// Calls f(c, i) for every block of the scan in coding order, i the block's
// index among the component's (blk_w a row): MCU by MCU for several
// components, the component's own blocks row by row for one. Stops when f
// returns false.
template <class F>
bool for_each_block(const kivoe_coef_pic *pic, const Geometry &g, const Scan &s, F &&f) {
    if (s.n == 1) {
        const int32_t c = s.comp[0];
        for (int32_t by = 0; by < g.bh[c]; ++by)
            for (int32_t bx = 0; bx < g.bw[c]; ++bx)
                if (!f(c, static_cast<size_t>(by) * pic->blk_w[c] + bx)) return false;
        return true;
    }
    for (int32_t my = 0; my < g.mcu_h; ++my)
        for (int32_t mx = 0; mx < g.mcu_w; ++mx)
            for (int32_t k = 0; k < s.n; ++k) {
                const int32_t c = s.comp[k];
                for (int32_t v = 0; v < pic->v[c]; ++v) {
                    const size_t by = static_cast<size_t>(my) * pic->v[c] + v;
                    for (int32_t h = 0; h < pic->h[c]; ++h)
                        if (!f(c, by * pic->blk_w[c] + static_cast<size_t>(mx) * pic->h[c] + h)) return false;
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

// The categories of 8-bit data hold DC differences within +-2047 and AC
// levels within +-1023. The counting passes check the differences as they
// go and the baseline AC levels by the sizes they counted; the progressive
// bit planes check the AC levels as they are made.
inline bool dc_outside(int32_t d) { return static_cast<uint32_t>(d + 2047) > 4094; }

// Whether some AC level counted into t has a size above 10 (1024 and up).
inline bool ac_sizes_outside(const kivoe_ac_tbl &t) {
    uint64_t n = 0;
    for (int32_t run = 0; run < 16; ++run)
        for (int32_t size = 11; size < 16; ++size) n |= t.counter[run << 4 | size];
    return n != 0;
}

// Asks for the block kPrefetchBlocks further along its row of blocks (in
// 16-bit levels past the rows' end it may be another row's, or nothing:
// a prefetch never faults), ahead of the loops that read blocks in order,
// whose first touch of a block would otherwise wait for memory.
constexpr int32_t kPrefetchBlocks = 8;
inline void prefetch_ahead(const int16_t *b) {
    const char *p = reinterpret_cast<const char *>(b + 64 * kPrefetchBlocks);
    __builtin_prefetch(p);
    __builtin_prefetch(p + 64);
}

// ---- progressive coding -----------------------------------------------------------------

// Arithmetic shift right without shifting a negative value.
inline int32_t asr(int32_t v, int32_t n) { return v >= 0 ? v >> n : ~(~v >> n); }

// The symbols of a first AC scan in coding order, recorded while counting
// so that writing only looks up their codes: per symbol its value (bits
// 0-7), the count of its extra bits (8-12) and their value (from 13). Grows
// as needed up to 4 Mi symbols (16 MiB); a record that lost a symbol is not
// used. All zero is an empty record.
struct Record {
    uint32_t *sym;
    size_t n, room;
    bool lost;

    static constexpr size_t kMaxSymbols = size_t(4) << 20;

    void add(uint32_t symbol, int32_t bits, uint32_t value) {
        if (n == room && !grow()) return;
        sym[n++] = symbol | static_cast<uint32_t>(bits) << 8 | value << 13;
    }
    bool grow() {
        const size_t more = room ? 2 * room : 4096;
        uint32_t *p = !lost && more <= kMaxSymbols ? static_cast<uint32_t *>(std::realloc(sym, more * sizeof(uint32_t))) : nullptr;
        if (!p) {
            lost = true;
            return false;
        }
        sym = p;
        room = more;
        return true;
    }
};

// End-of-band runs while counting: blocks whose band ends with no more
// symbols, and how many correction bits they hold, which decides where a
// run is cut.
struct EobCount {
    uint64_t *counter;
    Record *rec = nullptr;
    int32_t run = 0, held = 0;

    void flush() {
        if (!run) return;
        const int32_t n = bit_length(static_cast<uint32_t>(run)) - 1;
        ++counter[n << 4];
        if (rec) rec->add(static_cast<uint32_t>(n << 4), n, static_cast<uint32_t>(run) & ((1u << n) - 1));
        run = held = 0;
    }
    void end_band(int32_t bits) {
        ++run;
        held += bits;
        if (run == 0x7FFF || held > kCorrectionBits - 64) flush();
    }
};

// A first AC band scan of one component over its blocks in order; planes:
// theirs. It codes each level's bits from al up (the refinements that code
// bit al are kivoe_refine_count and kivoe_refine_write).
struct AcScan {
    const int16_t *coef;  // the component's levels
    int32_t bw, bh, blk_w;
    const kivoe_planes *planes;
    int32_t ss, se, al;

    template <class F>
    void blocks(F &&f) const {
        const kivoe_planes *p = planes;
        for (int32_t by = 0; by < bh; ++by) {
            const int16_t *b = coef + static_cast<size_t>(by) * blk_w * 64;
            for (int32_t bx = 0; bx < bw; ++bx, b += 64) {
                prefetch_ahead(b);
                f(b, *p++);
            }
        }
    }

    // Symbol counts, and with rec the symbols themselves.
    void count_first(uint64_t *counter, Record *rec) const {
        if (rec) count_first<true>(counter, rec);
        else count_first<false>(counter, nullptr);
    }
    // The record and the ZRL count are kept locally (the counters' stores
    // might otherwise alias them), and stored at the end.
    template <bool kRecord>
    void count_first(uint64_t *counter, Record *rec) const {
        Record r = kRecord ? *rec : Record{};
        EobCount eob{counter, kRecord ? &r : nullptr};
        const uint64_t band = band_bits(ss, se);
        uint64_t zrl = 0;
        blocks([&](const int16_t *b, const kivoe_planes &p) {
            const uint64_t m = p.nz[al] & band;
            if (!m) return eob.end_band(0);
            eob.flush();
            int32_t next = ss;  // the position after the last one coded
            for_each_bit(m, [&](int32_t k, int32_t) {
                const int32_t v = b[kivo_tbl_zig_to_ras[k]];
                int32_t run = k - next;
                zrl += static_cast<uint32_t>(run >> 4);
                const int32_t a = (v < 0 ? -v : v) >> al;
                const int32_t n = bit_length(static_cast<uint32_t>(a));
                ++counter[(run & 15) << 4 | n];
                if (kRecord) {
                    for (; run > 15; run -= 16) r.add(0xF0, 0, 0);
                    r.add(static_cast<uint32_t>(run << 4 | n), n, static_cast<uint32_t>(v < 0 ? ~a : a) & ((1u << n) - 1));
                }
                next = k + 1;
            });
            if (next <= se) eob.end_band(0);
        });
        eob.flush();
        counter[0xF0] += zrl;
        if (kRecord) *rec = r;
    }

    // A first scan from its record.
    static void write_recorded(BitOut &out, const kivoe_code *code, const Record &rec) {
        for (size_t i = 0; i < rec.n; ++i) {
            const uint32_t e = rec.sym[i];
            const int32_t bits = static_cast<int32_t>(e >> 8 & 31);
            const kivoe_code c = code[e & 255];
            out.put(static_cast<uint32_t>(c.code) << bits | e >> 13, c.len + bits);
        }
    }

    void write_first(xelo_bsw *bs, const kivoe_code *code) const {
        SymbolWrite sink(bs, code);
        BitOut &out = sink.out;
        EobRun<SymbolWrite> eob;
        const uint64_t band = band_bits(ss, se);
        const kivoe_code zrl = code[0xF0];
        blocks([&](const int16_t *b, const kivoe_planes &p) {
            const uint64_t m = p.nz[al] & band;
            if (!m) return eob.end_band(sink, 0, 0);
            eob.flush(sink);
            int32_t next = ss;
            for_each_bit(m, [&](int32_t k, int32_t) {
                const int32_t v = b[kivo_tbl_zig_to_ras[k]];
                int32_t run = k - next;
                for (; run > 15; run -= 16) out.put(zrl.code, zrl.len);
                const int32_t a = (v < 0 ? -v : v) >> al;
                const int32_t n = bit_length(static_cast<uint32_t>(a));
                const kivoe_code c = code[run << 4 | n];
                const uint32_t extra = static_cast<uint32_t>(v < 0 ? ~a : a) & ((1u << n) - 1);
                out.put(static_cast<uint32_t>(c.code) << n | extra, c.len + n);
                next = k + 1;
            });
            if (next <= se) eob.end_band(sink, 0, 0);
        });
        eob.flush(sink);
        out.drain();
    }

};

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

}  // namespace

// A thread's counters and code tables for the scan it counts or writes.
struct kivoe_coef_tables {
    kivoe_dc_tbl dc[2];
    kivoe_ac_tbl ac[2];
    uint64_t corrections;  // correction bits of the scan being counted
};

// One coding of a coefficient picture: its scans, what every scan reads,
// and each scan's tables once counted.
struct kivoe_coef_plan {
    const kivoe_coef_pic *pic;
    int32_t coding;
    bool record;  // first AC scans' symbols recorded while counted
    Geometry g;
    Script script;
    // Each scan's tables, built from its counts, and the least bits its
    // entropy-coded data can take.
    struct {
        kivoe_huff_spec spec[4];
        int32_t n_spec;
        uint64_t bits;
        bool outside;  // some level or DC difference counted lies outside its categories
        Record record;  // first AC scans: their symbols
    } scan[kMaxScans];
    // Progressive: the bit planes of every block's AC levels, per component
    // in the order of its AC scans, and the DC levels of all its blocks (the
    // DC scans read nothing else), made once for all scans.
    kivoe_planes *planes[4];
    int16_t *dc_levels[4];
    int32_t prepared[4];  // per component: 0, or KIVO_ERR_UNSUPPORTED for AC levels outside their categories
    kivoe_planes_fn make_planes;
    kivoe_refine_count_fn refine_count;
    kivoe_refine_write_fn refine_write;
    // Baseline: the zig-zag masks of every block's non-zero AC levels,
    // found while counting, for the writing pass.
    uint64_t *masks[4];
    // Where the memory above came from and goes back to, and the bytes of
    // each component's planes, DC levels and masks.
    kivoe_coef_store *store;
    size_t got[4][3];
    // With the components interleaved: the blocks of the scans that hold
    // them all (baseline, or progressive DC) in coding order, each as
    // component << 30 | index, for those scans' walks.
    uint32_t *order;
    size_t n_order, got_order;
};

static_assert(KIVOE_STORE_DC - KIVOE_STORE_PLANES >= 4 && KIVOE_STORE_MASKS - KIVOE_STORE_DC >= 4 &&
                  KIVOE_STORE_RECORDS - KIVOE_STORE_MASKS >= 4 && KIVOE_STORE_ORDER - KIVOE_STORE_RECORDS >= kMaxScans &&
                  KIVOE_STORE_CALLER - KIVOE_STORE_ORDER >= 2 && KIVOE_STORE_SLOTS >= KIVOE_STORE_CALLER + 3,
              "a store slot for every component's and every scan's memory");

namespace {

// Codes one scan (counting when asked). A sequential scan goes through the
// baseline coder.
void code_scan(kivoe_coef_plan &pl, const Scan &s, kivoe_coef_tables &w, bool counting, bool *outside, Record *rec,
               xelo_bsw *bs) {
    const kivoe_coef_pic *pic = pl.pic;
    int32_t pred[4] = {0, 0, 0, 0};
    if (s.ss == 0 && s.se == 63) {
        bool out = false;
        const auto code_block = [&](int32_t c, size_t i) {
            const int16_t *b = pic->coef[c] + 64 * i;
            prefetch_ahead(b);
            const int32_t d = b[0] - pred[c];
            pred[c] = b[0];
            kivoe_dc_tbl *dc = &w.dc[table_of(s, c)];
            kivoe_ac_tbl *ac = &w.ac[table_of(s, c)];
            if (counting) {
                // A level without a size stops the count (all ones).
                out = out || dc_outside(d);
                kivoe_vlc_dc_stat(bs, dc, d);
                out = out || ~(pl.masks[c][i] = kivoe_vlc_ac_stat_mask(ac, b)) == 0;
            } else {
                kivoe_vlc_block_mask(bs, dc, ac, d, b, pl.masks[c][i]);
            }
            return true;
        };
        if (s.n > 1) {
            for (size_t k = 0; k < pl.n_order; ++k) code_block(static_cast<int32_t>(pl.order[k] >> 30), pl.order[k] & 0x3FFFFFFF);
        } else {
            for_each_block(pic, pl.g, s, code_block);
        }
        if (outside) *outside = out || ac_sizes_outside(w.ac[0]) || ac_sizes_outside(w.ac[1]);
        return;
    }
    if (s.ss > 0) {
        const int32_t c = s.comp[0];
        if (s.ah) {
            const kivoe_ac_scan scan{pl.planes[c], pl.g.bw[c] * pl.g.bh[c], s.ss, s.se, s.al};
            if (counting) w.corrections = pl.refine_count(&scan, w.ac[0].counter);
            else pl.refine_write(&scan, w.ac[0].by_symbol, bs);
            return;
        }
        const AcScan scan{pic->coef[c], pl.g.bw[c], pl.g.bh[c], pic->blk_w[c], pl.planes[c], s.ss, s.se, s.al};
        if (counting) {
            scan.count_first(w.ac[0].counter, rec);
        } else if (rec && !rec->lost) {
            BitOut out(bs);
            AcScan::write_recorded(out, w.ac[0].by_symbol, *rec);
            out.drain();
        } else {
            scan.write_first(bs, w.ac[0].by_symbol);
        }
        return;
    }
    // The DC scans.
    BitOut out(bs);
    // The first DC scans, in the order of the baseline ones, check the
    // whole levels' differences while counting.
    int32_t whole[4] = {0, 0, 0, 0};
    bool dc_out = false;
    const auto code_dc = [&](int32_t c, size_t i) {
        const int32_t dc = pl.dc_levels[c][i];
        if (s.ah) {
            if (counting) ++w.corrections;
            else out.put(static_cast<uint32_t>(asr(dc, s.al) & 1), 1);
            return true;
        }
        if (counting) {
            dc_out = dc_out || dc_outside(dc - whole[c]);
            whole[c] = dc;
        }
        const int32_t v = asr(dc, s.al);
        const int32_t d = v - pred[c];
        pred[c] = v;
        const int32_t k = kivo::category(d);
        kivoe_dc_tbl &t = w.dc[table_of(s, c)];
        if (counting) {
            ++t.counter[k];
        } else {
            const uint32_t extra = static_cast<uint32_t>(d < 0 ? d - 1 : d) & ((1u << k) - 1);
            out.put(static_cast<uint32_t>(t.code[k].code) << k | extra, t.code[k].len + k);
        }
        return true;
    };
    if (s.n > 1) {
        for (size_t k = 0; k < pl.n_order; ++k) code_dc(static_cast<int32_t>(pl.order[k] >> 30), pl.order[k] & 0x3FFFFFFF);
    } else {
        for_each_block(pic, pl.g, s, code_dc);
    }
    if (outside) *outside = dc_out;
    out.drain();
}

// Bits of the counted symbols' codes and extra bits under the tables in
// spec (correction bits of a refinement and stuffed bytes come on top).
uint64_t coded_bits(const kivoe_coef_tables &w, const kivoe_huff_spec *spec, int32_t n_spec) {
    uint64_t bits = 0;
    for (int32_t i = 0; i < n_spec; ++i) {
        if (spec[i].cls == 0) {
            const kivoe_dc_tbl &t = w.dc[spec[i].id];
            for (int32_t k = 0; k < 16; ++k) bits += t.counter[k] * (t.code[k].len + static_cast<uint32_t>(k));
            continue;
        }
        const kivoe_ac_tbl &t = w.ac[spec[i].id];
        for (int32_t sym = 0; sym < 256; ++sym) {
            // Extra bits: the level's size, or an end-of-band run's length
            // (EOBn, n = sym >> 4; none for ZRL).
            const uint32_t size = sym & 15, extra = size ? size : sym == 0xF0 ? 0 : static_cast<uint32_t>(sym >> 4);
            bits += t.counter[sym] * (t.by_symbol[sym].len + extra);
        }
    }
    return bits;
}

// Least bytes scan i can take: DHT, SOS and its entropy-coded data.
uint64_t scan_bytes(const kivoe_coef_plan &pl, int32_t i) {
    const auto &st = pl.scan[i];
    uint64_t n = (st.bits + 7) / 8 + 8 + 2 * static_cast<uint64_t>(pl.script.scan[i].n);
    if (st.n_spec) n += 4;
    for (int32_t k = 0; k < st.n_spec; ++k) n += 17 + static_cast<uint64_t>(st.spec[k].count);
    return n;
}

// SOI, the APPn segments, DQT and SOF.
void write_head(const kivoe_coef_plan &pl, xelo_bsw *bs) {
    const kivoe_coef_pic *pic = pl.pic;
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
    kivoe_write_sof(bs, &fh, pl.coding == KIVOE_CODING_PROGRESSIVE ? 0xC2 : wide ? 0xC1 : 0xC0);
}

// The order in which a coding's scans are counted: the first DC scans
// (which check the DC differences), then the others from the last, which
// usually hold the most bits, so that a stream that cannot fit is found
// with the fewest scans counted. Any order counts the same.
void count_order(const Script &s, int32_t order[kMaxScans]) {
    int32_t n = 0;
    for (int32_t i = 0; i < s.n; ++i)
        if (s.scan[i].ss == 0 && s.scan[i].ah == 0) order[n++] = i;
    for (int32_t i = s.n - 1; i >= 0; --i)
        if (s.scan[i].ss != 0 || s.scan[i].ah != 0) order[n++] = i;
}

// EOI and the trailing bytes, as far as they fit.
void write_tail(const kivoe_coef_plan &pl, xelo_bsw *bs) {
    put(bs, 0xFFD9, 16);
    xelo_bsw_sink(bs);
    size_t n = static_cast<size_t>(pl.pic->trailer_len);
    const size_t room = bs->write_ptr && bs->end_ptr > bs->write_ptr ? static_cast<size_t>(bs->end_ptr - bs->write_ptr) : 0;
    if (n > room) {
        n = room;
        bs->overflow = 1;
    }
    if (n) {
        std::memcpy(bs->write_ptr, pl.pic->trailer, n);
        bs->write_ptr += n;
    }
}

}  // namespace

void *kivoe_coef_store_take(kivoe_coef_store *store, int32_t slot, size_t bytes, size_t *got) {
    if (store && store->buf[slot]) {
        void *p = store->buf[slot];
        const size_t size = store->size[slot];
        store->buf[slot] = nullptr;
        store->size[slot] = 0;
        if (size >= bytes) {
            *got = size;
            return p;
        }
        std::free(p);  // too small: the larger memory made now goes back instead
    }
    void *p = bytes ? std::malloc(bytes) : nullptr;
    *got = p ? bytes : 0;
    return p;
}

void kivoe_coef_store_give(kivoe_coef_store *store, int32_t slot, void *p, size_t size) {
    if (!p) return;
    if (store && !store->buf[slot]) {
        store->buf[slot] = p;
        store->size[slot] = size;
        return;
    }
    std::free(p);
}

void kivoe_coef_store_free(kivoe_coef_store *store) {
    for (int32_t i = 0; i < KIVOE_STORE_SLOTS; ++i) std::free(store->buf[i]);
    *store = kivoe_coef_store{};
}

int32_t kivoe_coef_plan_new(const kivoe_coef_pic *pic, int32_t coding, kivoe_coef_plan **out, kivoe_coef_store *store) {
    *out = nullptr;
    const bool record = !(coding & KIVOE_CODING_LIKELY_COUNTED_ONLY);
    coding &= ~KIVOE_CODING_LIKELY_COUNTED_ONLY;
    if (!pic || (coding != KIVOE_CODING_BASELINE && coding != KIVOE_CODING_PROGRESSIVE)) return KIVO_ERR_INVALID_ARG;
    Geometry g;
    const int32_t ret = check_picture(pic, &g);
    if (ret < 0) return ret;
    kivoe_coef_plan *pl = static_cast<kivoe_coef_plan *>(std::calloc(1, sizeof(kivoe_coef_plan)));
    if (!pl) return KIVO_ERR_OUT_OF_MEMORY;
    pl->pic = pic;
    pl->coding = coding;
    pl->record = record;
    pl->g = g;
    pl->store = store;
    make_script(pic->n_comp, pic->rgb, g.interleave, coding, &pl->script);
    bool ok = true;
    for (int32_t c = 0; c < pic->n_comp; ++c) {
        const size_t blocks = static_cast<size_t>(pic->blk_w[c]) * pic->blk_h[c];
        auto &got = pl->got[c];
        if (coding == KIVOE_CODING_BASELINE) {
            pl->masks[c] = static_cast<uint64_t *>(
                kivoe_coef_store_take(store, KIVOE_STORE_MASKS + c, blocks * sizeof(uint64_t), &got[2]));
            ok &= pl->masks[c] != nullptr;
        } else {
            const size_t inside = static_cast<size_t>(g.bw[c]) * g.bh[c];
            pl->planes[c] = static_cast<kivoe_planes *>(
                kivoe_coef_store_take(store, KIVOE_STORE_PLANES + c, inside * sizeof(kivoe_planes), &got[0]));
            pl->dc_levels[c] =
                static_cast<int16_t *>(kivoe_coef_store_take(store, KIVOE_STORE_DC + c, blocks * sizeof(int16_t), &got[1]));
            ok &= pl->planes[c] && pl->dc_levels[c];
        }
    }
    if (pl->script.scan[0].n > 1) {
        const Scan &s = pl->script.scan[0];
        size_t n = 0;
        for (int32_t k = 0; k < s.n; ++k) n += static_cast<size_t>(pic->h[s.comp[k]]) * pic->v[s.comp[k]];
        n *= static_cast<size_t>(g.mcu_w) * g.mcu_h;
        pl->order = static_cast<uint32_t *>(
            kivoe_coef_store_take(store, KIVOE_STORE_ORDER + coding, n * sizeof(uint32_t), &pl->got_order));
        ok &= pl->order != nullptr;
        if (pl->order) {
            for_each_block(pic, g, s, [pl](int32_t c, size_t i) {
                pl->order[pl->n_order++] = static_cast<uint32_t>(c) << 30 | static_cast<uint32_t>(i);
                return true;
            });
        }
    }
    // The records' memory as the store has it (grown while counting).
    for (int32_t i = 0; i < pl->script.n && coding == KIVOE_CODING_PROGRESSIVE && record; ++i) {
        size_t got = 0;
        Record &r = pl->scan[i].record;
        r.sym = static_cast<uint32_t *>(kivoe_coef_store_take(store, KIVOE_STORE_RECORDS + i, 0, &got));
        r.room = got / sizeof(uint32_t);
    }
    if (coding == KIVOE_CODING_PROGRESSIVE) {
        kivoe_proc proc{};
        kivoe_dsp_init(&proc, kivo_cpu_flags());
        pl->make_planes = proc.planes;
        pl->refine_count = proc.refine_count;
        pl->refine_write = proc.refine_write;
    }
    if (!ok) {
        kivoe_coef_plan_free(pl);
        return KIVO_ERR_OUT_OF_MEMORY;
    }
    *out = pl;
    return KIVO_OK;
}

void kivoe_coef_plan_free(kivoe_coef_plan *pl) {
    if (!pl) return;
    kivoe_coef_store *store = pl->store;
    for (int32_t i = 0; i < kMaxScans; ++i) {
        const Record &r = pl->scan[i].record;
        kivoe_coef_store_give(store, KIVOE_STORE_RECORDS + i, r.sym, r.room * sizeof(uint32_t));
    }
    for (int32_t c = 0; c < 4; ++c) {
        kivoe_coef_store_give(store, KIVOE_STORE_PLANES + c, pl->planes[c], pl->got[c][0]);
        kivoe_coef_store_give(store, KIVOE_STORE_DC + c, pl->dc_levels[c], pl->got[c][1]);
        kivoe_coef_store_give(store, KIVOE_STORE_MASKS + c, pl->masks[c], pl->got[c][2]);
    }
    kivoe_coef_store_give(store, KIVOE_STORE_ORDER + pl->coding, pl->order, pl->got_order);
    std::free(pl);
}

kivoe_coef_tables *kivoe_coef_tables_new() {
    return static_cast<kivoe_coef_tables *>(std::calloc(1, sizeof(kivoe_coef_tables)));
}

void kivoe_coef_tables_free(kivoe_coef_tables *t) { std::free(t); }

int32_t kivoe_coef_tasks(const kivoe_coef_plan *pl, int32_t step) {
    if (step == KIVOE_COEF_PREPARE) return pl->coding == KIVOE_CODING_PROGRESSIVE ? pl->pic->n_comp : 0;
    return pl->script.n;
}

int32_t kivoe_coef_prepare(kivoe_coef_plan *pl, int32_t c) {
    // Every block of the component for the DC scans; only those inside it
    // for its AC scans, a row at a time.
    const kivoe_coef_pic *pic = pl->pic;
    const int32_t blk_w = pic->blk_w[c], bw = pl->g.bw[c];
    kivoe_planes *p = pl->planes[c];
    uint32_t outside = 0;
    for (int32_t by = 0; by < pic->blk_h[c] && !outside; ++by) {
        const int16_t *row = pic->coef[c] + static_cast<size_t>(by) * blk_w * 64;
        int16_t *dc = pl->dc_levels[c] + static_cast<size_t>(by) * blk_w;
        int32_t bx = 0;
        if (by < pl->g.bh[c]) {
            outside = pl->make_planes(row, bw, p, dc);
            p += bw;
            bx = bw;
        }
        for (; bx < blk_w; ++bx) dc[bx] = row[64 * bx];
    }
    pl->prepared[c] = outside ? KIVO_ERR_UNSUPPORTED : KIVO_OK;
    return KIVO_OK;
}

int32_t kivoe_coef_prepared(const kivoe_coef_plan *pl) {
    if (pl->coding != KIVOE_CODING_PROGRESSIVE) return KIVO_OK;
    for (int32_t c = 0; c < pl->pic->n_comp; ++c)
        if (pl->prepared[c] < 0) return pl->prepared[c];
    return KIVO_OK;
}

void kivoe_coef_count(kivoe_coef_plan *pl, int32_t i, kivoe_coef_tables *w) {
    for (int32_t t = 0; t < 2; ++t) {
        std::memset(w->dc[t].counter, 0, sizeof(w->dc[t].counter));
        std::memset(w->ac[t].counter, 0, sizeof(w->ac[t].counter));
    }
    w->corrections = 0;
    const Scan &s = pl->script.scan[i];
    auto &st = pl->scan[i];
    st.record.n = 0;
    st.record.lost = false;
    code_scan(*pl, s, *w, true, &st.outside, pl->record ? &st.record : nullptr, nullptr);
    // The tables this scan selects: DC tables of its components' slots
    // (first DC scans and sequential scans), AC tables likewise.
    const bool dc_codes = s.ss == 0 && s.ah == 0, ac_codes = s.se > 0;
    st.n_spec = 0;
    for (int32_t cls = 0; cls < 2; ++cls) {
        if (cls == 0 ? !dc_codes : !ac_codes) continue;
        for (int32_t t = 0; t < 2; ++t) {
            bool used = false;
            for (int32_t k = 0; k < s.n; ++k) used |= table_of(s, s.comp[k]) == t;
            if (!used) continue;
            kivoe_huff_spec &spec = st.spec[st.n_spec++];
            spec.cls = cls;
            spec.id = t;
            if (cls == 0) kivoe_gen_opt(&spec, w->dc[t].counter, 16, nullptr);
            else kivoe_gen_opt(&spec, w->ac[t].counter, 256, nullptr);
            kivoe_gen_code(&spec, &w->dc[t], &w->ac[t]);
        }
    }
    st.bits = coded_bits(*w, st.spec, st.n_spec) + w->corrections;
}

int32_t kivoe_coef_counted(const kivoe_coef_plan *pl, uint64_t *least) {
    // SOI and EOI, the trailer, and every scan's least bytes; the head's
    // segments are written before they count.
    uint64_t need = 2 + static_cast<uint64_t>(pl->pic->trailer_len);
    for (int32_t i = 0; i < pl->script.n; ++i) {
        if (pl->scan[i].outside) return KIVO_ERR_UNSUPPORTED;
        need += scan_bytes(*pl, i);
    }
    *least = need;
    return KIVO_OK;
}

uint64_t kivoe_coef_scan_room(const kivoe_coef_plan *pl, int32_t i, bool any) {
    // Every data byte may take a stuffing byte, and the last one padding;
    // in most data a byte in 256 is 0xFF.
    const uint64_t least = scan_bytes(*pl, i);
    return any ? 2 * least + 8 : least + least / 16 + 64;
}

void kivoe_coef_write_scan(kivoe_coef_plan *pl, int32_t i, kivoe_coef_tables *w, xelo_bsw *bs) {
    const auto &st = pl->scan[i];
    for (int32_t k = 0; k < st.n_spec; ++k) kivoe_gen_code(&st.spec[k], &w->dc[st.spec[k].id], &w->ac[st.spec[k].id]);
    if (st.n_spec) kivoe_write_dht(bs, st.spec, st.n_spec);
    write_sos(bs, pl->pic, pl->script.scan[i]);
    xelo_bsw_sink(bs);
    bs->flush = kivoe_bs_flush_data_seg;
    code_scan(*pl, pl->script.scan[i], *w, false, nullptr, pl->record ? &pl->scan[i].record : nullptr, bs);
    // The last byte is padded with 1-bits.
    const int32_t used_bits = 32 - bs->free_bits;
    if (used_bits % 8) put(bs, 0xFF, 8 - used_bits % 8);
    xelo_bsw_sink(bs);
    bs->flush = kivoe_bs_flush;
}

void kivoe_coef_write_head(const kivoe_coef_plan *pl, xelo_bsw *bs) { write_head(*pl, bs); }

void kivoe_coef_write_tail(const kivoe_coef_plan *pl, xelo_bsw *bs) { write_tail(*pl, bs); }

namespace {

// Codings on two threads, in steps: each step's tasks (a component's bit
// planes, a scan's counting or writing) are taken in turn by whichever
// thread is free, with code tables of its own, and a step starts once the
// one before has ended. A coding whose least size fits its cap is written,
// each scan into room of its own, and joined after. Every task's result
// depends on its inputs alone, so the bytes are those of one thread.
class SharedCodings {
public:
    SharedCodings(const kivo_tpool *tp, void *const *threads, kivoe_coef_store *store)
        : tp_(tp), threads_(threads), store_(store) {}
    ~SharedCodings() {
        for (Coding &c : coding_) {
            kivoe_coef_plan_free(c.plan);
            std::free(c.room);
            for (uint8_t *more : c.more) std::free(more);
        }
        for (kivoe_coef_tables *t : tables_) kivoe_coef_tables_free(t);
    }

    // Writes coding i (at most two) of pics[i] into dst[i] (cap[i] bytes).
    // size[i]: the stream's bytes, 0 where it does not fit, or the coding's
    // negative status. Returns KIVO_OK, -102 for want of memory, or another
    // status when the threads could not run it (nothing written).
    int32_t run(int n, const kivoe_coef_pic *const pics[], const int32_t codings[], uint8_t *const dst[],
                const int32_t cap[], int32_t size[]) {
        if (n < 1 || n > 2) return KIVO_ERR_INVALID_ARG;
        for (int i = 0; i < n; ++i) size[i] = 0;
        for (int t = 0; t < 2; ++t)
            if (!(tables_[t] = kivoe_coef_tables_new())) return KIVO_ERR_OUT_OF_MEMORY;
        for (int i = 0; i < n; ++i) {
            const int32_t r = kivoe_coef_plan_new(pics[i], codings[i], &coding_[i].plan, store_);
            if (r == KIVO_ERR_OUT_OF_MEMORY) return r;
            coding_[i].status = r;
        }
        // Baseline counting, the longest task, with the bit planes.
        for (int i = 0; i < n; ++i) {
            kivoe_coef_plan *plan = coding_[i].plan;
            if (coding_[i].status == KIVO_OK && (codings[i] & ~KIVOE_CODING_LIKELY_COUNTED_ONLY) == KIVOE_CODING_BASELINE)
                for (int k = 0; k < kivoe_coef_tasks(plan, KIVOE_COEF_SCANS); ++k) add(Task::kCount, plan, k);
        }
        for (int i = 0; i < n; ++i) {
            kivoe_coef_plan *plan = coding_[i].plan;
            if (coding_[i].status != KIVO_OK) continue;
            for (int c = 0; c < kivoe_coef_tasks(plan, KIVOE_COEF_PREPARE); ++c) add(Task::kPrepare, plan, c);
        }
        int32_t r = run_step();
        if (r != KIVO_OK) return r;
        // Progressive counting, the scans in count_order's order, which stop
        // once those counted cannot fit.
        for (int i = 0; i < n; ++i) {
            Coding &c = coding_[i];
            if (c.status != KIVO_OK || (codings[i] & ~KIVOE_CODING_LIKELY_COUNTED_ONLY) == KIVOE_CODING_BASELINE) continue;
            if ((c.status = kivoe_coef_prepared(c.plan)) != KIVO_OK) continue;
            c.cap = static_cast<uint64_t>(cap[i]);
            c.least = 2 + static_cast<uint64_t>(pics[i]->trailer_len);
            int32_t order[kMaxScans];
            count_order(c.plan->script, order);
            for (int k = 0; k < kivoe_coef_tasks(c.plan, KIVOE_COEF_SCANS); ++k) add(Task::kCount, c.plan, order[k], nullptr, &c);
        }
        if ((r = run_step()) != KIVO_OK) return r;
        for (int i = 0; i < n; ++i) {
            Coding &c = coding_[i];
            uint64_t least = 0;
            if (c.cannot_fit) continue;
            if (c.status == KIVO_OK) c.status = kivoe_coef_counted(c.plan, &least);
            if (c.status != KIVO_OK || least > static_cast<uint64_t>(cap[i])) continue;
            if ((r = make_room(c)) != KIVO_OK) return r;
            for (int k = 0; k < c.n_scans; ++k) add(Task::kWrite, c.plan, k, &c.scan[k]);
        }
        if ((r = run_step()) != KIVO_OK) return r;
        for (int i = 0; i < n; ++i) {
            Coding &c = coding_[i];
            if (c.status != KIVO_OK) size[i] = c.status;
            if (c.status != KIVO_OK || !c.room) continue;
            if ((r = rewrite_overflowed(c)) != KIVO_OK) return r;
            size[i] = join(c, dst[i], cap[i]);
        }
        return KIVO_OK;
    }

private:
    struct Coding;
    struct Task {
        enum Kind { kPrepare, kCount, kWrite } kind;
        kivoe_coef_plan *plan;
        int index;
        xelo_bsw *bs;
        Coding *stops;  // counting: the coding whose count stops once it cannot fit
    };
    // A step's tasks: every scan of two codings at most.
    static constexpr int kMaxTasks = 2 * kMaxScans;
    struct Coding {
        kivoe_coef_plan *plan = nullptr;
        int32_t status = KIVO_OK;  // other than KIVO_OK: the coding failed
        uint8_t *room = nullptr;
        int n_scans = 0;
        xelo_bsw scan[kMaxScans];
        uint8_t *more[kMaxScans] = {};  // rooms of scans written again
        // Progressive counting: the least bytes of the scans counted so far
        // against the cap, and whether they already exceed it.
        uint64_t cap = 0;
        std::atomic<uint64_t> least{0};
        std::atomic<bool> cannot_fit{false};
    };
    struct Thread {
        SharedCodings *self;
        kivoe_coef_tables *tables;
    };

    void add(Task::Kind kind, kivoe_coef_plan *plan, int index, xelo_bsw *bs = nullptr, Coding *stops = nullptr) {
        task_[n_tasks_++] = Task{kind, plan, index, bs, stops};
    }

    static int32_t work(void *arg) {
        Thread *t = static_cast<Thread *>(arg);
        SharedCodings *s = t->self;
        for (int i; (i = s->next_.fetch_add(1, std::memory_order_relaxed)) < s->n_tasks_;) {
            const Task &k = s->task_[i];
            if (k.kind == Task::kPrepare) {
                kivoe_coef_prepare(k.plan, k.index);
            } else if (k.kind == Task::kCount) {
                if (k.stops && k.stops->cannot_fit.load(std::memory_order_relaxed)) continue;
                kivoe_coef_count(k.plan, k.index, t->tables);
                if (k.stops && k.stops->least.fetch_add(scan_bytes(*k.plan, k.index)) + scan_bytes(*k.plan, k.index) > k.stops->cap)
                    k.stops->cannot_fit.store(true, std::memory_order_relaxed);
            } else {
                kivoe_coef_write_scan(k.plan, k.index, t->tables, k.bs);
            }
        }
        return KIVO_OK;
    }

    // Runs the tasks added since the last step on both threads.
    int32_t run_step() {
        next_.store(0, std::memory_order_relaxed);
        Thread th[2] = {{this, tables_[0]}, {this, tables_[1]}};
        void *args[2] = {&th[0], &th[1]};
        const int32_t r = n_tasks_ ? kivo::fork_join(*tp_, threads_, 2, work, args) : KIVO_OK;
        n_tasks_ = 0;
        return r == KIVO_OK ? KIVO_OK : KIVO_ERR_THREAD;
    }

    // Room for every scan of c, each of its own writer: as much as its data
    // usually take.
    int32_t make_room(Coding &c) {
        c.n_scans = kivoe_coef_tasks(c.plan, KIVOE_COEF_SCANS);
        if (c.n_scans > kMaxScans) return KIVO_ERR_UNSUPPORTED;
        uint64_t total = 0;
        for (int k = 0; k < c.n_scans; ++k) {
            const uint64_t n = kivoe_coef_scan_room(c.plan, k, true);
            if (n > INT32_MAX) return KIVO_ERR_UNSUPPORTED;
            total += kivoe_coef_scan_room(c.plan, k, false);
        }
        c.room = static_cast<uint8_t *>(std::malloc(static_cast<size_t>(total)));
        if (!c.room) return KIVO_ERR_OUT_OF_MEMORY;
        uint8_t *at = c.room;
        for (int k = 0; k < c.n_scans; ++k) {
            const int32_t n = static_cast<int32_t>(kivoe_coef_scan_room(c.plan, k, false));
            xelo_bsw_init(&c.scan[k], at, n, kivoe_bs_flush);
            at += n;
        }
        return KIVO_OK;
    }

    // Scans whose data held more stuffing than their room: written again on
    // this thread with room for any data, and joined from there.
    int32_t rewrite_overflowed(Coding &c) {
        for (int k = 0; k < c.n_scans; ++k) {
            if (!c.scan[k].overflow) continue;
            const int32_t n = static_cast<int32_t>(kivoe_coef_scan_room(c.plan, k, true));
            c.more[k] = static_cast<uint8_t *>(std::malloc(static_cast<size_t>(n)));
            if (!c.more[k]) return KIVO_ERR_OUT_OF_MEMORY;
            xelo_bsw_init(&c.scan[k], c.more[k], n, kivoe_bs_flush);
            kivoe_coef_write_scan(c.plan, k, tables_[0], &c.scan[k]);
        }
        return KIVO_OK;
    }

    // The stream of c in dst: its head, its scans' bytes and its tail; its
    // size, or 0 when it does not fit.
    static int32_t join(Coding &c, uint8_t *dst, int32_t cap) {
        xelo_bsw bs;
        xelo_bsw_init(&bs, dst, cap, kivoe_bs_flush);
        kivoe_coef_write_head(c.plan, &bs);
        xelo_bsw_sink(&bs);
        for (int k = 0; k < c.n_scans && !bs.overflow; ++k) {
            const xelo_bsw &s = c.scan[k];
            const size_t n = static_cast<size_t>(s.write_ptr - s.start_ptr);
            if (s.overflow || n > static_cast<size_t>(bs.end_ptr - bs.write_ptr)) {
                bs.overflow = 1;
                break;
            }
            std::memcpy(bs.write_ptr, s.start_ptr, n);
            bs.write_ptr += n;
        }
        if (!bs.overflow) kivoe_coef_write_tail(c.plan, &bs);
        return bs.overflow ? 0 : static_cast<int32_t>(bs.write_ptr - bs.start_ptr);
    }

    const kivo_tpool *tp_;
    void *const *threads_;
    kivoe_coef_store *store_;
    Coding coding_[2];
    kivoe_coef_tables *tables_[2] = {nullptr, nullptr};
    Task task_[kMaxTasks];
    int n_tasks_ = 0;
    std::atomic<int> next_{0};
};

}  // namespace

int32_t kivoe_write_coef_pics(const kivo_tpool *tp, void *const *threads, int n, const kivoe_coef_pic *const pics[],
                              const int32_t codings[], uint8_t *const dst[], const int32_t cap[], int32_t size[],
                              kivoe_coef_store *store) {
    return SharedCodings(tp, threads, store).run(n, pics, codings, dst, cap, size);
}

int32_t kivoe_write_coef_pic(const kivoe_coef_pic *pic, int32_t coding, xelo_bsw *bs, kivoe_coef_store *store) {
    if (!bs) return KIVO_ERR_INVALID_ARG;
    kivoe_coef_plan *pl;
    int32_t ret = kivoe_coef_plan_new(pic, coding, &pl, store);
    if (ret < 0) return ret;
    kivoe_coef_tables *w = kivoe_coef_tables_new();
    if (!w) {
        kivoe_coef_plan_free(pl);
        return KIVO_ERR_OUT_OF_MEMORY;
    }
    for (int32_t c = 0; c < kivoe_coef_tasks(pl, KIVOE_COEF_PREPARE); ++c) kivoe_coef_prepare(pl, c);
    ret = kivoe_coef_prepared(pl);
    if (ret == KIVO_OK) {
        write_head(*pl, bs);
        // Every scan is counted before any is written: a stream whose least
        // size cannot fit in the room left is not written at all, and a
        // progressive one stops counting as soon as the scans counted cannot.
        xelo_bsw_sink(bs);
        const uint64_t room = bs->write_ptr ? static_cast<uint64_t>(bs->end_ptr - bs->write_ptr) : UINT64_MAX;
        int32_t order[kMaxScans];
        count_order(pl->script, order);
        uint64_t least = 2 + static_cast<uint64_t>(pic->trailer_len);
        bool cannot_fit = false;
        for (int32_t k = 0; k < pl->script.n && !cannot_fit; ++k) {
            kivoe_coef_count(pl, order[k], w);
            least += scan_bytes(*pl, order[k]);
            cannot_fit = pl->coding == KIVOE_CODING_PROGRESSIVE && least > room;
        }
        uint64_t need = 0;
        if (cannot_fit) bs->overflow = 1;
        else ret = kivoe_coef_counted(pl, &need);
        // Before each scan, the least size of what is left.
        for (int32_t i = 0; i < pl->script.n && ret == KIVO_OK; ++i) {
            xelo_bsw_sink(bs);
            if (bs->write_ptr && static_cast<uint64_t>(bs->end_ptr - bs->write_ptr) < need) bs->overflow = 1;
            if (bs->overflow) break;
            kivoe_coef_write_scan(pl, i, w, bs);
            need -= scan_bytes(*pl, i);
        }
        if (ret == KIVO_OK) write_tail(*pl, bs);
    }
    kivoe_coef_tables_free(w);
    kivoe_coef_plan_free(pl);
    return ret;
}
