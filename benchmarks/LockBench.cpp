// Taking and giving back a free lock: the price of every access to guarded data.

#include <condition_variable>
#include <future>
#include <mutex>
#include <thread>

#include <pthread.h>
#include <semaphore.h>

#include <zarip/osa/Mutex.h>
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

void CompareMutexes(const bench::Options& options) {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_t raw;
    pthread_mutex_init(&raw, &attributes);
    std::recursive_mutex standard;
    zarip::osa::Mutex ours("bench");

    bench::Rounds rounds("Recursive mutex, taken and released", options);
    rounds.Add("pthread recursive mutex", [&raw] {
        pthread_mutex_lock(&raw);
        bench::Keep(raw);
        pthread_mutex_unlock(&raw);
    });
    rounds.Add("std::recursive_mutex", [&standard] {
        standard.lock();
        bench::Keep(standard);
        standard.unlock();
    });
    rounds.Add("zarip::osa::Mutex", [&ours] {
        ours.Lock();
        bench::Keep(ours);
        ours.Release();
    });
    rounds.Run();
    pthread_mutex_destroy(&raw);
    pthread_mutexattr_destroy(&attributes);
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
    CompareMutexes(options);
    CompareSemaphores(options);
    done.set_value();
    other.join();
}
