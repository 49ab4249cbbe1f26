/*
 * The slot and doorbell protocol of the shared-memory transport (see ../src/records/shared_memory_slot.h), for spin.
 *
 * Two clients with one slot each; three receivers; one memory. A plain store to a shared word goes through the store
 * buffer of its thread (total store order, as on x86) and reaches the memory some time later. A locked store waits
 * until the buffer is empty and takes effect at once; a system call waits as well.
 *
 * A lost wake-up is an invalid end state: a client asleep, or a handler waiting, and no process that can move. A
 * request claimed twice, or a reply to another request, is a failed assertion.
 *
 * Switches. Death at any step: CLIENT_DIES, SERVER_DIES. Planted bugs, each of which must be found: PLAIN_SLEEP and
 * PLAIN_REPLY (a store without its fence), NO_RING_BEFORE_SLEEP, CLAIM_WITHOUT_SEQUENCE.
 */

#define CLIENTS 2
#ifndef RECEIVERS
#define RECEIVERS 3
#endif
#ifdef LONGER
#define CALLS(c) (1 + (c))              /* client 0 calls once, client 1 twice */
#else
#define CALLS(c) 1
#endif

/* Shared words, and the side that writes them. */
#define REQUEST(c) (c)                  /* client: sequence of the published request */
#define SLEEPING(c) (CLIENTS + (c))     /* client: sequence of the call it sleeps for */
#define REPLY(c) (2 * CLIENTS + (c))    /* server: sequence of the finished request */
byte memory[3 * CLIENTS];
bool polled;            /* server: a receiver looks, so a client need not ring; in the code, one word per slot. Not
                           buffered: a client may see it stale anyway, because a receiver leaves it set when it leaves
                           with a request. */

/* One store buffer per thread: clients first, then receivers. */
chan buffer[CLIENTS + 3] = [2] of { byte, byte };
#define FENCE empty(buffer[self])
#define PLAIN_STORE(word, value) buffer[self]!word,value
#define LOCKED_STORE(word, value) atomic { FENCE -> memory[word] = value }
#ifdef PLAIN_SLEEP
#define SLEEP_STORE PLAIN_STORE
#else
#define SLEEP_STORE LOCKED_STORE
#endif
#ifdef PLAIN_REPLY
#define REPLY_STORE PLAIN_STORE
#else
#define REPLY_STORE LOCKED_STORE
#endif

/* The kernel. */
bool bell[CLIENTS];     /* event of the channel's epoll set: client c rang */
bool kick;              /* the same, rung by a receiver that leaves visible work behind */
bool doorbell[CLIENTS]; /* event of the client's own epoll set */
bool eof;               /* the server's sockets are closed */
bool killed[CLIENTS];   /* the process is dead */
bool removed[CLIENTS];  /* the housekeeper took its connection away */

/* Private memory of the server; every access is a locked instruction or under the role. */
byte turn[CLIENTS];     /* last sequence claimed, and */
bool claimed[CLIENTS];  /* whether its reply is still owed */
bool role;              /* at most one receiver polls */
byte sleepers;
bool asleep[3];         /* in the kernel. Sleepers are all alike, so only the first one is ever woken here. */
#define FIRST_ASLEEP (self == 2 || (!asleep[0] && (self == 3 || !asleep[1])))

/* What must be true in the end. */
byte served[CLIENTS];
bool finished[CLIENTS];

active proctype Memory() {
    byte word, value;
end:
    do
    :: atomic { buffer[0]?word,value -> memory[word] = value }
    :: atomic { buffer[1]?word,value -> memory[word] = value }
    :: atomic { buffer[2]?word,value -> memory[word] = value }
    :: atomic { buffer[3]?word,value -> memory[word] = value }
    :: atomic { buffer[4]?word,value -> memory[word] = value }
    od
}

proctype Client(byte self) {
    byte sequence;
    bool rung;
    {
    do
    :: sequence == CALLS(self) -> break
    :: atomic { sequence < CALLS(self) && FENCE -> sequence++; rung = false; memory[REQUEST(self)] = sequence }
        atomic {
            if
            :: !polled -> bell[self] = true; rung = true
            :: else
            fi
        }
        /* A spin of any length: it ends with the reply or without it. */
        if
        :: memory[REPLY(self)] == sequence -> goto answered
        :: true
        fi;
#ifndef NO_RING_BEFORE_SLEEP
        if
        :: !rung -> atomic { FENCE -> bell[self] = true; rung = true }
        :: else
        fi;
#endif
        SLEEP_STORE(SLEEPING(self), sequence);
        do
        :: memory[REPLY(self)] == sequence -> break
        :: else ->
            if
            :: atomic { doorbell[self] -> doorbell[self] = false }
            :: atomic {
                eof ->
                if
                :: memory[REPLY(self)] == sequence -> goto answered
                :: else -> goto done
                fi }
            fi
        od;
answered:
        assert(served[self] == sequence)
    od;
done:
    atomic { finished[self] = true; sequence = 0; rung = false }
    } unless { killed[self] }
}

#define VISIBLE(c) (!removed[c] && !claimed[c] && memory[REQUEST(c)] != turn[c])

proctype Receiver(byte self) {
    byte client, expected;
    bool scanning;
    {
    skip;
receive:
    atomic {
        FENCE -> client = 0; expected = 0; scanning = false;
        if
        :: !role -> role = true; scanning = true
        :: else -> goto sleep
        fi;
        if
        :: polled = true                                 /* a spin of any length: one round stands for all */
        :: !polled -> role = false; goto sleep           /* not worth it now */
        fi
    }

scan:   /* One step: the clients do not depend on each other, so a slower round sees nothing that this does not. */
    atomic {
        if
        :: VISIBLE(0) -> client = 0; expected = turn[0]; goto claim
        :: VISIBLE(1) -> client = 1; expected = turn[1]; goto claim
        :: else ->
            if
            :: polled -> polled = false
            :: else -> role = false; goto sleep
            fi
        fi
    }
    goto scan;

heard:  /* a ring: is there a request of this client? */
    atomic {
        if
        :: VISIBLE(client) -> expected = turn[client]
        :: else -> goto receive
        fi
    }

claim:  /* a compare-and-swap on the sequence and the owner together */
#ifndef CLAIM_WITHOUT_SEQUENCE
    atomic {
        if
        :: !claimed[client] && turn[client] == expected ->
            assert(memory[REQUEST(client)] == expected + 1);
            claimed[client] = true;
            turn[client] = expected + 1;
            goto found
        :: else -> goto missed
        fi
    }
#else
    atomic {
        if
        :: !claimed[client] -> claimed[client] = true
        :: else -> goto missed
        fi
    }
    atomic {
        if
        :: memory[REQUEST(client)] != turn[client] -> turn[client] = turn[client] + 1; goto found
        :: else
        fi
    }
    atomic { claimed[client] = false; goto missed }
#endif

missed: /* another receiver was faster */
    atomic {
        client = 0; expected = 0;
        if
        :: scanning -> goto scan
        :: else -> goto receive
        fi
    }

sleep:
    atomic { sleepers++; client = 0; expected = 0; scanning = false }
    atomic {
        if
        :: !role && polled -> sleepers--; goto receive
        :: else -> asleep[self - CLIENTS] = true
        fi
    }
endSleep:
    atomic {
        FIRST_ASLEEP && (kick || bell[0] || bell[1]) ->
        asleep[self - CLIENTS] = false;
        sleepers--;
        if
        :: kick -> kick = false; goto receive
        :: bell[0] -> bell[0] = false; client = 0; goto heard
        :: bell[1] -> bell[1] = false; client = 1; goto heard
        fi
    }

found:  /* leave with the request; `polled` stays set, for this thread or the next one to receive */
    atomic {
        expected = 0;
        if
        :: scanning -> role = false; scanning = false
        :: else
        fi
    }
    atomic {
        kick = kick || (sleepers > 0 && (VISIBLE(0) || VISIBLE(1)));
        served[client]++;
        assert(served[client] == turn[client])
    }
    if
    :: client == 1 || finished[1] || removed[1]          /* client 0 asks for what client 1 will send */
    fi;
    atomic { claimed[client] = false; REPLY_STORE(REPLY(client), turn[client]) }
    atomic {
        if
        :: memory[SLEEPING(client)] == served[client] -> FENCE -> doorbell[client] = true
        :: else
        fi;
        goto receive
    }
    } unless { eof }
}

#ifdef CLIENT_DIES
/* A client dies at any step, or never; the housekeeper removes it some time later. */
active proctype Death() {
    if
    :: killed[0] = true; removed[0] = true
    :: killed[1] = true; removed[1] = true
    :: true
    fi
}
#endif

#ifdef SERVER_DIES
active proctype Death() {
    if
    :: eof = true
    :: true
    fi
}
#endif

init {
    atomic {
        run Client(0);
        run Client(1);
        run Receiver(2);
#if RECEIVERS == 3
        run Receiver(4);
#endif
        run Receiver(3)
    }
}
