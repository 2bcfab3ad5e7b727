/* SPDX-License-Identifier: BSD-2-Clause */
/* The manipulators of C++ before its standard: what <iomanip> has, at global level. */
#ifndef ZELOO_SVR4_IOMANIP_H
#define ZELOO_SVR4_IOMANIP_H

#include <iomanip>

#include "iostream.h"

using std::resetiosflags;
using std::setbase;
using std::setfill;
using std::setiosflags;
using std::setprecision;
using std::setw;

#endif
