// SPDX-License-Identifier: BSD-2-Clause
// The names behind the addresses of a report.
#ifndef TOOLS_ORVCRASH_NAMES_H
#define TOOLS_ORVCRASH_NAMES_H

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "modules.h"

namespace orvcrash {

/// Where an address is in the source. What is not known is empty, or 0.
struct Place {
    std::string function, file;
    long line = 0;
};

/// What is known of an address.
struct Name {
    long module = -1;          // its number in the map, or -1
    uint64_t offset = 0;       // in the module: the address by which its file knows it
    std::vector<Place> places; // the innermost function first; those behind it are functions that it is inlined in
};

/// The files of a report's modules, and what they say. Only a file with the module's build id is asked: another one would
/// give wrong names. The debug file below /usr/lib/debug/.build-id comes first, then the module itself, then with a root
/// given a file of its name in that directory. They are read by addr2line, readelf and nm (binutils).
class Names {
public:
    /// The modules must live as long. `root`, which may be empty, stands before all paths.
    Names(const std::vector<Module>& modules_p, std::string root_p);

    /// Looks the names of these addresses up, for Of. To be called once.
    void Find(const std::vector<uint64_t>& addresses);
    /// What Find has found.
    Name Of(uint64_t address) const;

    /// What was found of a module's file: the path of what was used, or why there is none. Both are empty while nobody has
    /// asked for an address of the module.
    struct Source {
        std::string used;
        std::string problem;
    };
    const Source& SourceOf(size_t module) const { return sources[module]; }
    /// What keeps all names from being found, or an empty text.
    const std::string& Problem() const { return problem; }

private:
    using Places = std::map<uint64_t, std::vector<Place>>;
    long ModuleOf(uint64_t address) const;
    void FindIn(size_t module, const std::vector<uint64_t>& offsets);
    bool IsFileOf(const Module& module, const std::string& path, bool needsId, Source* source) const;
    std::string FindFile(const Module& module, Source* source) const;

    const std::vector<Module>& modules;
    const std::string root;
    std::string problem;
    std::vector<Source> sources;
    std::vector<Places> found; // by offset, for each module
};

} // namespace orvcrash

#endif
