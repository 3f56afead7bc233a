// The example EMP and clients, as their readers would run them.
#include <unistd.h>

#include <array>
#include <cstdio>

#include "tests/daemon/OpenCloseTest.h"

namespace vok::test {
namespace {

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

TEST_F(Example, ClientIsToldOfARefusal) {
    EXPECT_EQ(OutputOf(CEmpInstaller::BuiltProgram("example-client") + " Nowhere"),
              "refused Nowhere\n1\n");
}

}  // namespace
}  // namespace vok::test
