/* SPDX-License-Identifier: BSD-2-Clause */
/*
 * The transfer of events over a queue: two clients A and B and a server S, whose process ids lie in arithmetic
 * progression, so that A->S and S->B share their channels, and B->S and S->A theirs. Events of several blocks go both
 * ways.
 *
 * A step is what the kernel does at once: one msgsnd or msgrcv, or a change of what a process keeps to itself. Every
 * other process can act between two steps, and any process can die (DEATHS of them in a run). Each inline stands for
 * the function that its comment names; its branches are the steps of that function, in any order where the function
 * takes them by the clock (the looks of a wait).
 *
 * Assumed:
 * - A time limit ends a wait only when no process can do anything else: limits are long against steps. In runs in which
 *   nobody dies and nothing is left over there is no limit: nothing may need one.
 * - Within one wait a process puts strangers' records back USELESS times while its partner's record is not there, and
 *   then waits until it is: more of that repeats the same states.
 * - What a stranger has taken off a channel he gives back, if there is room, before its partner is held for gone or to
 *   have given up the event, and before a server forgets a process (IsSettled). With mail left over by an earlier
 *   transfer, or a block that comes twice, also while its channel is swept (IsSwept): a late block of an earlier event
 *   that a stranger holds during the sweep can't be told from one of this event. For the same reason an event that was
 *   given up is not acknowledged in the instant in which its sender begins the next (MayAcknowledge).
 * - A client that gives up ends. A process that is gone has been reaped: process_exists and has_ended say the same.
 * - Memory does not fail, no record is malformed, and there is room for what is saved and kept: other tests
 *   cover these.
 *
 * A record: its channel, the sender's process id, its kind, the blocks left after it and, for the assertions only, the
 * event that it belongs to. No decision looks at that.
 *
 * What is left out or put in by name: OLD_CHANNELS, whatever lies on a channel is used or thrown away; OLD_DEATHS,
 * nothing is taken back; HASTY, without IsSettled; FORGETFUL, a server forgets its partner and those whose records it
 * keeps; NEVER_NEWER, an event is acknowledged whose sender has begun another; STALE records are there before; TWICE, a
 * block of A comes twice.
 */

#ifndef SLOTS
#define SLOTS 3 /* records that a queue holds */
#endif
#ifndef DEATHS
#define DEATHS 0
#endif
#ifndef ROUNDS
#define ROUNDS 1 /* events of each client */
#endif
#ifndef USELESS
#define USELESS 1
#endif
/* Blocks of the events from a client and of the answers to it; 0 blocks: there is no answer. */
#ifndef REQUEST_A
#define REQUEST_A 2
#endif
#ifndef ANSWER_A
#define ANSWER_A 2
#endif
#ifndef REQUEST_B
#define REQUEST_B 2
#endif
#ifndef ANSWER_B
#define ANSWER_B 2
#endif

#define A 1
#define S 2
#define B 3
#define Other(client) (A + B - (client))
#define Bit(n) (1 << (n))

/* channels.h */
#define AckBase 251658239
#define DataBase 268435455
#define Reach ((DataBase - AckBase) / 2)
#define AckChannel(sender, receiver) (AckBase - (sender) + (receiver))
#define DataChannel(sender, receiver) (DataBase - (sender) + (receiver))
#define Addressee(ch, from) ((ch) < AckBase - Reach -> (ch) : \
    ((ch) < AckBase + Reach -> (from) - ((ch) - AckBase) : (from) + ((ch) - DataBase)))

/* The events: that of a client in a round, and the server's answer to it. */
#define Request(client, round) ((client) * 4 + 2 * (round))
#define Answer(request) ((request) + 1)
#define AnswerBlocks(client) ((client) == A -> ANSWER_A : ANSWER_B)
#define Stale 24 /* no event of the run */

#define Ok 0
#define Gone 1   /* 67, 68 */
#define Late 2   /* 69, 70 */
#define Broken 3 /* 60 */

#if DEATHS > 0 || defined(STALE) || defined(TWICE)
#define TimeLimit timeout
#define Clean 0
#else
#define TimeLimit false
#define Clean 1
#endif

mtype = { First, Ack, Data };                /* kinds of records */
mtype = { Partner, Self, Stranger };         /* wire::Owner */
mtype = { ForgetAcks, SendBlock, AwaitAck }; /* wire::SendingSide::Step */
mtype = { ForgetBlocks, Acknowledge, AwaitBlock, Done }; /* wire::ReceivingSide::Step */

chan queue = [SLOTS] of { int, byte, mtype, byte, byte };
bool gone[4];
byte inHand[4];  /* the sender of the record that a process has taken off a channel and not put back yet */
byte kept[4];    /* how many records a process keeps for others */
bool begins[4];  /* a process has dropped old acknowledgements and not sent its first block yet */
bool isIdle;     /* the server awaits an event */
int delivered;   /* the events that have arrived whole */

inline Drop()
{
    hc = 0; hf = 0; hk = 0; hp = 0; he = 0; inHand[me] = 0
}

/* TakeMessage */
inline Take(ch)
{
    queue??eval(ch), hf, hk, hp, he;
    hc = ch;
    inHand[me] = hf;
    printf("take %d %d %d %e %d %d\n", me, hc, hf, hk, hp, he)
}

#define Waits(ch) queue??[eval(ch), _, _, _, _]
#define WaitsFrom(ch, from) queue??[eval(ch), eval(from), _, _, _]

/* wire::OwnerOf */
#define OwnerOf(partner) (hf == partner -> Partner : (hf == me -> Self : Stranger))
#define Judge(partner) printf("owner %d %d %e\n", me, partner, OwnerOf(partner))

#define Lost(p) begins[p] = false; inHand[p] = 0; kept[p] = 0
#define StaysAway (hf == me && hc == open)

/* Mail::Keep */
inline Keep()
{
    if
    :: StaysAway ->
        assert(nfull(away));
        away!hc, hf, hk, hp, he;
        printf("away %d %d %d %e %d %d\n", me, hc, hf, hk, hp, he)
    :: else ->
        to = Addressee(hc, hf);
        assert(nfull(aside));
        aside!hc, hf, hk, hp, he, to;
        kept[me]++;
        printf("keep %d %d %d %e %d %d %d\n", me, hc, hf, hk, hp, he, to);
        to = 0
    fi;
    Drop()
}

#define ForGone(p) (gone[p] && aside??[_, _, _, _, _, p])
#define CanGiveBack (nempty(aside) && (nfull(queue) || ForGone(A) || ForGone(S) || ForGone(B)))

/* One step of Mail::GiveBack */
inline GiveOneBack()
{
    if
    :: nfull(queue) -> aside?hc, hf, hk, hp, he, to
    :: full(queue) && ForGone(A) -> aside??hc, hf, hk, hp, he, A; to = A
    :: full(queue) && ForGone(S) -> aside??hc, hf, hk, hp, he, S; to = S
    :: full(queue) && ForGone(B) -> aside??hc, hf, hk, hp, he, B; to = B
    fi;
    if
    :: gone[to] -> printf("lose %d %d %d %e %d %d %d\n", me, hc, hf, hk, hp, he, to)
    :: else ->
        queue!hc, hf, hk, hp, he;
        printf("back %d %d %d %e %d %d\n", me, hc, hf, hk, hp, he)
    fi;
    kept[me]--;
    to = 0;
    Drop()
}

/* Mail::GiveBack */
inline GiveBack()
{
    do
    :: atomic { CanGiveBack -> GiveOneBack() }
    :: else -> break
    od
}

/* DiscardMessages */
inline Discard(ch)
{
    do
    :: atomic { Waits(ch) -> Take(ch); printf("drop %d\n", me); Drop() }
    :: else -> break
    od
}

/* Whether strangers have had the time to give back what they took. */
#define NoHands (inHand[(me % 3) + 1] + inHand[((me + 1) % 3) + 1] == 0)
#ifdef HASTY
#define IsSettled true
#else
#define IsSettled (NoHands && (full(queue) || kept[(me % 3) + 1] + kept[((me + 1) % 3) + 1] == 0))
#endif
#if (defined(STALE) || defined(TWICE)) && !defined(HASTY)
#define IsSwept NoHands
#else
#define IsSwept true
#endif

/* Mail::Sweep of the channels between this process and another, from number `begin` to before `end`. 0: the other's
   blocks, 1: the own acknowledgements (together Mail::ClearPair of what the other sent), 2: the own blocks, 3: the
   other's acknowledgements (together that of what the other was sent). TakeWaiting bounds a sweep against those who go
   on putting records there: what comes after that is as if it came after the sweep. */
inline Sweep(other, begin, end)
{
    sweep = begin;
    do
    :: sweep < end ->
        atomic {
            swept = (sweep == 0 -> DataChannel(other, me) : (sweep == 1 -> AckChannel(other, me) :
                (sweep == 2 -> DataChannel(me, other) : AckChannel(me, other))));
            owner = (sweep == 0 || sweep == 3 -> other : me)
        }
        do
        :: atomic {
            Waits(swept) -> Take(swept);
#ifdef OLD_CHANNELS
            printf("drop %d\n", me);
            Drop()
#else
            Judge(owner);
            if
            :: hf == owner -> printf("drop %d\n", me); Drop()
            :: else -> Keep()
            fi
#endif
           }
        :: !Waits(swept) && IsSwept -> break
        od;
        GiveBack();
        sweep++
    :: else -> break
    od;
    atomic { sweep = 0; swept = 0; owner = 0 }
}

/* Mail::TakeBackFirstBlock */
inline TakeBackFirstBlock()
{
    do
    :: atomic {
        Waits(peer) -> Take(peer);
        if
        :: hf == me && hp > 0 -> printf("drop %d\n", me); Drop()
        :: else -> Keep()
        fi
       }
    :: else -> break
    od;
    GiveBack()
}

/* Mail::Save, for one message */
inline Save()
{
    Take(me);
    printf("save %d\n", me);
    mail!hf, hp, he;
    Drop()
}

/* ---- Mail::ClearTheDead ---- */

#define Bury(client) Discard(client); Sweep(client, 0, 4)
#define Leaves(client) (Waits(client) || WaitsFrom(DataChannel(client, S), client) || \
    WaitsFrom(DataChannel(S, client), S) || WaitsFrom(AckChannel(client, S), S) || \
    WaitsFrom(AckChannel(S, client), client))
#define IsToBury(client) (me == S && (noted & Bit(client)) && gone[client] && Leaves(client))

/* Correspondents::ForgetFinished: not the partner, nor while records for others are kept */
#ifdef FORGETFUL
#define Forgettable (noted & ~unfinished)
#define HoldsNothing true
#else
#define Forgettable (noted & ~unfinished & ~Bit(peer))
#define HoldsNothing (empty(aside) && empty(away))
#endif
#define Forget atomic { me == S && inHand[me] == 0 && Forgettable && empty(queue) && HoldsNothing && IsSettled -> \
    noted = noted & ~Forgettable }

/* ---- One event: SendEvent and ReceiveData ---- */

/* TransferAttempt::Look, of which each line is a step */
#ifdef OLD_DEATHS
#define Look \
    :: atomic { inHand[me] == 0 && Waits(me) && nfull(mail) -> Save() } \
    :: atomic { inHand[me] == 0 && CanGiveBack -> GiveOneBack() }
#else
#define Look \
    :: atomic { inHand[me] == 0 && Waits(me) && nfull(mail) -> Save() } \
    :: atomic { inHand[me] == 0 && CanGiveBack -> GiveOneBack() } \
    :: Forget \
    :: inHand[me] == 0 && IsToBury(Other(peer)) -> Bury(Other(peer))
#endif

#define IsPutting (next == SendBlock || next == Acknowledge)
#define IsTaking (inHand[me] == 0 && (next == AwaitAck || next == AwaitBlock))

/* BlockAttempt::Look: the partner has begun another event */
#if defined(OLD_DEATHS)
#define IsSuperseded false
#else
#define IsSuperseded (next == AwaitBlock && mail??[eval(peer), _, _] && !WaitsFrom(channel, peer) && IsSettled)
#endif

/* ... and what is to be acknowledged is no more */
#if defined(NEVER_NEWER) || defined(OLD_DEATHS)
#define IsOutdated false
#define MayAcknowledge true
#else
#define IsOutdated (next == Acknowledge && (WaitsFrom(me, peer) || mail??[eval(peer), _, _]))
#define MayAcknowledge (!begins[peer] && !IsOutdated)
#endif

/* A partner that has gone may have put its last records there before. */
#ifdef HASTY
#define HasLeft gone[peer]
#else
#define HasLeft (gone[peer] && !WaitsFrom(channel, peer) && IsSettled)
#endif

inline Go(step)
{
    next = step;
    channel = (step == SendBlock -> (isFirst -> peer : DataChannel(me, peer)) :
        (step == AwaitAck || step == ForgetAcks -> AckChannel(me, peer) :
        (step == Acknowledge -> AckChannel(peer, me) :
        (step == AwaitBlock || step == ForgetBlocks -> DataChannel(peer, me) : 0))));
    printf("next %d %e %d\n", me, next, channel)
}

/* SendingSide::BlockSent, ReceivingSide::Acknowledged */
inline AfterPut()
{
    if
    :: next == Acknowledge -> Go(AwaitBlock)
    :: next == SendBlock && isFirst && part > 0 -> begins[me] = false; Go(AwaitAck)
    :: next == SendBlock && part == 0 -> Go(Done)
    :: next == SendBlock && !isFirst && part > 0 -> part--; Go(SendBlock)
    fi
}

/* SendingSide::Answer, ReceivingSide::TakeBlock */
inline AfterTake()
{
    assert(hf == peer && Addressee(hc, hf) == me); /* no record used by another than its addressee */
    printf("use %d\n", me);
    if
    :: next == AwaitAck ->
        assert(hk == Ack);
        isFirst = false;
        part--;
        Go(SendBlock)
    :: next == AwaitBlock ->
        if
        :: hk != Data || hp >= part || (got & Bit(hp)) -> code = Broken; printf("broken %d\n", me)
        :: else ->
            assert(he == event); /* no block in another event */
            got = got | Bit(hp);
            if
            :: got == Bit(part) - 1 -> Go(Done)
            :: else -> Go(AwaitBlock)
            fi
        fi
    fi;
    Drop()
}

/* SendBlocks and ReceiveBlocks: whatever is `next` */
inline Transfer()
{
    do
    :: next == ForgetAcks -> begins[me] = true; Sweep(peer, 3, 4); atomic { Go(SendBlock) }
    :: next == ForgetBlocks -> Sweep(peer, 0, 1); atomic { Go(Acknowledge) }
    :: atomic {
        IsPutting && nfull(queue) && (next == SendBlock || MayAcknowledge) ->
        hk = (next == Acknowledge -> Ack : (isFirst -> First : Data));
        hp = (next == Acknowledge -> 0 : part);
        queue!channel, me, hk, hp, event; /* PutMessage */
        printf("put %d %d %d %e %d %d\n", me, channel, me, hk, hp, event);
        Drop();
        AfterPut()
       }
    :: atomic {
        IsTaking && Waits(channel) && (useless < USELESS || WaitsFrom(channel, peer)) -> /* ReceiveAttempt::Try */
        Take(channel);
#ifdef OLD_CHANNELS
        AfterTake()
#else
        Judge(peer);
        if
        :: hf == peer -> useless = 0; AfterTake()
        :: else ->
            if
            :: WaitsFrom(channel, peer) || StaysAway
            :: else -> useless++
            fi
        fi
#endif
       }
    :: atomic {
        inHand[me] != 0 -> /* Mail::PutBack */
        if
        :: full(queue) || StaysAway -> Keep()
        :: nfull(queue) && !StaysAway ->
            queue!hc, hf, hk, hp, he;
            printf("back %d %d %d %e %d %d\n", me, hc, hf, hk, hp, he);
            Drop()
        fi
       }
    Look
    :: IsPutting && gone[peer] -> code = Gone; break
    :: IsTaking && HasLeft -> code = Gone; break
    :: IsTaking && IsSuperseded -> code = Broken; break
    :: IsPutting && IsOutdated -> code = Broken; break
    :: (IsPutting || IsTaking) && TimeLimit -> code = Late; break
    :: next == Done || code != Ok -> break
    od;
    atomic { useless = 0; begins[me] = false }
#ifndef OLD_DEATHS
    if
    :: code != Ok && isSending ->
        Sweep(peer, 2, 4);
        if
        :: me == S -> TakeBackFirstBlock()
        :: else
        fi
    :: code != Ok && !isSending -> Sweep(peer, 0, 2)
    :: else
    fi;
#endif
    atomic { /* Mail::CloseChannel */
        open = 0;
        do
        :: away?hc, hf, hk, hp, he -> Keep()
        :: empty(away) -> break
        od
    }
    GiveBack();
    atomic {
        printf("over %d %d %d\n", me, event, code);
        assert(code == Ok || !Clean); /* nothing fails when nobody dies */
        if
        :: code == Ok && !isSending ->
            assert((delivered & Bit(event)) == 0); /* no event twice */
            delivered = delivered | Bit(event)
        :: code != Ok && !isSending && me == S -> noted = noted | Bit(peer); unfinished = unfinished | Bit(peer)
        :: else
        fi;
        next = 0; channel = 0; part = 0; got = 0; isFirst = false
    }
}

/* SendEvent: `blocks` blocks of the event `number` */
inline BeginSending(blocks, number)
{
    event = number;
    part = blocks - 1;
    isFirst = true;
    printf("send %d %d %d %d\n", me, peer, blocks, event);
    if
    :: me == S -> noted = noted | Bit(peer) /* Mail::NoteCorrespondent */
    :: else
    fi;
    if
    :: part > 0 -> Go(ForgetAcks)
    :: else -> Go(SendBlock)
    fi
}

/* IPCQBase::TakeFirstBlock and ReceiveData: the record in hand is the event's first */
inline BeginReceiving()
{
    peer = hf; part = hp; event = he;
    Drop();
    printf("first %d %d %d %d\n", me, peer, part, event);
    if
    :: me == S && part > 0 -> noted = noted | Bit(peer)
    :: else
    fi;
    if
    :: part > 0 -> Go(ForgetBlocks); open = channel
    :: else -> Go(Done)
    fi
}

/* A saved message, or the oldest on the own channel */
#define FirstBlock \
    :: atomic { mail?hf, hp, he -> hc = me; hk = First; BeginReceiving(); break } \
    :: atomic { empty(mail) && Waits(me) -> Take(me); BeginReceiving(); break } \
    :: atomic { CanGiveBack -> GiveOneBack() }

proctype Process(byte me; byte blocks)
{
    /* Mail: records saved, put aside for others, and kept off the open channel; the correspondents */
    chan mail = [3] of { byte, byte, byte };
    chan aside = [3] of { int, byte, mtype, byte, byte, byte };
    chan away = [2] of { int, byte, mtype, byte, byte };
    int open = 0;
    byte noted = 0; byte unfinished = 0;
    /* The record in hand, and for whom it is */
    int hc = 0; byte hf = 0; mtype hk = 0; byte hp = 0; byte he = 0; byte to = 0;
    /* The transfer: `part` is the number of the next block to be sent, or of blocks to be received after the first */
    bool isSending; byte peer = 0; byte event = 0; mtype next = 0; int channel = 0; bool isFirst = false; byte part = 0;
    byte got = 0; byte useless = 0; byte code = Ok;
    /* The sweep */
    byte sweep = 0; int swept = 0; byte owner = 0;
    byte round = 0;

    {
        if
        :: me != S -> isSending = true; Discard(me) /* IPCQClient::IPCQClient: the first client of the process */
#ifdef STALE
        :: me == S -> noted = Bit(A) /* it has written to that process */
#else
        :: me == S
#endif
        fi;
        do
        :: me != S && (code != Ok || round == ROUNDS) -> break
        :: else ->
            if
            :: atomic { me != S && isSending -> peer = S; BeginSending(blocks, Request(me, round)) } /* send_event */
            :: atomic { me == S && isSending -> BeginSending(AnswerBlocks(peer), Answer(event)) } /* send_response */
            :: me != S && !isSending -> /* IPCQClient::receive_response */
                do
                FirstBlock
                :: gone[S] -> code = Gone; break
                :: TimeLimit -> code = Late; break
                od
            :: me == S && !isSending -> /* IPCQServer::receive_event */
                isIdle = true;
end:            do
                FirstBlock
#ifndef OLD_DEATHS
                :: Forget
                :: IsToBury(A) -> Bury(A)
                :: IsToBury(B) -> Bury(B)
                :: (noted & Bit(A)) && WaitsFrom(DataChannel(A, me), A) -> Sweep(A, 0, 1)
                :: (noted & Bit(B)) && WaitsFrom(DataChannel(B, me), B) -> Sweep(B, 0, 1)
#endif
                od;
                isIdle = false
            fi;
            if
            :: code == Ok -> Transfer()
            :: else
            fi;
            atomic {
                assert(!Clean || me == S || isSending || event == Answer(Request(me, round))); /* the right answer */
                if
                :: me != S && isSending && AnswerBlocks(me) > 0 -> isSending = false
                :: me != S && (!isSending || AnswerBlocks(me) == 0) -> isSending = true; round++
                :: me == S && !isSending && code == Ok && AnswerBlocks(peer) > 0 -> isSending = true
                :: else -> isSending = false; peer = 0; event = 0; code = Ok
                fi
            }
        od;
        Discard(me); /* IPCQClient::Shutdown */
        do /* Mail::GiveAllBack */
        :: atomic { CanGiveBack -> GiveOneBack() }
        :: empty(aside) -> break
        :: TimeLimit -> break
        od;
        atomic { printf("end %d\n", me); gone[me] = true; Lost(me) }
    } unless { gone[me] }
}

#define Kill(p) atomic { deaths < DEATHS && !gone[p] -> gone[p] = true; Lost(p); printf("die %d\n", p); deaths++ }

/* Ends processes, whatever they do. */
proctype Killer()
{
    byte deaths = 0;
end:
    do
    :: Kill(A)
    :: Kill(B)
    :: Kill(S)
    :: deaths == DEATHS -> break
    od
}

/* Looks at the queue when everything is over. */
proctype Observer()
{
end:
    timeout && gone[A] && gone[B] && isIdle && !gone[S];
    assert(empty(queue)) /* nothing lies there that nobody will read */
}

/* Puts a block of A on the queue once more. */
proctype Doubler()
{
    mtype kind; byte left; byte event;
end:
    atomic {
        nfull(queue) && WaitsFrom(DataChannel(A, S), A) ->
        queue?? <eval(DataChannel(A, S)), eval(A), kind, left, event>;
        queue!DataChannel(A, S), A, kind, left, event;
        printf("twice %d %d %e %d %d\n", DataChannel(A, S), A, kind, left, event)
    }
}

#ifdef STALE
#define Left(ch, from, kind, left) \
    queue!ch, from, kind, left, Stale; printf("stale %d %d %e %d %d\n", ch, from, kind, left, Stale)
#endif

init
{
    atomic {
#ifdef STALE
        byte stale = 0; /* what earlier transfers between A's process id and the server may have left */
        do
        :: stale < STALE -> stale++;
            if
            :: Left(A, S, First, 1)
            :: Left(S, A, First, 1)
            :: Left(AckChannel(A, S), S, Ack, 0)
            :: Left(AckChannel(S, A), A, Ack, 0)
            :: Left(DataChannel(A, S), A, Data, 0)
            :: Left(DataChannel(S, A), S, Data, 0)
            fi
        :: stale == STALE -> break
        od;
#endif
        run Process(A, REQUEST_A);
        run Process(B, REQUEST_B);
        run Process(S, 0);
        run Killer();
#ifdef TWICE
        run Doubler();
#endif
        run Observer()
    }
}
