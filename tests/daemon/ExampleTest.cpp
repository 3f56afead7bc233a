// The example EMP and clients, as their readers would run them.
#include <unistd.h>

#include <array>
#include <cstdio>

#include "platform/EmpPaths.h"
#include "tests/daemon/OpenCloseTest.h"

namespace vok::test {
namespace {

using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

/// The output of a shell command, and its exit status as the last line.
std::string OutputOf(const std::string& strCommand) {
    std::string strOutput;
    std::FILE* const pPipe = ::popen((strCommand + " 2>&1; echo $?").c_str(), "r");
    if (pPipe == nullptr) return "cannot run";
    std::array<char, 512> buffer;
    while (std::fgets(buffer.data(), static_cast<int>(buffer.size()), pPipe) != nullptr)
        strOutput += buffer.data();
    ::pclose(pPipe);
    return strOutput;
}

class Example : public OpenCloseTest {
protected:
    void SetUp() override {
        OpenCloseTest::SetUp();
        CEmpInstaller::PreinstallCopy("Example", "example-emp");
    }

    /// The whole life of a connection, up to the EMP's end after its last client.
    void ExpectLife(const std::string& strClient) {
        EXPECT_THAT(OutputOf(strClient + " --echo 'good morning' Example"),
                    ::testing::MatchesRegex(
                        "opened Example clientPort=[0-9]+ empPort=[0-9]+ serial=2 ip=127.0.0.1\n"
                        "clients 1\n"
                        "echo good morning\n"
                        "closed Example clientPort=[0-9]+ empPort=[0-9]+\n"
                        "0\n"));
        AwaitEndOfExample();
    }
    void AwaitEndOfExample() {
        EXPECT_TRUE(WaitUntilEnded(CEmpInstaller::ProgramPath("Example")));
        AwaitLine(4, "ExitEmpProc", "==Leave ExitEmpProc==. ");
    }
};

TEST_F(Example, ClientOpensUsesAndCloses) {
    ExpectLife(CEmpInstaller::BuiltProgram("example-client"));
}

TEST_F(Example, PythonClientOpensUsesAndCloses) {
    const std::string strModules = CEmpInstaller::BuiltProgram("../gen-py");
    ASSERT_EQ(::access((strModules + "/client.py").c_str(), R_OK), 0)
        << "run this from the build folder";
    ExpectLife("PYTHONPATH=" + strModules + " /usr/bin/python3 " + strModules + "/client.py");
}

/// What admin.py prints, and its exit status as the last line.
std::string AdminPy(const std::string& strArguments) {
    const std::string strModules = CEmpInstaller::BuiltProgram("../gen-py");
    return OutputOf("PYTHONPATH=" + strModules + " /usr/bin/python3 " + strModules + "/admin.py " +
                    strArguments);
}

TEST_F(Example, PythonAdminTellsWhereAndOfOpens) {
    const ConnectionInfo info = OpenEmp("Example");
    ASSERT_GT(Greet(info), 0);
    EXPECT_THAT(AdminPy("state"), AllOf(HasSubstr("\"name\": \"Example\""), EndsWith("}\n0\n")));
    EXPECT_THAT(AdminPy("where Example"),
                AllOf(StartsWith("{\n  \"empName\": \"Example\",\n"),
                      HasSubstr("\"program\": \"" + CEmpInstaller::ProgramPath("Example") + "\""),
                      HasSubstr("\"port\": \"" + info.empPort + "\""), EndsWith("}\n0\n")));
    EXPECT_THAT(AdminPy("opens"),
                AllOf(StartsWith("[\n  {\n    \"serial\": " + std::to_string(info.serial) + ",\n"),
                      HasSubstr("\"empName\": \"Example\""), HasSubstr("\"outcome\": 3"),
                      EndsWith("]\n0\n")));
    EXPECT_TRUE(CloseEmp(info));
    AwaitEndOfExample();
}

TEST_F(Example, PythonAdminTellsWhatIsWrong) {
    EXPECT_THAT(AdminPy("where"), AllOf(HasSubstr("admin.py where EMP"), EndsWith("\n2\n")));
    EXPECT_THAT(AdminPy("opens Example"), EndsWith("\n2\n"));
    const std::string strRefused =
        std::string("The broker's admin service on ") + paths::kAdminSocket + " does not do it: ";
    EXPECT_EQ(AdminPy("where ''"), strRefused + "Where is what? The EMP's name is empty.\n1\n");
    EXPECT_THAT(AdminPy("debug-level 70000"), AllOf(StartsWith(strRefused), EndsWith("\n1\n")));
}

TEST_F(Example, ClientIsToldOfARefusal) {
    EXPECT_EQ(OutputOf(CEmpInstaller::BuiltProgram("example-client") + " Nowhere"),
              "refused Nowhere\n1\n");
}

}  // namespace
}  // namespace vok::test
