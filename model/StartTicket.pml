/*
 * The start ticket: where openers and the reports of EMPs meet.
 *
 *   Opener    COpenOperation (open/OpenEmp.cpp), from IssueTicket to FinishTicket
 *   Reporter  CBroker::ConfirmEMPServer (open/ConfirmEmp.cpp)
 *   Clock     the time that an opener's Wait may take (kReportWaitMs)
 *
 * Each opener has a serial of its own: its number. Each report may carry any of these, or one
 * that was never issued, at any time: before the ticket is published, while its opener prepares,
 * waits, gives up or has ended, and again.
 *
 * What holds:
 *   - no report is lost: who notifies before the opener's time is over makes its wait succeed;
 *   - an open succeeds only by a report, and keeps one report whole, never a mixture of two;
 *   - a ticket is erased when its open is refused, undone or given back, and only then, and no
 *     opener in progress loses its ticket otherwise;
 *   - nobody blocks and nobody goes round for ever: every opener and every report ends.
 */
#include "CVokCondition.pml"

#ifndef OPENERS
#define OPENERS 2
#endif
#ifndef REPORTS
#define REPORTS 2
#endif
#define UNKNOWN_SERIAL OPENERS
#define SERIALS (OPENERS + 1)

/* The key of m_mapTicket is absent; or an unknown serial has left an empty entry; or a ticket. */
#define ABSENT 0
#define EMPTY 1
#define TICKET 2

mtype = { under_way, refused, reused, opened, undone, given_back, left_as_is };

/* Such an open has taken its ticket out of the table. */
#define ERASES(how) (how == refused || how == undone || how == given_back)

typedef Ticket {
    CVokCondition m_Condition;
    bool m_bAwaitsReport;
    bool m_bInProgress = true;
    byte m_nPid;        /* the number of the report that has written it; 0: none */
    byte m_strPort;
    byte m_strOption    /* 0 also: the report has none */
}

#define BY_REUSE (REPORTS + 1)    /* a port that no report has written */

bool m_mtxTicket;    /* taken */
byte m_mapTicket[SERIALS];
Ticket ticket[OPENERS];    /* a shared pointer keeps each alive, whether the table has it or not */

/* For the properties only. */
bool bWaits[OPENERS];       /* its Wait has begun, and so has its time */
bool bTimeOver[OPENERS];
bool bNotified[OPENERS];    /* by a report */
bool bInTime[OPENERS];      /* by one before the time was over */
mtype outcome[OPENERS] = under_way;
byte nReported;
byte nEnded;

/*
 * m_mtxTicket. A section that touches nothing but what the lock guards, and waits for nothing, is
 * one step that is possible while nobody holds the lock: atomic { NotLocked(); ... }.
 */
inline NotLocked() {
    !m_mtxTicket
}

inline Lock() {
    atomic { !m_mtxTicket -> m_mtxTicket = true }
}

inline Unlock() {
    m_mtxTicket = false
}

/* A step of an opener that needs memory: std::bad_alloc ends the open there. */
inline MayLackMemory() {
    if
    :: skip
    :: goto GiveBack
    fi
}

/* PruneTickets (registry/Ticket.cpp). Without MAX_TICKETS, the table never gets that long. */
inline PruneTickets() {
#ifdef MAX_TICKETS
    d_step {
        nSize = 0;
        n = 0;
        do
        :: n < SERIALS -> nSize = nSize + (m_mapTicket[n] != ABSENT -> 1 : 0); n++
        :: else -> break
        od;
        n = SERIALS;
        do    /* empty entries at the end of the table */
        :: n > 0 && nSize > MAX_TICKETS && m_mapTicket[n - 1] != TICKET ->
            nSize = nSize - (m_mapTicket[n - 1] == EMPTY -> 1 : 0);
            m_mapTicket[n - 1] = ABSENT;
            n--
        :: else -> break
        od;
        n = 0;
        do    /* then the lowest serials; tickets in progress stay */
        :: n < SERIALS && nSize > MAX_TICKETS ->
            if
            :: m_mapTicket[n] == EMPTY -> m_mapTicket[n] = ABSENT; nSize--
            :: m_mapTicket[n] == TICKET && !ticket[n].m_bInProgress ->
                m_mapTicket[n] = ABSENT;
                nSize--
            :: else
            fi;
            n++
        :: else -> break
        od;
        n = 0;
        nSize = 0
    }
#else
    skip
#endif
}

proctype Opener(byte serial) {
    bool bWoken;
    byte keptPid, keptPort, keptOption;
#ifdef MAX_TICKETS
    byte n, nSize;
#endif

    /* IssueTicket: announced before anybody can find it. */
#ifndef MISTAKE_ANNOUNCED_LATE
    Announce(ticket[serial].m_Condition);
#endif
    atomic {
        NotLocked();
        if
        :: m_mapTicket[serial] == ABSENT -> goto GiveBack    /* no memory for the entry */
        :: skip
        fi;
        m_mapTicket[serial] = TICKET;    /* in the place of what an early report has left */
        PruneTickets()
    };

    /* ChooseServer, RaiseMountCount, CheckEmpStatus: each may end the open. */
    if
    :: skip
    :: goto Refuse
    :: goto ReuseServer
    :: goto GiveBack
    :: outcome[serial] = left_as_is;    /* an unknown failure: nothing is undone */
       goto FinishTicket
    fi;

    /* StartAndAwaitReport */
#ifdef MISTAKE_ANNOUNCED_LATE
    Announce(ticket[serial].m_Condition);
#endif
    atomic { NotLocked(); ticket[serial].m_bAwaitsReport = true };
    if
    :: skip
    :: goto Undo    /* "Start Emp failed" */
    :: goto GiveBack
    fi;

    /* AwaitReport */
#ifdef MISTAKE_ANNOUNCED_ANEW
    Withdraw(ticket[serial].m_Condition);
    Announce(ticket[serial].m_Condition);
#endif
    bWaits[serial] = true;
    Wait(ticket[serial].m_Condition, bTimeOver[serial], bWoken);
#ifdef MISTAKE_WITHDRAWN_AFTER_WAIT
    Withdraw(ticket[serial].m_Condition);
#endif
    atomic {
        /* "10s past": no report was lost. */
        assert(bWoken || (bTimeOver[serial] && !bInTime[serial]));
        bWaits[serial] = false
    };
    if
    :: bWoken
    :: !bWoken -> goto Undo
    :: !bWoken -> goto GiveBack    /* no memory for the reason */
    fi;

    /* KeepReport: a second report may be about to write the ticket. */
#ifndef MISTAKE_KEPT_WITHOUT_LOCK
    Lock();
#endif
    ticket[serial].m_bAwaitsReport = false;
    keptPort = ticket[serial].m_strPort;
    keptOption = ticket[serial].m_strOption;
    keptPid = ticket[serial].m_nPid;
#ifndef MISTAKE_KEPT_WITHOUT_LOCK
    Unlock();    /* also when there is no memory for a copy */
#endif
    MayLackMemory();
    d_step {
        assert(bNotified[serial]);
        assert(keptPort != 0 && keptPid == keptPort);
        assert(keptOption == 0 || keptOption == keptPort)
    };
    if
    :: keptOption == 0 -> goto Undo    /* "New EMP is failed to Open" */
    :: skip                            /* it has an option, or is known already */
    fi;

    /* Succeed: needs memory at its beginning only. The ticket stays for late reports. */
    MayLackMemory();
    outcome[serial] = opened;
    goto FinishTicket;

ReuseServer:
    atomic { NotLocked(); ticket[serial].m_strPort = BY_REUSE };
    if    /* RaiseMountCount, CheckEmpStatus, Succeed */
    :: outcome[serial] = reused
    :: goto Refuse
    :: goto GiveBack
    fi;
    goto FinishTicket;

Refuse:
    atomic { NotLocked(); m_mapTicket[serial] = ABSENT; outcome[serial] = refused };
    goto FinishTicket;

Undo:
    atomic {
        NotLocked();
#ifndef MISTAKE_UNDO_FORGETS_TICKET
        m_mapTicket[serial] = ABSENT;
#endif
        outcome[serial] = undone
    };
    goto FinishTicket;

GiveBack:    /* memory was short, in whatever step */
    atomic {
        NotLocked();
#ifndef MISTAKE_GIVE_BACK_FORGETS_TICKET
        m_mapTicket[serial] = ABSENT;
#endif
        outcome[serial] = given_back
    };

FinishTicket:
    atomic {
        NotLocked();
        assert((m_mapTicket[serial] == TICKET) == !ERASES(outcome[serial]));
        ticket[serial].m_bInProgress = false;
        ticket[serial].m_bAwaitsReport = false;
        keptPid = 0;
        keptPort = 0;
        keptOption = 0;
        nEnded++
    }
}

proctype Reporter(byte number) {
    byte serial;
    bool bKept;
#ifdef MAX_TICKETS
    byte n, nSize;
#endif

    /* Reports are numbered in the order in which they get the lock. */
    atomic {
        nReported == number - 1 && !m_mtxTicket;
        m_mtxTicket = true;
        nReported++;
        select(serial : 0 .. UNKNOWN_SERIAL)
    };
    if
    :: m_mapTicket[serial] == ABSENT ->
        m_mapTicket[serial] = EMPTY;
        PruneTickets();
        goto Leave    /* "ticket isn't valid." */
    :: m_mapTicket[serial] == EMPTY -> goto Leave
    :: else
    fi;

    assert(serial != UNKNOWN_SERIAL);
    if
    :: skip
    :: goto Leave    /* the pid is no number: the conversion throws, and nothing was written */
    fi;
    ticket[serial].m_nPid = number;
    ticket[serial].m_strPort = number;
    if
    :: ticket[serial].m_strOption = number
    :: ticket[serial].m_strOption = 0
    fi;

    /* while (!GetWaitingStatus()) Sleep(kWaiterPoll); */
    do
    :: ticket[serial].m_Condition.m_bAnnounced -> break
    :: else
    od;
    bNotified[serial] = true;
    NotifyOne(ticket[serial].m_Condition, bKept);
    d_step {
        assert(bKept);
        if
        :: !bTimeOver[serial] -> bInTime[serial] = true
        :: else
        fi
    };

Leave:
    atomic { Unlock(); nEnded++ }
}

/* Whoever waits may run out of time, at any moment after its wait has begun. */
proctype Clock(byte serial) {
end:
    bWaits[serial];
    bTimeOver[serial] = true
}

init {
    byte n;
    atomic {
        for (n : 0 .. OPENERS - 1) {
            run Opener(n);
            run Clock(n)
        }
        for (n : 1 .. REPORTS) {
            run Reporter(n)
        }
    }

    /* All end; and what was kept is still there, whatever has reported since. */
    nEnded == OPENERS + REPORTS;
    d_step {
        assert(!m_mtxTicket);
        for (n : 0 .. OPENERS - 1) {
            assert(outcome[n] != under_way);
            assert(!ticket[n].m_bAwaitsReport);
            assert(m_mapTicket[n] != TICKET || !ERASES(outcome[n]));
#ifndef MAX_TICKETS
            assert(m_mapTicket[n] == TICKET || ERASES(outcome[n]))
#endif
        }
    }
}
