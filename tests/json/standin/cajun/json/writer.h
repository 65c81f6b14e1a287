// SPDX-License-Identifier: MIT

#pragma once

#include "../../../../../compat/cajun/json/writer.h"
#include "elements.h"
