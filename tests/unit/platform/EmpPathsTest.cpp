#include <gtest/gtest.h>

#include <cstddef>
#include <string>

#include "platform/EmpPaths.h"

namespace vok::paths {
namespace {

TEST(EmpPaths, AreBuiltFromTheName) {
    EXPECT_EQ(MountPoint("N"), "/opt/down/emps/empN");
    EXPECT_STREQ(ImageFile("N").c_str(), "/opt/down/emps/empN_img/empN.img");
    EXPECT_STREQ(DownloadedProgram("N").c_str(), "/opt/down/emps/empN/empN");
    EXPECT_EQ(DownloadedConfig("N"), "/opt/down/emps/empN/empN.xml");
    EXPECT_STREQ(PreinstalledProgram("N").c_str(), "/usr/bin/emps/empN/empN");
    EXPECT_EQ(PreinstalledConfig("N"), "/usr/bin/emps/empN/empN.xml");
    EXPECT_EQ(PreinstalledImage("N"), "/usr/bin/emps/empN/empN.img");
}

TEST(EmpPaths, LongNamesAreWhole) {
    for (const std::size_t nSize : {40U, 45U, 46U, 50U, 51U, 52U, 255U, 5000U}) {
        const std::string strEmp(nSize, 'n');
        EXPECT_EQ(std::string(ImageFile(strEmp)),
                  "/opt/down/emps/emp" + strEmp + "_img/emp" + strEmp + ".img");
        EXPECT_EQ(std::string(DownloadedProgram(strEmp)),
                  "/opt/down/emps/emp" + strEmp + "/emp" + strEmp);
    }
}

TEST(IsFileName, RefusesWhatLeavesTheFolder) {
    for (const char* szName : {".", "..", "/", "a/b", "../a", "a/"}) {
        EXPECT_FALSE(IsFileName(szName)) << szName;
    }
    EXPECT_FALSE(IsFileName(std::string("a\0b", 3)));
    for (const char* szName : {"Weather", "...", "a.b", "a b", "..a"}) {
        EXPECT_TRUE(IsFileName(szName)) << szName;
    }
}

}  // namespace
}  // namespace vok::paths
