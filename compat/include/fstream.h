/* SPDX-License-Identifier: BSD-2-Clause */
/* The file streams of C++ before its standard: what <fstream> has, at global level. */
#ifndef ZELOO_SVR4_FSTREAM_H
#define ZELOO_SVR4_FSTREAM_H

#include <fstream>

#include "iostream.h"

using std::filebuf;
using std::fstream;
using std::ifstream;
using std::ofstream;

#endif
