// SPDX-License-Identifier: BSD-2-Clause
// Functions of a program that have the very names of public ones of the shared library. The program's own calls reach
// them; the library's must not, nor may any of these run in its tests.
#include <cstdio>
#include <cstdlib>

#include <gtest/gtest.h>

#include "Misc/ipcq.h"
#include "Misc/misc.h"

[[noreturn]] static void Taken(const char* name)
{
    std::fprintf(stderr, "the library called %s of the program\n", name);
    std::_Exit(9);
}

short process_exists(long pid)
{
    if (pid == -5)
        return 55;
    Taken("process_exists");
}

int ftok_orvm(const char*) { Taken("ftok_orvm"); }

const char* GetQueueErrorMsg(int) { Taken("GetQueueErrorMsg"); }

int create_queue(const char*, long) { Taken("create_queue"); }

int connect_to_queue(const char*, short, long*, long) { Taken("connect_to_queue"); }

short is_a_live_server_process(int, long) { Taken("is_a_live_server_process"); }

void delete_q_and_semaphore(int) { Taken("delete_q_and_semaphore"); }

short ipc_send(int, long, IPCQMessage*, long, long) { Taken("ipc_send"); }

short ipc_recv(int, long, IPCQMessage*, long, long) { Taken("ipc_recv"); }

void CheckNodesFile() { Taken("CheckNodesFile"); }

TEST(InterferenceOfPublicNames, TheProgramCallsItsOwn) { EXPECT_EQ(process_exists(-5), 55); }
