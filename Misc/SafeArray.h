// SPDX-License-Identifier: BSD-2-Clause
// Growable pointer arrays that own their elements or only refer to them, and their iterators.
#ifndef MISC_SAFEARRAY_H
#define MISC_SAFEARRAY_H

#include <new>
#include <ostream>

#include "Misc/export.h"

/// An array of untyped element pointers, always packed at indices 0 to Quantity() - 1, none of them null. Programs
/// use the typed arrays below (OptionSafeArray, UnixProcessSafeArray, ...).
///
/// The purge mode decides who owns the elements: 0 (the default) means that the array does and deletes what is
/// removed; 1 means that it only refers to them. Any other value counts as 1 when an element is removed and as 0
/// when the array is cleared; this asymmetry is intended. The dump of a typed array says "NOT purgable" for a mode
/// other than 0.
///
/// Reads outside the filled part give null. Invalid insertions and removals stop the process through an assertion.
/// An array holds at most 256,000 elements.
class ZELOO_API SafeArrayBase {
public:
    /// An empty owning array with `initialCapacity` slots.
    explicit SafeArrayBase(unsigned initialCapacity);
    /// Frees the slots; the elements are the business of the typed destructors.
    virtual ~SafeArrayBase();
    /// Deletes one element that the array owns; called for every element that an owning array drops.
    virtual void DeleteItem(void* item) = 0;
    /// Writes capacity, quantity and every element pointer, a line each.
    virtual void dumpOn(std::ostream& os) const;

    /// The number of slots: elements that fit before the array grows.
    unsigned Capacity() const { return myCapacity; }
    /// The number of elements.
    unsigned Quantity() const { return myQuantity; }
    /// The purge mode.
    short pf() const { return isPurgeable; }
    /// Stores the purge mode as given.
    void SetPurgeMode(short mode) { isPurgeable = mode; }

    /// The element at `i`, or null when `i` is not below Quantity().
    void* at(unsigned i) const { return i < myQuantity ? list[i] : nullptr; }

    /// Appends `v`. REQUIRES: `v` is not null and the array is below its ceiling. A full array first grows: from 0
    /// to 32 slots, then to twice its size. With assertions off a full array at its ceiling is left alone, and a
    /// null pointer is stored like any other; print() then points it out.
    void AddPtr(void* v)
    {
        if (v != nullptr && myQuantity < myCapacity)
            list[myQuantity++] = v;
        else
            addWithGrowth(v);
    }
    /// Puts `NewItem` before the element at `index`; `index` == Quantity() appends. REQUIRES: `index` is at most
    /// Quantity() and `NewItem` is not null. Does nothing when the array is full and cannot grow. With assertions
    /// off an index beyond the end writes a warning to standard error and appends.
    void InsertAt(unsigned index, void* NewItem);
    /// Puts `NewItem` right behind the first element equal to `after`, or first when `after` is null. REQUIRES:
    /// `NewItem` is not null. An `after` that is absent writes a line to standard error and inserts nothing.
    void InsertPtr(void* after, void* NewItem);
    /// Removes the element at `index`, which mode 0 deletes. REQUIRES: `index` is below Quantity(). The capacity
    /// stays.
    void RemoveAt(unsigned index);
    /// Removes the first element equal to `ptr`, if there is one, as RemoveAt does. REQUIRES: `ptr` is not null.
    void RemovePtr(void* ptr);
    /// Deletes every element and empties the array, capacity kept; in mode 1 does nothing at all.
    void DeleteAllItems();

    /// Changes the capacity by `delta` slots, to at most 256,000 and never below Quantity(). A `delta` below minus
    /// the capacity wraps, and gives 256,000. When memory fails this is a PANIC report (OUT_OF_MEMORY), which ends
    /// the process.
    void Expand(int delta);
    /// Makes the capacity equal to Quantity().
    void ShrinkToFit();
    /// Reverses the order of the elements.
    void reverse();

    /// A new array with the Quantity() element pointers, which the caller releases with delete[]; null when this
    /// array is empty or memory fails.
    void** GetPointers() const;

    /// The element that equals `key` under `fptr`, or null, by halving; REQUIRES: the array is sorted by `fptr`. `fptr`
    /// gets two pointers to element pointers and gives a value below, equal to or above 0 as the first sorts before,
    /// with or behind the second. REQUIRES, here and in lfind and search: neither argument is null, which is checked
    /// with assertions off too.
    void* bsearch(const void* key, int (*fptr)(const void*, const void*)) const;
    /// The first element that equals `key` under `fptr`, or null. It looks at the elements in order, sorted or not.
    void* lfind(const void* key, int (*fptr)(const void*, const void*)) const;
    /// As lfind below 16 elements, as bsearch from there on: sort the array by `fptr` first.
    void* search(const void* key, int (*fptr)(const void*, const void*)) const;
    /// Sorts the elements by `fptr`. REQUIRES: `fptr` is not null, which is checked with assertions off too.
    void qsort(int (*fptr)(const void*, const void*));

    SafeArrayBase(const SafeArrayBase&) = delete;
    SafeArrayBase& operator=(const SafeArrayBase&) = delete;

protected:
    /// The searches and the sort for a comparison function of any type: `call` calls the one at `fptr`, which is null
    /// when there is none, with two pointers to element pointers. REQUIRES: as above.
    /// How the searches and the sort use a comparison function of any type: a Call calls the one at `fptr`, which is
    /// null when there is none, with two pointers to element pointers.
    typedef int (*Call)(const void* a, const void* b, void* fptr);
    /// As bsearch, with a Call. REQUIRES: neither `key` nor `fptr` is null.
    void* bsearchBy(const void* key, Call call, void* fptr) const;
    /// As lfind, with a Call. REQUIRES: neither `key` nor `fptr` is null.
    void* lfindBy(const void* key, Call call, void* fptr) const;
    /// As search, with a Call. REQUIRES: neither `key` nor `fptr` is null.
    void* searchBy(const void* key, Call call, void* fptr) const;
    /// As qsort, with a Call. REQUIRES: `fptr` is not null.
    void qsortBy(Call call, void* fptr);
    /// The typed dump, with `element` as the name of the element class.
    void printAs(const char* element, std::ostream& os) const;

private:
    void addWithGrowth(void* v);
    static unsigned Growth(unsigned n);

    short isPurgeable;   // 0: the elements are owned
    unsigned myQuantity; // filled slots
    unsigned myCapacity; // allocated slots
    void** list;         // owned; null while there are no slots; the slots beyond the filled ones hold null
};

/// A walk over a SafeArrayBase, which must outlive it. The walk is at one element or, once it has run off an end, at
/// none; from there a step in the other direction returns to the element at that end.
class ZELOO_API SafeArrayIterBase {
public:
    /// Starts at the first element.
    explicit SafeArrayIterBase(const SafeArrayBase& a);
    /// Stands where `other` stands. The copy of a walk that has run off an end is off that end too, but gives the
    /// element at that end as its current one; this is intended.
    SafeArrayIterBase(const SafeArrayIterBase& other);
    SafeArrayIterBase& operator=(const SafeArrayIterBase&) = delete;

    /// The current element, or null when the walk has run off an end or the array is empty.
    void* curr() const { return ptr; }
    /// The index of the current element; off an end, that of the last one visited.
    unsigned getCurrentIterIndex() const { return index; }
    /// One step forward. Behind the last element the walk is at none, and stays there; before the first it goes to the
    /// first.
    void next();
    /// One step backward. Before the first element the walk is at none, and stays there; behind the last it goes to the
    /// last.
    void prev();
    /// Goes to the first element.
    void resetBackward();
    /// Goes to the last element.
    void resetForward();

private:
    char wrapForward;  // the walk has run past the last element
    char wrapBackward; // the walk has run before the first element
    unsigned index;
    void* ptr;
    const SafeArrayBase& MyArray;
};

namespace zeloo {

/// Calls the comparison function at `fptr`, of the type of SafeArray<X>, as SafeArrayBase calls it.
template <class X>
int CallTyped(const void* a, const void* b, void* fptr)
{
    const X* first = static_cast<const X*>(*static_cast<const void* const*>(a));
    const X* second = static_cast<const X*>(*static_cast<const void* const*>(b));
    return (*static_cast<int (**)(const X**, const X**)>(fptr))(&first, &second);
}

} // namespace zeloo

/// The typed array for the element class X, the base of XSafeArray. It adds no data. An owning array deletes its
/// elements with `delete`: give it heap objects, also where an operation takes a reference.
template <class X>
class ZELOO_API SafeArray : public SafeArrayBase {
public:
    /// An empty owning array with `initialCapacity` slots.
    explicit SafeArray(unsigned initialCapacity = 0) : SafeArrayBase(initialCapacity) {}
    /// A deep copy: every element is copied with its copy constructor. The copy owns its elements whatever the mode
    /// of `other`. An element that cannot be allocated is left out.
    SafeArray(const SafeArray& other);
    SafeArray& operator=(const SafeArray&) = delete;
    /// Deletes the elements unless the mode is 1.
    ~SafeArray() override { DeleteAllItems(); }

    /// Deletes the X at `item`.
    void DeleteItem(void* item) override { delete static_cast<X*>(item); }
    /// Appends the element at `p`, as AddPtr does.
    virtual void AddItem(X* p) { AddPtr(p); }
    /// Appends `r` itself, not a copy: an owning array will delete it.
    virtual void AddItem(X& r) { AddPtr(&r); }
    /// Puts the element at `p` before the one at `index`, as InsertAt does.
    virtual void InsertItem(unsigned index, X* p) { InsertAt(index, p); }
    /// Puts `r` itself before the element at `index`: an owning array will delete it.
    virtual void InsertItem(unsigned index, X& r) { InsertAt(index, &r); }

    /// A new X copied from `*item`; null when memory fails or `item` is null. The caller owns it.
    void* duplicateItem(void* item) const
    {
        return item != nullptr ? new (std::nothrow) X(*static_cast<X*>(item)) : nullptr;
    }

    /// The element at `i`, or null when there is none; a negative index is beyond the end.
    X* operator[](int i) const { return static_cast<X*>(at(static_cast<unsigned>(i))); }
    /// The first element, or null when there is none.
    X* first() const { return static_cast<X*>(at(0)); }
    /// The last element, or null when there is none.
    X* last() const { return static_cast<X*>(at(Quantity() - 1)); }

    /// The pointers of SafeArrayBase::GetPointers, typed; released with delete[] by the caller.
    X** GetPointers() const { return reinterpret_cast<X**>(SafeArrayBase::GetPointers()); }

    using SafeArrayBase::bsearch;
    using SafeArrayBase::lfind;
    using SafeArrayBase::qsort;
    using SafeArrayBase::search;
    /// The type of a comparison function of elements: below, equal to or above 0 as `**a` sorts before, with or behind
    /// `**b`.
    typedef int (*Compare)(const X**, const X**);
    /// SafeArrayBase::bsearch with a typed comparison function. REQUIRES: the array is sorted by it.
    X* bsearch(const X* key, Compare fptr) const
    {
        return static_cast<X*>(bsearchBy(key, zeloo::CallTyped<X>, fptr != nullptr ? &fptr : nullptr));
    }
    /// SafeArrayBase::lfind with a typed comparison function.
    X* lfind(const X* key, Compare fptr) const
    {
        return static_cast<X*>(lfindBy(key, zeloo::CallTyped<X>, fptr != nullptr ? &fptr : nullptr));
    }
    /// SafeArrayBase::search with a typed comparison function.
    X* search(const X* key, Compare fptr) const
    {
        return static_cast<X*>(searchBy(key, zeloo::CallTyped<X>, fptr != nullptr ? &fptr : nullptr));
    }
    /// SafeArrayBase::qsort with a typed comparison function.
    void qsort(Compare fptr) { qsortBy(zeloo::CallTyped<X>, fptr != nullptr ? &fptr : nullptr); }

    /// Writes the array's mode and sizes and the address of every element under the name of the element class.
    void print(std::ostream& os) const { printAs(ElementName(), os); }

private:
    // The name of the element class in dumps; defined in the unit of that class.
    static const char* ElementName();
};

template <class X>
SafeArray<X>::SafeArray(const SafeArray& other) : SafeArrayBase(other.Capacity())
{
    for (unsigned i = 0; i < other.Quantity(); i++)
        if (void* copy = duplicateItem(other.at(i)))
            AddPtr(copy);
}

/// For the source file of the element class X, whose header declares both: its name in dumps and the code of its array.
#define ZELOO_DEFINE_ARRAY(X)                                                                                          \
    template <>                                                                                                        \
    const char* SafeArray<X>::ElementName()                                                                            \
    {                                                                                                                  \
        return #X;                                                                                                     \
    }                                                                                                                  \
    template class SafeArray<X>

/// The typed iterator for the element class X, the base of XSafeArrayIter. A loop reads `iter()` until it gives null
/// and calls `++iter` after each element.
template <class X>
class ZELOO_API SafeArrayIter : public SafeArrayIterBase {
public:
    /// Starts at the first element of `a`, which must outlive the walk.
    explicit SafeArrayIter(const SafeArray<X>& a) : SafeArrayIterBase(a) {}
    /// The current element, or null when the walk has run off an end or the array is empty.
    X* operator()() const { return static_cast<X*>(curr()); }
    /// One step forward, as next.
    void operator++() { next(); }
};

#endif
