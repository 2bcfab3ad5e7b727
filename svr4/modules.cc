// SPDX-License-Identifier: BSD-2-Clause
#include "svr4/modules.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

#include <climits>

#include <elf.h>
#include <link.h>
#include <sys/auxv.h>
#include <sys/mman.h>
#include <unistd.h>

#include "svr4/errno.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: modules.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace svr4 {

namespace {

constexpr size_t MostBytes = 1024 * 1024;
constexpr size_t Alignment = alignof(Module);

size_t PageSize() { return static_cast<size_t>(sysconf(_SC_PAGESIZE)); }

size_t RoundedUp(size_t size, size_t to) { return (size + to - 1) / to * to; }

// What the modules are noted in: memory of its own, which no damage of the heap reaches, and read-only when it is full.
struct Block {
    Block* earlier; // the one before, which a handler of another thread may be reading
    size_t size;
    unsigned long long additions, removals; // of modules, when this was made
    unsigned long count;
    Module* first;
    Module* last;
    size_t used;
};

// Gives `size` bytes, or null where they do not fit.
void* Take(Block* block, size_t size)
{
    const size_t rounded = RoundedUp(size, Alignment);
    if (rounded > block->size - block->used)
        return nullptr;
    void* place = reinterpret_cast<unsigned char*>(block) + block->used;
    block->used += rounded;
    return place;
}

Block* NewBlock()
{
    void* memory = mmap(nullptr, MostBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED)
        return nullptr;
    Block* block = new (memory) Block();
    block->size = MostBytes;
    block->used = RoundedUp(sizeof(Block), Alignment);
    return block;
}

void GiveBack(Block* block)
{
    if (block->size != 0)
        munmap(block, block->size);
}

// Leaves of the block what is used, read-only.
void Close(Block* block)
{
    const size_t kept = RoundedUp(block->used, PageSize());
    if (kept < block->size && munmap(reinterpret_cast<unsigned char*>(block) + kept, block->size - kept) == 0)
        block->size = kept;
    mprotect(block, block->size, PROT_READ);
}

// ---- One module ----

struct BuildId {
    const unsigned char* bytes;
    size_t length;
};

// Whether the loader has put the segment into readable memory.
bool IsLoaded(const struct dl_phdr_info& info, const ElfW(Phdr) & segment)
{
    for (int i = 0; i < info.dlpi_phnum; i++) {
        const ElfW(Phdr)& load = info.dlpi_phdr[i];
        if (load.p_type == PT_LOAD && (load.p_flags & PF_R) != 0 && segment.p_vaddr >= load.p_vaddr &&
            segment.p_vaddr - load.p_vaddr <= load.p_filesz &&
            segment.p_filesz <= load.p_filesz - (segment.p_vaddr - load.p_vaddr))
            return true;
    }
    return false;
}

// The build id among the notes of a segment: a head, the name, the value, each in words of four bytes.
BuildId FindBuildId(const unsigned char* notes, size_t length)
{
    while (length >= sizeof(ElfW(Nhdr))) {
        ElfW(Nhdr) note;
        memcpy(&note, notes, sizeof note);
        notes += sizeof note;
        length -= sizeof note;
        const size_t name = RoundedUp(note.n_namesz, 4);
        if (note.n_namesz > length || name > length || note.n_descsz > length - name)
            break;
        if (note.n_type == NT_GNU_BUILD_ID && note.n_namesz == sizeof ELF_NOTE_GNU &&
            memcmp(notes, ELF_NOTE_GNU, sizeof ELF_NOTE_GNU) == 0)
            return {notes + name, note.n_descsz};
        const size_t whole = name + RoundedUp(note.n_descsz, 4);
        if (whole > length)
            break;
        notes += whole;
        length -= whole;
    }
    return {nullptr, 0};
}

BuildId BuildIdOf(const struct dl_phdr_info& info)
{
    for (int i = 0; i < info.dlpi_phnum; i++) {
        const ElfW(Phdr)& segment = info.dlpi_phdr[i];
        if (segment.p_type != PT_NOTE || !IsLoaded(info, segment))
            continue;
        const auto* notes = reinterpret_cast<const unsigned char*>(info.dlpi_addr + segment.p_vaddr);
        const BuildId found = FindBuildId(notes, segment.p_filesz);
        if (found.length != 0)
            return found;
    }
    return {nullptr, 0};
}

// The path of a module; of the program where `name` is empty. `place` has room for PATH_MAX bytes.
const char* PathOf(const char* name, char* place)
{
    if (*name == '\0') {
        const ssize_t length = readlink("/proc/self/exe", place, PATH_MAX - 1);
        if (length >= 0) {
            place[length] = '\0';
            return place;
        }
        name = reinterpret_cast<const char*>(getauxval(AT_EXECFN)); // without /proc
        if (name == nullptr)
            return "";
    }
    return realpath(name, place) != nullptr ? place : name;
}

// From the first segment to the last, as the loader reserves them: they stand in the order of their addresses.
void FindBounds(const struct dl_phdr_info& info, Module* module)
{
    for (int i = 0; i < info.dlpi_phnum; i++) {
        const ElfW(Phdr)& load = info.dlpi_phdr[i];
        if (load.p_type != PT_LOAD)
            continue;
        const uintptr_t low = info.dlpi_addr + load.p_vaddr;
        if (module->high == 0)
            module->low = low;
        module->high = low + load.p_memsz;
    }
}

void Note(const struct dl_phdr_info& info, Block* block)
{
    char place[PATH_MAX];
    const char* path = PathOf(info.dlpi_name, place);
    const BuildId id = BuildIdOf(info);
    const size_t pathSize = strlen(path) + 1;
    Module found = {};
    FindBounds(info, &found);
    block->count++;
    void* memory = Take(block, sizeof(Module) + id.length + pathSize);
    if (memory == nullptr)
        return;
    Module* module = new (memory) Module(found);
    auto* const text = static_cast<unsigned char*>(memory) + sizeof(Module);
    if (id.length != 0)
        memcpy(text, id.bytes, id.length);
    memcpy(text + id.length, path, pathSize);
    module->bias = info.dlpi_addr;
    module->buildId = text;
    module->buildIdLength = id.length;
    module->path = reinterpret_cast<const char*>(text + id.length);
    if (block->last != nullptr)
        block->last->next = module;
    else
        block->first = module;
    block->last = module;
}

// ---- All modules ----

Block none = {&none, 0, 0, 0, 0, nullptr, nullptr, 0};
std::atomic<Block*> kept{&none};
std::atomic<pid_t> maker{0}; // the process in which a list is being made: a forked child may have another one's

int IsAsKept(struct dl_phdr_info* info, size_t, void*)
{
    const Block* block = kept;
    return block->additions == info->dlpi_adds && block->removals == info->dlpi_subs ? 1 : 2;
}

int NoteNext(struct dl_phdr_info* info, size_t, void* block)
{
    auto* const list = static_cast<Block*>(block);
    list->additions = info->dlpi_adds;
    list->removals = info->dlpi_subs;
    Note(*info, list);
    return 0;
}

} // namespace

void keep_modules()
{
    if (dl_iterate_phdr(IsAsKept, nullptr) == 1)
        return;
    const SavedErrno savedErrno;
    const pid_t self = getpid();
    pid_t other = maker;
    if (other == self || !maker.compare_exchange_strong(other, self))
        return;
    if (Block* block = NewBlock()) {
        dl_iterate_phdr(NoteNext, block);
        block->earlier = kept;
        Close(block);
        kept = block;
        // Its last mention is in memory that cannot be written any more, and is not followed again.
        GiveBack(block->earlier->earlier);
    }
    maker = 0;
}

ModuleList kept_modules()
{
    const Block* block = kept;
    return {block->first, block->count};
}

} // namespace svr4
