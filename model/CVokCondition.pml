/*
 * CVokCondition (platform/CVokCondition.cpp), access by access: every load, store and exchange of a
 * flag and every semaphore call is one step, between any two of which other threads may come in.
 * The flags are sequentially consistent atomics, so these interleavings are all that there are.
 */
typedef CVokCondition {
    byte m_Semaphore;   /* its value */
    byte nWaking;       /* sem_post calls that have raised the value and have yet to wake */
    bool m_bAnnounced;
    bool m_bNotified
}

/* SetDoWaiting(true) */
#ifdef MISTAKE_FLAG_BEFORE_POSTS
inline Announce(condition) {
    if
    :: condition.m_bAnnounced -> skip
    :: else ->
        condition.m_bNotified = false;
        DrainPosts(condition);
        condition.m_bAnnounced = true
    fi
}
#else
inline Announce(condition) {
    if
    :: condition.m_bAnnounced -> skip
    :: else ->
        DrainPosts(condition);
        condition.m_bNotified = false;
        condition.m_bAnnounced = true
    fi
}
#endif

/* while (sem_trywait(...) == 0) continue; */
inline DrainPosts(condition) {
    do
    :: atomic { condition.m_Semaphore > 0 -> condition.m_Semaphore-- }
    :: condition.m_Semaphore == 0 -> break
    od
}

/* SetDoWaiting(false) */
inline Withdraw(condition) {
    condition.m_bAnnounced = false
}

/*
 * Wait. bTimeOver: the deadline has passed; false for a wait without limit. sem_clockwait takes a
 * post that is there, in time or not. It times out while there is none, or while the post that
 * there is has yet to wake it.
 */
inline Wait(condition, bTimeOver, bInTime) {
    do
    :: atomic { condition.m_Semaphore > 0 -> condition.m_Semaphore-- };
       atomic {
           if
           :: condition.m_bNotified -> condition.m_bNotified = false; bInTime = true; break
           :: else    /* a post that came too late for its own announcement */
           fi
       }
    :: atomic {
           bTimeOver && (condition.m_Semaphore == 0 || condition.nWaking > 0) -> bInTime = false
       };
       break
    od
}

/* NotifyOne. bKept: it returns 0. */
inline NotifyOne(condition, bKept) {
    if
    :: !condition.m_bAnnounced -> bKept = false
    :: else ->
        if
        :: atomic { condition.m_bNotified -> bKept = true }
        :: atomic { !condition.m_bNotified -> condition.m_bNotified = true; bKept = true };
           atomic { condition.m_Semaphore++; condition.nWaking++ };
           condition.nWaking--
        fi
    fi
}
