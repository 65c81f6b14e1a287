// SPDX-License-Identifier: MIT

// Taking and releasing a free lock, beside pthread and the standard library.
//
// This is the price of every access to guarded data.

#include <condition_variable>
#include <future>
#include <mutex>
#include <string>
#include <thread>

#include <pthread.h>
#include <semaphore.h>

#include <zarip/osa/Mutex.h>
#include <zarip/osa/MutexAutoLock.h>
#include <zarip/osa/Semaphore.h>

#include "Rounds.h"

namespace {

// A counting semaphore as one writes it with the standard library.
class StdSemaphore {
public:
    StdSemaphore(unsigned int maxCount, unsigned int count) : _maxCount(maxCount), _count(count) {}

    bool TryLock() {
        const std::lock_guard<std::mutex> lock(_mutex);
        if (_count == 0) {
            return false;
        }
        --_count;
        return true;
    }

    bool Release() {
        {
            const std::lock_guard<std::mutex> lock(_mutex);
            if (_count == _maxCount) {
                return false;
            }
            ++_count;
        }
        _available.notify_one();
        return true;
    }

private:
    std::mutex _mutex;
    std::condition_variable _available;
    const unsigned int _maxCount;
    unsigned int _count;
};

void CompareMutexes(const bench::Options& options, bool isNested) {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_t raw;
    pthread_mutex_init(&raw, &attributes);
    std::recursive_mutex standard;
    zarip::osa::Mutex ours("bench");
    if (isNested) {
        pthread_mutex_lock(&raw);
        standard.lock();
        ours.Lock();
    }

    bench::Rounds rounds(
        isNested ? "Recursive mutex, taken again and released" : "Recursive mutex, taken and released",
        options);
    rounds.Add("pthread recursive mutex", [&raw] {
        pthread_mutex_lock(&raw);
        bench::Keep(raw);
        pthread_mutex_unlock(&raw);
    });
    rounds.Add("std::lock_guard", [&standard] {
        const std::lock_guard<std::recursive_mutex> lock(standard);
        bench::Keep(standard);
    });
    rounds.Add("zarip::osa::MutexAutoLock", [&ours] {
        const zarip::osa::MutexAutoLock lock(&ours);
        bench::Keep(ours);
    });
    rounds.Add("zarip::osa::Mutex, Lock and Release", [&ours] {
        ours.Lock();
        bench::Keep(ours);
        ours.Release();
    });
    rounds.Run();
}

void CompareTimedForms(const bench::Options& options) {
    zarip::osa::Mutex mutex("bench");
    zarip::osa::Semaphore semaphore("bench", 100, 1);
    bench::Rounds mutexes("A free mutex, tried and released", options);
    mutexes.Add("TryLock()", [&mutex] {
        bench::Keep(mutex.TryLock());
        mutex.Release();
    });
    mutexes.Add("TryLockFor(1000)", [&mutex] {
        bench::Keep(mutex.TryLockFor(1000));
        mutex.Release();
    });
    mutexes.Run();
    bench::Rounds semaphores("A free unit of a semaphore, tried and given back", options);
    for (const unsigned int timeoutMs : {0U, 1000U}) {
        semaphores.Add("TryLock(" + std::to_string(timeoutMs) + ")", [&semaphore, timeoutMs] {
            bench::Keep(semaphore.TryLock(timeoutMs));
            semaphore.Release();
        });
    }
    semaphores.Run();
}

void CompareSemaphores(const bench::Options& options) {
    StdSemaphore standard(100, 1);
    sem_t raw;
    sem_init(&raw, 0, 1);
    zarip::osa::Semaphore ours("bench", 100, 1);

    bench::Rounds rounds("Semaphore, a unit taken without waiting and given back", options);
    rounds.Add("std::mutex and condition variable", [&standard] {
        bench::Keep(standard.TryLock());
        bench::Keep(standard.Release());
    });
    rounds.Add("sem_t", [&raw] {
        bench::Keep(sem_trywait(&raw));
        bench::Keep(sem_post(&raw));
    });
    rounds.Add("zarip::osa::Semaphore", [&ours] {
        bench::Keep(ours.TryLock(0));
        ours.Release();
    });
    rounds.Run();
    sem_destroy(&raw);
}

}  // namespace

int main(int argc, char** argv) {
    const bench::Options options = bench::ParseOptions(argc, argv);
    // The C library takes shortcuts in a process of one thread, which no service is.
    std::promise<void> done;
    std::thread other([future = done.get_future()] { future.wait(); });
    CompareMutexes(options, false);
    CompareMutexes(options, true);
    CompareSemaphores(options);
    CompareTimedForms(options);
    done.set_value();
    other.join();
}
