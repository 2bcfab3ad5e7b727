// SPDX-License-Identifier: BSD-2-Clause
// The changes in a message of the engine. Attachments travel on their own, in pieces.
#ifndef FLEET_MESSAGE_H
#define FLEET_MESSAGE_H

#include <vector>

#include "examples/fault.h"

namespace fleet {

const unsigned PieceSize = 512 << 10; // bytes of an attachment in a message

/// Appends a change to `data`: an int, the bytes of its attachment, and the change without these, which are dropped.
void PackChange(FaultChange& change, Buffer& data);

/// Reads the changes of a message, without attachments, whose sizes they tell. False when it is not made of whole
/// changes with numbers that go up.
bool UnpackChanges(Buffer& data, std::vector<FaultChange>* changes);

} // namespace fleet

#endif
