// SPDX-License-Identifier: BSD-2-Clause
#include "svr4/modules.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <dlfcn.h>
#include <elf.h>
#include <link.h>
#include <sys/stat.h>
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

const svr4::ModuleList AtTheStart = svr4::kept_modules();

// The shared object as a file that a test may spoil.
class Image {
public:
    Image() : bytes(ReadFile(CRASHING_MODULE)) {}

    const std::string& Bytes() const { return bytes; }
    // The first segment of the type with the flag, or null.
    ElfW(Phdr) * Segment(unsigned type, unsigned flag = PF_R)
    {
        auto* header = reinterpret_cast<ElfW(Ehdr)*>(bytes.data());
        auto* segment = reinterpret_cast<ElfW(Phdr)*>(bytes.data() + header->e_phoff);
        for (unsigned i = 0; i < header->e_phnum; i++, segment++)
            if (segment->p_type == type && (segment->p_flags & flag) != 0)
                return segment;
        return nullptr;
    }
    ElfW(Phdr) & Notes() { return *Segment(PT_NOTE); }
    ElfW(Nhdr) & Note() { return *reinterpret_cast<ElfW(Nhdr)*>(bytes.data() + Notes().p_offset); }
    char* NameOfNote() { return reinterpret_cast<char*>(&Note() + 1); }
    void Append(size_t count) { bytes.append(count, '\0'); }

private:
    std::string bytes;
};

void* Load(const std::string& path)
{
    void* handle = dlopen(path.c_str(), RTLD_NOW);
    EXPECT_NE(handle, nullptr) << dlerror();
    return handle;
}

TEST(Modules, BeforeTheFirstCallThereAreNone)
{
    EXPECT_EQ(AtTheStart.first, nullptr);
    EXPECT_EQ(AtTheStart.count, 0u);
}

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

TEST(Modules, AModuleHasNoBuildIdWhereItsNotesHaveNone)
{
    const size_t head = sizeof(ElfW(Nhdr)), name = 4;
    const std::vector<std::pair<const char*, std::function<void(Image&)>>> cases = {
        {"no notes", [](Image& image) { image.Notes().p_type = PT_NULL; }},
        {"another note", [](Image& image) { image.Note().n_type = 1; }},
        {"another's note", [](Image& image) { image.NameOfNote()[2] = 'V'; }},
        {"a name of another length", [](Image& image) { image.Note().n_namesz = 3; }},
        {"an empty id", [](Image& image) { image.Note().n_descsz = 0; }},
        {"a name beyond the notes", [](Image& image) { image.Note().n_namesz = 0xFFFFFFFE; }},
        {"a name whose padding is beyond them",
         [=](Image& image) {
             image.Notes().p_filesz = head + name + 1;
             image.Note().n_namesz = name + 1;
         }},
        {"an id beyond them", [](Image& image) { image.Note().n_descsz += 1; }},
        {"another note whose padding is beyond them",
         [=](Image& image) {
             image.Notes().p_filesz = head + name + 19;
             image.Note().n_descsz = 19;
             image.Note().n_type = 1;
         }},
        {"notes that are not loaded", [](Image& image) { image.Notes().p_vaddr += 0x10000000; }},
        {"notes beyond what is loaded",
         [](Image& image) {
             image.Notes().p_filesz = image.Segment(PT_LOAD)->p_filesz;
             image.Append(image.Notes().p_filesz);
         }},
        {"notes that cannot be read",
         [](Image& image) {
             ElfW(Phdr)* const code = image.Segment(PT_LOAD, PF_X);
             if (code == image.Segment(PT_LOAD)) // one segment for all
                 image.Notes().p_type = PT_NULL;
             else
                 code->p_flags = PF_X;
             image.Notes().p_vaddr = code->p_vaddr;
         }},
    };
    const TemporaryDirectory directory;
    for (const auto& [what, spoil] : cases) {
        Image image;
        ASSERT_EQ(image.Note().n_descsz, 20u);
        image.Notes().p_align = 1; // the loader of a 32-bit host would read notes of an address's alignment itself
        spoil(image);
        const std::string path = directory.File(what);
        WriteFile(path, image.Bytes());
        void* handle = Load(path);
        ASSERT_NE(handle, nullptr) << what;
        svr4::keep_modules();
        const svr4::Module* module = Holding(dlsym(handle, "CrashInModule"));
        ASSERT_NE(module, nullptr) << what;
        EXPECT_EQ(module->buildIdLength, 0u) << what;
        EXPECT_EQ(module->path, RealPath(path));
        dlclose(handle);
    }
}

TEST(Modules, OfThoseThatDoNotFitTheNumberIsKept)
{
    const TemporaryDirectory directory;
    std::string deep = directory.Path();
    while (deep.size() < 3700) {
        deep += "/" + std::string(200, 'd');
        ASSERT_EQ(mkdir(deep.c_str(), 0755), 0);
    }
    const Image image;
    const unsigned long number = 300;
    for (unsigned long i = 0; i < number; i++)
        WriteFile(deep + "/" + std::to_string(i), image.Bytes());
    const ChildResult result = RunInChild([&] {
        svr4::keep_modules();
        const unsigned long before = svr4::kept_modules().count;
        for (unsigned long i = 0; i < number; i++)
            CHILD_CHECK(dlopen((deep + "/" + std::to_string(i)).c_str(), RTLD_NOW) != nullptr);
        svr4::keep_modules();
        unsigned long listed = 0;
        for (const svr4::Module* module = svr4::kept_modules().first; module != nullptr; module = module->next)
            CHILD_CHECK(listed++ < before || std::string(module->path).compare(0, deep.size(), deep) == 0);
        CHILD_CHECK(svr4::kept_modules().count == before + number);
        CHILD_CHECK(listed > before + 200 && listed < before + number);
    });
    EXPECT_EQ(result.exitCode, 0) << result.err;
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

TEST(Modules, AListIsWholeWhereTheHostTakesNoMemoryBack)
{
    const ChildResult result = RunInChild([] {
        void* handle = dlopen(CRASHING_MODULE, RTLD_NOW);
        CHILD_CHECK(handle != nullptr);
        MakeCallsFail({SYS_munmap}, ENOMEM);
        svr4::keep_modules();
        CHILD_CHECK(Holding(dlsym(handle, "CrashInModule")) != nullptr);
    });
    if (result.exitCode == NotPossibleHere)
        GTEST_SKIP() << "no way to refuse system calls here";
    EXPECT_EQ(result.exitCode, 0) << result.err;
}

} // namespace
