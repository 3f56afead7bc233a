#include <gtest/gtest.h>

#include "platform/EmpPaths.h"

namespace vok::paths {
namespace {

TEST(EmpPaths, AreBuiltFromTheName) {
    EXPECT_EQ(MountPoint("N"), "/opt/down/emps/empN");
    EXPECT_EQ(ImageFile("N"), "/opt/down/emps/empN_img/empN.img");
    EXPECT_EQ(DownloadedProgram("N"), "/opt/down/emps/empN/empN");
    EXPECT_EQ(DownloadedConfig("N"), "/opt/down/emps/empN/empN.xml");
    EXPECT_EQ(PreinstalledProgram("N"), "/usr/bin/emps/empN/empN");
    EXPECT_EQ(PreinstalledConfig("N"), "/usr/bin/emps/empN/empN.xml");
    EXPECT_EQ(PreinstalledImage("N"), "/usr/bin/emps/empN/empN.img");
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
