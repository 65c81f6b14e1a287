// SPDX-License-Identifier: MIT

#pragma once

// Headers that behave as those of an installed CAJUN do where that differs from ours. These bring the names
// of the element model, but not the visitors unless they come first.
#define ZARIP_STANDIN_ELEMENTS
#include "../../../../../compat/cajun/json/elements.h"
