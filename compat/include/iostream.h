/* SPDX-License-Identifier: BSD-2-Clause */
/* The stream header of C++ before its standard: what <iostream> has, at global level. */
#ifndef ZELOO_SVR4_IOSTREAM_H
#define ZELOO_SVR4_IOSTREAM_H

#include <iostream>

using std::cerr;
using std::cin;
using std::clog;
using std::cout;
using std::dec;
using std::endl;
using std::ends;
using std::flush;
using std::hex;
using std::ios;
using std::iostream;
using std::istream;
using std::oct;
using std::ostream;
using std::streambuf;
using std::streamoff;
using std::streampos;
using std::ws;

#endif
