// Refinement scans of the progressive coder, BMI2 machines: bit counts and
// the lowest set bit in one instruction each.
#include "encoder/acscan.h"
#include "encoder/enc_simd.h"

uint64_t kivoe_refine_count_bmi2(const kivoe_ac_scan *s, uint64_t *counter) {
    SymbolCount sink{counter};
    return refine(*s, sink);
}

void kivoe_refine_write_bmi2(const kivoe_ac_scan *s, const kivoe_code *code, xelo_bsw *bs) {
    SymbolWrite sink(bs, code);
    refine(*s, sink);
    sink.out.drain();
}
