// SPDX-License-Identifier: MIT

#pragma once

/// Marks what the library exports. Everything else is hidden inside it.
#define ZARIP_EXPORT __attribute__((visibility("default")))

/// Hides a class that is nested in an exported one.
#define ZARIP_HIDDEN __attribute__((visibility("hidden")))

/// Has the compiler check a printf-style format (parameter number `text`) against the arguments from `first`
/// on; `first` is 0 if the arguments come as a va_list. Both count from 1, and a member function's `this` is
/// number 1.
#define ZARIP_PRINTF(text, first) __attribute__((format(printf, text, first)))
