/// A world of its own for a test binary.
#pragma once

#include <filesystem>
#include <functional>
#include <string>

namespace vok::test {

/// New mount, network and pid namespaces (without root, inside a new user namespace). There, /tmp,
/// /opt and /run are empty, /usr/bin can be written to, /proc shows the world's processes only and
/// `lo` is up; the machine outside sees nothing of what is done, and whatever is left at the end
/// dies with the world. Folders below the emptied ones that hold the test binary, the daemon under
/// test ($VOK_BROKER_UNDER_TEST) or the working directory stay visible.
class CPrivateWorld {
public:
    /// What a test binary ends with when it may not make a world: ctest shows it as skipped.
    static constexpr int kSkipped = 77;

    /// Runs `run` as pid 1 of a new world and ends this process with its result: an exit status, or
    /// 128 + n when signal n ended it. Returns only when there can be no world: kSkipped, with the
    /// reason on stderr. To be called before any thread exists.
    static int Run(const std::function<int()>& run);

    /// The folder of the test's program, where the other programs of the build are, too.
    static std::filesystem::path ProgramFolder();

    /// Waits, as pid 1 has to, for every child that has ended by now, also for orphans of processes
    /// that tests have started. The number of them. Never takes a child that still runs.
    static int ReapOrphans();

    /// True when images can be mounted here; else `pReason` says why not.
    static bool MayLoopMount(std::string* pReason);
};

}  // namespace vok::test
