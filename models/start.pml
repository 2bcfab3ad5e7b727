/* SPDX-License-Identifier: BSD-2-Clause */
/*
 * The start and the end of servers: two servers of one name and a client race for the queue and the semaphore set that
 * share its key, and any process can die (DEATHS of them in a run). When all is quiet another server starts, which may
 * have the process id of a dead one.
 *
 * A step is one system call. Queue and set are numbers that no later queue or set has; 0 is none. Each inline stands
 * for the function that its comment names.
 *
 * Assumed:
 * - A process that dies lets go of its lock. STOPS allows a process to go on without the lock while another holds it,
 *   as it does when that one has stood still for a second.
 * - A set has one slot. OLD_RULES are those before there was a lock. What sizes the queue is left out: it changes
 *   neither queue nor set.
 */

#ifndef DEATHS
#define DEATHS 0
#endif

#define First 1
#define Second 2
#define Client 3
#define Reborn 4 /* the server that starts last; its process id is `late` */

#define None 0
#define Failed 255

byte queue = None;
byte set = None;
byte slot = 0;          /* of the set */
byte lastQueue = None;
byte lastSet = None;
byte lock = None;       /* who holds the lock of the name */

bool gone[5] = false;
bool created[5] = false; /* the server object has a queue */
byte mine[5] = None;     /* which one */
byte settled = 0;        /* servers that have ended their constructor, or died */
byte late = Reborn;

#define Exists(process) (!gone[process])

#define OwnState byte q = None; byte sem = None; byte value = 0; byte others = 0; bool found = false; \
    bool isNew = false; byte joined = None;

inline Lock() /* NameLock */
{
#ifdef OLD_RULES
    skip
#else
    if
    :: atomic { lock == None -> lock = me }
#ifdef STOPS
    :: lock != None -> skip
#endif
    fi
#endif
}

inline Unlock()
{
    atomic {
        if
        :: lock == me -> lock = None
        :: else
        fi
    }
}

/* msgget of the key */
inline OpenQueue() { q = queue }

/* get_semid_from_msqid: the status of the queue, then semget of its key; -1 is None */
inline FindSet()
{
    if
    :: q != None && q == queue -> sem = set
    :: else -> sem = None
    fi
}

/* svr4::semaphore_pid */
inline ReadSlot()
{
    value = (sem != None && sem == set -> slot : Failed)
}

/* svr4::set_semaphore_pid */
inline WriteSlot(process)
{
    atomic {
        if
        :: sem != None && sem == set -> slot = process
        :: else
        fi
    }
}

/* delete_semaphore */
inline RemoveSet()
{
    atomic {
        if
        :: sem != None && sem == set -> set = None; slot = 0
        :: else
        fi
    }
}

inline RemoveQueue()
{
    atomic {
        if
        :: q != None && q == queue -> queue = None
        :: else
        fi
    }
}

/* delete_q_and_semaphore */
inline RemoveBoth()
{
    FindSet();
    RemoveQueue();
    RemoveSet()
}

/* is_a_live_server_process: of `others` becomes whether anybody lives, of `found` whether it is `process` */
inline FindLiving(process)
{
    others = 0;
    found = false;
    FindSet();
    if
    :: sem == None
    :: else ->
        ReadSlot();
        if
        :: value == 0 || value == Failed
        :: value != 0 && value != Failed && Exists(value) -> atomic { others = 1; found = (value == process) }
        :: value != 0 && value != Failed && !Exists(value) -> WriteSlot(0)
        fi;
        if
        :: others == 0 -> RemoveBoth()
        :: else
        fi
    fi
}

/* JoinQueue, or the same in connect_to_queue before there was a lock */
inline JoinQueue()
{
    sem = set; /* semget of the key */
#ifdef OLD_RULES
    if
    :: sem == None -> RemoveQueue(); found = false
    :: else ->
        ReadSlot();
        joined = value;
        FindLiving(joined)
    fi;
#else
    if
    :: sem == None -> joined = Failed
    :: else -> ReadSlot(); joined = value
    fi;
    FindLiving(joined);
#endif
    joined = None
}

/* MakeQueue */
inline MakeQueue()
{
#ifdef OLD_RULES
    atomic { /* semget without IPC_EXCL */
        if
        :: set == None -> lastSet++; set = lastSet; slot = 0
        :: else
        fi;
        sem = set
    }
    WriteSlot(me);
    atomic { /* msgget with IPC_EXCL */
        if
        :: queue == None -> lastQueue++; queue = lastQueue; q = queue
        :: else -> q = None
        fi
    }
    if
    :: q == None -> RemoveSet()
    :: else
    fi;
#else
    atomic { /* semget with IPC_EXCL */
        isNew = (set == None);
        if
        :: isNew -> lastSet++; set = lastSet; slot = 0; sem = set
        :: else
        fi
    }
    if
    :: isNew -> WriteSlot(me)
    :: else -> sem = set /* semget */
    fi;
    if
    :: sem == None -> q = None
    :: else ->
        atomic { /* msgget with IPC_EXCL */
            if
            :: queue == None -> lastQueue++; queue = lastQueue; q = queue
            :: else -> q = None
            fi
        }
        if
        :: q == None ->
            ReadSlot();
            if
            :: value == me -> RemoveSet()
            :: else
            fi
        :: q != None && !isNew ->
            if
            :: atomic { sem == set -> slot = me }
            :: sem != set -> RemoveQueue(); q = None
            fi
        :: else
        fi
    fi;
#endif
    isNew = false
}

/* ReplacePredecessor */
inline ReplacePredecessor()
{
    OpenQueue();
    FindSet();
    ReadSlot();
    if
    :: value == me ->
        FindSet();
        ReadSlot();
        if
        :: value == me -> WriteSlot(0) /* remove_serverpid_from_queue */
        :: else
        fi;
        FindLiving(me);
        FindSet();
        ReadSlot();
        if
        :: value == 0 -> WriteSlot(me); joined = q /* add_serverpid_to_queue */
        :: else
        fi
    :: else
    fi
}

/* IPCQServer::IPCQServer; the object `id` of a process `me` */
inline Construct(id)
{
    Lock();
#ifndef OLD_RULES
    ReplacePredecessor();
#endif
    if
    :: joined == None ->
        OpenQueue();
        if
        :: q != None -> JoinQueue()
        :: else -> found = false
        fi;
        if
        :: found -> /* add_serverpid_to_queue */
            FindSet();
            ReadSlot();
            if
            :: value == 0 -> WriteSlot(me)
            :: else -> q = None
            fi
        :: else -> MakeQueue()
        fi
    :: else -> q = joined; joined = None
    fi;
    atomic { mine[id] = q; created[id] = (q != None); printf("server %d created %d\n", me, created[id]) }
    Unlock()
}

/* IPCQServer::Shutdown */
inline Shutdown(id)
{
    Lock();
    q = mine[id];
    created[id] = false;
    /* remove_serverpid_from_queue */
    others = 0;
    FindSet();
    ReadSlot();
    if
    :: value == me -> WriteSlot(0)
    :: value != me && value != 0 && value != Failed -> others = 1
    :: else
    fi;
    if
    :: others == 0 -> RemoveBoth()
    :: else
    fi;
    Unlock()
}

proctype Server(byte id; byte me)
{
    OwnState
    {
        Construct(id);
        settled++;
#ifdef SHUTDOWNS
        if
        :: created[id] && id != Reborn -> Shutdown(id)
        :: skip
        fi;
#endif
end:    false
    } unless { gone[id] }
}

proctype Connecting()
{
    OwnState
    byte me = Client;
    {
        Lock();
        OpenQueue();
        if
        :: q != None -> JoinQueue() /* connect_to_queue */
        :: else
        fi;
        Unlock()
    } unless { gone[Client] }
}

#define Die(id) gone[id] = true; created[id] = false; lock = (lock == id -> None : lock); deaths++

proctype Killer()
{
    byte deaths = 0;
end:
    do
    :: atomic { deaths < DEATHS && !gone[First] -> Die(First) }
    :: atomic { deaths < DEATHS && !gone[Second] -> Die(Second) }
    :: atomic { deaths < DEATHS && !gone[Client] -> Die(Client) }
    :: break
    od
}

#define Robbed(id) (created[id] && (queue != mine[id] || set == None || slot != id))

proctype Observer()
{
end:
    atomic { Robbed(First) || Robbed(Second) -> assert(false) } /* a living server has its queue and its slot */
}

/* When everybody has come to rest. */
proctype Afterwards()
{
    timeout;
#if DEATHS == 0 && !defined(SHUTDOWNS) && !defined(STOPS)
    assert(created[First] + created[Second] == 1); /* one of the two has won */
#endif
    assert(queue == None || set != None); /* no queue that nobody can remove */
    if
    :: created[First] || created[Second] -> skip
    :: else -> 
        if
        :: late = Reborn
        :: atomic { gone[First] -> late = First; gone[First] = false }
        fi;
        run Server(Reborn, late);
        timeout;
        assert(created[Reborn] && mine[Reborn] == queue && set != None && slot == late) /* the next server can start */
    fi
}

init
{
    atomic {
        run Server(First, First);
        run Server(Second, Second);
        run Connecting();
        run Killer();
        run Observer();
        run Afterwards()
    }
}
