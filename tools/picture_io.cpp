// Reading whole files and writing decoded planes as raw .yuv or YUV4MPEG2.
#include <cstdio>
#include <cstring>

#include "tools/tool.h"

namespace tool {

bool read_file(const std::string &path, std::vector<uint8_t> *out) {
    FILE *f = std::fopen(path.c_str(), "rb");
    if (!f) return false;
    out->clear();
    uint8_t buf[1 << 16];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof(buf), f)) > 0) out->insert(out->end(), buf, buf + n);
    const bool ok = !std::ferror(f);
    std::fclose(f);
    return ok;
}

bool ends_with(const std::string &s, const char *suffix) {
    const size_t n = std::strlen(suffix);
    return s.size() >= n && s.compare(s.size() - n, n, suffix) == 0;
}

const char *color_format_name(int32_t cs) {
    switch (cs) {
    case XELO_CS_YCBCR400: return "400";
    case XELO_CS_YCBCR420: return "420";
    case XELO_CS_YCBCR422: return "422";
    case XELO_CS_YCBCR444: return "444";
    case XELO_CS_YCBCR440: return "440";
    case XELO_CS_YCBCR411: return "411";
    case XELO_CS_YCBCRK400: return "k400";
    case XELO_CS_YCBCRK420: return "k420";
    case XELO_CS_YCBCRK422: return "k422";
    case XELO_CS_YCBCRK444: return "k444";
    case XELO_CS_YCBCRK440: return "k440";
    case XELO_CS_NV12: return "nv12";
    case XELO_CS_NV21: return "nv21";
    case XELO_CS_YUYV: return "yuyv";
    default: return "?";
    }
}

namespace {

const char *y4m_tag(int32_t cs) {
    switch (cs) {
    case XELO_CS_YCBCR400: return "mono";
    case XELO_CS_YCBCR420: return "420jpeg";
    case XELO_CS_YCBCR422: return "422";
    case XELO_CS_YCBCR444: return "444";
    case XELO_CS_YCBCR440: return "440";
    case XELO_CS_YCBCR411: return "411";
    default: return nullptr;
    }
}

}  // namespace

bool write_picture(const std::string &path, const xelo_imgb *img) {
    int32_t pw[4], ph[4], np = 0;
    if (xelo_cs_planes(img->color_format, img->width, img->height, pw, ph, &np) != 0) {
        std::fprintf(stderr, "kivo: colour format %d cannot be written\n", img->color_format);
        return false;
    }
    const bool y4m = ends_with(path, ".y4m");
    if (y4m && !y4m_tag(img->color_format)) {
        std::fprintf(stderr, "kivo: YUV4MPEG2 has no tag for colour format %s; write a .yuv\n",
                     color_format_name(img->color_format));
        return false;
    }
    FILE *f = std::fopen(path.c_str(), "wb");
    if (!f) {
        std::fprintf(stderr, "kivo: cannot create %s\n", path.c_str());
        return false;
    }
    bool ok = true;
    if (y4m) {
        ok = std::fprintf(f, "YUV4MPEG2 W%d H%d F25:1 Ip A1:1 C%s\nFRAME\n", img->width, img->height,
                          y4m_tag(img->color_format)) > 0;
    }
    for (int p = 0; p < 4 && ok; ++p) {
        if (!img->plane[p] || pw[p] == 0) continue;
        for (int32_t y = 0; y < ph[p] && ok; ++y)
            ok = std::fwrite(img->plane[p] + static_cast<ptrdiff_t>(y) * img->stride[p], 1, pw[p], f) ==
                 static_cast<size_t>(pw[p]);
    }
    ok = std::fclose(f) == 0 && ok;
    if (!ok) std::fprintf(stderr, "kivo: cannot write %s\n", path.c_str());
    return ok;
}

}  // namespace tool
