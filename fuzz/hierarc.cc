// SPDX-License-Identifier: BSD-2-Clause
// HierarchicNum against a vector of levels.
#include <algorithm>
#include <vector>

#include "Misc/Hierarc.h"
#include "Misc/ZELstream.h"
#include "Misc/buffer.h"

#include "fuzz/fuzzing.h"

using fuzzing::Input;

namespace {

struct Model {
    std::vector<uint32_t> levels;
    bool valid = false;

    explicit Model(const std::string& text)
    {
        for (std::size_t at = 0;;) {
            std::size_t end = std::min(text.find_first_not_of("0123456789", at), text.size());
            if (end == at || (end < text.size() && text[end] != '.'))
                return;
            uint32_t level = 0;
            for (; at < end; at++)
                level = level * 10 + static_cast<uint32_t>(text[at] - '0');
            levels.push_back(level);
            if (end == text.size())
                break;
            at = end + 1;
        }
        valid = true;
    }
    std::string Text() const
    {
        std::string text;
        for (const uint32_t level : levels)
            text += (text.empty() ? "" : ".") + std::to_string(level);
        return text;
    }
    bool Begins(const Model& other) const
    {
        return levels.size() <= other.levels.size() && std::equal(levels.begin(), levels.end(), other.levels.begin());
    }
    int RelationTo(const Model& h) const
    {
        if (levels.empty() || h.levels.empty())
            return 0;
        const long d = static_cast<long>(levels.size()) - static_cast<long>(h.levels.size());
        if (d > 0 && h.Begins(*this))
            return d == 1 ? 3 : 1;
        if (d < 0 && Begins(h))
            return d == -1 ? 24 : 16;
        return d == 0 && Begins(h) ? 4 : 0;
    }
    int ComparedWith(const Model& h) const
    {
        for (std::size_t i = 0; i < std::min(levels.size(), h.levels.size()); i++)
            if (levels[i] != h.levels[i])
                return static_cast<int>(levels[i] - h.levels[i]);
        return static_cast<int>(levels.size()) - static_cast<int>(h.levels.size());
    }
};

void CheckEqual(const HierarchicNum& number, const Model& model)
{
    FUZZ_CHECK(static_cast<const char*>(number) == model.Text());
    FUZZ_CHECK(number.is_valid() == model.valid);
    FUZZ_CHECK(static_cast<std::size_t>(number.get_num_levels()) == model.levels.size());
    for (std::size_t i = 0; i < model.levels.size(); i++)
        FUZZ_CHECK(number.at_level(static_cast<int>(i)) == model.levels[i]);
    FUZZ_CHECK(number.at_level(-1) == 0 && number.at_level(static_cast<int>(model.levels.size())) == 0);
}

void CheckPair(const HierarchicNum& a, const Model& ma, const HierarchicNum& b, const Model& mb, short n)
{
    FUZZ_CHECK(a.compare_with(b) == ma.ComparedWith(mb));
    FUZZ_CHECK(a.relation(b) == ma.RelationTo(mb));
    const bool holds = n >= 1 && static_cast<std::size_t>(n) <= std::min(ma.levels.size(), mb.levels.size()) &&
                       std::equal(ma.levels.begin(), ma.levels.begin() + n, mb.levels.begin());
    FUZZ_CHECK(a.samePrefix(n, b) == holds);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    Input in(data, size);
    const short n = in.Small();
    const std::string first = in.Text();
    const std::string second = in.Flag() ? in.Text() : first + in.Text();
    HierarchicNum a(first.c_str());
    HierarchicNum b;
    b = second.c_str();
    Model ma(first), mb(second);
    CheckEqual(a, ma);
    CheckEqual(b, mb);
    CheckPair(a, ma, b, mb, n);
    CheckPair(b, mb, a, ma, n);

    Buffer buffer;
    {
        ZELostream out(buffer);
        out << a << b;
    }
    ZEListream stream(buffer);
    HierarchicNum back("1.2.3.4.5.6.7.8.9.10.11");
    stream >> back;
    CheckEqual(back, Model(ma.Text()));
    stream >> back;
    CheckEqual(back, Model(mb.Text()));

    while (!in.IsAtEnd()) {
        const unsigned operation = in.Below(4);
        if (operation == 0) {
            const unsigned long level = in.Number<unsigned long>();
            a.add_level(level);
            ma.levels.push_back(static_cast<uint32_t>(level));
        } else if (operation == 3) {
            a = b;
            ma = mb;
        } else {
            operation == 1 ? a.inc() : a.dec();
            if (!ma.levels.empty())
                ma.levels.back() += operation == 1 ? 1 : -1U;
        }
        CheckEqual(a, ma);
    }
    return 0;
}
