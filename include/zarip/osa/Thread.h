// SPDX-License-Identifier: MIT

#pragma once

#include <pthread.h>

#include <atomic>
#include <map>
#include <memory>
#include <string>

#include <zarip/osa/Export.h>
#include <zarip/osa/Mutex.h>

namespace zarip::core {
class Logger;
}

namespace zarip::osa {

class Runnable;

/// A named POSIX thread that is created suspended and runs a `Runnable` once `Run()` is called.
///
/// One number selects the scheduling class and the priority. A value of -20 or more is the nice value of the
/// time-sharing class. A value from -21 (lowest) to -119 (highest) is a priority of the real-time round-robin
/// class. The system refuses values below -119: the constructor then throws "Create Thread Error", and
/// `SetPriority` changes nothing.
///
/// States: *suspended* after the constructor, *running* after `Run()`, which may be called once, *ended* when
/// the runnable has returned. The owner stops the runnable and calls `Join()` once before it destroys the
/// object; the destructor does neither. If the object is destroyed before `Run()`, the thread ends without
/// running. If it is destroyed while the thread runs, the thread continues without the object, and its
/// resources are freed when it ends.
///
/// *Thread-safe*, except `Join()` and destruction, which belong to the owner. The thread that loads the
/// library is wrapped in an object named "ZARIP". Failures throw `Exception`.
class ZARIP_EXPORT Thread {
public:
    /// Static operations on the calling thread.
    class ZARIP_EXPORT CurrentThread {
    public:
        /// Sleeps. If a signal handler interrupts the sleep, the function throws `Signal(2)`.
        static void MicroSleep(unsigned int microseconds);

        /// Calls `MicroSleep(milliseconds * 1000)`. The product has 32 bits, so a value above 4,294,967 ms
        /// wraps.
        static void Sleep(unsigned int milliseconds);

        static void Yield();

        /// Returns the priority of the calling thread. Throws "Priority Error" if the system does not report
        /// it.
        static signed char GetPriority();
        static void SetPriority(signed char priority);

        /// Returns the object of the calling thread, *not owned*, or null if this class has not made the
        /// thread. Deliberate: such a thread is entered in the registry with a null object, so a debugger can
        /// see in the registry which threads have called this.
        static Thread* ThreadPtr();
    };

    /// The name of the loading thread's object: "ZARIP".
    static const char* const kMainThreadName;

    /// Creates the thread suspended. Throws "Create Thread Error", "Set Stack Size failed", "Set Stack Guard
    /// Size failed", "Set Inherit Sched failed" and "Set Sched Policy failed".
    /// @param name  copied; the kernel shows its first 15 characters.
    /// @param runnable  *not owned*, must outlive the thread.
    /// @param stackSize  bytes; at least 65,536, rounded up to a multiple of 4,096; 131,072 are added to it.
    /// @param priority  see above.
    Thread(const char* name, Runnable* runnable, unsigned int stackSize, signed char priority);

    /// Wraps the calling thread.
    Thread();

    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;
    virtual ~Thread();

    /// Releases the suspended thread. A second call throws "Invalid Thread Context".
    void Run();

    /// Waits for the end of the thread. Returns the result of `pthread_join`, or EINVAL if it was joined
    /// before.
    int Join();

    /// Sends a signal to the thread and returns 0. Does nothing if the thread has ended and was not joined
    /// yet. Throws "invalid pid" if the thread was joined, and "invalid signal".
    int Signal(int signal);

    /// Deliberate: returns the id of the calling thread, not of the thread of this object. Callers compare it
    /// with a stored id to find out whether they run on their own thread.
    pthread_t GetID() const;

    /// Returns the priority of the thread. Throws "Can't get priority from a different (SCHED_OTHER) thread"
    /// for a time-sharing thread that is not the caller, and "Priority Error" if the system does not report
    /// it.
    signed char GetPriority() const;

    /// Sets the scheduling class and the priority. A nice value is set only if the thread is the caller.
    void SetPriority(signed char priority);

    /// Returns the rounded stack size in bytes, or 0 for the thread that has loaded the library.
    unsigned int GetStackSize() const;

    /// Returns 65,536.
    unsigned int GetMinStackSize() const;

    const std::string& GetName() const;

private:
    struct StartRecord;

    static void* Entry(void* argument);
    static std::map<pthread_t, Thread*>& s_threads();
    static Mutex& s_threadsLock();
    static Thread* s_main;

    const StartRecord& Context() const;

    core::Logger* _logger;
    pthread_t _id;
    std::atomic<bool> _started;
    std::shared_ptr<StartRecord> _context;
    unsigned int _stackSize;
    std::string _name;
    Runnable* _runnable;
};

}  // namespace zarip::osa
