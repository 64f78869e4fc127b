// Progressive scans over two threads. The last AC scans of some components
// (in the usual scripts the final refinements, the luma's alone half the
// entropy decoding) run on the calling thread, each a block row behind the
// earlier scans of its component, while a worker decodes every other scan
// in stream order and never waits.
//
// A first pass walks the markers as the scan loop does, with its own copy of
// the tables, and finds where each scan's data end by looking for the next
// marker. Only a stream whose every scan then decodes whole and ends exactly
// there is taken from this path; anything else (a damaged scan, bytes after
// a scan's data, an unusual script) leaves the decoder as it was, and the
// scans are decoded again one after the other, so the result never depends
// on the thread count.
#include <atomic>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>
#include <thread>

#include "decoder/kivod_int.h"

namespace {

// Scripts longer than this are decoded one scan after the other.
constexpr int kMaxScans = 64;

struct Plan;

struct Scan {
    Plan *plan;
    kivod_prog_scan s;
    kivod_bs bs;                // at its first data byte
    const uint8_t *next;        // the marker after its data
    std::atomic<int32_t> rows;  // rows whole; INT_MAX once the scan is
    int32_t status;
    bool calling;  // decoded by the calling thread
};

struct Plan {
    // The tables as the scans meet them; a scan reads copies of the slots
    // it selects, made when a slot has changed since the last copy.
    // Named as the decoder's, which they are copied from and back to.
    kivod_dc_tbl dc_tbl[4];
    kivod_ac_tbl ac_tbl[4];
    kivod_htbl_spec dht_spec[8];
    kivod_qtbl qtbl[4];
    uint8_t q_unit[4];
    kivod_dri dri;
    kivod_dc_tbl *dc_copy[4];
    kivod_ac_tbl *ac_copy[4];
    void *owned[8 * kMaxScans];
    int n_owned;
    Scan scan[kMaxScans];
    int n;
    kivod_bs bs;  // the marker reader
    int32_t done;
    // DC refinements, one value a block, ORed into the DC levels at the end.
    int16_t *dc_bits[4];
    std::atomic<bool> stop;
    kivod_ctx *ctx;
    uint64_t bytes;  // memory the plan holds, within the decoder's limit
};

// The tables the markers between scans set, between the decoder and a plan.
template <class To, class From>
void copy_tables(To &to, const From &from) {
    std::memcpy(to.dc_tbl, from.dc_tbl, sizeof(to.dc_tbl));
    std::memcpy(to.ac_tbl, from.ac_tbl, sizeof(to.ac_tbl));
    std::memcpy(to.dht_spec, from.dht_spec, sizeof(to.dht_spec));
    std::memcpy(to.qtbl, from.qtbl, sizeof(to.qtbl));
    std::memcpy(to.q_unit, from.q_unit, sizeof(to.q_unit));
    to.dri = from.dri;
}

// Memory for the plan, or null when the decoder's limit leaves no room.
void *plan_alloc(Plan *p, size_t n) {
    if (kivod_over(p->ctx->limits.max_memory, p->ctx->frame_bytes + p->bytes + n)) return nullptr;
    void *m = std::calloc(1, n);
    p->bytes += m ? n : 0;
    return m;
}

void free_plan(Plan *p) {
    for (int i = 0; i < p->n_owned; ++i) std::free(p->owned[i]);
    for (int16_t *b : p->dc_bits) std::free(b);
    p->~Plan();
    std::free(p);
}

template <class T>
T *copy_of(Plan *p, const T &t) {
    T *c = static_cast<T *>(plan_alloc(p, sizeof(T)));
    if (!c) return nullptr;
    std::memcpy(c, &t, sizeof(T));
    p->owned[p->n_owned++] = c;
    return c;
}

// Records the scan whose header bs has just read and moves bs to the marker
// after its data. False when the scan cannot be planned.
bool add_scan(Plan *p, const kivod_sh &sh) {
    kivod_ctx *ctx = p->ctx;
    if (p->n == kMaxScans || (p->dri.length && p->dri.interval)) return false;
    if (kivod_check_prog_scan(ctx, sh, p->dc_tbl, p->ac_tbl) != KIVO_OK) return false;
    Scan &s = p->scan[p->n];
    s.plan = p;
    s.s = kivod_prog_scan_of(ctx, sh, p->dc_tbl, p->ac_tbl);
    for (int k = 0; k < sh.n_comp; ++k) {
        const int c = sh.comp_idx[k];
        const int td = sh.td[c] & 3, ta = sh.ta[c] & 3;
        if (sh.ss == 0 && sh.ah == 0) {
            if (!p->dc_copy[td] && !(p->dc_copy[td] = copy_of(p, p->dc_tbl[td]))) return false;
            s.s.dc[c] = p->dc_copy[td];
        }
        if (sh.ss > 0) {
            if (!p->ac_copy[ta] && !(p->ac_copy[ta] = copy_of(p, p->ac_tbl[ta]))) return false;
            s.s.ac[c] = p->ac_copy[ta];
        }
        if (sh.ss == 0 && sh.ah > 0 && !p->dc_bits[c]) {
            const size_t blocks = static_cast<size_t>(ctx->prog_blk_w[c]) * ctx->prog_blk_h[c];
            p->dc_bits[c] = static_cast<int16_t *>(plan_alloc(p, blocks * sizeof(int16_t)));
            if (!p->dc_bits[c]) return false;
        }
        if (sh.ss == 0 && sh.ah > 0) s.s.dst[c] = p->dc_bits[c];
    }
    if (sh.ss == 0 && sh.ah > 0) s.s.step = 1;
    s.bs = p->bs;
    const uint8_t *end = p->bs.end + 1;
    s.next = kivod_next_marker(kivod_bs_position(p->bs), end);
    if (!s.next) return false;
    s.status = KIVO_OK;
    ++p->n;
    // The reader as the scan loop leaves it after the scan's data.
    p->bs.cur = s.next;
    p->bs.cache = 0;
    p->bs.bits = 0;
    p->bs.not_ff = 1;
    return true;
}

// Walks the markers from the first scan to the end of the image as the scan
// loop does. False for anything the loop would stop on or refuse.
bool walk(Plan *p) {
    kivod_ctx *ctx = p->ctx;
    kivod_bs *bs = &p->bs;
    int64_t scans = 0;
    while (!p->done) {
        if (kivod_bs_read(bs, 8) != 0xFF) return false;
        uint32_t m = kivod_bs_read(bs, 8);
        while (m == 0xFF) m = kivod_bs_read(bs, 8);
        if (kivod_bs_rewind_cache(bs, m == 0xD9 ? 2 : 0) != 0) return false;
        if (m == 0xC4) {
            if (kivod_vld_htbl(bs, p->dht_spec, p->dc_tbl, p->ac_tbl) != KIVO_OK) return false;
            for (int t = 0; t < 4; ++t) p->dc_copy[t] = nullptr, p->ac_copy[t] = nullptr;
        } else if (m == 0xDB) {
            if (ctx->levels_only && scans > 0) return false;
            if (kivod_vld_qtbl(bs, p->qtbl, p->q_unit, ctx->progressive) != KIVO_OK) return false;
        } else if (m == 0xDD) {
            kivod_vld_dri(bs, &p->dri);
        } else if (m == 0xDA) {
            if (kivod_over(ctx->limits.max_scans, uint64_t(++scans))) return false;
            kivod_sh sh;
            if (kivod_vld_sh(ctx, bs, &sh) != KIVO_OK || !add_scan(p, sh)) return false;
        } else if (m == 0xD9) {
            p->done = 1;
        } else if (m == 0xFE) {
            if (kivod_vld_skip_seg(bs) != 0) return false;
        } else {
            return false;
        }
    }
    return true;
}

bool touches(const kivod_sh &sh, int c) {
    for (int k = 0; k < sh.n_comp; ++k)
        if (sh.comp_idx[k] == c) return true;
    return false;
}

bool dc_refinement(const kivod_sh &sh) { return sh.ss == 0 && sh.ah > 0; }

// A scan's time, roughly: its bytes, three times for an AC refinement (a
// correction bit for every coefficient already non-zero) and six times for
// a DC refinement (one bit a block).
int64_t cost(const Scan &s) {
    const int64_t bytes = s.next - kivod_bs_position(s.bs);
    return s.s.sh.ah == 0 ? bytes : s.s.sh.ss > 0 ? 3 * bytes : 6 * bytes;
}

// Whether the worker takes scan i first: a scan of a component the calling
// thread waits for (the others, other components or DC refinements, write
// nothing those read, so they can wait).
bool early(const Plan *p, int i) {
    const kivod_sh &sh = p->scan[i].s.sh;
    if (p->scan[i].calling || dc_refinement(sh)) return false;
    for (int j = 0; j < p->n; ++j)
        if (p->scan[j].calling && touches(sh, p->scan[j].s.sh.comp_idx[0])) return true;
    return false;
}

// When both threads would be done: the worker's scans one after the other,
// each of the calling thread's no sooner than the worker's scans of its
// component have started, nor before they end.
int64_t finish_time(const Plan *p) {
    int64_t start[kMaxScans], end[kMaxScans], worker = 0, calling = 0;
    for (int pass = 0; pass < 2; ++pass)
        for (int i = 0; i < p->n; ++i) {
            if (p->scan[i].calling || early(p, i) != (pass == 0)) continue;
            start[i] = worker;
            worker += cost(p->scan[i]);
            end[i] = worker;
        }
    for (int j = 0; j < p->n; ++j) {
        const Scan &s = p->scan[j];
        if (!s.calling) continue;
        int64_t begin = calling, after = 0;
        for (int i = 0; i < j; ++i) {
            const kivod_sh &sh = p->scan[i].s.sh;
            if (p->scan[i].calling || !touches(sh, s.s.sh.comp_idx[0]) || dc_refinement(sh)) continue;
            begin = begin > start[i] ? begin : start[i];
            after = after > end[i] ? after : end[i];
        }
        calling = begin + cost(s);
        calling = calling > after ? calling : after;
    }
    return worker > calling ? worker : calling;
}

// Picks the calling thread's scans: last AC scans of components that no
// later scan but DC refinements reads, those that let both threads finish
// soonest. DC refinements go to their own values (which needs every
// first DC scan of a component before its refinements). False when there
// is nothing to share.
bool split(Plan *p) {
    int cand[4], n_cand = 0;
    for (int c = 0; c < p->ctx->fh.n_comp && c < 4; ++c) {
        int last = -1;
        bool ok = true;
        for (int i = 0; i < p->n; ++i) {
            const kivod_sh &sh = p->scan[i].s.sh;
            if (!touches(sh, c)) continue;
            if (sh.ss > 0) last = i, ok = true;
            else if (last >= 0 && !dc_refinement(sh)) ok = false;
        }
        if (last >= 0 && ok) cand[n_cand++] = last;
    }
    bool refined[4] = {false, false, false, false};
    for (int i = 0; i < p->n; ++i) {
        const kivod_sh &sh = p->scan[i].s.sh;
        for (int k = 0; k < sh.n_comp; ++k) {
            const int j = sh.comp_idx[k];
            if (sh.ss == 0 && sh.ah == 0 && refined[j]) return false;
            if (dc_refinement(sh)) refined[j] = true;
        }
    }
    int64_t best = -1;
    int pick = 0;
    for (int set = 1; set < (1 << n_cand); ++set) {
        for (int k = 0; k < n_cand; ++k) p->scan[cand[k]].calling = set >> k & 1;
        const int64_t t = finish_time(p);
        if (best < 0 || t < best) best = t, pick = set;
    }
    for (int k = 0; k < n_cand; ++k) p->scan[cand[k]].calling = pick >> k & 1;
    return pick != 0;
}

// Worker: every scan but the calling thread's, those the calling thread
// waits for first, each in stream order, each row made known as it is
// whole; it stops when the calling thread's scan failed.
bool go_on(void *arg, int32_t) { return !static_cast<Scan *>(arg)->plan->stop.load(std::memory_order_relaxed); }

void publish(void *arg, int32_t rows) { static_cast<Scan *>(arg)->rows.store(rows, std::memory_order_release); }

int32_t run_producer(void *arg) {
    Plan *p = static_cast<Plan *>(arg);
    const auto run = [p](Scan &s) {
        kivod_prog_scan r = s.s;
        r.before_row = go_on;
        r.after_row = publish;
        r.arg = &s;
        int32_t rows = 0;
        s.status = p->stop.load(std::memory_order_relaxed) ? KIVO_ERR_MALFORMED
                                                            : kivod_prog_scan_blocks(p->ctx, r, &s.bs, &rows);
        s.rows.store(INT_MAX, std::memory_order_release);
        if (s.status != KIVO_OK) p->stop.store(true, std::memory_order_relaxed);
    };
    bool first[kMaxScans];
    for (int i = 0; i < p->n; ++i) first[i] = early(p, i);
    for (int pass = 0; pass < 2; ++pass)
        for (int i = 0; i < p->n; ++i)
            if (!p->scan[i].calling && first[i] == (pass == 0)) run(p->scan[i]);
    return KIVO_OK;
}

// Calling thread: before each row of one of its scans, every earlier scan
// of the worker's on that component (but DC refinements) must have the row
// whole.
bool wait_row(void *arg, int32_t row) {
    const Scan *s = static_cast<const Scan *>(arg);
    Plan *p = s->plan;
    const int c = s->s.sh.comp_idx[0];
    const kivod_fh &fh = p->ctx->fh;
    for (const Scan *e = p->scan; e < s; ++e) {
        const kivod_sh &sh = e->s.sh;
        if (e->calling || !touches(sh, c) || dc_refinement(sh)) continue;
        // Interleaved scans count MCU rows.
        const int64_t per = sh.n_comp > 1 ? fh.v[c] : 1;
        for (int spins = 0; int64_t(e->rows.load(std::memory_order_acquire)) * per < row + 1; ++spins) {
            if (p->stop.load(std::memory_order_relaxed)) return false;
            if (spins > 64) std::this_thread::yield();
        }
    }
    return !p->stop.load(std::memory_order_relaxed);
}

int32_t run_consumer(void *arg) {
    Plan *p = static_cast<Plan *>(arg);
    for (int i = 0; i < p->n; ++i) {
        Scan &s = p->scan[i];
        if (!s.calling) continue;
        kivod_prog_scan run = s.s;
        run.before_row = wait_row;
        run.arg = &s;
        int32_t rows = 0;
        s.status = p->stop.load(std::memory_order_relaxed) ? KIVO_ERR_MALFORMED
                                                            : kivod_prog_scan_blocks(p->ctx, run, &s.bs, &rows);
        if (s.status != KIVO_OK) p->stop.store(true, std::memory_order_relaxed);
    }
    return KIVO_OK;
}

int32_t job(void *arg) {
    void **a = static_cast<void **>(arg);
    return a[1] ? run_producer(a[0]) : run_consumer(a[0]);
}

}  // namespace

bool kivod_prog_scans_mt(kivod_ctx *ctx, int32_t *scan_status, int32_t *done) {
    if (!ctx->progressive || ctx->scale == 8 || ctx->scan_bs.type != KIVOD_INPUT_BITB ||
        kivo::thread_limit(ctx->tpool) < 2 || kivod_over(ctx->limits.max_memory, ctx->frame_bytes + sizeof(Plan)))
        return false;
    void *mem = std::calloc(1, sizeof(Plan));
    if (!mem) return false;
    Plan *p = new (mem) Plan();
    p->ctx = ctx;
    p->bytes = sizeof(Plan);
    copy_tables(*p, *ctx);
    p->bs = ctx->scan_bs;
    if (!walk(p) || !split(p)) {
        free_plan(p);
        return false;
    }
    // The worker never waits, so a pool that runs it late only delays the
    // call.
    void *consumer[2] = {p, nullptr}, *producer[2] = {p, p};
    void *args[2] = {consumer, producer};
    bool ok = kivo::fork_join(ctx->tpool, ctx->threads, 2, job, args) == KIVO_OK;
    for (int i = 0; i < p->n && ok; ++i) {
        Scan &s = p->scan[i];
        // As the scan loop ends a scan: its stuffing read, its cache given back.
        kivod_bs_read_stuffing(&s.bs);
        ok = s.status == KIVO_OK && kivod_bs_rewind_cache(&s.bs, 0) == KIVO_OK && s.bs.cur == s.next;
    }
    if (!ok) {
        // Back to coefficient buffers as they were allocated, for the scans
        // to be decoded again one after the other.
        for (int c = 0; c < ctx->fh.n_comp; ++c)
            std::memset(ctx->coef_buf[c], 0, static_cast<size_t>(ctx->prog_blk_w[c]) * ctx->prog_blk_h[c] * 128);
        free_plan(p);
        return false;
    }
    for (int c = 0; c < 4; ++c) {
        if (!p->dc_bits[c]) continue;
        const size_t blocks = static_cast<size_t>(ctx->prog_blk_w[c]) * ctx->prog_blk_h[c];
        for (size_t b = 0; b < blocks; ++b)
            ctx->coef_buf[c][64 * b] = static_cast<int16_t>(ctx->coef_buf[c][64 * b] | p->dc_bits[c][b]);
    }
    for (int i = 0; i < p->n; ++i) {
        const kivod_sh &sh = p->scan[i].s.sh;
        for (int k = 0; k < sh.n_comp; ++k) kivod_note_rows(ctx, sh.comp_idx[k], ctx->prog_blk_h[sh.comp_idx[k]]);
    }
    copy_tables(*ctx, *p);
    if (p->n) ctx->sh = p->scan[p->n - 1].s.sh;
    ctx->scan_bs = p->bs;
    *done = p->done;
    *scan_status = KIVO_OK;
    free_plan(p);
    return true;
}
