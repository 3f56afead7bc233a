/// EMPs for the daemon under test: what a set would have on its disk.
#pragma once

#include <string>
#include <vector>

namespace vok::test {

/// What a fake EMP does; see fake_emp.cpp. The default is an orderly singleton.
class CEmpBehaviour {
public:
    /// One "key value" line of the behaviour file. A later line of the same key counts.
    CEmpBehaviour& With(const std::string& strKey, const std::string& strValue);

    CEmpBehaviour& Option(const std::string& strOption) { return With("option", strOption); }
    CEmpBehaviour& Silent() { return With("report", "0"); }
    /// Reports once `strFile` exists.
    CEmpBehaviour& ReportsWhenExists(const std::string& strFile) { return With("await", strFile); }
    CEmpBehaviour& AnswersClose(int nAnswer) { return With("close", std::to_string(nAnswer)); }
    CEmpBehaviour& IgnoresSigterm() { return With("sigterm", "ignore"); }
    /// Writes down what it was started with; see `ReadStartRecord`.
    CEmpBehaviour& Records(const std::string& strFile) { return With("record", strFile); }

    const std::string& Text() const { return m_strText; }

private:
    std::string m_strText;
};

/// What a fake EMP was started with.
struct StartRecord {
    std::vector<std::string> arguments;
    std::vector<std::string> environment;
    std::vector<int> descriptors;
    std::string strBlockedSignals;  // as /proc shows them: hexadecimal
    std::string strIgnoredSignals;
    std::string strDescriptorLimit;  // "SOFT HARD"
};

/// Waits until the record is there; an empty one when it does not come in time.
StartRecord ReadStartRecord(const std::string& strFile);

/// Puts EMPs where the broker looks for them. For use in a private world only: it removes nothing.
/// All throw std::runtime_error when something cannot be made.
class CEmpInstaller {
public:
    /// The fake EMP as preinstalled program. Again: only the behaviour changes, for the processes
    /// that start from now on.
    static void Preinstall(const std::string& strEmp, const CEmpBehaviour& behaviour = {});
    /// The fake EMP as squashfs image. Again, while it is not mounted: a new image.
    static void InstallImage(const std::string& strEmp, const CEmpBehaviour& behaviour = {});
    /// Another file as preinstalled program, with this mode.
    static void PreinstallFile(const std::string& strEmp, const std::string& strContent,
                               int nMode = 0755);
    /// A copy of another program as preinstalled program; a path relative to the folder of the test
    /// binary.
    static void PreinstallCopy(const std::string& strEmp, const std::string& strProgram);
    /// The same as squashfs image.
    static void InstallImageCopy(const std::string& strEmp, const std::string& strProgram);

    static std::string ProgramPath(const std::string& strEmp);
    static std::string ImagePath(const std::string& strEmp);
    static std::string MountPoint(const std::string& strEmp);

    /// Where the build puts programs: beside the test binary.
    static std::string BuiltProgram(const std::string& strProgram);
};

/// How many processes there are in this world, also such as have ended and are not waited for.
int CountAllProcesses();
/// The pids of all processes in this world that run the file.
std::vector<int> ProcessesOf(const std::string& strProgram);
/// Waits until no process runs the file any more; false when one still does at the end.
bool WaitUntilEnded(const std::string& strProgram);
/// Waits until so many processes run the file.
bool WaitForProcesses(const std::string& strProgram, std::size_t nProcesses);

/// True when something is mounted there.
bool IsMounted(const std::string& strPoint);
/// How many file systems are mounted there, one on the other.
int CountMounts(const std::string& strPoint);
/// And anywhere in this world.
int CountAllMounts();
/// How many loop devices of the machine serve a file of that path. Paths are those of the world
/// that set the device up, so it has to be one that no other test uses.
int CountLoopDevices(const std::string& strImage);

}  // namespace vok::test
