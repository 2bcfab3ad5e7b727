// SPDX-License-Identifier: BSD-2-Clause
#include "svr4/modules.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string>

#include <dlfcn.h>
#include <sys/syscall.h>

#include <gtest/gtest.h>

#include "tests/support/testing.h"

using namespace testing_support;

namespace {

std::string RealPath(const std::string& path)
{
    char* real = realpath(path.c_str(), nullptr);
    std::string result = real != nullptr ? real : "";
    free(real);
    return result;
}

// The module that holds an address.
const svr4::Module* Holding(const void* address)
{
    const auto at = reinterpret_cast<uintptr_t>(address);
    for (const svr4::Module* module = svr4::kept_modules().first; module != nullptr; module = module->next)
        if (module->low <= at && at < module->high)
            return module;
    return nullptr;
}

void Function() {}

TEST(Modules, TheProgramIsTheFirstAndTheSharedObjectsFollow)
{
    svr4::keep_modules();
    const svr4::ModuleList modules = svr4::kept_modules();
    ASSERT_GE(modules.count, 2u);
    EXPECT_EQ(modules.first, Holding(reinterpret_cast<const void*>(Function)));
    EXPECT_EQ(modules.first->path, RealPath("/proc/self/exe"));
    const svr4::Module* libc = Holding(reinterpret_cast<const void*>(qsort));
    ASSERT_NE(libc, nullptr);
    EXPECT_EQ(libc->path, RealPath(libc->path)) << "absolute, and no link";
    unsigned long number = 0;
    for (const svr4::Module* module = modules.first; module != nullptr; module = module->next)
        number++;
    EXPECT_EQ(number, modules.count);
}

TEST(Modules, WhatIsLoadedAndUnloadedIsNotedByTheNextCall)
{
    svr4::keep_modules();
    const svr4::Module* const before = svr4::kept_modules().first;
    svr4::keep_modules();
    EXPECT_EQ(svr4::kept_modules().first, before) << "the same list";
    for (int i = 0; i < 20; i++) {
        void* handle = dlopen(CRASHING_MODULE, RTLD_NOW);
        ASSERT_NE(handle, nullptr);
        const void* function = dlsym(handle, "CrashInModule");
        EXPECT_EQ(Holding(function), nullptr);
        svr4::keep_modules();
        const svr4::Module* module = Holding(function);
        ASSERT_NE(module, nullptr);
        EXPECT_EQ(module->path, RealPath(CRASHING_MODULE));
        EXPECT_EQ(module->buildIdLength, 20u);
        dlclose(handle);
        svr4::keep_modules();
        EXPECT_EQ(Holding(function), nullptr);
    }
}

TEST(Modules, ListsThatAreReplacedAreGivenBack)
{
    const auto pages = [] {
        const std::string text = ReadFile("/proc/self/statm");
        return std::stol(text);
    };
    long first = 0;
    for (int i = 0; i < 100; i++) {
        void* handle = dlopen(CRASHING_MODULE, RTLD_NOW);
        svr4::keep_modules();
        dlclose(handle);
        svr4::keep_modules();
        if (i == 10)
            first = pages();
    }
    EXPECT_LT(pages(), first + 20);
}

TEST(Modules, AListCannotBeChanged)
{
    const ChildResult result = RunInChild([] {
        svr4::keep_modules();
        signal(SIGSEGV, SIG_DFL);
        const_cast<svr4::Module*>(svr4::kept_modules().first)->low = 0;
    });
    EXPECT_NE(result.signal + (result.exitCode > 0), 0);
}

TEST(Modules, TheProgramHasItsPathWhereTheHostDoesNotShowIt)
{
    const ChildResult result = RunInChild([] {
        CHILD_CHECK(dlopen(CRASHING_MODULE, RTLD_NOW) != nullptr); // so that a list is made
#ifdef SYS_readlink
        MakeCallsFail({SYS_readlink, SYS_readlinkat}, ENOENT);
#else
        MakeCallsFail({SYS_readlinkat}, ENOENT);
#endif
        svr4::keep_modules();
        const std::string path = svr4::kept_modules().first->path, name = "modules_test";
        CHILD_CHECK(path.size() > name.size() && path.substr(path.size() - name.size()) == name);
    });
    if (result.exitCode == NotPossibleHere)
        GTEST_SKIP() << "no way to refuse system calls here";
    EXPECT_EQ(result.exitCode, 0) << result.err;
}

TEST(Modules, WithoutMemoryTheEarlierListStays)
{
    const ChildResult result = RunInChild([] {
        svr4::keep_modules();
        const svr4::Module* const before = svr4::kept_modules().first;
        void* handle = dlopen(CRASHING_MODULE, RTLD_NOW);
        CHILD_CHECK(handle != nullptr);
#ifdef SYS_mmap2
        MakeCallsFail({SYS_mmap2}, ENOMEM);
#else
        MakeCallsFail({SYS_mmap}, ENOMEM);
#endif
        svr4::keep_modules();
        CHILD_CHECK(svr4::kept_modules().first == before);
    });
    if (result.exitCode == NotPossibleHere)
        GTEST_SKIP() << "no way to refuse system calls here";
    EXPECT_EQ(result.exitCode, 0) << result.err;
}

} // namespace
