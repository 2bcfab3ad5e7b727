// SPDX-License-Identifier: BSD-2-Clause
// Children that become another program at once.
#ifndef SVR4_SPAWN_H
#define SVR4_SPAWN_H

#include <cstddef>

namespace svr4 {

/// What a child of spawn() does. It shares the memory of its parent, which stands still meanwhile: both operations make
/// system calls, read what the parent has prepared and write into this object, but allocate nothing, take no lock and
/// change nothing else.
class Newborn {
public:
    /// Comes first, while all signals are held back. Returns 0, or the `errno` that says why there is to be no child.
    virtual int LeaveParent() = 0;
    /// Becomes another program, with the signals held back that the caller of spawn() does. When it returns instead the
    /// child ends with exit code 255.
    virtual void BecomeProgram() = 0;

protected:
    ~Newborn() = default;
};

/// Starts a child at a cost that does not grow with the size of its parent. The parent goes on when the child has become
/// another program or has ended, so that `child` may be on its stack. No handler of the parent ever runs in the child:
/// signals have their default there, or are ignored, before any can reach it. `arguments` is the number of arguments of
/// the program, for which execvp may need room. Returns the child's id, or -1 with `errno`; then there is no child, also
/// when LeaveParent has failed. `errno` is kept on success. The id is in `*pid`, where that is not null, before a handler of the parent can
/// run, so that one that ends the process knows of the child.
///
/// What stops the child before it is another program (SIGSTOP, a file system that does not answer) stops the parent too.
/// Unlike fork(2) this runs none of the handlers set by pthread_atfork(3).
long spawn(Newborn& child, std::size_t arguments, long* pid = nullptr);

} // namespace svr4

#endif
