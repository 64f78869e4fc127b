// Batch mode of kivo encode and kivo transcode: many inputs over worker
// threads, a one-line progress display on a terminal, a summary; and the
// messages and temporary-file clean-up that the progress line and an
// interrupted run need.
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <mutex>
#include <new>
#include <set>
#include <thread>

#include "tools/tool.h"

namespace fs = std::filesystem;

namespace tool {
namespace {

std::mutex stderr_lock;
bool progress_shown = false;  // a progress line without its newline is on stderr

// Temporary outputs being written, removed by the signal handler. A slot's
// path is set before its state becomes 1 and read only in state 1.
struct TempSlot {
    std::atomic<int> state{0};  // 0 free, 1 in use
    char path[4096];
};
TempSlot temp_slots[64];

// Files of the running batch finished and in all (0: no batch), for the
// message of an interrupted one.
std::atomic<int> batch_done{0}, batch_total{0};

// Appends n in decimal to buf at *len (no allocation: called from a signal
// handler).
void put_number(char *buf, size_t *len, int n) {
    char digits[12];
    int k = 0;
    do digits[k++] = static_cast<char>('0' + n % 10); while ((n /= 10) > 0);
    while (k > 0) buf[(*len)++] = digits[--k];
}

void remove_temps_and_exit(int sig) {
    for (TempSlot &s : temp_slots)
        if (s.state.load(std::memory_order_acquire) == 1) unlink(s.path);
    if (const int total = batch_total.load()) {
        // The batch's summary is not printed: say how far it came.
        char msg[160];
        size_t len = 0;
        const auto put = [&](const char *t) { while (*t) msg[len++] = *t++; };
        put("\r\033[Kkivo: interrupted after ");
        put_number(msg, &len, batch_done.load());
        put(" of ");
        put_number(msg, &len, total);
        put(" files; the outputs being written were removed\n");
        if (write(STDERR_FILENO, msg, len) < 0) {}
    }
    signal(sig, SIG_DFL);
    raise(sig);
}

sigset_t cleanup_signals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGHUP);
    return set;
}

}  // namespace

void message(const char *fmt, ...) {
    std::lock_guard<std::mutex> lock(stderr_lock);
    if (progress_shown) std::fputs("\r\033[K", stderr);
    progress_shown = false;
    va_list ap;
    va_start(ap, fmt);
    std::vfprintf(stderr, fmt, ap);
    va_end(ap);
}

void install_cleanup() {
    const sigset_t set = cleanup_signals();
    struct sigaction sa {};
    sa.sa_handler = remove_temps_and_exit;
    sa.sa_mask = set;
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) sigaction(sig, &sa, nullptr);
}

int create_temp(std::string *tmpl, int *slot) {
    // The file is created under the name in its slot, registered before:
    // a signal another thread takes while this one creates the file then
    // finds it (blocking the signals here holds them off this thread only).
    const sigset_t set = cleanup_signals();
    sigset_t old;
    pthread_sigmask(SIG_BLOCK, &set, &old);
    *slot = -1;
    if (tmpl->size() < sizeof(temp_slots[0].path)) {
        for (int i = 0; i < 64 && *slot < 0; ++i) {
            int expected = 0;
            if (temp_slots[i].state.compare_exchange_strong(expected, 2)) {  // 2: taken, not yet readable
                std::memcpy(temp_slots[i].path, tmpl->c_str(), tmpl->size() + 1);
                temp_slots[i].state.store(1, std::memory_order_release);
                *slot = i;
            }
        }
    }
    const int fd = mkstemp(*slot >= 0 ? temp_slots[*slot].path : &(*tmpl)[0]);
    if (*slot >= 0) {
        tmpl->assign(temp_slots[*slot].path);
        if (fd < 0) release_temp(*slot), *slot = -1;
    }
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    return fd;
}

void release_temp(int slot) {
    if (slot >= 0) temp_slots[slot].state.store(0, std::memory_order_release);
}

bool batch_option(const std::string &a, int argc, char **argv, int *i, BatchOptions *b) {
    if (a == "--out-dir" && *i + 1 < argc) b->out_dir = argv[++*i];
    else if (a == "--in-place") b->in_place = true;
    else if (a == "--recursive" || a == "-r") b->recursive = true;
    else return false;
    return true;
}

namespace {

bool has_ext(const fs::path &p, const std::vector<const char *> &exts) {
    std::string e = p.extension().string();
    for (char &c : e) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
    for (const char *x : exts)
        if (e == x) return true;
    return false;
}

double mb(uint64_t bytes) { return bytes / 1e6; }

}  // namespace

int run_batch(const BatchOptions &b, const std::vector<const char *> &exts, const char *out_ext,
              const std::function<bool(FileJob *)> &work) {
    if (b.in_place == !b.out_dir.empty()) {
        message("kivo: several inputs need --out-dir DIR or --in-place (one of them)\n");
        return 2;
    }
    // Inputs: the files named, and with --recursive the files with a
    // matching extension in the directories named and their subdirectories.
    // An output keeps the input's path below the directory named.
    std::vector<FileJob> jobs;
    int failed = 0;
    for (const std::string &arg : b.inputs) {
        std::error_code ec;
        std::vector<std::pair<fs::path, fs::path>> found;  // file, path relative to the output
        if (fs::is_directory(arg, ec)) {
            if (!b.recursive) {
                message("kivo: %s is a directory (add --recursive)\n", arg.c_str());
                ++failed;
                continue;
            }
            for (fs::recursive_directory_iterator it(arg, ec), end; !ec && it != end; it.increment(ec))
                if (it->is_regular_file(ec) && has_ext(it->path(), exts))
                    found.emplace_back(it->path(), it->path().lexically_relative(arg));
            if (ec) {
                message("kivo: %s: %s\n", arg.c_str(), ec.message().c_str());
                ++failed;
            }
        } else {
            found.emplace_back(arg, fs::path(arg).filename());
        }
        for (auto &[file, rel] : found) {
            FileJob job;
            job.in = file.string();
            fs::path out = b.in_place ? file : fs::path(b.out_dir) / rel;
            if (out_ext) out.replace_extension(out_ext);
            job.out = out.string();
            const uintmax_t size = fs::file_size(file, ec);
            job.in_bytes = ec ? 0 : size;
            jobs.push_back(job);
        }
    }
    // A file is named by its path with links and dots resolved, so that two
    // spellings of one path are seen as one. No job may replace a file
    // another job reads (its picture would be lost, or read half-written),
    // and no two jobs may write one file.
    auto key = [](const std::string &p) {
        std::error_code ec;
        const fs::path k = fs::weakly_canonical(p, ec);
        return ec ? fs::absolute(p, ec).lexically_normal().string() : k.string();
    };
    std::set<std::string> inputs, outputs;
    std::vector<std::string> in_keys(jobs.size()), out_keys(jobs.size());
    for (size_t i = 0; i < jobs.size(); ++i) {
        in_keys[i] = key(jobs[i].in), out_keys[i] = key(jobs[i].out);
        inputs.insert(in_keys[i]);
    }
    std::vector<char> skip(jobs.size(), 0);
    uint64_t total_in = 0;
    for (size_t i = 0; i < jobs.size(); ++i) {
        const bool other_input = out_keys[i] != in_keys[i] && inputs.count(out_keys[i]);
        if (other_input || !outputs.insert(out_keys[i]).second) {
            message("kivo: %s: %s is also another %s; skipped\n", jobs[i].in.c_str(), jobs[i].out.c_str(),
                    other_input ? "input" : "input's output");
            skip[i] = 1;
            ++failed;
        }
        total_in += jobs[i].in_bytes;
    }

    batch_done = 0;
    batch_total = static_cast<int>(jobs.size());
    const int workers = std::max(1, std::min<int>(b.threads, static_cast<int>(jobs.size())));
    std::atomic<size_t> next{0};
    std::atomic<int> done{0}, bad{0};
    std::atomic<uint64_t> done_in{0}, ok_in{0}, ok_out{0};
    const auto t0 = std::chrono::steady_clock::now();
    auto worker = [&] {
        for (size_t i; (i = next.fetch_add(1)) < jobs.size();) {
            FileJob &job = jobs[i];
            bool ok = !skip[i];
            if (ok && !b.in_place) {
                std::error_code ec;
                fs::create_directories(fs::path(job.out).parent_path(), ec);
            }
            // A file the memory does not suffice for fails alone; the batch
            // goes on (others may be smaller).
            try {
                if (ok) ok = work(&job);
            } catch (const std::exception &e) {
                message("kivo: %s: %s\n", job.in.c_str(),
                        dynamic_cast<const std::bad_alloc *>(&e) ? "out of memory" : e.what());
                ok = false;
            }
            if (!ok && !skip[i]) ++bad;
            done_in += job.in_bytes;
            if (ok) ok_in += job.in_bytes, ok_out += job.out_bytes;
            ++done;
            ++batch_done;
        }
    };
    // A thread the system refuses (a process or memory limit) leaves its
    // files to the others.
    std::vector<std::thread> pool;
    const auto start = [&] {
        try {
            pool.emplace_back(worker);
            return true;
        } catch (const std::exception &) {
            return false;
        }
    };
    for (int i = 1; i < workers; ++i) start();

    // The last worker is this thread unless a terminal wants the progress
    // line, which this thread then redraws five times a second.
    const bool tty = isatty(STDERR_FILENO);
    if (tty && !jobs.empty() && start()) {
        while (done.load() < static_cast<int>(jobs.size())) {
            const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
            const uint64_t in = done_in.load();
            char left[32] = "--:--";
            if (in > 0 && in < total_in) {
                const int r = static_cast<int>(s * (total_in - in) / in + 0.5);
                std::snprintf(left, sizeof(left), "%d:%02d", r / 60, r % 60);
            }
            {
                std::lock_guard<std::mutex> lock(stderr_lock);
                std::fprintf(stderr, "\r\033[K%d/%zu files, %.1f MB in, %.1f MB out, %d failed, %s left", done.load(),
                             jobs.size(), mb(in), mb(ok_out.load()), bad.load() + failed, left);
                progress_shown = true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
        }
        message("%s", "");  // clears the progress line
    } else {
        worker();
    }
    for (std::thread &t : pool) t.join();
    batch_total = 0;
    failed += bad.load();
    const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    const uint64_t in = ok_in.load(), out = ok_out.load();
    std::printf("%zu files, %d failed; the others %.1f MB -> %.1f MB", jobs.size(), failed, mb(in), mb(out));
    if (in) std::printf(" (%.1f%%)", 100.0 * out / in);
    std::printf(" in %.1f s\n", s);
    // Which kind of output each file got, when the work names one.
    std::map<std::string, int> won;
    for (const FileJob &job : jobs)
        if (job.chosen) ++won[job.chosen];
    if (!won.empty()) {
        std::printf("chosen:");
        for (const auto &[name, n] : won) std::printf(" %s %d", name.c_str(), n);
        std::printf("; %.2f MB saved\n", in >= out ? mb(in - out) : -mb(out - in));
    }
    return failed ? 1 : 0;
}

}  // namespace tool
