// The colour layouts every part of the library reads, and the exported
// magnitude category.
#include "common/kivo_int.h"

namespace kivo {
namespace {

constexpr Layout::Chroma P = Layout::Planar;

const Layout kLayouts[] = {
    // format             n  h             v             xs ys chroma fourth kind
    {XELO_CS_YCBCR400,    1, {1, 0, 0, 0}, {1, 0, 0, 0}, 0, 0, false, false, P},
    {XELO_CS_YCBCR420,    3, {2, 1, 1, 0}, {2, 1, 1, 0}, 1, 1, true, false, P},
    {XELO_CS_YCBCR422,    3, {2, 1, 1, 0}, {1, 1, 1, 0}, 1, 0, true, false, P},
    {XELO_CS_YCBCR444,    3, {1, 1, 1, 0}, {1, 1, 1, 0}, 0, 0, true, false, P},
    {XELO_CS_NV12,        0, {0, 0, 0, 0}, {0, 0, 0, 0}, 1, 1, true, false, Layout::Pairs},
    {XELO_CS_NV21,        0, {0, 0, 0, 0}, {0, 0, 0, 0}, 1, 1, true, false, Layout::Pairs},
    {XELO_CS_YCBCR440,    3, {1, 1, 1, 0}, {2, 1, 1, 0}, 0, 1, true, false, P},
    {XELO_CS_YCBCR411,    3, {4, 1, 1, 0}, {1, 1, 1, 0}, 2, 0, true, false, P},
    {XELO_CS_YCBCRK400,   4, {1, 0, 0, 1}, {1, 0, 0, 1}, 0, 0, false, true, P},
    {XELO_CS_YCBCRK420,   4, {2, 1, 1, 2}, {2, 1, 1, 2}, 1, 1, true, true, P},
    {XELO_CS_YCBCRK422,   4, {2, 1, 1, 2}, {1, 1, 1, 1}, 1, 0, true, true, P},
    {XELO_CS_YCBCRK444,   4, {1, 1, 1, 1}, {1, 1, 1, 1}, 0, 0, true, true, P},
    {XELO_CS_YCBCRK440,   4, {1, 1, 1, 1}, {2, 1, 1, 2}, 0, 1, true, true, P},
    {XELO_CS_YUYV,        0, {0, 0, 0, 0}, {0, 0, 0, 0}, 1, 0, true, false, Layout::Packed},
};

}  // namespace

const Layout *layout_of(int32_t format) {
    for (const Layout &l : kLayouts)
        if (l.format == format) return &l;
    return nullptr;
}

}  // namespace kivo

KIVO_EXPORT int32_t kivo_category(int32_t v) { return kivo::category(v); }
