#include "oracle_support/turbo.h"

#include <algorithm>
#include <csetjmp>
#include <cstdlib>
#include <cstring>

#include <jpeglib.h>

namespace turbo {
namespace {

// libjpeg reports an error by a long jump back into guarded(), so the bodies
// given to it keep every object with a destructor in the caller's frame.
struct Err {
    jpeg_error_mgr pub;
    jmp_buf jump;
    int warnings = 0;
    char message[JMSG_LENGTH_MAX] = "";
};

jpeg_error_mgr *hook(Err &e) {
    jpeg_std_error(&e.pub);
    e.pub.error_exit = [](j_common_ptr c) {
        c->err->format_message(c, reinterpret_cast<Err *>(c->err)->message);
        std::longjmp(reinterpret_cast<Err *>(c->err)->jump, 1);
    };
    e.pub.emit_message = [](j_common_ptr c, int level) { reinterpret_cast<Err *>(c->err)->warnings += level < 0; };
    return &e.pub;
}

template <class Body>
bool guarded(Err &e, Body body) {
    if (setjmp(e.jump)) return false;
    body();
    return true;
}

struct Decompress : jpeg_decompress_struct {
    explicit Decompress(Err &e) { err = hook(e), jpeg_create_decompress(this); }
    ~Decompress() { jpeg_destroy_decompress(this); }
};

struct Compress : jpeg_compress_struct {
    unsigned char *mem = nullptr;
    unsigned long size = 0;
    explicit Compress(Err &e) { err = hook(e), jpeg_create_compress(this); }
    ~Compress() { jpeg_destroy_compress(this), std::free(mem); }
};

int comp_dim(int full, int f, int fmax) { return (full * f + fmax - 1) / fmax; }

void max_factors(const EncodeSpec &spec, int *hmax, int *vmax) {
    *hmax = *std::max_element(spec.h, spec.h + spec.n_comp), *vmax = *std::max_element(spec.v, spec.v + spec.n_comp);
}

// The 16-bit product a decoder keeps of a quantized value and its quantizer.
int16_t dequant(JCOEF v, UINT16 q) { return static_cast<int16_t>(static_cast<uint16_t>(v) * q); }

}  // namespace

std::vector<testpic::Plane> make_planes(const EncodeSpec &spec, uint64_t seed, testpic::Kind kind) {
    int hmax, vmax;
    max_factors(spec, &hmax, &vmax);
    std::vector<testpic::Plane> planes;
    for (int i = 0; i < spec.n_comp; ++i)
        planes.push_back(testpic::make_plane(comp_dim(spec.width, spec.h[i], hmax),
                                             comp_dim(spec.height, spec.v[i], vmax), seed, i, kind));
    return planes;
}

std::vector<uint8_t> encode(const EncodeSpec &spec, const std::vector<testpic::Plane> &planes, std::string *error) {
    // Every plane padded to whole MCUs by repeating its last column and row.
    int hmax, vmax;
    max_factors(spec, &hmax, &vmax);
    std::vector<uint8_t> padded[4];
    int pw[4];
    for (int i = 0; i < spec.n_comp; ++i) {
        const testpic::Plane &p = planes[i];
        pw[i] = (spec.width + 8 * hmax - 1) / (8 * hmax) * spec.h[i] * 8;
        const int ph = (spec.height + 8 * vmax - 1) / (8 * vmax) * spec.v[i] * 8;
        for (int y = 0; y < ph; ++y)
            for (int x = 0; x < pw[i]; ++x) padded[i].push_back(p.at(std::min(x, p.w - 1), std::min(y, p.h - 1)));
    }
    std::vector<ScanSpec> script = spec.scans;
    for (int i = 0; spec.scans.empty() && spec.separate_scans && spec.n_comp > 1 && i < spec.n_comp; ++i)
        script.push_back({1, {i}, 0, 63, 0, 0});
    Err e;
    Compress c(e);
    jpeg_scan_info scans[64];
    const bool ok = guarded(e, [&] {
        jpeg_mem_dest(&c, &c.mem, &c.size);
        c.image_width = spec.width;
        c.image_height = spec.height;
        c.input_components = spec.n_comp;
        c.in_color_space = spec.n_comp == 1 ? JCS_GRAYSCALE : spec.n_comp == 3 ? JCS_YCbCr : JCS_CMYK;
        jpeg_set_defaults(&c);
        jpeg_set_colorspace(&c, c.in_color_space);
        jpeg_set_quality(&c, spec.quality, TRUE);
        for (int t = 0; spec.tables && t < 2; ++t) {
            unsigned int q[64];
            std::copy(spec.tables + 64 * t, spec.tables + 64 * t + 64, q);
            jpeg_add_quant_table(&c, t, q, 100, TRUE);
        }
        c.raw_data_in = TRUE;
        c.dct_method = JDCT_ISLOW;
        c.optimize_coding = spec.optimize;
        c.restart_interval = static_cast<unsigned>(spec.restart_mcus);
        for (int i = 0; i < spec.n_comp; ++i) {
            c.comp_info[i].h_samp_factor = spec.h[i];
            c.comp_info[i].v_samp_factor = spec.v[i];
            if (spec.qslot[i] >= 0) c.comp_info[i].quant_tbl_no = spec.qslot[i];
        }
        if (!script.empty()) {
            c.num_scans = static_cast<int>(std::min<size_t>(script.size(), 64));
            for (int i = 0; i < c.num_scans; ++i) {
                const ScanSpec &s = script[i];
                scans[i] = {s.n_comp, {s.comps[0], s.comps[1], s.comps[2], s.comps[3]}, s.ss, s.se, s.ah, s.al};
            }
            c.scan_info = scans;
        } else if (spec.progressive) {
            jpeg_simple_progression(&c);
        }
        jpeg_start_compress(&c, TRUE);
        JSAMPROW rows[4][32];
        JSAMPARRAY arrays[4];
        for (JDIMENSION y = 0; y < c.image_height; y += 8 * vmax) {
            for (int i = 0; i < spec.n_comp; ++i) {
                for (int r = 0; r < spec.v[i] * 8; ++r)
                    rows[i][r] = padded[i].data() + static_cast<size_t>(y / vmax * spec.v[i] + r) * pw[i];
                arrays[i] = rows[i];
            }
            jpeg_write_raw_data(&c, arrays, 8 * vmax);
        }
        jpeg_finish_compress(&c);
    });
    if (!ok && error) *error = e.message;
    return ok ? std::vector<uint8_t>(c.mem, c.mem + c.size) : std::vector<uint8_t>();
}

bool decode_raw(const std::vector<uint8_t> &jpg, int denom, std::vector<testpic::Plane> *planes, int *warnings,
                std::string *error) {
    Err e;
    Decompress d(e);
    std::vector<uint8_t> bufs[4];
    std::vector<testpic::Plane> out;
    int bw[4];
    const bool ok = guarded(e, [&] {
        jpeg_mem_src(&d, jpg.data(), jpg.size());
        jpeg_read_header(&d, TRUE);
        d.raw_data_out = TRUE;
        d.dct_method = JDCT_ISLOW;
        d.scale_num = 1;
        d.scale_denom = denom;
        if (d.jpeg_color_space == JCS_YCbCr) d.out_color_space = JCS_YCbCr;
        jpeg_start_decompress(&d);
        // Subsampled components may be reconstructed with a larger IDCT than
        // the luma one, so each has its own block size; the buffers hold whole
        // iMCU rows, however many the last one needs.
        out.resize(d.num_components);
        int bh[4], line[4] = {0, 0, 0, 0};
        for (int i = 0; i < d.num_components; ++i) {
            const jpeg_component_info &ci = d.comp_info[i];
            const long s = ci.DCT_scaled_size;
            bw[i] = static_cast<int>(ci.width_in_blocks * s);
            bh[i] = static_cast<int>((ci.height_in_blocks + ci.v_samp_factor) * s);
            out[i].w = comp_dim(static_cast<int>(d.image_width * ci.h_samp_factor * s), 1, d.max_h_samp_factor * 8);
            out[i].h = comp_dim(static_cast<int>(d.image_height * ci.v_samp_factor * s), 1, d.max_v_samp_factor * 8);
            bufs[i].assign(static_cast<size_t>(bw[i]) * bh[i], 0);
        }
        JSAMPROW rows[4][64];
        JSAMPARRAY arrays[4];
        while (d.output_scanline < d.output_height) {
            for (int i = 0; i < d.num_components; ++i) {
                const int n = d.comp_info[i].v_samp_factor * d.comp_info[i].DCT_scaled_size;
                for (int r = 0; r < n; ++r)
                    rows[i][r] = bufs[i].data() + static_cast<size_t>(std::min(line[i] + r, bh[i] - 1)) * bw[i];
                arrays[i] = rows[i];
                line[i] += n;
            }
            if (jpeg_read_raw_data(&d, arrays, d.max_v_samp_factor * d.min_DCT_scaled_size) == 0) break;
        }
        jpeg_finish_decompress(&d);
    });
    if (warnings) *warnings = e.warnings;
    if (!ok && error) *error = e.message;
    if (!ok) return false;
    for (size_t i = 0; i < out.size(); ++i)
        for (int y = 0; y < out[i].h; ++y)
            out[i].px.insert(out[i].px.end(), &bufs[i][static_cast<size_t>(y) * bw[i]],
                             &bufs[i][static_cast<size_t>(y) * bw[i]] + out[i].w);
    *planes = std::move(out);
    return true;
}

bool read_coefficients(const std::vector<uint8_t> &jpg, std::vector<Coefficients> *comps) {
    Err e;
    Decompress d(e);
    bool complete = true;
    return guarded(e, [&] {
        jpeg_mem_src(&d, jpg.data(), jpg.size());
        jpeg_read_header(&d, TRUE);
        jvirt_barray_ptr *arrays = jpeg_read_coefficients(&d);
        comps->resize(d.num_components);
        // An interleaved frame's coefficient arrays hold whole MCUs.
        const bool mcus = d.num_components > 1;
        for (int c = 0; c < d.num_components; ++c) {
            const jpeg_component_info &ci = d.comp_info[c];
            Coefficients &out = (*comps)[c];
            out.width = comp_dim(static_cast<int>(d.image_width), ci.h_samp_factor, d.max_h_samp_factor);
            out.height = comp_dim(static_cast<int>(d.image_height), ci.v_samp_factor, d.max_v_samp_factor);
            out.blocks_w = static_cast<int>(ci.width_in_blocks);
            out.blocks_h = static_cast<int>(ci.height_in_blocks);
            out.padded_w = mcus ? comp_dim(out.blocks_w, 1, ci.h_samp_factor) * ci.h_samp_factor : out.blocks_w;
            out.padded_h = mcus ? comp_dim(out.blocks_h, 1, ci.v_samp_factor) * ci.v_samp_factor : out.blocks_h;
            out.coef.assign(static_cast<size_t>(out.blocks_w) * out.blocks_h * 64, 0);
            out.padded_dc.clear();
            // A component no scan reached has no table latched: its own
            // table slot, or no oracle for the stream.
            const JQUANT_TBL *tbl = ci.quant_table ? ci.quant_table : d.quant_tbl_ptrs[ci.quant_tbl_no];
            if (!tbl) {
                complete = false;
                return;
            }
            const UINT16 *q = tbl->quantval;
            for (int by = 0; by < out.padded_h; ++by) {
                JBLOCKROW row = (*d.mem->access_virt_barray)(reinterpret_cast<j_common_ptr>(&d), arrays[c], by, 1, FALSE)[0];
                for (int bx = 0; bx < out.padded_w; ++bx) {
                    out.padded_dc.push_back(dequant(row[bx][0], q[0]));
                    for (int i = 0; by < out.blocks_h && bx < out.blocks_w && i < 64; ++i)
                        out.coef[(static_cast<size_t>(by) * out.blocks_w + bx) * 64 + i] = dequant(row[bx][i], q[i]);
                }
            }
        }
        jpeg_finish_decompress(&d);
    }) && complete;
}

std::vector<uint8_t> transcode(const std::vector<uint8_t> &jpg, bool progressive, bool optimize) {
    Err e;
    Decompress in(e);
    Compress out(e);
    const bool ok = guarded(e, [&] {
        jpeg_mem_src(&in, jpg.data(), jpg.size());
        jpeg_read_header(&in, TRUE);
        jvirt_barray_ptr *coefs = jpeg_read_coefficients(&in);
        jpeg_copy_critical_parameters(&in, &out);
        if (progressive) jpeg_simple_progression(&out);
        out.optimize_coding = optimize;
        jpeg_mem_dest(&out, &out.mem, &out.size);
        jpeg_write_coefficients(&out, coefs);
        jpeg_finish_compress(&out);
        jpeg_finish_decompress(&in);
    });
    return ok ? std::vector<uint8_t>(out.mem, out.mem + out.size) : std::vector<uint8_t>();
}

}  // namespace turbo
