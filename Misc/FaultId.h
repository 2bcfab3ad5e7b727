// SPDX-License-Identifier: BSD-2-Clause
// Fault identifiers, their arrays, and the set of them that a program keeps in a file.
#ifndef MISC_FAULTID_H
#define MISC_FAULTID_H

#include <cstdint>
#include <ostream>

#include "Misc/Error.h"
#include "Misc/SafeArray.h"
#include "Misc/cstring.h"
#include "Misc/export.h"

/// The name of a fault: a number that is unique on the node that raised it, and the name of that node. It is a string
/// too, whose text is the written form: node name, "/" and the number in at least eight digits (alpha/00000042). The
/// sign of a negative number is one of the eight characters.
///
/// Text, number and node name agree, except in what the default constructor made, after concatNodenameId, the editing
/// operations of the string, and scanFrom, which takes the three as they come.
///
/// Numbers are 32 bits wide on the network and in files: a larger one is cut there, in its number but not in its text,
/// and no longer equals itself when it comes back.
class ZELOO_API FaultId : public CString {
public:
    /// Number 0, an empty node name and an empty text.
    FaultId();
    /// The fault `fault_id` of the node `Nodename`; an empty or null one stands for this host (ProgInfo::GetNodeName).
    FaultId(long fault_id, const char* Nodename = "");
    /// A copy of number, node name and text.
    FaultId(const FaultId& f) = default;
    /// Takes over number, node name and text.
    FaultId& operator=(const FaultId& f) = default;
    /// ConstFromStr.
    FaultId& operator=(const char* NodenameIdStr);

    /// Parses a written identifier: the node name, the first "/" or, in a text without one, the first ":", and the
    /// number, which is 0 when no digits come first. Without a separator the whole text is the node name and the number
    /// 0. The text is composed anew: alpha:42 and alpha/42 become alpha/00000042. Unlike in the constructor an empty
    /// node name stays empty. Null counts as the empty text.
    void ConstFromStr(const char* NodenameIdStr);
    /// Sets the text, and only the text, to `Nodename`, "/" and `fault_id` in at least eight digits.
    void concatNodenameId(long fault_id, const char* Nodename);

    /// Whether text, number and node name are all equal.
    bool operator==(const FaultId& f) const;
    /// Whether text, number or node name differ.
    bool operator!=(const FaultId& f) const { return !(*this == f); }
    /// With a text the comparison is that of the string; without these two it would be one of addresses.
    using CString::operator==;
    /// The opposite of ==.
    using CString::operator!=;

    /// The number.
    long GetId() const { return myId; }
    /// The name of the node; it is empty in what the default constructor made.
    const CString& GetNodeName() const { return myNodename; }

    /// Writes the number as a long, the node name and the text.
    void printOn(ZELostream& s) const override;
    /// Reads the three, whether they agree or not. What the stream does not hold becomes empty; a number that is not
    /// there is what the stream makes of it.
    void scanFrom(ZEListream& s) override;
    /// Writes number and node name, a line each. Through a CString it is the dump of the string, which is not virtual.
    virtual void dumpOn(std::ostream& os) const;

private:
    friend class FaultIdList;
    bool scanWhole(ZEListream& s);

    long myId;
    CString myNodename;
};

template <>
ZELOO_API const char* SafeArray<FaultId>::ElementName();
extern template class SafeArray<FaultId>;

/// The array of FaultId; it owns its elements.
class ZELOO_API FaultIdSafeArray : public SafeArray<FaultId> {
public:
    using SafeArray<FaultId>::SafeArray;
};

/// The iterator over a FaultIdSafeArray.
class ZELOO_API FaultIdSafeArrayIter : public SafeArrayIter<FaultId> {
public:
    using SafeArrayIter<FaultId>::SafeArrayIter;
};

namespace zeloo {
class FaultIndex;
}

/// What heads a fault record: its group and its own identifier. Programs add to it.
struct ZELOO_API FaultHdr {
    FaultId groupid; ///< The group of the fault, as its program uses it.
    FaultId myId;    ///< The fault's own identifier.
};

/// The fault record, as far as this library needs it.
class ZELOO_API Fault : public ErrorReporter {
public:
    /// The fault's own identifier, hdr.myId.
    const FaultId& GetFaultId() const { return hdr.myId; }

    FaultHdr hdr; ///< What heads the record.
};

/// A set of fault identifiers, in the order in which they were added, with a read cursor and a file. The file has the
/// format of onfstream: the quantity as a short, then each element. Nothing in a file or stream is trusted.
///
/// A set holds at most 32767 elements, since quantity and cursor are shorts. To find an element costs a look at those of
/// the same number, which differ in their nodes. To delete one moves those behind it.
/// Without memory for its array (WARNING report, OUT_OF_MEMORY) a set has no elements and the quantity -1 until an
/// AddFaultId finds some.
class ZELOO_API FaultIdList : public ErrorReporter {
public:
    /// An empty set kept in the file `filename`, which is not read yet; null or an empty name is no file. Without memory
    /// for the name there is no file either, which is reported (WARNING, OUT_OF_MEMORY, with the name).
    explicit FaultIdList(const char* filename);
    /// Deletes the elements; the file stays as it is.
    ~FaultIdList() override;

    /// The number of elements; -1 without an array.
    short MyQuantity() const;
    /// The element at the cursor, which moves on to the next; null at the end. It belongs to the set and is valid until
    /// it is deleted or the set is read. Only DeleteOne moves the cursor back: to start over, make another set.
    const FaultId* GetNext();
    /// Appends a copy of `f` unless the set has an equal one. A full set refuses it with a report (WARNING,
    /// TOO_MANY_FAULTS) that names it; so does one without memory (WARNING, OUT_OF_MEMORY).
    void AddFaultId(const FaultId& f);
    /// Deletes the element equal to `f`, if there is one; `f` may be that element. The next element stays the next.
    void DeleteOne(const FaultId& f);

    /// Writes the quantity as a short and each element.
    void printOn(ZELostream& s) const;
    /// Replaces the elements by those of a stream, each of them once. The cursor stays where it is. A quantity that is
    /// negative or not there counts as 0. At the first element that the stream does not hold whole the reading ends,
    /// with those before it in the set and the stream's read error flag set.
    void scanFrom(ZEListream& s);

    /// Reads the set from its file, as scanFrom does; without a file name does nothing. A file that cannot be opened
    /// (WARNING report, OPENING_FILE) leaves the set as it is, and so does a directory (WARNING, READING_FROM_FILE); one
    /// that cannot be read to the end of what it announces (WARNING, READING_FROM_FILE) gives the elements before that.
    /// The file's name is the description, and the report's `errno` tells a file that is merely short (0) from an error of
    /// the host: what could not be read is still there then, and a Save would write over it.
    void Load();
    /// Writes the set to its file, created or overwritten; without a file name does nothing. Failures are reported as a
    /// WARNING, OPENING_FILE or WRITING_TO_FILE, with the file's name as the description.
    ///
    /// The file is emptied first and not synced: a failure, a crash or a power cut can leave a part of the set or none of
    /// it. A program that must not lose the set writes it, with printOn, to a file of another name, syncs that and renames
    /// it (see ReplaceFile in examples/durablefile.h).
    void Save() const;

    /// Writes quantity and cursor, then the text of each element, a line each. Writes nothing without an array.
    void dumpOn(std::ostream& os) const;

    FaultIdList(const FaultIdList&) = delete;
    FaultIdList& operator=(const FaultIdList&) = delete;

private:
    void makeArray();
    bool makeIndex();
    void dropIndex();
    const FaultId* element(int i) const;
    int linearFind(const FaultId& f) const;
    int find(const FaultId& f);
    bool has(const FaultId& f);

    CString MyFileName;
    int16_t MyIndex;            // of the element that GetNext gives next
    FaultIdSafeArray* FaultIds; // owned; null when memory failed
    zeloo::FaultIndex* index;   // owned, of all elements; null when there is none
};

#endif
