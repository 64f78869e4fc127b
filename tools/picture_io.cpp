// Reading and writing whole files; decoded planes as raw .yuv or YUV4MPEG2.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tools/tool.h"

namespace tool {

bool read_file(const std::string &path, std::vector<uint8_t> *out, size_t max) {
    FILE *f = std::fopen(path.c_str(), "rb");
    if (!f) return false;
    out->clear();
    uint8_t buf[1 << 16];
    size_t n;
    while (out->size() <= max && (n = std::fread(buf, 1, sizeof(buf), f)) > 0) out->insert(out->end(), buf, buf + n);
    const bool ok = !std::ferror(f) && out->size() <= max;
    std::fclose(f);
    return ok;
}

namespace {

// Gives the new output fd the owner, group and permissions of the file it
// replaces (a user's private photograph stays theirs and private when root
// replaces it), else 0666 less the umask (read once, before any worker
// thread can run). An owner or group that cannot be kept (a user replacing
// another's file, or choosing a group of which they are not a member) is
// left as the new file has it, and then the permissions the old group or
// owner had are not given to the new ones, nor set-id bits.
bool set_output_owner_and_mode(int fd, const std::string &path) {
    static const mode_t mask = [] {
        const mode_t m = umask(022);
        umask(m);
        return m;
    }();
    struct stat st;
    if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return fchmod(fd, 0666 & ~mask) == 0;
    mode_t mode = st.st_mode & 07777;
    struct stat now;
    if (fstat(fd, &now) != 0) return false;
    if (now.st_uid != st.st_uid || now.st_gid != st.st_gid) {
        if (fchown(fd, st.st_uid, st.st_gid) != 0 && fchown(fd, static_cast<uid_t>(-1), st.st_gid) != 0)
            mode &= ~(S_ISUID | S_ISGID | S_IRWXG);
        if (fstat(fd, &now) != 0) return false;
        if (now.st_uid != st.st_uid) mode &= ~(S_ISUID | S_ISGID);
    }
    return fchmod(fd, mode) == 0;
}

}  // namespace

namespace {

bool write_all(int fd, const std::vector<uint8_t> &bytes) {
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

bool write_file(const std::string &name, const std::vector<uint8_t> &bytes) {
    // A device or a pipe (/dev/null, /dev/stdout on a terminal) is written
    // as it is: renaming a file over it would put a regular file in its
    // place, which only fails for lack of rights.
    struct stat st;
    if (stat(name.c_str(), &st) == 0 && !S_ISREG(st.st_mode) && !S_ISDIR(st.st_mode)) {
        const int fd = open(name.c_str(), O_WRONLY);
        const bool ok = fd >= 0 && write_all(fd, bytes);
        if (!ok) message("kivo: cannot write %s: %s\n", name.c_str(), std::strerror(errno));
        if (fd >= 0) close(fd);
        return ok;
    }
    // A symbolic link stays one: the file it leads to is replaced, or
    // created when it does not exist yet (as a shell's > would), in its
    // own directory, which must exist.
    std::string path = name;
    for (int hops = 0; lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode); ++hops) {
        if (char *target = realpath(path.c_str(), nullptr)) {
            path = target;
            std::free(target);
            break;
        }
        char to[4096];
        const ssize_t n = hops < 40 ? readlink(path.c_str(), to, sizeof(to)) : -1;
        if (n <= 0 || n == static_cast<ssize_t>(sizeof(to))) {
            message("kivo: cannot write %s: a link that leads nowhere to write\n", name.c_str());
            return false;
        }
        const std::string next(to, static_cast<size_t>(n));
        const size_t slash = path.rfind('/');
        path = next[0] == '/' || slash == std::string::npos ? next : path.substr(0, slash + 1) + next;
    }
    // A file its owner made read-only, or one this user may not write, is
    // not replaced behind its back through its directory's rights: as a
    // shell's > would, the write fails (root included, for a file without
    // any write permission).
    if (stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) &&
        ((st.st_mode & (S_IWUSR | S_IWGRP | S_IWOTH)) == 0 || access(path.c_str(), W_OK) != 0)) {
        message("kivo: cannot write %s: the file is read-only (to this user)\n", path.c_str());
        return false;
    }
    const size_t slash = path.rfind('/');
    const std::string dir = slash == std::string::npos ? "" : path.substr(0, slash + 1);
    const std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
    // The temporary name adds 13 bytes to the file's: a name near the
    // system's limit (255 bytes) is cut short there, the random part
    // keeping it unique.
    std::string tmp = dir + "." + base.substr(0, 200) + ".kivo-XXXXXX";
    int slot = -1;
    const int fd = create_temp(&tmp, &slot);
    if (fd < 0) {
        message("kivo: cannot create a file in %s: %s\n", dir.empty() ? "." : dir.c_str(),
                     std::strerror(errno));
        return false;
    }
    bool ok = set_output_owner_and_mode(fd, path) && write_all(fd, bytes);
    // The data reach the disk before the name does, so a crash after the
    // rename cannot leave an empty file where the original was.
    ok = ok && fsync(fd) == 0;
    ok = close(fd) == 0 && ok;
    ok = ok && rename(tmp.c_str(), path.c_str()) == 0;
    if (!ok) {
        message("kivo: cannot write %s: %s\n", path.c_str(), std::strerror(errno));
        unlink(tmp.c_str());
    }
    release_temp(slot);
    return ok;
}

FILE *report_stream(const std::string &output) {
    struct stat out, std_out;
    const bool same = stat(output.c_str(), &out) == 0 && fstat(STDOUT_FILENO, &std_out) == 0 &&
                      out.st_dev == std_out.st_dev && out.st_ino == std_out.st_ino;
    return same ? stderr : stdout;
}

std::string option_name(const char *arg) {
    const std::string a = arg;
    if (a.size() > 2 && a[0] == '-' && a[1] != '-') return "-" + a;
    return a;
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
        message("kivo: colour format %d cannot be written\n", img->color_format);
        return false;
    }
    const bool y4m = file_kind(path) == FileKind::Y4m;
    if (y4m && !y4m_tag(img->color_format)) {
        message("kivo: YUV4MPEG2 has no tag for colour format %s; write a .yuv\n",
                     color_format_name(img->color_format));
        return false;
    }
    std::vector<uint8_t> bytes;
    size_t total = 96;
    for (int p = 0; p < 4; ++p)
        if (img->plane[p]) total += static_cast<size_t>(pw[p]) * static_cast<size_t>(ph[p]);
    bytes.reserve(total);  // one block of the file's size, not doublings of it
    if (y4m) {
        char header[96];
        const int n = std::snprintf(header, sizeof(header), "YUV4MPEG2 W%d H%d F25:1 Ip A1:1 C%s\nFRAME\n",
                                    img->width, img->height, y4m_tag(img->color_format));
        bytes.assign(header, header + n);
    }
    for (int p = 0; p < 4; ++p) {
        if (!img->plane[p] || pw[p] == 0) continue;
        for (int32_t y = 0; y < ph[p]; ++y) {
            const uint8_t *row = img->plane[p] + static_cast<ptrdiff_t>(y) * img->stride[p];
            bytes.insert(bytes.end(), row, row + pw[p]);
        }
    }
    return write_file(path, bytes);
}

}  // namespace tool

namespace tool {

int32_t color_format_from_name(const std::string &s) {
    static const struct { const char *name; int32_t code; } names[] = {
        {"400", 10}, {"grey", 10}, {"gray", 10}, {"420", 11}, {"422", 12}, {"444", 13}, {"440", 18},
        {"411", 22}, {"nv12", 16}, {"nv21", 17}, {"k400", 40}, {"k420", 41}, {"k422", 42},
        {"k444", 43}, {"k440", 44}, {"yuyv", 101},
    };
    for (const auto &n : names)
        if (s == n.name) return n.code;
    char *end = nullptr;
    const long v = std::strtol(s.c_str(), &end, 10);
    if (end && *end == 0 && v > 0 && v < 1000) return static_cast<int32_t>(v);
    return -1;
}

namespace {

// 8-bit tags only: 420p10, mono16 and the like hold two bytes a sample.
int32_t y4m_format(const std::string &tag) {
    if (tag == "420" || tag == "420jpeg" || tag == "420paldv" || tag == "420mpeg2") return XELO_CS_YCBCR420;
    if (tag == "422") return XELO_CS_YCBCR422;
    if (tag == "444") return XELO_CS_YCBCR444;
    if (tag == "440") return XELO_CS_YCBCR440;
    if (tag == "411") return XELO_CS_YCBCR411;
    if (tag == "mono") return XELO_CS_YCBCR400;
    return -1;
}

}  // namespace

size_t stream_bound(int32_t color_format, int32_t width, int32_t height, size_t extra) {
    int32_t pw[4] = {}, ph[4] = {}, np = 0;
    xelo_cs_planes(color_format, width, height, pw, ph, &np);
    // Padding to whole MCUs adds at most three blocks a row and a column
    // (sampling factors up to 4). A block's 64 values: a 16-bit code with
    // 11 bits for DC, with 10 for each AC value (1665 bits), stuffed.
    uint64_t blocks = 0;
    for (int p = 0; p < 4; ++p)
        if (pw[p] > 0) blocks += (uint64_t(pw[p] + 7) / 8 + 3) * (uint64_t(ph[p] + 7) / 8 + 3);
    const uint64_t bytes = blocks * (2 * 209 + 2) + extra;
    return static_cast<size_t>(std::min<uint64_t>(bytes, INT32_MAX));
}

xelo_imgb *read_picture(const std::string &path, int32_t cs, int32_t w, int32_t h) {
    std::vector<uint8_t> bytes;
    if (!read_file(path, &bytes)) {
        message("kivo: cannot read %s\n", path.c_str());
        return nullptr;
    }
    size_t pos = 0;
    if (file_kind(path) == FileKind::Y4m) {
        // Header line: YUV4MPEG2 W<w> H<h> [C<tag>] ...; then FRAME<...>\n.
        const size_t eol = std::string(bytes.begin(), bytes.end()).find('\n');
        if (bytes.size() < 10 || std::memcmp(bytes.data(), "YUV4MPEG2 ", 10) != 0 || eol == std::string::npos) {
            message("kivo: %s is not a YUV4MPEG2 file\n", path.c_str());
            return nullptr;
        }
        const std::string header(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(eol));
        cs = XELO_CS_YCBCR420;
        size_t i = 0;
        while ((i = header.find(' ', i)) != std::string::npos) {
            ++i;
            if (i >= header.size()) break;
            const std::string field = header.substr(i, header.find(' ', i) - i);
            if (field[0] == 'W') w = std::atoi(field.c_str() + 1);
            if (field[0] == 'H') h = std::atoi(field.c_str() + 1);
            if (field[0] == 'C') cs = y4m_format(field.substr(1));
        }
        const size_t frame_eol = std::string(bytes.begin() + static_cast<ptrdiff_t>(eol) + 1, bytes.end()).find('\n');
        if (cs < 0 || frame_eol == std::string::npos) {
            message("kivo: %s: unsupported colour tag or no frame\n", path.c_str());
            return nullptr;
        }
        pos = eol + 1 + frame_eol + 1;
    }
    int32_t pw[4], ph[4], np = 0;
    if (w < 1 || h < 1 || w > 65535 || h > 65535 || xelo_cs_planes(cs, w, h, pw, ph, &np) != 0) {
        message("kivo: give the size (--size WxH) and a known colour format (--format)\n");
        return nullptr;
    }
    uint64_t need = 0;  // four planes of 65535 x 16385 wrap a 32-bit size_t
    for (int p = 0; p < 4; ++p) need += uint64_t(pw[p]) * uint64_t(ph[p]);
    if (bytes.size() - pos < need) {
        message("kivo: %s holds %zu bytes of planes, %llu needed\n", path.c_str(), bytes.size() - pos,
                static_cast<unsigned long long>(need));
        return nullptr;
    }
    const uint32_t align[4] = {XELO_PAIR(16, 16), XELO_PAIR(16, 16), XELO_PAIR(16, 16), XELO_PAIR(16, 16)};
    const uint32_t pad[4] = {0, 0, 0, 0};
    xelo_imgb *img = xelo_imgb_create(w, h, cs, 3, align, pad, 0, 0, 0);
    if (!img) return nullptr;
    for (int p = 0; p < 4; ++p) {
        if (pw[p] <= 0 || !img->plane[p]) continue;
        for (int32_t y = 0; y < ph[p]; ++y, pos += pw[p])
            std::memcpy(img->plane[p] + static_cast<ptrdiff_t>(y) * img->stride[p], bytes.data() + pos, pw[p]);
    }
    return img;
}

}  // namespace tool
