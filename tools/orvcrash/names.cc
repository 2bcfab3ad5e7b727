// SPDX-License-Identifier: BSD-2-Clause
#include "names.h"

#include <algorithm>
#include <utility>

#include <sys/stat.h>

#include "command.h"
#include "text.h"

namespace orvcrash {

static const size_t AddressesAtOnce = 500; // on a command line

static bool IsFile(const std::string& path)
{
    struct stat status;
    return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

// The build id of a file; empty when it has none.
static std::string BuildIdOf(const std::string& path)
{
    std::string output, id;
    if (!Run({"readelf", "-n", "-W", path}, &output))
        return "";
    ForEachLine(output, [&](std::string_view line) {
        static const std::string_view label = "Build ID: ";
        const size_t at = line.find(label);
        if (id.empty() && at != std::string_view::npos)
            id = line.substr(at + label.size());
    });
    return id;
}

// ---- What the programs say ----

// Reads "FILE:LINE", behind which there may be " (discriminator N)"; "??:0" and "??:?" when nothing is known.
static void ReadLine(std::string_view text, Place* place)
{
    text = text.substr(0, text.find(" (discriminator "));
    const size_t colon = text.rfind(':');
    if (colon == std::string_view::npos || text.substr(0, colon) == "??")
        return;
    place->file = text.substr(0, colon);
    if (!ReadDecimal(text.substr(colon + 1), &place->line))
        place->line = 0;
}

// Reads the answers of addr2line: for each address a line "0x...", then two lines for each function.
static void ReadPlaces(std::string_view output, std::map<uint64_t, std::vector<Place>>* found)
{
    std::vector<Place>* places = nullptr;
    bool isLine = false;
    ForEachLine(output, [&](std::string_view line) {
        std::string_view digits = line;
        uint64_t address;
        if (!isLine && TakePrefix(digits, "0x") && ReadHex(digits, &address)) {
            places = &(*found)[address];
        } else if (places != nullptr && !isLine) {
            places->emplace_back();
            if (line != "??")
                places->back().function = line;
            isLine = true;
        } else if (places != nullptr) {
            ReadLine(line, &places->back());
            isLine = false;
        }
    });
}

static void AskAddr2line(const std::string& file, const std::vector<uint64_t>& offsets,
                         std::map<uint64_t, std::vector<Place>>* found)
{
    for (size_t from = 0; from < offsets.size(); from += AddressesAtOnce) {
        std::vector<std::string> arguments = {"addr2line", "-a", "-f", "-i", "-C", "-e", file};
        for (size_t i = from; i < std::min(from + AddressesAtOnce, offsets.size()); i++)
            arguments.push_back("0x" + Hex(offsets[i]));
        std::string output;
        if (Run(arguments, &output))
            ReadPlaces(output, found);
    }
}

namespace {

struct Symbol {
    uint64_t from, size;
    std::string name;
};

} // namespace

// Adds the functions that nm lists with these options.
static void ReadSymbols(const std::vector<std::string>& arguments, std::vector<Symbol>* symbols)
{
    std::string output;
    if (!Run(arguments, &output))
        return;
    ForEachLine(output, [&](std::string_view line) {
        std::string_view from, size, type;
        Symbol symbol;
        if (TakeUntil(line, " ", &from) && TakeUntil(line, " ", &size) && TakeUntil(line, " ", &type) &&
            ReadHex(from, &symbol.from) && ReadHex(size, &symbol.size) &&
            std::string_view("TtWwi").find(type) != std::string_view::npos) {
            symbol.name = line;
            symbols->push_back(std::move(symbol));
        }
    });
}

// The functions of a file by address. Stripped, it has the dynamic ones still.
static std::vector<Symbol> SymbolsOf(const std::string& file)
{
    std::vector<Symbol> symbols;
    ReadSymbols({"nm", "-S", "-C", "--defined-only", file}, &symbols);
    ReadSymbols({"nm", "-D", "-S", "-C", "--defined-only", file}, &symbols);
    std::stable_sort(symbols.begin(), symbols.end(), [](const Symbol& a, const Symbol& b) { return a.from < b.from; });
    return symbols;
}

// Names the addresses that addr2line knows no line of. Its names for them are not used: they are those of the nearest
// function before, whether that is so long or not.
static void AskNm(const std::string& file, const std::vector<uint64_t>& offsets,
                  std::map<uint64_t, std::vector<Place>>* found)
{
    const std::vector<Symbol> symbols = SymbolsOf(file);
    for (const uint64_t offset : offsets) {
        (*found)[offset].clear();
        const auto behind = std::upper_bound(symbols.begin(), symbols.end(), offset,
                                             [](uint64_t at, const Symbol& symbol) { return at < symbol.from; });
        if (behind == symbols.begin())
            continue;
        const Symbol& symbol = *std::prev(behind);
        if (offset - symbol.from >= symbol.size)
            continue;
        Place place;
        place.function = symbol.name.substr(0, symbol.name.find("@@")); // without its version
        (*found)[offset] = {place};
    }
}

// ---- Names ----

Names::Names(const std::vector<Module>& modules_p, std::string root_p)
    : modules(modules_p), root(std::move(root_p)), sources(modules_p.size()), found(modules_p.size())
{
    for (const char* program : {"addr2line", "readelf", "nm"})
        if (problem.empty() && !HasProgram(program))
            problem = std::string("no names: ") + program + " (binutils) is not here";
}

long Names::ModuleOf(uint64_t address) const
{
    for (size_t i = 0; i < modules.size(); i++)
        if (modules[i].low <= address && address < modules[i].high)
            return static_cast<long>(i);
    return -1;
}

// Whether `path` is the file of the module. Without a build id only its path tells.
bool Names::IsFileOf(const Module& module, const std::string& path, bool needsId, Source* source) const
{
    if (!IsFile(path) || (needsId && module.buildId.empty()))
        return false;
    const std::string id = BuildIdOf(path);
    if (id == module.buildId)
        return true;
    const auto shown = [](const std::string& buildId) { return buildId.empty() ? "missing" : buildId.c_str(); };
    source->problem =
        path + " is another one, and is not used: its build id is " + shown(id) + ", not " + shown(module.buildId);
    return false;
}

// The file with the names of a module, or an empty text.
std::string Names::FindFile(const Module& module, Source* source) const
{
    const std::string_view deleted = " (deleted)"; // how the host names a program that has been replaced
    std::string path = module.path;
    if (path.size() > deleted.size() && path.compare(path.size() - deleted.size(), deleted.size(), deleted) == 0)
        path.resize(path.size() - deleted.size());
    if (module.buildId.size() > 2) {
        std::string debug = root + "/usr/lib/debug/.build-id/" + module.buildId.substr(0, 2) + "/" +
                            module.buildId.substr(2) + ".debug";
        if (IsFileOf(module, debug, true, source))
            return debug;
    }
    if (path.empty() || path[0] != '/') { // what the kernel gives a process has no file
        source->problem = "no file";
        return "";
    }
    if (IsFileOf(module, root + path, false, source))
        return root + path;
    std::string beside = root + path.substr(path.rfind('/'));
    if (!root.empty() && IsFileOf(module, beside, true, source))
        return beside;
    if (source->problem.empty())
        source->problem = root + path + " is not there";
    return "";
}

void Names::FindIn(size_t module, const std::vector<uint64_t>& offsets)
{
    Source& source = sources[module];
    source.used = FindFile(modules[module], &source);
    if (source.used.empty())
        return;
    source.problem.clear(); // of what was tried before
    AskAddr2line(source.used, offsets, &found[module]);
    std::vector<uint64_t> lineless;
    for (const uint64_t offset : offsets) {
        const auto at = found[module].find(offset);
        if (at == found[module].end() || at->second.empty() || at->second[0].file.empty())
            lineless.push_back(offset);
    }
    if (!lineless.empty())
        AskNm(source.used, lineless, &found[module]);
}

void Names::Find(const std::vector<uint64_t>& addresses)
{
    std::vector<std::vector<uint64_t>> offsets(modules.size());
    for (const uint64_t address : addresses)
        if (const long module = ModuleOf(address); module >= 0)
            offsets[module].push_back(address - modules[module].bias);
    for (size_t i = 0; i < modules.size() && problem.empty(); i++) {
        std::sort(offsets[i].begin(), offsets[i].end());
        offsets[i].erase(std::unique(offsets[i].begin(), offsets[i].end()), offsets[i].end());
        if (!offsets[i].empty())
            FindIn(i, offsets[i]);
    }
}

Name Names::Of(uint64_t address) const
{
    Name name;
    name.module = ModuleOf(address);
    if (name.module < 0)
        return name;
    name.offset = address - modules[name.module].bias;
    const auto at = found[name.module].find(name.offset);
    if (at == found[name.module].end())
        return name;
    for (const Place& place : at->second)
        if (!place.function.empty() || !place.file.empty())
            name.places.push_back(place);
    return name;
}

} // namespace orvcrash
