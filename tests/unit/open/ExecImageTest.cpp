#include <gtest/gtest.h>

#include <limits>
#include <ostream>
#include <string>

#include "open/ExecImage.h"

namespace vok {
namespace {

// ---- CopyBounded ----

TEST(CopyBounded, CopiesWhatFitsAndEndsIt) {
    for (const std::size_t nLength : {0, 1, 3, 4, 5, 6, 400}) {
        SCOPED_TRACE(nLength);
        char szTarget[5] = {'#', '#', '#', '#', '#'};
        const std::string strSource(nLength, 'x');

        CopyBounded(szTarget, strSource);

        EXPECT_STREQ(szTarget, strSource.substr(0, 4).c_str());
    }
}

TEST(CopyBounded, KeepsToItsOwnBytes) {
    struct {
        char szTarget[4];
        char szBehind[4];
    } buffers{{}, {'s', 'a', 'f', 'e'}};

    CopyBounded(buffers.szTarget, "longer than that");

    EXPECT_STREQ(buffers.szTarget, "lon");
    EXPECT_EQ(std::string(buffers.szBehind, 4), "safe");
}

// ---- FillExecImage ----

/// One field at one length: what of it arrives.
struct BoundCase {
    const char* szName;
    int nArgument;  // -1: the path
    std::size_t nBound;
    void (*pSet)(ForkEmpParams& params, const std::string& strText);
};
void PrintTo(const BoundCase& c, std::ostream* pStream) {
    *pStream << c.szName;
}

class ExecImageBoundTest : public ::testing::TestWithParam<BoundCase> {};

TEST_P(ExecImageBoundTest, CutsAtTheBoundOnly) {
    const BoundCase& c = GetParam();
    for (const std::size_t nLength : {std::size_t{0}, c.nBound - 1, c.nBound, c.nBound + 1}) {
        SCOPED_TRACE(nLength);
        const std::string strText(nLength, 'x');
        ForkEmpParams params;
        params.ARGV_path = "";
        c.pSet(params, strText);

        ExecImage image;
        FillExecImage(image, params, nullptr);

        const char* szArrived = c.nArgument < 0 ? image.szPath : image.argv[c.nArgument];
        EXPECT_EQ(szArrived, strText.substr(0, c.nBound));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Table, ExecImageBoundTest,
    ::testing::Values(BoundCase{"Path", -1, 119,
                                [](ForkEmpParams& params, const std::string& strText) {
                                    params.ARGV_path = strText.c_str();
                                }},
                      BoundCase{"CallbackPort", 3, 108,
                                [](ForkEmpParams& params, const std::string& strText) {
                                    params.CbSrvPort = strText;
                                }},
                      BoundCase{"Emp", 0, 47,
                                [](ForkEmpParams& params, const std::string& strText) {
                                    CopyBounded(params.ARGV_empName, strText);
                                }},
                      BoundCase{"GroupingEmp", 5, 47,
                                [](ForkEmpParams& params, const std::string& strText) {
                                    CopyBounded(params.ARGV_groupingEmpName, strText);
                                }}),
    [](const auto& info) { return info.param.szName; });

struct NumberCase {
    int nValue;
    const char* szSerial;
    const char* szReserved;
};

TEST(FillExecImage, CutsNumbersAfterTheirFirstCharacters) {
    const NumberCase cases[] = {
        {0, "0", "0"},           {7, "7", "7"},
        {999, "999", "999"},     {1000, "1000", "100"},
        {12345, "12345", "123"}, {123456, "12345", "123"},
        {-1, "42949", "-1"},  // the serial is unsigned
        {-123, "42949", "-12"},  {std::numeric_limits<int>::min(), "21474", "-21"},
    };
    for (const NumberCase& c : cases) {
        SCOPED_TRACE(c.nValue);
        ForkEmpParams params;
        params.ARGV_ticketSerial = c.nValue;
        params.ARGV_reserved = c.nValue;
        ExecImage image;
        FillExecImage(image, params, nullptr);
        EXPECT_STREQ(image.argv[2], c.szSerial);
        EXPECT_STREQ(image.argv[4], c.szReserved);
    }
}

TEST(FillExecImage, BuildsBothVectors) {
    ForkEmpParams params;
    params.ARGV_path = "/usr/bin/emps/empWeather/empWeather";
    CopyBounded(params.ARGV_empName, "Weather");
    CopyBounded(params.ARGV_groupingEmpName, "Group");
    params.ARGV_ticketSerial = 42;
    params.CbSrvPort = "40001";
    char szLibraryPath[] = "LD_LIBRARY_PATH=/lib";

    ExecImage image;
    FillExecImage(image, params, szLibraryPath);

    EXPECT_STREQ(image.szPath, "/usr/bin/emps/empWeather/empWeather");
    EXPECT_STREQ(image.argv[0], "Weather");
    EXPECT_STREQ(image.argv[1], "-DSINGLE_PROCESS");
    EXPECT_STREQ(image.argv[2], "42");
    EXPECT_STREQ(image.argv[3], "40001");
    EXPECT_STREQ(image.argv[4], "0");
    EXPECT_STREQ(image.argv[5], "Group");
    EXPECT_EQ(image.argv[6], nullptr);
    EXPECT_EQ(image.envp[0], szLibraryPath);
    EXPECT_STREQ(image.envp[1], "GST_REGISTRY=/home/app/.gstreamer-0.10/registry.bin");
    EXPECT_STREQ(image.envp[2], "GST_REGISTRY_1_0=/home/app/.gstreamer-1.0/registry.bin");
    EXPECT_EQ(image.envp[3], nullptr);
}

TEST(FillExecImage, WithoutALibraryPathTheEnvironmentIsEmpty) {
    ExecImage image;
    FillExecImage(image, ForkEmpParams{}, nullptr);
    EXPECT_EQ(image.envp[0], nullptr);
}

TEST(FillExecImage, ANullPathIsAnEmptyOne) {
    ExecImage image;
    FillExecImage(image, ForkEmpParams{}, nullptr);
    EXPECT_STREQ(image.szPath, "");
}

}  // namespace
}  // namespace vok
