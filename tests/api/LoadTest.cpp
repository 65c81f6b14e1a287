// SPDX-License-Identifier: MIT

// A program that loads the library on a thread other than its first one: that thread is "ZARIP", and those
// that get its id after it has ended are not.
//
//   zarip-test-load LIBRARY

#include <dlfcn.h>

#include <cstdio>
#include <thread>

namespace zarip::osa {
class Thread;
}

namespace {

using zarip::osa::Thread;
using Function = Thread*();
Function* g_threadPtr = nullptr;

void Load(const char* library) {
    if (void* const handle = ::dlopen(library, RTLD_NOW | RTLD_LOCAL)) {
        g_threadPtr =
            reinterpret_cast<Function*>(::dlsym(handle, "_ZN5zarip3osa6Thread13CurrentThread9ThreadPtrEv"));
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        return 2;
    }
    Thread* loading = nullptr;
    Thread* later = nullptr;
    std::thread([&] {
        Load(argv[1]);
        loading = g_threadPtr != nullptr ? g_threadPtr() : nullptr;
    }).join();
    if (loading == nullptr) {
        std::fprintf(stderr, "%s: cannot be loaded, or the loading thread has no object\n", argv[1]);
        return 1;
    }
    for (int i = 0; i < 100 && later == nullptr; ++i) {
        std::thread([&] { later = g_threadPtr(); }).join();
    }
    if (later != nullptr) {
        std::fputs("a thread that the library has not made has the object of the loading thread\n", stderr);
        return 1;
    }
    return 0;
}
