// A ready kivo_tpool on std::thread: each create() starts one worker thread
// that runs one job at a time, handed over by run() and collected by wait().
#include <condition_variable>
#include <mutex>
#include <new>
#include <thread>

#include "common/kivo_int.h"

namespace {

struct Worker {
    std::mutex mu;
    std::condition_variable cv;
    std::thread thread;
    kivo_job_fn job = nullptr;
    void *arg = nullptr;
    int32_t result = 0;
    bool busy = false;  // a job was handed over and not collected yet
    bool done = false;  // the job handed over has finished
    bool quit = false;

    void loop() {
        std::unique_lock<std::mutex> lock(mu);
        for (;;) {
            cv.wait(lock, [this] { return quit || (busy && !done); });
            if (quit) return;
            kivo_job_fn fn = job;
            void *a = arg;
            lock.unlock();
            int32_t r = fn(a);
            lock.lock();
            result = r;
            done = true;
            cv.notify_all();
        }
    }
};

void *std_create(kivo_tpool *, int32_t) {
    Worker *w = new (std::nothrow) Worker;
    if (!w) return nullptr;
    // std::thread reports failure by exception only; without exceptions a
    // failed start ends the process, which is what the std library offers.
    w->thread = std::thread([w] { w->loop(); });
    return w;
}

int32_t std_run(void *thread, kivo_job_fn job, void *arg) {
    Worker *w = static_cast<Worker *>(thread);
    if (!w || !job) return KIVO_ERR_INVALID_ARG;
    std::lock_guard<std::mutex> lock(w->mu);
    if (w->busy) return KIVO_ERR_UNAVAILABLE;  // the last job was not collected
    w->job = job;
    w->arg = arg;
    w->busy = true;
    w->done = false;
    w->cv.notify_all();
    return KIVO_OK;
}

int32_t std_wait(void *thread, int32_t *status) {
    Worker *w = static_cast<Worker *>(thread);
    if (!w) return KIVO_ERR_INVALID_ARG;
    std::unique_lock<std::mutex> lock(w->mu);
    if (!w->busy) {
        if (status) *status = KIVO_OK;
        return KIVO_OK;
    }
    w->cv.wait(lock, [w] { return w->done; });
    w->busy = false;
    if (status) *status = w->result;
    return KIVO_OK;
}

int32_t std_release(void *thread) {
    Worker *w = static_cast<Worker *>(thread);
    if (!w) return KIVO_OK;
    std_wait(w, nullptr);
    {
        std::lock_guard<std::mutex> lock(w->mu);
        w->quit = true;
        w->cv.notify_all();
    }
    w->thread.join();
    delete w;
    return KIVO_OK;
}

}  // namespace

KIVO_EXPORT int32_t kivo_tpool_std(kivo_tpool *tp, int32_t count) {
    if (!tp) return KIVO_ERR_INVALID_ARG;
    *tp = kivo_tpool{};
    tp->create = std_create;
    tp->run = std_run;
    tp->wait = std_wait;
    tp->release = std_release;
    tp->count = count;
    return KIVO_OK;
}
