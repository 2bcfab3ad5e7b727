// SPDX-License-Identifier: BSD-2-Clause
// SafeArray and its iterators against std::vector, with elements that are counted.
#include <algorithm>
#include <set>
#include <vector>

#include "Misc/CstrArray.h"
#include "Misc/ularray.h"

#include "fuzz/fuzzing.h"

using fuzzing::Input;

namespace {

const unsigned Ceiling = 256000;

// An element that is known while it lives.
class Element : public CString {
public:
    explicit Element(const char* text) : CString(text) { Alive().insert(this); }
    ~Element() override { Alive().erase(this); }
    static std::set<const CString*>& Alive()
    {
        static std::set<const CString*> alive;
        return alive;
    }
};

struct Model {
    std::vector<CString*> elements;
    unsigned capacity = 0;

    // Makes room for one more.
    void Grow()
    {
        if (elements.size() == capacity)
            capacity += capacity == 0 ? 32 : capacity;
    }
    void Expand(int delta)
    {
        if (delta == 0)
            return;
        capacity = std::min(capacity + static_cast<unsigned>(delta), Ceiling);
        capacity = std::max(capacity, static_cast<unsigned>(elements.size()));
    }
};

bool IsBefore(const CString* a, const CString* b) { return CString::compare(&a, &b) < 0; }

// A walk as it is described: at an element, or off one of the ends.
struct Walk {
    const std::vector<CString*>& elements;
    std::size_t index = 0;
    int off = 0; // 1 or -1 beyond an end

    CString* Current() const { return off != 0 || elements.empty() ? nullptr : elements[index]; }
    void Next()
    {
        if (off < 0) {
            index = 0;
            off = 0;
        } else if (off == 0) {
            if (!elements.empty() && index < elements.size() - 1)
                index++;
            else
                off = 1;
        }
    }
    void Previous()
    {
        if (off > 0) {
            index = elements.empty() ? 0 : elements.size() - 1;
            off = 0;
        } else if (off == 0) {
            if (!elements.empty() && index > 0)
                index--;
            else
                off = -1;
        }
    }
};

class Machine {
public:
    explicit Machine(unsigned capacity) : array(capacity) { model.capacity = capacity; }
    ~Machine() { ForgetUnowned(); }
    void Step(Input& in);
    void CheckAll();
    void CheckCopy() const;
    void CheckWalk(Input& in);

private:
    void Add(Input& in, unsigned where);
    void Remove(std::size_t at);
    void Expand(Input& in);
    void Search(Input& in);
    void ForgetUnowned();

    CStringSafeArray array;
    Model model;
    std::vector<CString*> unowned; // dropped by the array and not deleted
};

// The dropped ones, and what the array would leave.
void Machine::ForgetUnowned()
{
    for (CString* each : unowned)
        delete each;
    unowned.clear();
    array.SetPurgeMode(0);
}

void Machine::Add(Input& in, unsigned where)
{
    CString* element = new Element(in.Text().c_str());
    if (where > model.elements.size())
        where = static_cast<unsigned>(model.elements.size());
    switch (in.Below(5)) {
    case 0:
        array.AddItem(element);
        where = static_cast<unsigned>(model.elements.size());
        break;
    case 1:
        array.AddItem(*element);
        where = static_cast<unsigned>(model.elements.size());
        break;
    case 2:
        if (where == 0)
            array.InsertPtr(nullptr, element);
        else
            array.InsertPtr(model.elements[where - 1], element);
        break;
    case 3: array.InsertItem(where, *element); break;
    default: array.InsertItem(where, element);
    }
    model.Grow();
    model.elements.insert(model.elements.begin() + where, element);
}

void Machine::Remove(std::size_t at)
{
    if (array.pf() != 0)
        unowned.push_back(model.elements[at]);
    model.elements.erase(model.elements.begin() + static_cast<long>(at));
}

void Machine::Expand(Input& in)
{
    const bool isAny = in.Below(16) == 0;
    const int delta = isAny ? in.Number<int>() : in.Small();
    array.Expand(delta);
    model.Expand(delta);
    FUZZ_CHECK(array.Capacity() == model.capacity);
    if (!isAny)
        return;
    array.ShrinkToFit(); // a large one makes all that follows slow
    model.capacity = static_cast<unsigned>(model.elements.size());
}

void Machine::Search(Input& in)
{
    const CString key(in.Text().c_str());
    const auto equal = [&](const CString* each) { return std::strcmp(*each, key) == 0; };
    const auto first = std::find_if(model.elements.begin(), model.elements.end(), equal);
    CString* found = first != model.elements.end() ? *first : nullptr;
    FUZZ_CHECK(array.lfind(&key, CString::compare) == found);
    if (array.Quantity() < 16)
        FUZZ_CHECK(array.search(&key, CString::compare) == found);
    else if (std::is_sorted(model.elements.begin(), model.elements.end(), IsBefore))
        for (CString* each : {array.bsearch(&key, CString::compare), array.search(&key, CString::compare)})
            FUZZ_CHECK(each == nullptr ? found == nullptr : equal(each));
}

void Machine::Step(Input& in)
{
    const std::size_t at = model.elements.empty() ? 0 : in.Byte() % model.elements.size();
    switch (in.Below(12)) {
    case 0:
    case 1:
    case 2: Add(in, static_cast<unsigned>(at) + in.Below(2)); break;
    case 3:
        if (!model.elements.empty()) {
            array.RemoveAt(static_cast<unsigned>(at));
            Remove(at);
        }
        break;
    case 4:
        if (!model.elements.empty()) {
            array.RemovePtr(model.elements[at]);
            Remove(at);
        }
        break;
    case 5:
        array.DeleteAllItems();
        if (array.pf() != 1)
            model.elements.clear();
        break;
    case 6: Expand(in); break;
    case 7:
        array.ShrinkToFit();
        model.capacity = static_cast<unsigned>(model.elements.size());
        break;
    case 8:
        array.reverse();
        std::reverse(model.elements.begin(), model.elements.end());
        break;
    case 9:
        array.qsort(CString::compare);
        std::sort(model.elements.begin(), model.elements.end(), IsBefore);
        for (std::size_t i = 0; i < model.elements.size(); i++) { // equal texts may stand in any order
            FUZZ_CHECK(std::strcmp(*array[static_cast<int>(i)], *model.elements[i]) == 0);
            model.elements[i] = array[static_cast<int>(i)];
        }
        break;
    case 10: array.SetPurgeMode(static_cast<short>(in.Below(3))); break;
    default: Search(in);
    }
}

void Machine::CheckAll()
{
    const unsigned n = static_cast<unsigned>(model.elements.size());
    FUZZ_CHECK(array.Quantity() == n);
    FUZZ_CHECK(array.Capacity() == model.capacity);
    for (unsigned i = 0; i < n; i++)
        FUZZ_CHECK(array.at(i) == model.elements[i]);
    FUZZ_CHECK(array.at(n) == nullptr && array[-1] == nullptr);
    FUZZ_CHECK(array.first() == (n > 0 ? model.elements.front() : nullptr));
    FUZZ_CHECK(array.last() == (n > 0 ? model.elements.back() : nullptr));
    CString** pointers = array.GetPointers();
    FUZZ_CHECK(n > 0 ? std::equal(pointers, pointers + n, model.elements.begin()) : pointers == nullptr);
    delete[] pointers;
    FUZZ_CHECK(Element::Alive().size() == n + unowned.size());
}

// A deep copy, which owns its elements.
void Machine::CheckCopy() const
{
    const unsigned n = array.Quantity();
    const CStringSafeArray copy(array);
    FUZZ_CHECK(copy.Quantity() == n && copy.pf() == 0 && copy.Capacity() == model.capacity);
    for (unsigned i = 0; i < n; i++)
        FUZZ_CHECK(copy.at(i) != array.at(i) && *copy[static_cast<int>(i)] == *model.elements[i]);
}

void Machine::CheckWalk(Input& in)
{
    CStringSafeArrayIter iterator(array);
    Walk walk{model.elements};
    for (int steps = 0; steps < 100 && !in.IsAtEnd(); steps++) {
        FUZZ_CHECK(iterator() == walk.Current());
        FUZZ_CHECK(iterator.getCurrentIterIndex() == walk.index);
        if (in.Flag()) {
            iterator.next();
            walk.Next();
        } else {
            iterator.prev();
            walk.Previous();
        }
    }
}

void CheckCells(Input& in)
{
    std::vector<unsigned long> model(in.Below(20));
    ulongArray cells(static_cast<int>(model.size()));
    for (std::size_t i = 0; i < model.size(); i++)
        cells[static_cast<int>(i)] = model[i] = in.Number<uint32_t>();
    const int more = in.Small();
    cells.growBy(more);
    const std::size_t before = model.size();
    model.resize(before + static_cast<std::size_t>(std::max(more, 0)), 7);
    for (std::size_t i = before; i < model.size(); i++)
        cells[static_cast<int>(i)] = 7;
    ulongArray copy(3);
    copy = cells;
    const ulongArray other(copy);
    FUZZ_CHECK(static_cast<std::size_t>(other.Size()) == model.size());
    for (std::size_t i = 0; i < model.size(); i++)
        FUZZ_CHECK(other.at(static_cast<int>(i)) == model[i]);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    Input in(data, size);
    {
        Machine machine(in.Below(100));
        for (int steps = 0; steps < 100 && in.Left() > 20; steps++) {
            machine.Step(in);
            machine.CheckAll();
        }
        machine.CheckCopy();
        machine.CheckWalk(in);
    }
    FUZZ_CHECK(Element::Alive().empty());
    CheckCells(in);
    return 0;
}
