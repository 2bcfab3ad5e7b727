// The crash file.
#ifndef MISC_CRASH_CRASHFILE_H
#define MISC_CRASH_CRASHFILE_H

namespace zeloo {

/// Prepares the crash file for the report of `sig`: notices a program that crashes again and again, moves a large file
/// away, says on standard error where the report is, and writes its heading. What keeps it from doing so ends the
/// process. Usable in a handler.
void CheckLooping(int sig);

/// Appends to the file of the last CheckLooping what the process looks like: the stack dump and the object dump. A
/// fault in one of them ends that dump only; what else fails ends the process. For a handler of svr4::capture_signal.
void CaptureState(int sig);

} // namespace zeloo

#endif
