/*
 * The broker's locks: every kind of thread that takes them, all at once, each taking them in the
 * order of the code. Each inline bears the name of the function whose locks it takes.
 *
 *   Open         COpenOperation, an opener's thread (open/OpenEmp.cpp, open/StartEmp.cpp)
 *   Report       CBroker::ConfirmEMPServer (open/ConfirmEmp.cpp)
 *   Close        CBroker::CloseEmp (supervision/CloseEmp.cpp)
 *   Stop         CCommand::NotifyToStopEmpServer and the thread that it makes, CBroker::StopEmp
 *                (broker/Execute.cpp, open/StopEmp.cpp, open/ImageMount.cpp)
 *   Remove       CBroker::RemoveLauncherInfo (supervision/LauncherRegistry.cpp)
 *   Register     UnRegisterEMP, RegisterEMP and AddLauncherInfo (there as well)
 *   Query        CBroker::GetState (supervision/BrokerState.cpp); GetWhereabouts and GetOpens take
 *                some of the same locks, never one inside another
 *   GroupReport  CBroker::ConfirmGroupingEmpServer (open/LauncherHandOff.cpp)
 *
 * What holds: nobody blocks for ever. Besides, whoever calls a peer, waits for a report or for a
 * status to change holds no lock.
 *
 * A choice is made before its locks are looked at: each begins with `true`. Without it, a thread
 * would go round every lock that is taken.
 */
bool m_mtxMapEmp, m_mtxMountCount, m_mtxTicket, m_mtxRegisterEmp, m_mtxGroupingEmp;
bool m_mtxInfo, m_mtxConnection;    /* inside CEmpInfo and CConnectionDB */
bool m_pTicketScopedMutex;

/* A CLock within whose block others are taken. A thread's second one of the same lock blocks it. */
inline Lock(mutex) {
    atomic { !mutex -> mutex = true; nHeld++ }
}

inline Unlock(mutex) {
    atomic { mutex = false; nHeld-- }
}

/*
 * A CLock within whose block none is taken: its holder always goes on and gives it back, so it is
 * enough to wait until it is free. A thread that holds nothing else while it waits keeps nobody
 * waiting either; a row of such may therefore stand in an `atomic`, which others enter only where a
 * lock of the row is not free.
 */
inline Take(mutex) {
    !mutex
}

/* A call to a peer, which may call the broker before it answers; or a wait for somebody else. */
inline WithoutLocks() {
    assert(nHeld == 0)
}

inline GetGroupingEMPInfo() {
#ifdef MISTAKE_COUNTED_UNDER_LOCK
    Lock(m_mtxGroupingEmp);
    Take(m_mtxGroupingEmp);    /* CountGroupingEmps, for the log */
    Unlock(m_mtxGroupingEmp)
#else
    Take(m_mtxGroupingEmp);    /* CountGroupingEmps, for the log */
    Take(m_mtxGroupingEmp)
#endif
}

inline GetRegisterEMPInfo() {
    Take(m_mtxRegisterEmp);    /* CountRegisterEmps, for the log */
    Take(m_mtxRegisterEmp)
}

/* Files first, then groups, then launchers. */
inline WhereIsEMP() {
    if
    :: true
    :: true ->
        GetGroupingEMPInfo();
        if
        :: true
        :: true -> GetRegisterEMPInfo()
        fi
    fi
}

/* A wait for other threads: one look of many. */
inline CheckStatus() {
    WithoutLocks();
    Take(m_mtxInfo)
}

inline ConfirmGroupingEmpServer() {
    Take(m_mtxGroupingEmp);    /* CountGroupingEmps, for the log */
    Take(m_mtxGroupingEmp)
}

inline StartEmp() {
    if
    :: true    /* a process of its own: the thread ForkEmp takes no lock */
    :: true ->
        GetGroupingEMPInfo();
        WithoutLocks();              /* IsLauncherServerRunning */
        ConfirmGroupingEmpServer();  /* of a group that has gone */
        GetGroupingEMPInfo();
        WithoutLocks()               /* SendOpenToEmpLauncher */
    :: true ->
        GetRegisterEMPInfo();
        WithoutLocks()               /* SendOpenToEmpLauncher */
    fi
}

/* A look under the first lock; if need be, a change under both. */
inline ChangeMountCount() {
    Lock(m_mtxMapEmp);
    if
    :: true
    :: true -> Take(m_mtxMountCount)
    fi;
    Unlock(m_mtxMapEmp)
}

/* COpenOperation::Undo; and GiveBack, which takes the same locks in the same order */
inline Undo() {
    WithoutLocks();                  /* ReportLogToServer: the head start of the report */
    ChangeMountCount();              /* GiveBackMount, held over the unmount */
    Lock(m_mtxTicket);
    Take(m_mtxInfo);                 /* EndFailedOpen */
    Unlock(m_mtxTicket)
}

inline CloseEmp() {
    atomic {
        WhereIsEMP();                /* ClassifyForClose */
        GetGroupingEMPInfo()
    };
    if
    :: true
    :: true -> ChangeMountCount()    /* LowerMountCount */
    fi;
    atomic {
        CheckStatus();
        Take(m_mtxInfo);             /* GetTypeStatus */
        WithoutLocks();              /* CBrokerProxyEmp::Close */
        if
        :: true ->
            Take(m_mtxInfo);         /* RecordClose: GetTypeOption, SetTypeStatus */
            Take(m_mtxInfo);         /* Remove */
            Take(m_mtxConnection)    /* RemoveConnectionData, RemoveClientPortFromConnDB */
        :: true ->
            ChangeMountCount()       /* RaiseMountCountAgain: memory was short, before or after */
        fi
    }
}

active proctype Open() {
    byte nHeld;

    atomic {
        WhereIsEMP();                /* Locate */
        GetGroupingEMPInfo();
        Take(m_pTicketScopedMutex);  /* IssueTicket: the ticket's constructor */
        Take(m_mtxTicket);
        Take(m_mtxInfo);             /* ChooseServer: Add */
        CheckStatus();               /* ChooseServerOfKnownEmp */
        Take(m_mtxInfo);             /* GetTypeOption */
        Take(m_mtxConnection);       /* GetEmpPort */
        Take(m_mtxTicket);           /* ReuseServer */
        ChangeMountCount();          /* RaiseMountCount, held over the mount */
        Take(m_mtxInfo)              /* CheckEmpStatus */
    };
    if
    :: true ->
        ChangeMountCount();          /* ForgetMountCount */
        Take(m_mtxTicket)            /* Refuse */
    :: true -> Undo()                /* GiveBack: from any step, but none holds a lock over it */
    :: true ->
        atomic {
            Take(m_mtxTicket);       /* StartAndAwaitReport */
            StartEmp();
            WithoutLocks()           /* AwaitReport. What it waits for is in StartTicket.pml. */
        };
        if
        :: true -> Undo()
        :: true ->
            atomic {
                Take(m_mtxTicket);   /* KeepReport */
                Take(m_mtxInfo);     /* SetTypeOption */
                Take(m_mtxInfo);     /* SetEmpProcess */
                Take(m_mtxConnection);  /* Succeed: AddConnectionData */
                Take(m_mtxInfo)      /* SetTypeStatus */
            }
        fi
    fi;
    Take(m_mtxTicket)                /* FinishTicket */
}

active proctype Report() {
    byte nHeld;

#ifdef MISTAKE_RECORD_BEFORE_TICKET
    Lock(m_mtxInfo);                 /* so that the report may write the record at once */
    Take(m_mtxTicket);
    Unlock(m_mtxInfo)
#else
    Take(m_mtxTicket)                /* while the ticket is filled and its opener notified */
#endif
}

active proctype Close() {
    byte nHeld;

    CloseEmp()
}

active proctype Stop() {
    byte nHeld;

    atomic {
        Take(m_mtxInfo);             /* NotifyToStopEmpServer: GetEmpProcess */
        Take(m_mtxConnection);       /* RemoveEmpInfoFromConnDB */
        Take(m_mtxInfo);             /* Remove */
        WhereIsEMP();
        GetGroupingEMPInfo()
    };
#ifdef MISTAKE_COUNT_BEFORE_TABLE
    Lock(m_mtxMountCount);           /* since it is the count that decides */
    Take(m_mtxMapEmp);
    Unlock(m_mtxMountCount);
#else
    Take(m_mtxMapEmp);               /* FindGroupToStop */
#endif
    atomic {
        ConfirmGroupingEmpServer();  /* StopEmp, on its own thread */
        WithoutLocks();              /* AwaitEnd */
        ChangeMountCount()           /* UnmoutEMP, held over the unmount */
    }
}

active proctype Remove() {
    byte nHeld;

    Lock(m_mtxRegisterEmp);          /* CollectConnections */
    Take(m_mtxConnection);           /* GetEmpPort */
    if
    :: true -> Take(m_mtxInfo)       /* Remove, of an EMP without a connection */
    :: true -> Take(m_mtxConnection) /* GetClientPortNumList */
    fi;
#ifdef MISTAKE_CLOSED_UNDER_LOCK
    CloseEmp();
    Unlock(m_mtxRegisterEmp)
#else
    Unlock(m_mtxRegisterEmp);
    CloseEmp();                      /* one after the other */
    Take(m_mtxRegisterEmp)
#endif
}

active proctype Register() {
    byte nHeld;

#ifdef MISTAKE_USE_BEFORE_LAUNCHERS
    Lock(m_mtxInfo);                 /* so that nobody opens the EMP in between */
    Take(m_mtxRegisterEmp);
    Unlock(m_mtxInfo)
#else
    atomic {
        Take(m_mtxInfo);             /* UnRegisterEMP: IsAdded */
        Take(m_mtxRegisterEmp)       /* UnRegisterEMP; RegisterEMP and AddLauncherInfo alike */
    }
#endif
}

active proctype Query() {
    byte nHeld;

    atomic {
        Take(m_mtxInfo);             /* DescribeEmps */
        Take(m_mtxGroupingEmp);      /* LocateSilently */
        Take(m_mtxRegisterEmp);
#ifdef MISTAKE_CONNECTIONS_BEFORE_LAUNCHERS
        Lock(m_mtxConnection)        /* so that both tables fit together */
    };
    Take(m_mtxRegisterEmp);
    Unlock(m_mtxConnection);
    atomic {
#else
        Take(m_mtxConnection);       /* DescribeConnections */
#endif
        Take(m_mtxMountCount);       /* DescribeMounts */
        Take(m_mtxRegisterEmp);      /* GetState */
        Take(m_mtxGroupingEmp);
        Take(m_mtxTicket)
    }
}

active proctype GroupReport() {
    byte nHeld;

    atomic {
        ConfirmGroupingEmpServer()
    }
}
