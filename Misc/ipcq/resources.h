// What the kernel objects of a queue have in common.
#ifndef MISC_IPCQ_RESOURCES_H
#define MISC_IPCQ_RESOURCES_H

namespace zeloo {

/// The permissions of queues, semaphore sets and segments.
constexpr int AccessMode = 0660;

} // namespace zeloo

#endif
