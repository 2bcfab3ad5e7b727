// SPDX-License-Identifier: BSD-2-Clause
// Sorts and searches with a typed and with an untyped comparison. It is linked to nothing but the arrays.
#include "Misc/Error/report.h"
#include "Misc/SafeArray.h"

void zeloo::Report(short, short, int, const char*, long, const char*, ...) {}

template <>
const char* SafeArray<int>::ElementName()
{
    return "int";
}

static int Typed(const int** a, const int** b) { return **a - **b; }

static int Untyped(const void* a, const void* b)
{
    return **static_cast<const int* const*>(a) - **static_cast<const int* const*>(b);
}

int main()
{
    SafeArray<int> array;
    for (int i = 0; i < 20; i++)
        array.AddItem(new int(i * 7 % 20));
    const int key = 5;
    array.qsort(Untyped);
    array.qsort(Typed);
    const bool isFound = array.bsearch(&key, Typed) == array[5] && array.lfind(&key, Typed) == array[5] &&
                         array.search(&key, Typed) == array[5] && array.bsearch(&key, Untyped) == array[5];
    return isFound ? 0 : 1;
}
