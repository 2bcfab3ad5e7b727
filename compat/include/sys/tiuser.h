/* SPDX-License-Identifier: BSD-2-Clause */
/* Where programs find <tiuser.h> too. */
#include <tiuser.h>
