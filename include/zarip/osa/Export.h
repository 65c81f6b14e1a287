// SPDX-License-Identifier: MIT

#pragma once

/// Marks what the library exports. Everything else is hidden.
#define ZARIP_EXPORT __attribute__((visibility("default")))

/// Hides a class that is nested in an exported one.
#define ZARIP_HIDDEN __attribute__((visibility("hidden")))

/// Lets the compiler check a printf-style format (parameter number `text`) against the arguments from number
/// `first` on. If the arguments come as a va_list, `first` is 0. Numbers count from 1, and the `this` of a
/// member function is number 1.
#define ZARIP_PRINTF(text, first) __attribute__((format(printf, text, first)))
