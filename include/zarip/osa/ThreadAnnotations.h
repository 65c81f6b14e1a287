// SPDX-License-Identifier: MIT

#pragma once

/// These attributes declare which lock guards what, so that clang checks it with -Wthread-safety. For other
/// compilers they are empty. Locking a recursive mutex again in a called function causes no warning.

#if defined(__clang__)
#define ZARIP_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define ZARIP_THREAD_ATTRIBUTE(x)
#endif

#define ZARIP_CAPABILITY(name) ZARIP_THREAD_ATTRIBUTE(capability(name))
#define ZARIP_SCOPED_CAPABILITY ZARIP_THREAD_ATTRIBUTE(scoped_lockable)
#define ZARIP_GUARDED_BY(lock) ZARIP_THREAD_ATTRIBUTE(guarded_by(lock))
#define ZARIP_PT_GUARDED_BY(lock) ZARIP_THREAD_ATTRIBUTE(pt_guarded_by(lock))
#define ZARIP_REQUIRES(...) ZARIP_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define ZARIP_ACQUIRE(...) ZARIP_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define ZARIP_RELEASE(...) ZARIP_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define ZARIP_TRY_ACQUIRE(...) ZARIP_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define ZARIP_NO_THREAD_SAFETY_ANALYSIS ZARIP_THREAD_ATTRIBUTE(no_thread_safety_analysis)
