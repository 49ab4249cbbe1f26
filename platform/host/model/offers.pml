/*
 * Deferred replies and offers (see platform/include/nk/deferred_reply.h and ../src/records/channel_client.h), for spin.
 * Wake-ups are in slot.pml; here a client simply waits for its reply.
 *
 * One client, which waits for the values of two queues, A and B; its waits are served and deferred by one receiver. The
 * events thread brings the values and answers the deferred waits; another thread answers one of them as canceled; a
 * third takes offers back, at any time and as often as it likes. The values of a queue are numbered from 1.
 *
 * What is found, and how:
 * - a request that is never answered: an invalid end state; one that is answered twice: a failed assertion;
 * - a value that is lost, delivered twice, given to the server and the client, or out of order: a failed assertion,
 *   because the client gets 1, 2, 3 ... of each queue, and what is taken back goes back to the head of its queue. What
 *   a client that is gone has not taken may be lost, but not delivered twice.
 *
 * There are no store buffers here: a thread of the server only stores between its last locked instruction and the next
 * one, and a thread whose stores are late is a thread that is late.
 *
 * Switches. At any step: CLIENT_DIES, CLIENT_REMOVED (it lives on), CHANNEL_CLOSES; SCRIBBLES: the client writes
 * wrong numbers of taken offers. `run` lists the planted bugs.
 */

#ifndef VALUES_A
#define VALUES_A 3
#endif
#ifndef VALUES_B
#define VALUES_B 2
#endif
#define MAX_OFFERS 2

#define A 0
#define B 1
#define OTHER 2                         /* any other request; the reply has no value */
#define LAST(q) ((q) == A -> VALUES_A : VALUES_B)

/* The page. */
byte request;           /* client: sequence, and with it the record: */
byte wanted;
byte reply;             /* server: sequence, and the record: */
byte replied;           /* a value; 0: none */
byte offered[MAX_OFFERS];
typedef Word { byte sequence, next, count };
Word word;              /* one atomic word; all zeros: no offers */

/* The kernel. */
bool ended;             /* the server ended the socket */
bool killed;            /* the client's process is gone */

/* Private memory of the server. */
#define FREE 0
#define CLAIMED 1
#define DEFERRED 2
byte turn;              /* last sequence claimed, and */
byte owed;              /* whether its reply is owed, and by which thread */
#define NONE 0
#define PUT 1
#define BUSY 2
byte offers;            /* whether offers are outstanding, and */
byte putSequence;       /* in the same word, which ones */
byte putCount;
bool gone;              /* removed from the channel */
bool closed;            /* the channel */

/* The server program, which has a lock for both queues. */
bool lock;
byte arrived[2];
byte head[2] = 1;       /* the next value to give away */
byte batch;             /* the queue that the offers are from */
byte parked[2];         /* the deferred wait of each queue */
#define LOCK atomic { !lock -> lock = true }
#define UNLOCK lock = false
#define READY(q) (head[q] <= arrived[q])

#ifndef TAKE_WITHOUT_SEQUENCE
#define MATCHES (seen.sequence == request)
#else
#define MATCHES true
#endif

/* What must be true. */
byte delivered[2];

#define OK 0
#define GONE 1          /* or the channel is closed */
#define REFUSED 2       /* was answered, or taken back, before */

#ifdef SCRIBBLES
#define DELIVER(q, value) delivered[q] = value
#define NOT_DELIVERED(q) skip
#else
#define NOT_DELIVERED(q) assert(delivered[q] < head[q])
#define DELIVER(q, value) assert(value == delivered[q] + 1 && value < head[q]); delivered[q] = value
#endif

#define FORGET value = 0; seen.sequence = 0; seen.next = 0; seen.count = 0

active proctype Client() {
    byte last = OTHER, value;
    bool hasPinged;
    Word seen;
    {
    do
    :: delivered[A] >= VALUES_A && delivered[B] >= VALUES_B -> break
    :: else ->
        if
        :: delivered[A] < VALUES_A -> wanted = A
        :: delivered[B] < VALUES_B -> wanted = B
        :: !hasPinged -> hasPinged = true; wanted = OTHER
        fi;
        if
        :: wanted == last && last != OTHER ->
            atomic { seen.sequence = word.sequence; seen.next = word.next; seen.count = word.count }
            if
            :: MATCHES && seen.next < seen.count && seen.next < MAX_OFFERS ->
                value = offered[seen.next];
#ifndef TAKE_WITHOUT_SWAP
                atomic {
                    if
                    :: word.sequence == seen.sequence && word.next == seen.next && word.count == seen.count ->
                        word.next = seen.next + 1;
                        DELIVER(last, value);
                        goto next
                    :: else
                    fi
                }
#else
                atomic {
                    word.sequence = seen.sequence; word.next = seen.next + 1; word.count = seen.count;
                    DELIVER(last, value);
                    goto next
                }
#endif
            :: else
            fi
        :: else
        fi;
        atomic { last = wanted; request = request + 1; FORGET }
#ifdef SCRIBBLES
endCall:
#endif
        if
        :: atomic { reply == request -> value = replied }
        :: atomic { ended && reply != request -> goto done }
        fi;
        atomic {
            if
            :: value != 0 -> DELIVER(last, value)
            :: else
            fi
        }
next:   atomic { FORGET }
    od;
done:
    atomic { value = 0; last = 0 }
    } unless { atomic { killed -> last = 0; hasPinged = false; FORGET } }
}

#define PUT_OFFERS(name, q) \
    atomic { offers = PUT; putSequence = name; putCount = count; head[q] = head[q] + count; batch = q }

#ifndef GONE_UNNOTICED
#define IS_GONE (gone || closed)
#else
#define IS_GONE false
#endif

#ifndef ANSWER_WITHOUT_SWAP
#define SWAP_OWED(name) \
    atomic { \
        if \
        :: turn == name && owed == DEFERRED -> owed = CLAIMED; result = OK \
        :: else -> result = REFUSED \
        fi \
    }
#else
#define SWAP_OWED(name) \
    if \
    :: turn == name && owed == DEFERRED -> result = OK; owed = CLAIMED \
    :: else -> result = REFUSED \
    fi
#endif

#if defined(OFFER_WHILE_OUTSTANDING)
#define MAY_OFFER (offers != BUSY)
#elif defined(OFFER_WHILE_TAKEN_BACK)
#define MAY_OFFER (offers != PUT)
#else
#define MAY_OFFER (offers == NONE)
#endif

/* Answers the deferred request `name` with the next value of queue `q`, and offers what follows; or with nothing. */
inline ReplyDeferred(name, q, hasValue) {
    wasGone = gone || closed;
    if
    :: IS_GONE -> result = GONE
    :: else ->
        SWAP_OWED(name);
        if
        :: result == OK ->
            atomic { replied = (hasValue -> head[q] : 0); head[q] = head[q] + hasValue }
            count = 0;
            if
            :: hasValue && READY(q) && MAY_OFFER ->
                count = (arrived[q] - head[q] + 1 > MAX_OFFERS -> MAX_OFFERS : arrived[q] - head[q] + 1);
                next = 0;
                do
                :: next < count -> offered[next] = head[q] + next; next++
                :: else -> break
                od;
#ifndef OFFER_AFTER_REPLY
                atomic { word.sequence = name; word.next = 0; word.count = count }
#endif
#ifndef OFFER_STATE_AFTER_REPLY
                PUT_OFFERS(name, q)
#endif
            :: else
            fi;
            owed = FREE;
            atomic { assert(reply < name); reply = name }
#ifdef OFFER_AFTER_REPLY
            if
            :: count > 0 -> atomic { word.sequence = name; word.next = 0; word.count = count }
            :: else
            fi;
#endif
#ifdef OFFER_STATE_AFTER_REPLY
            if
            :: count > 0 -> PUT_OFFERS(name, q)
            :: else
            fi;
#endif
            assert(!wasGone)
        :: else
        fi
    fi;
    atomic { count = 0; next = 0; wasGone = false }
}

/* Takes back the offers that came with the reply to `name`. */
inline TakeBack(name) {
    if
    :: gone || closed -> result = GONE
    :: else ->
        atomic {
            if
            :: offers == PUT && putSequence == name ->
#ifndef TAKE_BACK_WITHOUT_SWAP
                offers = BUSY;
#endif
                result = OK; count = putCount
            :: else -> result = REFUSED
            fi
        }
        if
        :: result == OK ->
#ifndef TAKE_BACK_WITHOUT_EXCHANGE
            atomic { next = word.next; word.sequence = 0; word.next = 0; word.count = 0 }
#else
            next = word.next;
            atomic { word.sequence = 0; word.next = 0; word.count = 0 }
#endif
#ifndef TRUST_THE_COUNT
            next = (next > count -> count : next);
#endif
            atomic {
                assert(next <= count);
                head[batch] = head[batch] - (count - next);
                NOT_DELIVERED(batch);
                putSequence = 0; putCount = 0; batch = 0;
                offers = NONE
            }
        :: else
        fi
    fi;
    atomic { count = 0; next = 0 }
}

active proctype Receiver() {
    byte q, name, result, count, next;
    bool wasGone;
endReceive:
    atomic {
        owed == FREE && request != turn && !gone && !closed ->
        assert(request == turn + 1);
        owed = CLAIMED;
        turn = request;
        q = wanted
    }
    if
    :: q == OTHER ->
        if
        :: gone || closed
        :: else -> replied = 0; owed = FREE; atomic { assert(reply < turn); reply = turn }
        fi
    :: else ->
        LOCK;
        if
        :: offers != NONE && batch == q ->
            name = putSequence;
            TakeBack(name);
            result == GONE || offers == NONE        /* another thread may be about to */
        :: else
        fi;
        name = turn;
        owed = DEFERRED;
        if
        :: READY(q) -> ReplyDeferred(name, q, 1)
        :: else -> parked[q] = name
        fi;
        UNLOCK
    fi;
    atomic { q = 0; name = 0; result = 0; wasGone = false; count = 0; next = 0 }
    goto endReceive
}

active proctype Events() {
    byte q, name, result, count, next;
    bool wasGone;
    do
    :: arrived[A] == VALUES_A && arrived[B] == VALUES_B -> break
    :: else ->
        LOCK;
        if
        :: arrived[A] < VALUES_A -> q = A
        :: arrived[B] < VALUES_B -> q = B
        fi;
        if
        :: arrived[q] = arrived[q] + 1
        :: arrived[q] = LAST(q)
        fi;
        if
        :: parked[q] != 0 ->
            name = parked[q];
            ReplyDeferred(name, q, 1);
            parked[q] = 0
        :: else
        fi;
        UNLOCK;
        atomic { q = 0; name = 0; result = 0 }
    od
}

active proctype Canceling() {
    byte name, result, count, next;
    bool wasGone;
    do
    :: parked[A] != 0 -> name = parked[A]; break
    :: parked[B] != 0 -> name = parked[B]; break
    :: true -> goto done
    od;
    ReplyDeferred(name, 0, 0);
done:
    atomic { name = 0; result = 0 }
}

active proctype TakingBack() {
    byte name, result, count, next;
endTake:
    atomic { offers != NONE -> name = putSequence }
    TakeBack(name);
    atomic { name = 0; result = 0 }
    goto endTake
}

/* At any step, or never. */
#if defined(CLIENT_DIES)
active proctype Death() {
    if
    :: killed = true; gone = true       /* some time later, by the housekeeper */
    :: true
    fi
}
#elif defined(CLIENT_REMOVED)
active proctype Removal() {
    if
    :: gone = true; ended = true
    :: true
    fi
}
#elif defined(CHANNEL_CLOSES)
active proctype Close() {
    if
    :: closed = true; gone = true; ended = true
    :: true
    fi
}
#elif defined(SCRIBBLES)
active proctype Scribble() {
end:
    do
    :: offers != NONE -> word.next = 0
    :: offers != NONE -> word.next = MAX_OFFERS + 1
    od
}
#endif
