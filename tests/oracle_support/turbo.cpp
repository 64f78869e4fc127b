#include "oracle_support/turbo.h"

#include <csetjmp>
#include <cstdio>
#include <cstring>

#include <jpeglib.h>

namespace turbo {
namespace {

struct ErrorMgr {
    jpeg_error_mgr pub;
    jmp_buf jump;
    int warnings;
    char message[JMSG_LENGTH_MAX];
};

void on_error(j_common_ptr cinfo) {
    ErrorMgr *err = reinterpret_cast<ErrorMgr *>(cinfo->err);
    cinfo->err->format_message(cinfo, err->message);
    std::longjmp(err->jump, 1);
}

void on_message(j_common_ptr cinfo, int level) {
    if (level < 0) ++reinterpret_cast<ErrorMgr *>(cinfo->err)->warnings;
}

int comp_dim(int full, int f, int fmax) { return (full * f + fmax - 1) / fmax; }

// Everything the encoder needs, prepared before setjmp so that no C++ object
// with a destructor lives across it.
struct EncodeState {
    jpeg_compress_struct cinfo;
    ErrorMgr err;
    unsigned char *out = nullptr;
    unsigned long out_size = 0;
    jpeg_scan_info scans[64];
};

bool run_encode(EncodeState &st, const EncodeSpec &spec, const std::vector<testpic::Plane> &planes,
                std::vector<std::vector<uint8_t>> &padded, const int *pw, const int *ph) {
    jpeg_compress_struct &c = st.cinfo;
    c.err = jpeg_std_error(&st.err.pub);
    st.err.pub.error_exit = on_error;
    st.err.pub.emit_message = on_message;
    st.err.warnings = 0;
    if (setjmp(st.err.jump)) {
        jpeg_destroy_compress(&c);
        return false;
    }
    jpeg_create_compress(&c);
    jpeg_mem_dest(&c, &st.out, &st.out_size);
    c.image_width = spec.width;
    c.image_height = spec.height;
    c.input_components = spec.n_comp;
    c.in_color_space = spec.n_comp == 1 ? JCS_GRAYSCALE : spec.n_comp == 3 ? JCS_YCbCr : JCS_CMYK;
    jpeg_set_defaults(&c);
    jpeg_set_colorspace(&c, spec.n_comp == 1 ? JCS_GRAYSCALE : spec.n_comp == 3 ? JCS_YCbCr : JCS_CMYK);
    jpeg_set_quality(&c, spec.quality, TRUE);
    if (spec.tables) {
        for (int t = 0; t < 2; ++t) {
            unsigned int q[64];
            for (int i = 0; i < 64; ++i) q[i] = spec.tables[64 * t + i];
            jpeg_add_quant_table(&c, t, q, 100, TRUE);
        }
    }
    c.raw_data_in = TRUE;
    c.dct_method = JDCT_ISLOW;
    c.optimize_coding = spec.optimize ? TRUE : FALSE;
    c.restart_in_rows = 0;
    c.restart_interval = static_cast<unsigned>(spec.restart_mcus);
    for (int i = 0; i < spec.n_comp; ++i) {
        c.comp_info[i].h_samp_factor = spec.h[i];
        c.comp_info[i].v_samp_factor = spec.v[i];
        if (spec.qslot[i] >= 0) c.comp_info[i].quant_tbl_no = spec.qslot[i];
    }
    if (!spec.scans.empty()) {
        const size_t n = spec.scans.size() < 64 ? spec.scans.size() : 64;
        for (size_t i = 0; i < n; ++i) {
            const ScanSpec &sc = spec.scans[i];
            st.scans[i].comps_in_scan = sc.n_comp;
            for (int k = 0; k < sc.n_comp; ++k) st.scans[i].component_index[k] = sc.comps[k];
            st.scans[i].Ss = sc.ss;
            st.scans[i].Se = sc.se;
            st.scans[i].Ah = sc.ah;
            st.scans[i].Al = sc.al;
        }
        c.scan_info = st.scans;
        c.num_scans = static_cast<int>(n);
    } else if (spec.progressive) {
        jpeg_simple_progression(&c);
    } else if (spec.separate_scans && spec.n_comp > 1) {
        for (int i = 0; i < spec.n_comp; ++i) {
            st.scans[i].comps_in_scan = 1;
            st.scans[i].component_index[0] = i;
            st.scans[i].Ss = 0;
            st.scans[i].Se = 63;
            st.scans[i].Ah = 0;
            st.scans[i].Al = 0;
        }
        c.scan_info = st.scans;
        c.num_scans = spec.n_comp;
    }
    jpeg_start_compress(&c, TRUE);
    int vmax = 1;
    for (int i = 0; i < spec.n_comp; ++i) vmax = spec.v[i] > vmax ? spec.v[i] : vmax;
    const int rows_per_pass = vmax * 8;
    std::vector<JSAMPROW> rows[4];
    for (int i = 0; i < spec.n_comp; ++i) rows[i].resize(spec.v[i] * 8);
    JSAMPARRAY arrays[4];
    for (JDIMENSION y = 0; y < c.image_height; y += rows_per_pass) {
        for (int i = 0; i < spec.n_comp; ++i) {
            const int n = spec.v[i] * 8;
            const int first = static_cast<int>(y) / vmax * spec.v[i];
            for (int r = 0; r < n; ++r) {
                int line = first + r;
                if (line >= ph[i]) line = ph[i] - 1;
                rows[i][r] = padded[i].data() + static_cast<size_t>(line) * pw[i];
            }
            arrays[i] = rows[i].data();
        }
        jpeg_write_raw_data(&c, arrays, rows_per_pass);
    }
    jpeg_finish_compress(&c);
    jpeg_destroy_compress(&c);
    (void)planes;
    return true;
}

}  // namespace

std::vector<testpic::Plane> make_planes(const EncodeSpec &spec, uint64_t seed, testpic::Kind kind) {
    int hmax = 1, vmax = 1;
    for (int i = 0; i < spec.n_comp; ++i) {
        hmax = spec.h[i] > hmax ? spec.h[i] : hmax;
        vmax = spec.v[i] > vmax ? spec.v[i] : vmax;
    }
    std::vector<testpic::Plane> planes;
    for (int i = 0; i < spec.n_comp; ++i)
        planes.push_back(testpic::make_plane(comp_dim(spec.width, spec.h[i], hmax),
                                             comp_dim(spec.height, spec.v[i], vmax), seed, i, kind));
    return planes;
}

std::vector<uint8_t> encode(const EncodeSpec &spec, const std::vector<testpic::Plane> &planes, std::string *error) {
    // Pad every plane to whole blocks of whole MCUs by repeating its edges.
    int hmax = 1, vmax = 1;
    for (int i = 0; i < spec.n_comp; ++i) {
        hmax = spec.h[i] > hmax ? spec.h[i] : hmax;
        vmax = spec.v[i] > vmax ? spec.v[i] : vmax;
    }
    const int mcu_cols = (spec.width + 8 * hmax - 1) / (8 * hmax);
    const int mcu_rows = (spec.height + 8 * vmax - 1) / (8 * vmax);
    std::vector<std::vector<uint8_t>> padded(spec.n_comp);
    int pw[4], ph[4];
    for (int i = 0; i < spec.n_comp; ++i) {
        pw[i] = mcu_cols * spec.h[i] * 8;
        ph[i] = mcu_rows * spec.v[i] * 8;
        padded[i].resize(static_cast<size_t>(pw[i]) * ph[i]);
        const testpic::Plane &p = planes[i];
        for (int y = 0; y < ph[i]; ++y)
            for (int x = 0; x < pw[i]; ++x)
                padded[i][static_cast<size_t>(y) * pw[i] + x] = p.at(x < p.w ? x : p.w - 1, y < p.h ? y : p.h - 1);
    }
    EncodeState *st = new EncodeState();
    std::vector<uint8_t> out;
    if (run_encode(*st, spec, planes, padded, pw, ph)) {
        out.assign(st->out, st->out + st->out_size);
    } else if (error) {
        *error = st->err.message;
    }
    std::free(st->out);
    delete st;
    return out;
}

namespace {

struct DecodeState {
    jpeg_decompress_struct cinfo;
    ErrorMgr err;
};

bool run_decode(DecodeState &st, const std::vector<uint8_t> &jpg, int denom,
                std::vector<std::vector<uint8_t>> &bufs, int *bw, int *bh, int *cw, int *ch, int *ncomp) {
    jpeg_decompress_struct &d = st.cinfo;
    d.err = jpeg_std_error(&st.err.pub);
    st.err.pub.error_exit = on_error;
    st.err.pub.emit_message = on_message;
    st.err.warnings = 0;
    if (setjmp(st.err.jump)) {
        jpeg_destroy_decompress(&d);
        return false;
    }
    jpeg_create_decompress(&d);
    jpeg_mem_src(&d, jpg.data(), jpg.size());
    jpeg_read_header(&d, TRUE);
    d.raw_data_out = TRUE;
    d.dct_method = JDCT_ISLOW;
    d.scale_num = 1;
    d.scale_denom = denom;
    if (d.jpeg_color_space == JCS_YCbCr) d.out_color_space = JCS_YCbCr;
    jpeg_start_decompress(&d);
    *ncomp = d.num_components;
    // Subsampled components may be reconstructed with a larger IDCT than
    // the luma one, so each has its own block size.
    for (int i = 0; i < d.num_components; ++i) {
        jpeg_component_info &ci = d.comp_info[i];
        const int scaled = ci.DCT_scaled_size;
        bw[i] = ci.width_in_blocks * scaled;
        // Whole iMCU rows, however many the picture's last one needs.
        bh[i] = (ci.height_in_blocks + ci.v_samp_factor) * scaled;
        cw[i] = static_cast<int>((static_cast<long>(d.image_width) * ci.h_samp_factor * scaled + d.max_h_samp_factor * 8 - 1) /
                                 (d.max_h_samp_factor * 8));
        ch[i] = static_cast<int>((static_cast<long>(d.image_height) * ci.v_samp_factor * scaled + d.max_v_samp_factor * 8 - 1) /
                                 (d.max_v_samp_factor * 8));
        bufs[i].assign(static_cast<size_t>(bw[i]) * bh[i], 0);
    }
    const int rows_per_pass = d.max_v_samp_factor * d.min_DCT_scaled_size;
    std::vector<JSAMPROW> rows[4];
    JSAMPARRAY arrays[4];
    int line[4] = {0, 0, 0, 0};
    while (d.output_scanline < d.output_height) {
        for (int i = 0; i < d.num_components; ++i) {
            const int n = d.comp_info[i].v_samp_factor * d.comp_info[i].DCT_scaled_size;
            rows[i].resize(n);
            for (int r = 0; r < n; ++r) {
                int l = line[i] + r;
                if (l >= bh[i]) l = bh[i] - 1;
                rows[i][r] = bufs[i].data() + static_cast<size_t>(l) * bw[i];
            }
            arrays[i] = rows[i].data();
            line[i] += n;
        }
        if (jpeg_read_raw_data(&d, arrays, rows_per_pass) == 0) break;
    }
    jpeg_finish_decompress(&d);
    jpeg_destroy_decompress(&d);
    return true;
}

}  // namespace

bool decode_raw(const std::vector<uint8_t> &jpg, int denom, std::vector<testpic::Plane> *planes, int *warnings,
                std::string *error) {
    DecodeState *st = new DecodeState();
    std::vector<std::vector<uint8_t>> bufs(4);
    int bw[4], bh[4], cw[4], ch[4], n = 0;
    const bool ok = run_decode(*st, jpg, denom, bufs, bw, bh, cw, ch, &n);
    if (warnings) *warnings = st->err.warnings;
    if (!ok && error) *error = st->err.message;
    delete st;
    if (!ok) return false;
    planes->clear();
    for (int i = 0; i < n; ++i) {
        testpic::Plane p;
        p.w = cw[i];
        p.h = ch[i];
        p.px.resize(static_cast<size_t>(p.w) * p.h);
        for (int y = 0; y < p.h; ++y)
            std::memcpy(&p.px[static_cast<size_t>(y) * p.w], &bufs[i][static_cast<size_t>(y) * bw[i]], p.w);
        planes->push_back(std::move(p));
    }
    return true;
}

}  // namespace turbo

namespace turbo {
namespace {

bool run_read_coefficients(DecodeState &st, const std::vector<uint8_t> &jpg, std::vector<Coefficients> *comps) {
    jpeg_decompress_struct &d = st.cinfo;
    d.err = jpeg_std_error(&st.err.pub);
    st.err.pub.error_exit = on_error;
    st.err.pub.emit_message = on_message;
    st.err.warnings = 0;
    if (setjmp(st.err.jump)) {
        jpeg_destroy_decompress(&d);
        return false;
    }
    jpeg_create_decompress(&d);
    jpeg_mem_src(&d, jpg.data(), jpg.size());
    jpeg_read_header(&d, TRUE);
    jvirt_barray_ptr *arrays = jpeg_read_coefficients(&d);
    comps->resize(d.num_components);
    for (int c = 0; c < d.num_components; ++c) {
        jpeg_component_info &ci = d.comp_info[c];
        Coefficients &out = (*comps)[c];
        out.width = static_cast<int>((static_cast<long>(d.image_width) * ci.h_samp_factor + d.max_h_samp_factor - 1) / d.max_h_samp_factor);
        out.height = static_cast<int>((static_cast<long>(d.image_height) * ci.v_samp_factor + d.max_v_samp_factor - 1) / d.max_v_samp_factor);
        out.blocks_w = static_cast<int>(ci.width_in_blocks);
        out.blocks_h = static_cast<int>(ci.height_in_blocks);
        out.coef.assign(static_cast<size_t>(out.blocks_w) * out.blocks_h * 64, 0);
        const JQUANT_TBL *q = ci.quant_table;
        // The coefficient arrays hold whole MCUs of an interleaved frame.
        const bool mcus = d.num_components > 1;
        out.padded_w = mcus ? (out.blocks_w + ci.h_samp_factor - 1) / ci.h_samp_factor * ci.h_samp_factor : out.blocks_w;
        out.padded_h = mcus ? (out.blocks_h + ci.v_samp_factor - 1) / ci.v_samp_factor * ci.v_samp_factor : out.blocks_h;
        out.padded_dc.clear();
        for (int by = 0; by < out.padded_h; ++by) {
            JBLOCKARRAY row = (*d.mem->access_virt_barray)(reinterpret_cast<j_common_ptr>(&d), arrays[c], by, 1, FALSE);
            for (int bx = 0; bx < out.padded_w; ++bx)
                out.padded_dc.push_back(static_cast<int16_t>(static_cast<uint16_t>(row[0][bx][0]) * static_cast<uint16_t>(q->quantval[0])));
        }
        for (int by = 0; by < out.blocks_h; ++by) {
            JBLOCKARRAY row = (*d.mem->access_virt_barray)(reinterpret_cast<j_common_ptr>(&d), arrays[c], by, 1, FALSE);
            for (int bx = 0; bx < out.blocks_w; ++bx) {
                int16_t *dst = &out.coef[(static_cast<size_t>(by) * out.blocks_w + bx) * 64];
                for (int i = 0; i < 64; ++i)
                    dst[i] = static_cast<int16_t>(static_cast<uint16_t>(row[0][bx][i]) * static_cast<uint16_t>(q->quantval[i]));
            }
        }
    }
    jpeg_finish_decompress(&d);
    jpeg_destroy_decompress(&d);
    return true;
}

}  // namespace

bool read_coefficients(const std::vector<uint8_t> &jpg, std::vector<Coefficients> *comps) {
    DecodeState *st = new DecodeState();
    const bool ok = run_read_coefficients(*st, jpg, comps);
    delete st;
    return ok;
}

}  // namespace turbo

namespace turbo {
namespace {

struct TranscodeState {
    jpeg_decompress_struct in;
    jpeg_compress_struct out;
    ErrorMgr err_in, err_out;
    unsigned char *mem = nullptr;
    unsigned long size = 0;
};

bool run_transcode(TranscodeState &st, const std::vector<uint8_t> &jpg, bool progressive, bool optimize) {
    st.in.err = jpeg_std_error(&st.err_in.pub);
    st.err_in.pub.error_exit = on_error;
    st.out.err = jpeg_std_error(&st.err_out.pub);
    st.err_out.pub.error_exit = on_error;
    jpeg_create_decompress(&st.in);
    jpeg_create_compress(&st.out);
    if (setjmp(st.err_in.jump) || setjmp(st.err_out.jump)) {
        jpeg_destroy_compress(&st.out);
        jpeg_destroy_decompress(&st.in);
        return false;
    }
    jpeg_mem_src(&st.in, jpg.data(), jpg.size());
    jpeg_read_header(&st.in, TRUE);
    jvirt_barray_ptr *coefs = jpeg_read_coefficients(&st.in);
    jpeg_copy_critical_parameters(&st.in, &st.out);
    if (progressive) jpeg_simple_progression(&st.out);
    st.out.optimize_coding = optimize ? TRUE : FALSE;
    jpeg_mem_dest(&st.out, &st.mem, &st.size);
    jpeg_write_coefficients(&st.out, coefs);
    jpeg_finish_compress(&st.out);
    jpeg_destroy_compress(&st.out);
    jpeg_finish_decompress(&st.in);
    jpeg_destroy_decompress(&st.in);
    return true;
}

}  // namespace

std::vector<uint8_t> transcode(const std::vector<uint8_t> &jpg, bool progressive, bool optimize) {
    TranscodeState *st = new TranscodeState();
    std::vector<uint8_t> out;
    if (run_transcode(*st, jpg, progressive, optimize)) out.assign(st->mem, st->mem + st->size);
    std::free(st->mem);
    delete st;
    return out;
}

}  // namespace turbo
