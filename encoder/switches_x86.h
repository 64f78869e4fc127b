// JND suppression and the offset update of adaptive rounding on x86, shared
// by the SSE2 and AVX2 variants through a small set of vector operations (8
// or 16 lanes of 16 bits; 32-bit lanes in halves). Internal linkage keeps
// each variant's copy compiled for its own CPU level.
#ifndef KIVO_ENCODER_SWITCHES_X86_H
#define KIVO_ENCODER_SWITCHES_X86_H

#include <stdint.h>

namespace {

// A level L = sign * n (n > 0) becomes sign * m for the lowest m that the
// descent from n - 1 reaches. With c = sign * C and e = c - (n - 1) q, the
// descent starts when -T < e < T, and a step down to n - 1 - j holds while
// e + j q < T: it goes j = (T - 1 - e) / q steps, at most n - 1. T - 1 - e
// lies below 2T, so that the quotient comes from the Q14 reciprocal with
// one correction. e needs 32 bits (C of -32768, large levels or
// quantizers); the rest fits 16.
template <class V>
inline void suppress_body(int16_t *levels, const int16_t *coef, const uint16_t *q, const uint16_t *recip,
                          const uint8_t *thr) {
    using R = typename V::R;
    constexpr int kN = V::kLanes, kRows = 64 / kN;
    const R zero = V::zero(), eight = V::set16(8), one32 = V::set32(1);
    // AC magnitudes, each counted up to 8: only whether they add up to more
    // than 7 matters.
    R l[kRows], sum = zero;
    for (int r = 0; r < kRows; ++r) {
        l[r] = V::load(levels + kN * r);
        const R s = V::sra15(l[r]);
        const R a = V::sub16(V::x_or(l[r], s), s);
        R capped = V::sub16(a, V::subsu16(a, eight));
        if (r == 0) capped = V::andn(V::first16(), capped);
        sum = V::add16(sum, capped);
    }
    if (V::hsum16(sum) <= 7) return;
    for (int r = 0; r < kRows; ++r) {
        const R L = l[r];
        const R nz = V::eq16(V::eq16(L, zero), zero);
        if (V::mask(nz) == 0) continue;
        const R s = V::sra15(L);
        const R n1 = V::sub16(V::sub16(V::x_or(L, s), s), V::set16(1));
        const R Q = V::load(q + kN * r);
        const R pl = V::mullo(n1, Q), ph = V::mulhu(n1, Q);
        const R C = V::load(coef + kN * r), cs = V::sra15(C);
        const R T = V::thr(thr + kN * r);
        R take, X;
        // (n - 1) q below 32768 and C not -32768 in every lane: e in 16
        // bits, saturated below (then far under -T, as the true value).
        const R high = V::eq16(V::eq16(ph, zero), zero);
        const R wide_lanes = V::a_nd(nz, V::o_r(V::o_r(high, V::sra15(pl)), V::eq16(C, V::set16(-32768))));
        if (V::mask(wide_lanes) == 0) {
            const R e = V::subs16(V::sub16(V::x_or(C, s), s), pl);
            take = V::a_nd(V::a_nd(V::gt16(e, V::sub16(zero, T)), V::gt16(T, e)), nz);
            if (V::mask(take) == 0) continue;
            X = V::sub16(V::sub16(T, V::set16(1)), e);
        } else {
            R x[2], cond[2];
            for (int h = 0; h < 2; ++h) {
                auto wide = [h](R a, R b) { return h ? V::hi16(a, b) : V::lo16(a, b); };
                const R s32 = wide(s, s);
                const R c = V::sub32(V::x_or(wide(C, cs), s32), s32);
                const R e = V::sub32(c, wide(pl, ph));
                const R t = wide(T, zero);
                cond[h] = V::a_nd(V::gt32(e, V::sub32(zero, t)), V::gt32(t, e));
                x[h] = V::sub32(V::sub32(t, one32), e);
            }
            take = V::a_nd(V::packs32(cond[0], cond[1]), nz);
            if (V::mask(take) == 0) continue;
            X = V::packs32(x[0], x[1]);
        }
        const R m0 = V::mulhu(V::template shl16<2>(X), V::load(recip + kN * r));
        const R rem = V::sub16(X, V::mullo(m0, Q));
        const R j = V::sub16(m0, V::eq16(V::subsu16(Q, rem), zero));  // + 1 where rem >= q
        const R m = V::max16(V::sub16(n1, j), zero);
        const R out = V::sub16(V::x_or(m, s), s);
        V::store(levels + kN * r, V::o_r(V::a_nd(take, out), V::andn(take, L)));
    }
}

// The error |C| - |L| q needs 32 bits; it is kept as two 16-bit halves.
// Only the low 16 bits of the offset's change count (the sum is taken as a
// signed 16-bit value), and they are bits 11 to 26 of |error| * recip: the
// low 32 bits of that product, from 16-bit multiplies.
template <class V>
inline void update_body(const int16_t *levels, const int16_t *coef, const uint16_t *q, const uint16_t *recip,
                        uint16_t *offset) {
    using R = typename V::R;
    constexpr int kN = V::kLanes;
    const R zero = V::zero();
    for (int i = 0; i < 64; i += kN) {
        const R L = V::load(levels + i);
        const R none = V::eq16(L, zero);
        if (V::mask(none) == V::kAll) continue;
        const R ls = V::sra15(L), C = V::load(coef + i), cs = V::sra15(C);
        const R a = V::sub16(V::x_or(L, ls), ls), c = V::sub16(V::x_or(C, cs), cs);
        const R Q = V::load(q + i), Rc = V::load(recip + i), O = V::load(offset + i);
        const R rl = V::mullo(a, Q), rh = V::mulhu(a, Q);
        R d, neg;
        // |L| q below 32768 and C not -32768 in every lane: the error fits
        // 16 bits.
        const R wide = V::andn(none, V::o_r(V::o_r(V::eq16(V::eq16(rh, zero), zero), V::sra15(rl)),
                                            V::eq16(C, V::set16(-32768))));
        if (V::mask(wide) == 0) {
            const R err = V::sub16(c, rl);
            neg = V::sra15(err);
            const R ae = V::sub16(V::x_or(err, neg), neg);
            d = V::o_r(V::template shl16<5>(V::mulhu(ae, Rc)), V::template shr16<11>(V::mullo(ae, Rc)));
        } else {
            // err = c - (rh:rl), borrowing from the high half where rl > c.
            const R borrow = V::eq16(V::eq16(V::subsu16(rl, c), zero), zero);
            const R el = V::sub16(c, rl), eh = V::add16(V::sub16(zero, rh), borrow);
            // |err|: two's complement of both halves where err < 0.
            neg = V::sra15(eh);
            const R al = V::sub16(V::x_or(el, neg), neg);
            const R ah = V::sub16(V::x_or(eh, neg), V::a_nd(neg, V::eq16(el, zero)));
            const R lo = V::mullo(al, Rc), hi = V::add16(V::mulhu(al, Rc), V::mullo(ah, Rc));
            d = V::o_r(V::template shl16<5>(hi), V::template shr16<11>(lo));
        }
        R o = V::add16(O, V::sub16(V::x_or(d, neg), neg));
        o = V::min16(V::max16(o, zero), V::set16(8192));
        V::store(offset + i, V::o_r(V::a_nd(none, O), V::andn(none, o)));
    }
}

}  // namespace

#endif
