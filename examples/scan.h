// SPDX-License-Identifier: BSD-2-Clause
// How the objects of the protocols are read from a stream that is not trusted: what is wrong is noted as a read error.
#ifndef EXAMPLES_SCAN_H
#define EXAMPLES_SCAN_H

#include <vector>

#include "Misc/FaultId.h"
#include "Misc/ZELstream.h"
#include "Misc/buffer.h"

/// Reads the name of a fault; what cannot be one (see IsFaultId) is an error.
void ScanId(ZEListream& in, FaultId& id);

/// Reads one number or text. A stream leaves its position alone when it cannot read one, and can move it one beyond
/// the end of a text that is cut short: both are errors.
template <class Value>
void Scan(ZEListream& in, Value& value)
{
    const unsigned start = in.tellg();
    in >> value;
    if (in.tellg() == start || in.eof())
        in.SetReadErrorFlag();
}

/// Reads objects behind their number.
template <class Object>
void ScanList(ZEListream& in, std::vector<Object>& list)
{
    int count = 0;
    Scan(in, count);
    list.clear();
    for (int i = 0; i < count && in.good(); i++) {
        list.emplace_back();
        list.back().scanFrom(in);
    }
}

/// Reads raw bytes. Their length, which the sender chose, is an error when they are not all there.
void ScanBytes(ZEListream& in, int length, Buffer& bytes);
void PrintBytes(ZELostream& out, const Buffer& bytes);

#endif
