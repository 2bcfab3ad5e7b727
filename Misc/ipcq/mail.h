// SPDX-License-Identifier: BSD-2-Clause
// What lies on a queue for one end of it: its own mail, which it keeps, and what belongs to others, which it neither uses
// nor loses.
#ifndef MISC_IPCQ_MAIL_H
#define MISC_IPCQ_MAIL_H

#include "Misc/ipcq/message.h"
#include "Misc/wire/transfer.h"

namespace zeloo {

/// The most messages that are saved; as many again while the process waits within a transfer. What is beyond stays on
/// the queue, whose limit its senders then meet.
constexpr unsigned MostSaved = 8192;

/// Saves the messages that wait on a channel, off the queue, while `saved` holds less than `most`. Malformed ones are
/// dropped with a report.
void SaveMail(int queue, long channel, IPCQMsgSafeArray& saved, unsigned most);

/// Puts the data of a block, which has been checked, into its place. False when its segment cannot be had.
bool PlaceData(const IPCQMessage& message, Buffer& data);

/// Processes to which a server has written.
class Correspondents {
public:
    struct Entry {
        int32_t pid;
        bool isUnfinished; // it may still put blocks of a broken event on the queue
        bool hasGone;      // that was seen at the last look
    };

    Correspondents() = default;
    ~Correspondents();
    Correspondents(const Correspondents&) = delete;
    Correspondents& operator=(const Correspondents&) = delete;

    /// Notes a process, unless there is no memory for that.
    void Note(long pid, bool isUnfinished);
    void NoteFinished(long pid);
    void ForgetFinished();
    void RemoveAt(unsigned i) { list[i] = list[--count]; }
    bool IsUnfinished(long pid) const;
    unsigned Quantity() const { return count; }
    Entry& operator[](unsigned i) { return list[i]; }

private:
    Entry* list = nullptr;
    unsigned count = 0;
    unsigned capacity = 0;
};

/// An event of several blocks that is acknowledged, and whose blocks are gathered, while its first block still waits
/// among the own mail for its turn.
struct EarlyEvent {
    EarlyEvent(const IPCQMessage& first, long receiver) : event(first, receiver) {}

    wire::ReceivingSide event;
    Buffer data;
    EarlyEvent* next = nullptr;
};

/// The mail of one IPCQBase.
class Mail {
public:
    explicit Mail(IPCQBase& end) : object(end) {}
    ~Mail();
    Mail(const Mail&) = delete;
    Mail& operator=(const Mail&) = delete;

    // ---- Own mail ----

    /// Saves the own mail, until `most` messages are saved.
    void Save(unsigned most);
    /// Saves what came behind an event that has been received, where others may be waiting for the room: at a server,
    /// unless nothing was there shortly before.
    void SaveBehind(bool wasEmpty);
    /// Saves the own mail before an event is sent. Who only answers what it receives, and a client that asks for one answer
    /// at a time, has no more of it than others have room for.
    void SaveBeforeSending();
    /// Saves the oldest of it, unless `most` messages are saved. Whether there was one.
    bool SaveOne(unsigned most);
    /// Whether a saved message says that an event's sender has gone on to another one.
    bool HasNewerEvent(const wire::ReceivingSide& event) const;

    // ---- Partners ----

    /// Notes that a process has just put a message on the queue.
    void NoteAlive(long pid);
    /// Whether a process is there. One that has put a message on the queue since the last clock tick is not asked for: it
    /// can end at any time after the question, too.
    bool IsAlive(long pid) const;

    // ---- Events before their turn ----

    /// Acknowledges the next saved event of a process to which this one is about to send: it may be waiting for nothing
    /// else, and two that send to each other would wait for each other. Its blocks are gathered from then on.
    void AcceptEarly(long partner);
    /// Takes the blocks of such events off the queue, as far as they have come.
    void GatherEarly();
    /// What has been gathered of a process's event whose first block has just been taken from the saved mail, to be
    /// deleted; null for an event that has not been acknowledged yet.
    EarlyEvent* TakeEarly(long sender);

    // ---- Others' records ----

    /// Takes what waits on a channel off it: what came from `owner` is dropped, all else goes back. But own records that
    /// nobody has read yet stay away from the open channel.
    void Sweep(long channel, long owner);
    /// Puts a record back on the channel from which it was taken, or keeps it until there is room.
    void PutBack(ReceivedMessage& message);
    /// The data channel that this end reads until EndTransfer: own records for others would stand before the partner's.
    void Open(long channel) { openChannel = channel; }
    /// Gives back what is kept for others. A server goes on with that while it waits for events; others wait a second
    /// for room, since nobody knows when they do something on the queue again.
    void EndTransfer();
    /// Gives back what is kept for others, as far as there is room. What is for a process that has gone is dropped.
    void GiveBack();
    /// The same, waiting a second for room.
    void GiveAllBack();

    /// For a handler that ends the process: drops the own mail that waits, and puts back what is kept for others as
    /// GiveAllBack does. Leaves the memory alone, which the interrupted code may be changing.
    void Leave();

    // ---- What nobody reads any more ----

    /// Drops every record of a transfer between two processes, one of them this.
    void ClearPair(long sender, long receiver);
    /// Takes back a first block that this process has put on another's own channel and that waits for its answer.
    void TakeBackFirstBlock(long receiver);
    /// Drops what a process sent of earlier events, on their data channel.
    void ForgetBlocks(long sender);
    /// Notes that this server has written to a process, or that one may still write to it blocks that nobody awaits.
    void NoteCorrespondent(long pid, bool isUnfinished = false);
    /// Notes that an event of such a process has come whole.
    void NoteWholeEvent(long sender) { correspondents.NoteFinished(sender); }
    /// Clears the channels of the correspondents that have gone. `partner` is that of the transfer under way; with 0
    /// there is none, and what the others still send belongs to nothing.
    void ClearTheDead(long partner);
    /// Whether ClearTheDead or GiveBack have something to do.
    bool HasToTend() const { return aside.Quantity() > 0 || correspondents.Quantity() > 0; }

private:
    bool IsServersMail() const;
    bool GivesBack(const IPCQMessage& kept) const;
    const IPCQMessage* NextEarly(long partner) const;
    bool AwaitsEarlyBlocks(long sender) const;
    bool IsReadEarly(long channel) const;
    void GatherEarly(EarlyEvent& early);
    // Keeps a record that has been taken off the queue. False without memory: it is on the queue again, behind the others.
    bool Keep(const IPCQMessage& message);
    bool StaysAway(const IPCQMessage& message) const;

    IPCQBase& object;
    EarlyEvent* earlyEvents = nullptr; // oldest first
    IPCQMsgSafeArray aside{0};         // kept for others
    long alivePID = 0;
    int64_t aliveTick = 0;
    bool isAnswered = true; // something came since the last event was sent
    long openChannel = 0;
    Correspondents correspondents;
    int64_t lastClearing = 0;
    bool isEmpty = false; // when the correspondents were looked at last
};

} // namespace zeloo

#endif
