// Refinement scans of the progressive coder: the plain kernels.
#include "encoder/acscan.h"

uint64_t kivoe_refine_count(const kivoe_ac_scan *s, uint64_t *counter) {
    SymbolCount sink{counter};
    return refine(*s, sink);
}

void kivoe_refine_write(const kivoe_ac_scan *s, const kivoe_code *code, xelo_bsw *bs) {
    SymbolWrite sink(bs, code);
    refine(*s, sink);
    sink.out.drain();
}
