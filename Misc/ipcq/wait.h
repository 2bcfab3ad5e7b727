// Sending and receiving single messages: tries without waiting first, then waits, watches the peer and counts the time.
#ifndef MISC_IPCQ_WAIT_H
#define MISC_IPCQ_WAIT_H

#include "Misc/ipcq/message.h"

namespace zeloo {

// A `waiter` saves its own mail again and again while it waits: what arrives after it began to wait may be just what
// fills the queue, and two processes that send to each other would wait for each other until their limits. It must not
// wait on the channel of its own mail. Null: nobody's mail is saved.

/// ipc_send of a message that lies in a svr4::MessageArea, on the channel that its type names. Does not look at the peer
/// before the first try.
short SendMessage(int queue, IPCQMessage* message, long checkPID, long maxTimeToWait, IPCQBase* waiter);

/// ipc_recv in place. Messages that do not meet `check` are dropped, and give nobody more time.
short ReceiveMessage(int queue, long channel, ReceivedMessage& message, MessageCheck check, long checkPID,
                     long maxTimeToWait, IPCQBase* waiter);

} // namespace zeloo

#endif
