// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/SafeArray.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "Misc/Error/report.h"
#include "Misc/detail/assertion.h"
#include "Misc/detail/limits.h"
#include "Misc/detail/standardstreams.h"
#include "svr4/sort.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: SafeArray.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

static const unsigned FirstCapacity = 32;
static const unsigned BinarySearchQuantity = 16; // from here on search() trusts the order of the elements

SafeArrayBase::SafeArrayBase(unsigned initialCapacity) : isPurgeable(0), myQuantity(0), myCapacity(0), list(nullptr)
{
    Expand(static_cast<int>(initialCapacity));
}

SafeArrayBase::~SafeArrayBase() { std::free(list); }

void SafeArrayBase::dumpOn(std::ostream& os) const
{
    os << "Capacity: " << myCapacity << '\n';
    os << "Quantity: " << myQuantity << '\n';
    for (unsigned i = 0; i < myQuantity; i++)
        os << "list[" << i << "] = " << list[i] << '\n';
}

// AddPtr for a full array or a null pointer.
void SafeArrayBase::addWithGrowth(void* v)
{
    ZELOO_ASSERT(v != NULL, "Misc/SafeArray");
    if (myQuantity >= myCapacity)
        Expand(static_cast<int>(Growth(myCapacity)));
    ZELOO_ASSERT(myQuantity < myCapacity, "Misc/SafeArray");
    if (myQuantity < myCapacity)
        list[myQuantity++] = v;
}

void SafeArrayBase::InsertAt(unsigned index, void* NewItem)
{
    ZELOO_ASSERT(index <= myQuantity, "Misc/SafeArray");
    ZELOO_ASSERT(NewItem != NULL, "Misc/SafeArray");
    if (index > myQuantity)
        std::cerr << "Warning: invalid index to SafeArrayBase::InsertAt()..." << std::endl;
    if (index >= myQuantity) {
        AddPtr(NewItem);
        return;
    }
    if (myQuantity >= myCapacity)
        Expand(static_cast<int>(Growth(myCapacity)));
    if (myQuantity >= myCapacity)
        return; // at the ceiling; unlike an append this is no assertion, as intended
    std::memmove(list + index + 1, list + index, (myQuantity - index) * sizeof(void*));
    list[index] = NewItem;
    myQuantity++;
}

void SafeArrayBase::InsertPtr(void* after, void* NewItem)
{
    ZELOO_ASSERT(NewItem != NULL, "Misc/SafeArray");
    if (after == nullptr) {
        InsertAt(0, NewItem);
        return;
    }
    void** end = list + myQuantity;
    void** place = std::find(list, end, after);
    if (place == end)
        std::cerr << "Error: invalid index to SafeArrayBase::InsertPtr()" << std::endl;
    else
        InsertAt(static_cast<unsigned>(place - list) + 1, NewItem);
}

void SafeArrayBase::RemoveAt(unsigned index)
{
    ZELOO_ASSERT(index < myQuantity, "Misc/SafeArray");
    if (index >= myQuantity)
        return;
    if (isPurgeable == 0)
        DeleteItem(list[index]);
    std::memmove(list + index, list + index + 1, (myQuantity - index - 1) * sizeof(void*));
    list[--myQuantity] = nullptr;
}

void SafeArrayBase::RemovePtr(void* ptr)
{
    ZELOO_ASSERT(ptr != NULL, "Misc/SafeArray");
    void** end = list + myQuantity;
    void** place = std::find(list, end, ptr);
    if (place != end)
        RemoveAt(static_cast<unsigned>(place - list));
}

void SafeArrayBase::DeleteAllItems()
{
    if (isPurgeable == 1)
        return;
    for (unsigned i = 0; i < myQuantity; i++) {
        if (list[i] != nullptr)
            DeleteItem(list[i]);
        list[i] = nullptr;
    }
    myQuantity = 0;
}

void SafeArrayBase::Expand(int delta)
{
    if (delta == 0)
        return;
    // A negative delta shrinks by wrapping; one below minus the capacity wraps to a huge value, which is clipped.
    unsigned capacity = std::min(myCapacity + static_cast<unsigned>(delta), zeloo::MostElements);
    capacity = std::max(capacity, myQuantity);
    if (capacity == myCapacity)
        return;

    if (capacity == 0) {
        std::free(list);
        list = nullptr;
    } else {
        // The host moves the pages of a large block instead of copying it.
        void* slots = std::realloc(list, capacity * sizeof(void*));
        if (slots == nullptr) {
            zeloo::Report(ErrorReporter::PANIC, ErrorReporter::OUT_OF_MEMORY, 0, ZELOO_HERE,
                          "Memory allocation failure in SafeArray::Expand().");
            return;
        }
        list = static_cast<void**>(slots);
        if (capacity > myCapacity)
            std::fill(list + myCapacity, list + capacity, nullptr);
    }
    myCapacity = capacity;
}

void SafeArrayBase::ShrinkToFit() { Expand(static_cast<int>(myQuantity - myCapacity)); }

void SafeArrayBase::reverse() { std::reverse(list, list + myQuantity); }

void** SafeArrayBase::GetPointers() const
{
    if (myQuantity == 0)
        return nullptr;
    void** copy = new (std::nothrow) void*[myQuantity];
    if (copy != nullptr)
        std::copy_n(list, myQuantity, copy);
    return copy;
}

typedef int (*Compare)(const void*, const void*);

static int CallUntyped(const void* a, const void* b, void* fptr) { return (*static_cast<Compare*>(fptr))(a, b); }

void* SafeArrayBase::bsearch(const void* key, Compare fptr) const
{
    return bsearchBy(key, CallUntyped, fptr != nullptr ? &fptr : nullptr);
}

void* SafeArrayBase::lfind(const void* key, Compare fptr) const
{
    return lfindBy(key, CallUntyped, fptr != nullptr ? &fptr : nullptr);
}

void* SafeArrayBase::search(const void* key, Compare fptr) const
{
    return searchBy(key, CallUntyped, fptr != nullptr ? &fptr : nullptr);
}

void SafeArrayBase::qsort(Compare fptr) { qsortBy(CallUntyped, fptr != nullptr ? &fptr : nullptr); }

// The searches hand over the address of the key, so that both arguments of the comparison are pointers to element
// pointers. Of several elements that are equal this finds the one that the C library's function does.
void* SafeArrayBase::bsearchBy(const void* key, Call call, void* fptr) const
{
    ZELOO_REQUIRE(key != NULL, "Misc/SafeArray");
    ZELOO_REQUIRE(fptr != NULL, "Misc/SafeArray");
    unsigned begin = 0;
    unsigned end = myQuantity;
    while (begin < end) {
        const unsigned middle = (begin + end) / 2;
        const int order = call(&key, list + middle, fptr);
        if (order == 0)
            return list[middle];
        if (order < 0)
            end = middle;
        else
            begin = middle + 1;
    }
    return nullptr;
}

void* SafeArrayBase::lfindBy(const void* key, Call call, void* fptr) const
{
    ZELOO_REQUIRE(key != NULL, "Misc/SafeArray");
    ZELOO_REQUIRE(fptr != NULL, "Misc/SafeArray");
    for (unsigned i = 0; i < myQuantity; i++)
        if (call(&key, list + i, fptr) == 0)
            return list[i];
    return nullptr;
}

void* SafeArrayBase::searchBy(const void* key, Call call, void* fptr) const
{
    return myQuantity < BinarySearchQuantity ? lfindBy(key, call, fptr) : bsearchBy(key, call, fptr);
}

void SafeArrayBase::qsortBy(Call call, void* fptr)
{
    ZELOO_REQUIRE(fptr != NULL, "Misc/SafeArray");
    if (myQuantity != 0) // the C library's function may not be called with a null array
        svr4::qsort(list, myQuantity, sizeof(void*), call, fptr);
}

void SafeArrayBase::printAs(const char* element, std::ostream& os) const
{
    os << "SafeArray(" << element << ")***************\n";
    os << "********** Capacity =" << myCapacity << '\n';
    os << "********** Quantity =" << myQuantity << '\n';
    os << "********** This SafeArray is " << (isPurgeable != 0 ? "NOT " : "") << "purgable.\n";
    for (unsigned i = 0; i < myQuantity; i++) {
        os << "****SafeArray(" << element << ")[" << i << "] address = " << list[i] << '\n';
        if (list[i] == nullptr)
            os << "NULL SafeArray entry\n";
    }
}

unsigned SafeArrayBase::Growth(unsigned n) { return n == 0 ? FirstCapacity : std::min(n, zeloo::MostElements); }

SafeArrayIterBase::SafeArrayIterBase(const SafeArrayBase& a) : MyArray(a) { resetBackward(); }

SafeArrayIterBase::SafeArrayIterBase(const SafeArrayIterBase& other)
    : wrapForward(other.wrapForward), wrapBackward(other.wrapBackward), index(other.index),
      ptr(other.MyArray.at(other.index)), MyArray(other.MyArray)
{
}

void SafeArrayIterBase::next()
{
    if (wrapBackward) {
        resetBackward();
    } else if (!wrapForward) {
        wrapForward = index + 1 >= MyArray.Quantity();
        ptr = wrapForward ? nullptr : MyArray.at(++index);
    }
}

void SafeArrayIterBase::prev()
{
    if (wrapForward) {
        resetForward();
    } else if (!wrapBackward) {
        wrapBackward = index == 0 || MyArray.Quantity() == 0;
        ptr = wrapBackward ? nullptr : MyArray.at(--index);
    }
}

void SafeArrayIterBase::resetBackward()
{
    index = 0;
    ptr = MyArray.at(index);
    wrapForward = wrapBackward = 0;
}

void SafeArrayIterBase::resetForward()
{
    index = MyArray.Quantity() != 0 ? MyArray.Quantity() - 1 : 0;
    ptr = MyArray.at(index);
    wrapForward = wrapBackward = 0;
}
