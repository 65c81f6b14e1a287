// SPDX-License-Identifier: MIT

// A program that is not linked with the library: loads it, uses it and lets go of it, a hundred times.
//
//   zarip-reliability-load LIBRARY

#include <dlfcn.h>

#include <cstdio>

int main(int argc, char** argv) {
    for (int i = 0; argc == 2 && i < 100; ++i) {
        void* const library = ::dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
        void* const function = library != nullptr
                                   ? ::dlsym(library, "_ZN5zarip3osa6Thread13CurrentThread9ThreadPtrEv")
                                   : nullptr;
        if (function == nullptr || reinterpret_cast<void* (*)()>(function)() == nullptr ||
            ::dlclose(library) != 0) {
            std::fprintf(stderr, "%s\n", ::dlerror());
            return 1;
        }
    }
    return argc == 2 ? 0 : 2;
}
