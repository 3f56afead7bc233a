/// The rows of the table.
#pragma once

#include <functional>
#include <vector>

#include "bench/Effort.h"
#include "bench/Emps.h"
#include "bench/Result.h"

namespace vok::bench {

/// What is measured together: one row, or several that need the same daemons.
struct RowGroup {
    std::vector<Spec> specs;
    /// One entry for each spec. Throws std::exception when it cannot be measured here.
    std::function<std::vector<Measured>(const Effort&)> measure;
};

/// In the order of the table.
std::vector<RowGroup> AllRows();

/// Measures a group; when that fails, its rows are skipped for that reason.
std::vector<Result> Measure(const RowGroup& group, const Effort& effort);

// ---- Calls of clients that are connected (RpcRows.cpp) -----------------------------------------

/// "One processor": everybody on one. The median call.
Measured VersionLatency(const Effort& effort);
Measured WarmOpenLatency(const Effort& effort);
Measured WarmOpenLogging(const Effort& effort);
Measured WarmOpenBesideBus(const Effort& effort);
/// The baseline without, then with the looks at the EMP's files.
std::vector<Measured> CloseLatency(const Effort& effort);
/// Clients that call without a pause, each on a thread of its own.
Measured VersionLoad(const Effort& effort, int nClients);
Measured WarmOpenLoad(const Effort& effort, int nClients);

// ---- Starts of EMPs (StartRows.cpp) ------------------------------------------------------------

Measured ColdOpen(const Effort& effort, eLinkage eKind);
Measured ColdOpenBesideBus(const Effort& effort, eLinkage eKind);
Measured FirstAnswerBesideXinetd(const Effort& effort, eLinkage eKind);
Measured ManyColdOpens(const Effort& effort);
Measured ColdOpenManyDescriptors(const Effort& effort);

// ---- Full tables (ScaleRows.cpp) ---------------------------------------------------------------

/// An open and a close, with many clients of one EMP.
std::vector<Measured> ManyClients(const Effort& effort);
/// The same, with many EMPs in the tables.
std::vector<Measured> ManyEmps(const Effort& effort);

// ---- What the daemon takes (FootprintRows.cpp) -------------------------------------------------

Measured IdleMemory(const Effort& effort);
Measured ConnectionMemory(const Effort& effort);
Measured GrowthPerOpen(const Effort& effort);
Measured ThreadsPerEmp(const Effort& effort);
Measured StartUntilReady(const Effort& effort);
Measured EndAfterSigterm(const Effort& effort);

}  // namespace vok::bench
