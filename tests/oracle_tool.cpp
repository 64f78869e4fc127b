// The kivo tool through its own commands: PNG, PPM and PGM encoded and
// decoded again, with libjpeg-turbo's decode of the same JPEG as the
// reference; Exif orientation; default limits; batches past a failing file
// and never over another input; pipes and links as outputs and inputs.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <turbojpeg.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "oracle_support/turbo.h"
#include "tools/tool.h"

namespace {

using Command = int (*)(int, char **);

int run(Command cmd, std::vector<std::string> args) {
    std::vector<char *> argv;
    for (std::string &a : args) argv.push_back(&a[0]);
    return cmd(static_cast<int>(argv.size()), argv.data());
}

TEST(OracleTool, FormatsRoundTrip) {
    // in, out: file extensions; channels of the input; --sample and the
    // libjpeg-turbo subsampling it must produce; bounds of our decoded
    // file against libjpeg-turbo's decode of the same JPEG; whether an Adobe
    // segment then says that the three components are R, G and B.
    const struct Case { const char *in, *out; int channels; const char *sample; int subsamp, max_diff; double mean_diff; bool rgb; } cases[] = {
        {"png", "png", 3, "2x2", TJSAMP_420, 3, 0.1, false},  {"ppm", "ppm", 3, "1x1", TJSAMP_444, 3, 0.1, false},
        {"png", "ppm", 3, "2x1", TJSAMP_422, 3, 0.1, false},  {"ppm", "pgm", 3, "grey", TJSAMP_GRAY, 1, 0.05, false},
        {"pgm", "png", 1, "2x2", TJSAMP_GRAY, 1, 0.05, false}, {"ppm", "ppm", 3, "1x1", TJSAMP_444, 2, 0.05, true},
    };
    const int w = 67, h = 45;
    for (const Case &c : cases) {
        const std::string name = std::string(c.in) + "->" + c.out + " " + c.sample;
        if ((!std::strcmp(c.in, "png") || !std::strcmp(c.out, "png")) && !tool::have_png()) continue;
        tool::Packed pic;
        pic.width = w, pic.height = h, pic.channels = c.channels;  // odd sizes: partial blocks and chroma edges
        pic.pixels.resize(static_cast<size_t>(w) * h * c.channels);
        for (int ch = 0; ch < c.channels; ++ch) {
            const testpic::Plane p = testpic::make_plane(w, h, 7, ch);
            for (size_t i = 0; i < p.px.size(); ++i) pic.pixels[i * c.channels + ch] = p.px[i];
        }
        const std::string base = ::testing::TempDir() + "kivo_tool_" + c.in + c.out + c.sample, src = base + "." + c.in,
                          jpg = base + ".jpg", out = base + "_out." + c.out;
        ASSERT_TRUE(tool::write_packed(src, pic)) << name;
        ASSERT_EQ(run(tool::cmd_encode, {src, jpg, "-quality", "95", "-sample", c.sample}), 0) << name;

        std::vector<uint8_t> bytes;
        const uint8_t adobe[] = {0xFF, 0xEE, 0, 14, 'A', 'd', 'o', 'b', 'e', 0, 100, 0, 0, 0, 0, 0};  // transform 0
        if (c.rgb) {
            ASSERT_TRUE(tool::read_file(jpg, &bytes) && (bytes.insert(bytes.begin() + 2, adobe, adobe + 16), tool::write_file(jpg, bytes)));
        }
        tjhandle tj = tjInitDecompress();
        int tw = 0, th = 0, subsamp = -1, cs = 0;
        ASSERT_TRUE(tool::read_file(jpg, &bytes) && tjDecompressHeader3(tj, bytes.data(), bytes.size(), &tw, &th, &subsamp, &cs) == 0) << name;
        EXPECT_EQ(subsamp, c.subsamp) << name;
        // The JPEG holds the picture: libjpeg-turbo's decode is within
        // quality-95 and subsampling loss of the original, or of its luma
        // for grey output (channel order, rows and matrix).
        const int jpg_channels = subsamp == TJSAMP_GRAY ? 1 : 3;
        std::vector<uint8_t> ref(static_cast<size_t>(w) * h * jpg_channels);
        ASSERT_EQ(tjDecompress2(tj, bytes.data(), bytes.size(), ref.data(), w, w * jpg_channels, h,
                                jpg_channels == 1 ? TJPF_GRAY : TJPF_RGB, 0), 0) << name;
        double se = 0;
        for (size_t i = 0; i < ref.size(); ++i) {
            const uint8_t *o = &pic.pixels[i / jpg_channels * c.channels];
            se += std::pow(ref[i] - (jpg_channels == c.channels ? pic.pixels[i] : 0.299 * o[0] + 0.587 * o[1] + 0.114 * o[2]), 2);
        }
        EXPECT_TRUE(c.rgb || 10 * std::log10(255.0 * 255.0 * ref.size() / se) > 27.0) << name;

        // Our decode to a file against libjpeg-turbo's decode (islow IDCT,
        // fancy upsampling) in the output's channels.
        ASSERT_EQ(run(tool::cmd_decode, {jpg, out}), 0) << name;
        tool::Packed got;
        ASSERT_TRUE(tool::read_packed(out, &got)) << name;
        const int out_channels = !std::strcmp(c.out, "pgm") || c.channels == 1 ? 1 : 3;
        ASSERT_TRUE(got.channels == out_channels && got.width == w && got.height == h) << name;
        if (out_channels != jpg_channels) {
            ref.resize(got.pixels.size());
            ASSERT_EQ(tjDecompress2(tj, bytes.data(), bytes.size(), ref.data(), w, w * out_channels, h,
                                    out_channels == 1 ? TJPF_GRAY : TJPF_RGB, 0), 0) << name;
        }
        tjDestroy(tj);
        int max_diff = 0;
        double sum = 0;
        for (size_t i = 0; i < ref.size(); ++i) max_diff = std::max(max_diff, std::abs(ref[i] - got.pixels[i])), sum += std::abs(ref[i] - got.pixels[i]);
        EXPECT_TRUE(max_diff <= c.max_diff && sum / ref.size() <= c.mean_diff) << name << ": " << max_diff << " " << sum / ref.size();
        for (const std::string &f : {src, jpg, out}) std::remove(f.c_str());
    }
}

// A 16 x 16 grey picture from libjpeg-turbo.
std::vector<uint8_t> small_grey() {
    turbo::EncodeSpec spec;
    spec.width = 16, spec.height = 16, spec.n_comp = 1;
    return turbo::encode(spec, turbo::make_planes(spec, 3));
}

TEST(OracleTool, InfoReportsExifOrientation) {
    const std::vector<uint8_t> jpg = small_grey();
    ASSERT_FALSE(jpg.empty());
    // Byte order, orientation value, TIFF bytes kept (0: all), the line
    // expected (empty: no orientation line at all).
    const struct Case { bool little; int value; size_t keep; const char *line; } cases[] = {
        {true, 6, 0, "exif orientation: 6 (rotate 90 CW)"}, {false, 6, 0, "exif orientation: 6 (rotate 90 CW)"},
        {true, 3, 0, "exif orientation: 3 (rotate 180)"},   {false, 8, 0, "exif orientation: 8 (rotate 270 CW)"},
        {true, 1, 0, "exif orientation: 1 (normal)"},       {false, 9, 0, "exif orientation: unreadable"},
        {true, 6, 30, "exif orientation: unreadable"},  // the IFD's last entry cut short
        {false, 6, 7, "exif orientation: unreadable"},  // the TIFF header cut short
    };
    for (const Case &c : cases) {
        // TIFF header, then the first IFD: two SHORT entries (orientation,
        // resolution unit), no next IFD. Fields are (value, bytes).
        const int fields[][2] = {{42, 2}, {8, 4}, {2, 2}, {0x0112, 2}, {3, 2}, {1, 4}, {c.value, 2}, {0, 2},
                                 {0x0128, 2}, {3, 2}, {1, 4}, {2, 2}, {0, 2}, {0, 4}};
        std::vector<uint8_t> file(2, c.little ? 'I' : 'M');
        for (const auto &f : fields)
            for (int i = 0; i < f[1]; ++i) file.push_back(static_cast<uint8_t>(f[0] >> 8 * (c.little ? i : f[1] - 1 - i)));
        if (c.keep) file.resize(c.keep);
        const size_t len = file.size() + 8;  // SOI and the APP1 segment before the TIFF bytes, the picture after
        file.insert(file.begin(), {0xFF, 0xD8, 0xFF, 0xE1, uint8_t(len >> 8), uint8_t(len), 'E', 'x', 'i', 'f', 0, 0});
        file.insert(file.end(), jpg.begin() + 2, jpg.end());
        const std::string path = ::testing::TempDir() + "kivo_tool_exif.jpg";
        ASSERT_TRUE(tool::write_file(path, file));
        testing::internal::CaptureStdout();
        const int rc = run(tool::cmd_info, {path});
        const std::string text = testing::internal::GetCapturedStdout();
        EXPECT_EQ(rc, 0);
        EXPECT_NE(text.find(c.line), std::string::npos) << c.value << (c.little ? " II " : " MM ") << c.keep << "\n" << text;
        std::remove(path.c_str());
    }
}

// The tool's default limits refuse a frame that declares 65535 x 65535;
// lifting or raising the pixel limit lets its headers through. encode's picture
// files are held to the pixel limit too, their names are never taken for a
// JPEG output, and Y4M samples of more than 8 bits are refused.
TEST(OracleTool, RefusesBombsAndMisleadingInputs) {
    std::vector<uint8_t> jpg = small_grey();
    for (size_t i = 0; i + 8 < jpg.size(); ++i)
        if (jpg[i] == 0xFF && jpg[i + 1] == 0xC0) std::fill(jpg.begin() + i + 5, jpg.begin() + i + 9, 0xFF);
    const std::string path = ::testing::TempDir() + "kivo_tool_bomb.jpg";
    ASSERT_TRUE(tool::write_file(path, jpg));
    testing::internal::CaptureStdout();
    EXPECT_EQ(run(tool::cmd_info, {path}), 1);
    EXPECT_EQ(run(tool::cmd_info, {path, "--max-pixels", "0"}), 0);
    // Limits take K, M and G (65535 x 65535 lies between 4095M and 4G);
    // other values are refused, never read as 0, which lifts the limit.
    EXPECT_EQ(run(tool::cmd_info, {path, "--max-pixels", "4095M"}), 1);
    EXPECT_EQ(run(tool::cmd_info, {path, "--max-pixels", "4g"}), 0);
    for (const char *bad : {"abc", "-1", "1.5G", "4GB"}) EXPECT_EQ(run(tool::cmd_info, {path, "--max-pixels", bad}), 2) << bad;
    const std::string text = testing::internal::GetCapturedStdout();
    EXPECT_NE(text.find("size: 65535 x 65535"), std::string::npos) << text;
    // A coding the library does not decode is named, not blamed on a limit.
    jpg = small_grey();
    size_t sof = 2;
    while (!(jpg[sof] == 0xFF && jpg[sof + 1] == 0xC0)) ++sof;
    jpg[sof + 1] = 0xC9;
    ASSERT_TRUE(tool::write_file(path, jpg));
    testing::internal::CaptureStderr();
    EXPECT_EQ(run(tool::cmd_info, {path}), 1);
    const std::string why = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(why.find("arithmetic-coded") != std::string::npos && why.find("limit") == std::string::npos) << why;
    std::remove(path.c_str());
    // encode holds PNG and PNM input to the pixel limit before taking the
    // samples' memory (a PNG of 842 bytes may declare 65535 x 65535).
    tool::Packed pic;
    pic.width = 12, pic.height = 10, pic.channels = 1;
    pic.pixels.assign(120, 90);
    for (const char *ext : {".png", ".pgm"}) {
        if (!std::strcmp(ext, ".png") && !tool::have_png()) continue;
        const std::string in = ::testing::TempDir() + "kivo_tool_limit" + ext, out = in + ".jpg";
        ASSERT_TRUE(tool::write_packed(in, pic));
        testing::internal::CaptureStdout();
        EXPECT_EQ(run(tool::cmd_encode, {in, out, "--max-pixels", "119"}), 1) << ext;
        EXPECT_EQ(run(tool::cmd_encode, {in, out, "--max-pixels", "120"}), 0) << ext;
        EXPECT_EQ(run(tool::cmd_encode, {in, out, "--perceptual", "1"}), 0) << ext;  // too small to analyse
        // --qtables: 128 whole numbers and comments, nothing more.
        std::string n127;
        for (int i = 0; i < 127; ++i) n127 += "9 ";
        for (const auto &[text, want] : std::vector<std::pair<std::string, int>>{
                 {"# q\n" + n127 + "9 # end", 0}, {n127 + "9 9", 1}, {n127 + "9.5", 1}, {n127 + "0x9", 1}}) {
            ASSERT_TRUE(tool::write_file(out + ".q", std::vector<uint8_t>(text.begin(), text.end())));
            EXPECT_EQ(run(tool::cmd_encode, {in, out, "--qtables", out + ".q"}), want) << text;
        }
        std::remove((out + ".q").c_str());
        // A picture's name is no JPEG output: a typo must not replace it.
        EXPECT_EQ(run(tool::cmd_encode, {in, in}), 2) << ext;
        EXPECT_EQ(run(tool::cmd_transcode, {out, in}), 2) << ext;
        testing::internal::GetCapturedStdout();
        std::remove(in.c_str());
        std::remove(out.c_str());
    }
    // Y4M of more than 8 bits a sample is refused, not read as 8-bit samples.
    const std::string y4m = ::testing::TempDir() + "kivo_tool_10bit.y4m";
    std::vector<uint8_t> ten(16 * 16 * 3, 2);
    const std::string head = "YUV4MPEG2 W16 H16 F25:1 C420p10\nFRAME\n";
    ten.insert(ten.begin(), head.begin(), head.end());
    ASSERT_TRUE(tool::write_file(y4m, ten));
    EXPECT_EQ(run(tool::cmd_encode, {y4m, y4m + ".jpg"}), 1);
    std::remove(y4m.c_str());
    // Streams beyond four bytes a sample are written too: noise at quality
    // 100 in the padded 4:1:1 blocks of a picture 1 pixel wide, and a
    // noisy 64 x 64 source enlarged to 1024 x 1024 (148 KB from 7 KB).
    tool::Packed narrow;
    narrow.width = 1, narrow.height = 30000, narrow.channels = 3;
    narrow.pixels = testpic::make_plane(3, 30000, 5, 0, testpic::Kind::Noise).px;
    turbo::EncodeSpec noisy;
    noisy.width = noisy.height = 64, noisy.n_comp = 1, noisy.quality = 100;
    const std::string wide = ::testing::TempDir() + "kivo_tool_narrow.ppm", big = wide + ".jpg";
    ASSERT_TRUE(tool::write_packed(wide, narrow) && tool::write_file(path, turbo::encode(noisy, turbo::make_planes(noisy, 4, testpic::Kind::Noise))));
    testing::internal::CaptureStdout();
    EXPECT_EQ(run(tool::cmd_encode, {wide, big, "--sample", "4x1", "--quality", "100"}), 0);
    EXPECT_EQ(run(tool::cmd_transcode, {path, big, "--mode", "pipeline", "--size", "1024x1024"}), 0);
    testing::internal::GetCapturedStdout();
    for (const std::string &f : {path, wide, big}) std::remove(f.c_str());
}

TEST(OracleTool, BatchGoesOnPastAFailingFile) {
    namespace fs = std::filesystem;
    const fs::path dir = fs::path(::testing::TempDir()) / "kivo_tool_batch";
    fs::remove_all(dir);
    fs::create_directories(dir / "in" / "sub");
    turbo::EncodeSpec spec;
    spec.width = 40, spec.height = 24;
    const std::vector<uint8_t> jpg = turbo::encode(spec, turbo::make_planes(spec, 4));
    ASSERT_TRUE(tool::write_file((dir / "in" / "a.jpg").string(), jpg) && tool::write_file((dir / "in" / "sub" / "b.jpg").string(), jpg) &&
                tool::write_file((dir / "in" / "bad.jpg").string(), {0xFF, 0xD8, 0xFF}));
    EXPECT_EQ(run(tool::cmd_transcode, {(dir / "in").string(), "--recursive", "--out-dir", (dir / "out").string(),
                                        "--threads", "2"}), 1);
    // Both good files are complete pictures; nothing else is in the output.
    std::vector<std::string> outputs;
    for (const auto &e : fs::recursive_directory_iterator(dir / "out"))
        if (e.is_regular_file()) outputs.push_back(e.path().lexically_relative(dir / "out").string());
    std::sort(outputs.begin(), outputs.end());
    EXPECT_EQ(outputs, (std::vector<std::string>{"a.jpg", "sub/b.jpg"}));
    for (const std::string &f : outputs) {
        std::vector<uint8_t> bytes, px(40 * 24 * 3);
        ASSERT_TRUE(tool::read_file((dir / "out" / f).string(), &bytes));
        tjhandle tj = tjInitDecompress();
        EXPECT_EQ(tjDecompress2(tj, bytes.data(), bytes.size(), px.data(), 40, 0, 24, TJPF_RGB, 0), 0) << f;
        tjDestroy(tj);
    }
    fs::remove(dir / "in" / "bad.jpg");
    // A file replaced in place keeps its permissions, owner and group.
    const std::string a = (dir / "in" / "a.jpg").string();
    const bool root = geteuid() == 0;
    ASSERT_TRUE(chmod(a.c_str(), 0640) == 0 && (!root || chown(a.c_str(), 1234, 5678) == 0));
    EXPECT_EQ(run(tool::cmd_transcode, {(dir / "in").string(), "--recursive", "--in-place"}), 0);
    struct stat st;
    EXPECT_TRUE(stat(a.c_str(), &st) == 0 && (st.st_mode & 07777) == 0640 && (!root || (st.st_uid == 1234 && st.st_gid == 5678)));
    // A read-only file is not replaced, though its directory is writable.
    std::vector<uint8_t> before, after;
    ASSERT_TRUE(chmod(a.c_str(), 0444) == 0 && tool::read_file(a, &before));
    EXPECT_EQ(run(tool::cmd_transcode, {a, "--in-place", "--mode", "pipeline", "--quality", "50"}), 1);
    EXPECT_TRUE(tool::read_file(a, &after) && after == before);
    // The pipeline does not re-encode a cut source (mid-grey where its data
    // end): in place, the source stays as it was.
    const std::string cut_path = (dir / "cut.jpg").string();
    const std::vector<uint8_t> cut(jpg.begin(), jpg.end() - 60);
    ASSERT_TRUE(tool::write_file(cut_path, cut));
    EXPECT_EQ(run(tool::cmd_transcode, {cut_path, "--in-place", "--mode", "pipeline"}), 1);
    std::vector<uint8_t> after_cut;
    EXPECT_TRUE(tool::read_file(cut_path, &after_cut) && after_cut == cut);
    // in/a.jpg's output would replace the input in/sub/a.jpg: that job is
    // skipped and sub/a.jpg keeps its own picture.
    const std::vector<uint8_t> other = turbo::encode(spec, turbo::make_planes(spec, 5));
    ASSERT_TRUE(tool::write_file((dir / "in" / "sub" / "a.jpg").string(), other));
    EXPECT_EQ(run(tool::cmd_transcode, {(dir / "in").string(), "--recursive", "--out-dir", (dir / "in" / "sub").string()}), 1);
    std::vector<uint8_t> kept;
    EXPECT_TRUE(tool::read_file((dir / "in" / "sub" / "a.jpg").string(), &kept) && kept == other);
    fs::remove_all(dir);
}

TEST(OracleTool, PipesAndLinks) {
    // A pipe is written through, not replaced by a regular file (as
    // /dev/null would be for a user allowed to), and read as input; a link
    // stays a link.
    namespace fs = std::filesystem;
    const fs::path dir = fs::path(::testing::TempDir()) / "kivo_tool_special";
    fs::remove_all(dir);
    fs::create_directories(dir);
    const std::string fifo = (dir / "pipe").string(), link = (dir / "link").string();
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const int reader = open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader, 0);
    EXPECT_TRUE(tool::write_file(fifo, {1, 2, 3}));
    uint8_t got[4] = {0};
    EXPECT_EQ(read(reader, got, 4), 3);
    close(reader);
    EXPECT_TRUE(fs::is_fifo(fifo));
    // A pipe as input (/dev/stdin): read into memory, as it has no size.
    std::thread writer([&] { tool::write_file(fifo, small_grey()); });
    testing::internal::CaptureStdout();
    EXPECT_EQ(run(tool::cmd_info, {fifo}), 0);
    testing::internal::GetCapturedStdout();
    writer.join();
    ASSERT_TRUE(tool::write_file((dir / "target").string(), {4}));
    fs::create_symlink("target", link);
    EXPECT_TRUE(tool::write_file(link, {4, 5}));
    EXPECT_TRUE(fs::is_symlink(link));
    EXPECT_EQ(fs::file_size(dir / "target"), 2u);
    // A link to a file not there yet: the file is made, the link stays.
    fs::create_symlink("new", dir / "dangling");
    EXPECT_TRUE(tool::write_file((dir / "dangling").string(), {6}));
    EXPECT_TRUE(fs::is_symlink(dir / "dangling") && fs::exists(dir / "new") && fs::file_size(dir / "new") == 1u);
    // A name of 255 bytes, the most a directory entry holds, is replaced
    // like any other.
    const std::string longest = (dir / (std::string(251, 'n') + ".jpg")).string();
    EXPECT_TRUE(tool::write_file(longest, {7}) && tool::write_file(longest, {7, 8}));
    std::error_code ec;
    EXPECT_EQ(fs::file_size(longest, ec), 2u);
    fs::remove_all(dir);
}

}  // namespace
