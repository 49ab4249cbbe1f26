/*
 * The slot and doorbell protocol of the shared-memory transport (see ../src/records/shared_memory_slot.h), for spin:
 * claiming, replying, who wakes whom. offers.pml has the rest: deferred replies and offers in detail.
 *
 * Two clients with one slot each; up to three receivers; with DEFER, a thread that answers deferred requests; one
 * memory. A plain store to a shared word goes through the store buffer of its thread (total store order, as on x86) and
 * reaches the memory some time later. A locked store waits until the buffer is empty and takes effect at once; a system
 * call waits as well.
 *
 * What is found, and how:
 * - a lost wake-up, a lost request: an invalid end state, that is, a client asleep, or a handler waiting, while no
 *   process can move;
 * - a request claimed or answered twice, a reply to another request, a reply that is there and not returned: a failed
 *   assertion;
 * - a request that was left to a receiver that sleeps: a failed assertion of Watch. The client's ring before its sleep
 *   would repair that; only the time until then is lost.
 *
 * Simpler than the code: both clients are always among the recent ones, and PollerRole::Learn and ForgetGone take no
 * time. They hold the role for a few instructions, and a receiver that finds it held meanwhile neither looks nor wakes
 * another; so a request may be left until its client rings.
 *
 * Switches. RECEIVERS=n; CALLS_0=n, CALLS_1=n; DEFER: the request of client 0 is deferred. At any step:
 * CLIENT_DIES, CLIENT_REMOVED (it lives on), CHANNEL_CLOSES, SERVER_DIES. `run` lists the planted bugs.
 */

#define CLIENTS 2
#ifndef RECEIVERS
#define RECEIVERS 2
#endif
#ifndef CALLS_0
#define CALLS_0 1
#endif
#ifndef CALLS_1
#define CALLS_1 1
#endif
#define CALLS(c) ((c) == 0 -> CALLS_0 : CALLS_1)

/* Shared words, and the side that writes them. */
#define REQUEST(c) (c)                  /* client: sequence of the published request */
#define SLEEPING(c) (CLIENTS + (c))     /* client: sequence of the call it sleeps for */
#define REPLY(c) (2 * CLIENTS + (c))    /* server: sequence of the finished request */
#define HINT(c) (3 * CLIENTS + (c))     /* server: the poller looks, so the client need not ring */
byte memory[4 * CLIENTS];

/* One store buffer per thread: clients first, then receivers, then the thread that answers deferred requests. */
#define ANSWERER 5
chan buffer[6] = [2] of { byte, byte };
#define FENCE empty(buffer[self])
#define PLAIN_STORE(word, value) buffer[self]!word,value
#define LOCKED_STORE(word, value) atomic { FENCE -> memory[word] = value }
#ifdef PLAIN_PUBLISH
#define REQUEST_STORE PLAIN_STORE
#else
#define REQUEST_STORE LOCKED_STORE
#endif
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
#ifdef PLAIN_CLEAR
#define CLEAR_STORE PLAIN_STORE
#else
#define CLEAR_STORE LOCKED_STORE
#endif

/* The kernel. */
bool bell[CLIENTS];     /* event of the channel's epoll set: client c rang */
bool kick;              /* the same, rung by a receiver that leaves visible work behind */
bool doorbell[CLIENTS]; /* event of the client's own epoll set */
bool eof;               /* the server's process is gone */
bool ended[CLIENTS];    /* the server ended the socket */
bool killed[CLIENTS];   /* the client's process is gone */

/* Private memory of the server; every access is a locked instruction or under the role. */
#define FREE 0
#define CLAIMED 1
#define DEFERRED 2
byte turn[CLIENTS];     /* last sequence claimed, and */
byte owed[CLIENTS];     /* whether its reply is owed, and by which thread */
bool gone[CLIENTS];     /* removed from the channel */
bool closed;            /* the channel */
bool role;              /* at most one receiver polls */
bool polled;            /* the hints are set; changed in the role */
byte sleepers;
byte deferred;          /* the deferred request of client 0: its sequence */
bool asleep[3];         /* in the kernel. Sleepers are all alike, so only the first one is ever woken here. */
#define FIRST_ASLEEP (self == 2 || (!asleep[0] && (self == 3 || !asleep[1])))

/* What must be true. */
bool finished[CLIENTS];
byte looking;           /* receivers that neither sleep nor serve */
byte relies[CLIENTS];   /* 1: the client has a request, not claimed; 2: it has read its hint and not rung */
bool left[CLIENTS];     /* it was so when the poller left */

active proctype Memory() {
    byte word, value;
end:
    do
    :: atomic { buffer[0]?word,value -> memory[word] = value; word = 0; value = 0 }
    :: atomic { buffer[1]?word,value -> memory[word] = value; word = 0; value = 0 }
    :: atomic { buffer[2]?word,value -> memory[word] = value; word = 0; value = 0 }
    :: atomic { buffer[3]?word,value -> memory[word] = value; word = 0; value = 0 }
    :: atomic { buffer[4]?word,value -> memory[word] = value; word = 0; value = 0 }
    :: atomic { buffer[ANSWERER]?word,value -> memory[word] = value; word = 0; value = 0 }
    od
}

/* A receiver sleeps, none looks, no wake-up is under way, and a client relies on them. */
#define LEFT_ALONE(c) (left[c] && relies[c] == 2 && !gone[c])
active proctype Watch() {
end:
    atomic {
        looking == 0 && !kick && (asleep[0] || asleep[1] || asleep[2]) && (LEFT_ALONE(0) || LEFT_ALONE(1)) &&
            !closed && !eof ->
        assert(false)
    }
}

#define ENDED(c) (eof || ended[c])
#define NOT_RELYING relies[self] = 0; left[self] = false
#define RING FENCE -> bell[self] = !gone[self]; rung = true; NOT_RELYING

proctype Client(byte self) {
    byte sequence;
    bool rung;
    {
    do
    :: sequence == CALLS(self) -> break
    :: atomic {
            sequence < CALLS(self) && FENCE ->
            sequence++;
            rung = false;
            relies[self] = 1;
            REQUEST_STORE(REQUEST(self), sequence)
        }
        atomic {
            if
            :: !memory[HINT(self)] -> RING
            :: memory[HINT(self)] && relies[self] -> relies[self] = 2
            :: memory[HINT(self)] && !relies[self]
            fi
        }
        /* A spin of any length: it ends with the reply or without it. */
        if
        :: memory[REPLY(self)] == sequence -> goto answered
        :: true
        fi;
#ifndef NO_RING_BEFORE_SLEEP
        if
        :: !rung -> atomic { RING }
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
                ENDED(self) ->
#ifndef NO_LAST_LOOK
                if
                :: memory[REPLY(self)] == sequence -> goto answered
                :: else
                fi;
#endif
                assert(memory[REPLY(self)] != sequence);
                goto done }
            fi
        od;
answered:
        assert(turn[self] == sequence)
    od;
done:
    atomic { finished[self] = true; NOT_RELYING; sequence = 0; rung = false }
    } unless { atomic { killed[self] -> NOT_RELYING; doorbell[self] = false; sequence = 0; rung = false } }
}

#define ANNOUNCE memory[HINT(0)] = true; memory[HINT(1)] = true; polled = true
#define VISIBLE(c) (!gone[c] && owed[c] == FREE && memory[REQUEST(c)] != turn[c])

/* Ends the server's half of the call `sequence` of `client`. */
inline Publish(client, sequence) {
#ifdef REPLY_BEFORE_TURN
    atomic { assert(memory[REPLY(client)] < sequence); REPLY_STORE(REPLY(client), sequence) }
    owed[client] = FREE;
#else
    owed[client] = FREE;
    atomic { assert(memory[REPLY(client)] < sequence); REPLY_STORE(REPLY(client), sequence) }
#endif
    atomic {
        if
        :: memory[SLEEPING(client)] == sequence -> FENCE -> doorbell[client] = true
        :: else
        fi
    }
}

/* Client 0 asks for what client 1 will send. */
#define IS_THERE (finished[1] || gone[1] || closed)

proctype Receiver(byte self) {
    byte client, sequence;
    bool scanning, second;
    {
    looking++;
receive:
    atomic {
        FENCE -> client = 0; sequence = 0; scanning = false; second = false;
        if
        :: closed -> goto done
        :: !closed && !role -> role = true; scanning = true
        :: !closed && role -> goto sleep
        fi;
        if
        :: polled -> goto scan
        :: !polled                                       /* a spin of any length: one round stands for all */
        :: !polled -> role = false; goto sleep           /* not worth it now */
        fi;
        ANNOUNCE
    }

scan:   /* a round over the clients, from any of them */
    atomic {
        second = false;
        if
        :: client = 0
        :: client = 1
        fi;
        if
        :: VISIBLE(client) -> sequence = turn[client]; goto claim
        :: else
        fi
    }
scanSecond:
    atomic {
        second = true;
        client = 1 - client;
        if
        :: VISIBLE(client) -> sequence = turn[client]; goto claim
        :: else
        fi
    }
nothing:
    atomic {
        client = 0; sequence = 0; second = false;
        if
        :: polled
        :: !polled -> goto leave
        fi;
        CLEAR_STORE(HINT(0), false)
    }
    atomic { CLEAR_STORE(HINT(1), false); polled = false }
#ifndef NO_LOOK_AFTER_UNTELLING
    goto scan;
#endif
leave:
    atomic {
        FENCE -> role = false;
        left[0] = relies[0] > 0;
        left[1] = relies[1] > 0;
        goto sleep
    }

heard:  /* a ring: is there a request of this client? */
    atomic {
        if
        :: VISIBLE(client) -> sequence = turn[client]
        :: else -> sleepers--; goto receive
        fi
    }

claim:  /* a compare-and-swap on the sequence and the owner together */
#ifndef CLAIM_WITHOUT_SEQUENCE
    atomic {
        if
        :: owed[client] == FREE && turn[client] == sequence ->
            assert(memory[REQUEST(client)] == sequence + 1);
            owed[client] = CLAIMED;
            turn[client] = sequence + 1;
            goto found
        :: else -> goto missed
        fi
    }
#else
    atomic {
        if
        :: owed[client] == FREE -> owed[client] = CLAIMED
        :: else -> goto missed
        fi
    }
    atomic {
        if
        :: memory[REQUEST(client)] != turn[client] -> turn[client] = turn[client] + 1; goto found
        :: else
        fi
    }
    atomic { owed[client] = FREE; goto missed }
#endif

missed: /* another receiver was faster */
    atomic {
        sequence = 0;
        if
        :: scanning && !second -> goto scanSecond
        :: scanning && second -> goto nothing
        :: !scanning -> sleepers--; client = 0; goto receive
        fi
    }

sleep:
    atomic { sleepers++; client = 0; sequence = 0; scanning = false }
#ifndef SLEEPER_DOES_NOT_LOOK
    atomic {
        if
        :: !role && polled -> sleepers--; goto receive
        :: else
        fi
    }
#endif
    atomic { FENCE -> asleep[self - CLIENTS] = true; looking-- }
endSleep:
    atomic {
        FIRST_ASLEEP && (kick || bell[0] || bell[1] || closed) ->
        asleep[self - CLIENTS] = false;
        looking++;
        if
        :: kick -> kick = false; sleepers--; goto receive
        :: bell[0] -> bell[0] = false; client = 0; goto heard
        :: bell[1] -> bell[1] = false; client = 1; goto heard
        :: closed -> goto done
        fi
    }

found:
    atomic {
        assert(turn[client] == sequence + 1 && turn[client] <= memory[REQUEST(client)]);
        sequence = turn[client];
        second = false;
        relies[client] = 0;
        left[client] = false;
        if
        :: !scanning -> sleepers--; looking--; goto serve
        :: else
        fi
    }
#ifndef NOT_ANNOUNCED_AGAIN
    atomic {
        if
        :: !polled -> FENCE -> ANNOUNCE         /* found by the last look */
        :: else
        fi
    }
#endif
    /* Leave with the request; the hints stay set, for this receiver or the next one. */
    atomic {
        FENCE -> role = false;
        scanning = false;
        left[0] = relies[0] > 0;
        left[1] = relies[1] > 0
    }
#ifndef NO_KICK
    atomic {
        if
        :: sleepers > 0
        :: else -> looking--; goto serve
        fi
    }
    atomic {
        if
        :: !role -> role = true
        :: else -> looking--; goto serve
        fi
    }
    atomic { FENCE -> kick = kick || VISIBLE(0) || VISIBLE(1); role = false }
#endif
    looking--;

serve:
#ifdef DEFER
    atomic {
        if
        :: client == 0 && !IS_THERE -> owed[0] = DEFERRED
        :: else -> goto answer
        fi
    }
    atomic { deferred = sequence; looking++; goto receive }
#else
    client == 1 || IS_THERE;
#endif

answer:
    atomic {
        if
        :: gone[client] || closed -> looking++; goto receive
        :: !gone[client]                /* on a closed channel, too: that it is closed */
        fi
    }
    Publish(client, sequence);
    atomic { looking++; goto receive }
done:
    atomic { looking--; client = 0; sequence = 0; scanning = false; second = false }
    } unless { eof }
}

#ifdef DEFER
proctype Answerer(byte self) {
    byte sequence;
    {
    skip;
endWait:
    atomic {
        deferred != 0 && IS_THERE ->
        sequence = deferred;
        deferred = 0;
        if
        :: gone[0] || closed -> sequence = 0; goto endWait     /* reported to the answering thread */
        :: else
        fi
    }
    atomic { assert(owed[0] == DEFERRED && turn[0] == sequence); owed[0] = CLAIMED }
    Publish(0, sequence);
    sequence = 0;
    goto endWait
    } unless { eof }
}
#endif

/* At any step, or never. */
#define REMOVE(c) atomic { gone[c] = true; bell[c] = false }
#if defined(CLIENT_DIES)
active proctype Death() {
    if
    :: killed[0] = true; REMOVE(0)                      /* some time later, by the housekeeper */
    :: killed[1] = true; REMOVE(1)
    :: true
    fi
}
#elif defined(CLIENT_REMOVED)
active proctype Removal() {
    if
    :: REMOVE(0); ended[0] = true
    :: REMOVE(1); ended[1] = true
    :: true
    fi
}
#elif defined(CHANNEL_CLOSES)
active proctype Close() {
    if
    :: closed = true; REMOVE(0); ended[0] = true; REMOVE(1); ended[1] = true
    :: true
    fi
}
#elif defined(SERVER_DIES)
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
#ifdef DEFER
        run Answerer(ANSWERER);
#endif
#if RECEIVERS >= 3
        run Receiver(4);
#endif
#if RECEIVERS >= 2
        run Receiver(3);
#endif
        run Receiver(2)
    }
}
