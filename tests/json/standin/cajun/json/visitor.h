// SPDX-License-Identifier: MIT

#pragma once

#ifndef ZARIP_STANDIN_ELEMENTS
#error "visitor.h needs elements.h before it"
#endif
