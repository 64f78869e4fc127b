// A ready kivo_tpool on POSIX threads: each create() starts one worker thread
// that runs one job at a time, handed over by run() and collected by wait().
//
// It is written on pthreads rather than std::thread because std::thread
// reports a refused thread (a process or memory limit) only by throwing, and
// no exception may cross the C API. Here every failure is a return value: a
// refused thread makes create() return null, which the constructors report as
// KIVO_ERR_THREAD.
#include <pthread.h>

#include <cstdlib>

#include "common/kivo_int.h"

namespace {

struct Worker {
    pthread_mutex_t mu;
    pthread_cond_t cv;
    pthread_t thread;
    kivo_job_fn job;
    void *arg;
    int32_t result;
    bool busy;  // a job was handed over and not collected yet
    bool done;  // the job handed over has finished
    bool quit;
};

void *worker_loop(void *self) {
    Worker *w = static_cast<Worker *>(self);
    pthread_mutex_lock(&w->mu);
    for (;;) {
        while (!w->quit && !(w->busy && !w->done)) pthread_cond_wait(&w->cv, &w->mu);
        if (w->quit) break;
        kivo_job_fn fn = w->job;
        void *a = w->arg;
        pthread_mutex_unlock(&w->mu);
        const int32_t r = fn(a);
        pthread_mutex_lock(&w->mu);
        w->result = r;
        w->done = true;
        pthread_cond_broadcast(&w->cv);
    }
    pthread_mutex_unlock(&w->mu);
    return nullptr;
}

void *std_create(kivo_tpool *, int32_t) {
    Worker *w = static_cast<Worker *>(std::calloc(1, sizeof(Worker)));
    if (!w) return nullptr;
    if (pthread_mutex_init(&w->mu, nullptr) == 0) {
        if (pthread_cond_init(&w->cv, nullptr) == 0) {
            if (pthread_create(&w->thread, nullptr, worker_loop, w) == 0) return w;
            pthread_cond_destroy(&w->cv);
        }
        pthread_mutex_destroy(&w->mu);
    }
    std::free(w);
    return nullptr;
}

int32_t std_run(void *thread, kivo_job_fn job, void *arg) {
    Worker *w = static_cast<Worker *>(thread);
    if (!w || !job) return KIVO_ERR_INVALID_ARG;
    pthread_mutex_lock(&w->mu);
    int32_t ret = KIVO_ERR_UNAVAILABLE;  // the last job was not collected
    if (!w->busy) {
        w->job = job;
        w->arg = arg;
        w->busy = true;
        w->done = false;
        pthread_cond_broadcast(&w->cv);
        ret = KIVO_OK;
    }
    pthread_mutex_unlock(&w->mu);
    return ret;
}

int32_t std_wait(void *thread, int32_t *status) {
    Worker *w = static_cast<Worker *>(thread);
    if (!w) return KIVO_ERR_INVALID_ARG;
    pthread_mutex_lock(&w->mu);
    int32_t result = KIVO_OK;
    if (w->busy) {
        while (!w->done) pthread_cond_wait(&w->cv, &w->mu);
        w->busy = false;
        result = w->result;
    }
    pthread_mutex_unlock(&w->mu);
    if (status) *status = result;
    return KIVO_OK;
}

int32_t std_release(void *thread) {
    Worker *w = static_cast<Worker *>(thread);
    if (!w) return KIVO_OK;
    std_wait(w, nullptr);
    pthread_mutex_lock(&w->mu);
    w->quit = true;
    pthread_cond_broadcast(&w->cv);
    pthread_mutex_unlock(&w->mu);
    pthread_join(w->thread, nullptr);
    pthread_cond_destroy(&w->cv);
    pthread_mutex_destroy(&w->mu);
    std::free(w);
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
