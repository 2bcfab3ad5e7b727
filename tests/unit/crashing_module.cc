// SPDX-License-Identifier: BSD-2-Clause
// A shared object that a program loads and that crashes.

extern "C" [[gnu::visibility("default"), gnu::noinline, gnu::used]] void CrashInModule(int* volatile where)
{
    *where = 1;
}
