/*
 * CVokCondition by itself: one waiter that announces itself anew, and notifiers that no lock keeps
 * apart, as signal handlers and stops are.
 *
 * A notification that begins while the waiter is announced ends that announcement's wait, however
 * late others come, and whatever was left over from the announcement before.
 */
#include "CVokCondition.pml"

CVokCondition condition;
bool bDeadline;     /* of the first wait */
byte nAnnounced;    /* what the waiter has told the notifiers that answer it */

active proctype Waiter() {
    bool bInTime;

    Announce(condition);
    Wait(condition, bDeadline, bInTime);
    Withdraw(condition);

    Announce(condition);
    nAnnounced = 1;
    Wait(condition, false, bInTime);
    assert(bInTime);

    /* Once more under the same announcement, as PingTest does between its rounds. */
    nAnnounced = 2;
    Wait(condition, false, bInTime);
    assert(bInTime)
}

active proctype Clock() {
    bDeadline = true
}

/* At any time: for the first announcement, for none, or late. */
active [2] proctype Notifier() {
    bool bKept;
    NotifyOne(condition, bKept)
}

/* One notification for each wait that has no limit, begun when it cannot be missed any more. */
active proctype Answerer() {
    bool bKept;
    nAnnounced >= 1;
    NotifyOne(condition, bKept);
    assert(bKept);
    nAnnounced >= 2;
    NotifyOne(condition, bKept);
    assert(bKept)
}
