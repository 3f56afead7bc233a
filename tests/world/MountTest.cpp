#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/loop.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/CUniqueFd.h"
#include "platform/EmpPaths.h"
#include "platform/LoopDevice.h"
#include "platform/Mount.h"
#include "platform/MountInfo.h"
#include "tests/support/CLogCapture.h"
#include "tests/support/CPrivateWorld.h"
#include "tests/support/LogLines.h"

namespace vok {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using ::testing::ElementsAre;
using Clock = std::chrono::steady_clock;

/// The loop devices of the machine that serve a file of this world. Others come and go meanwhile.
std::set<std::string> OurLoopDevices() {
    std::set<std::string> ours;
    for (const auto& entry : fs::directory_iterator("/sys/block")) {
        std::ifstream file(entry.path() / "loop/backing_file");
        std::string strImage;
        std::getline(file, strImage);
        const std::string strPlace = std::getenv("VOK_TEST_PLACE");
        if (strImage.find(strPlace) != std::string::npos) ours.insert(entry.path().filename());
    }
    return ours;
}

class MountTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string strReason;
        if (!test::CPrivateWorld::MayLoopMount(&strReason)) GTEST_SKIP() << strReason;
        fs::remove_all("/opt/down");
        fs::remove_all(m_strPlace);
        fs::create_directories(m_strPlace + "/files/folder");
        std::ofstream(m_strPlace + "/files/name") << "content";
        std::ofstream noise(m_strPlace + "/files/noise");  // cannot be compressed to nothing
        std::minstd_rand random;
        for (int i = 0; i < 100'000; ++i) noise << static_cast<char>(random() >> 8);
    }
    void TearDown() override {
        (void)::umount2(m_strPoint.c_str(), MNT_DETACH);
        EXPECT_TRUE(AllLoopDevicesGo()) << "a loop device stays behind";
    }

    /// Makes an image of the files; false when the tool is not there.
    bool MakeImage(const std::string& strType, const std::string& strImage) {
        const std::string strFiles = m_strPlace + "/files";
        fs::create_directories(fs::path(strImage).parent_path());
        std::string strCommand;
        if (strType == "squashfs") {
            strCommand = "mksquashfs " + strFiles + " " + strImage + " -noappend -quiet";
        } else if (strType == "ext4") {
            strCommand = "PATH=$PATH:/usr/sbin:/sbin mke2fs -q -F -t ext4 -d " + strFiles + " " +
                         strImage + " 8M";
        } else {
            strCommand = "mkfs.erofs " + strImage + " " + strFiles;
        }
        return std::system((strCommand + " >/dev/null 2>&1").c_str()) == 0;
    }

    std::string Content(const std::string& strName) {
        std::ifstream file(m_strPoint + "/" + strName);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    /// The one line that was logged, "..." for the reason that kernel or library gave for it.
    std::string Complaint() const {
        const std::vector<std::string> lines = test::LogLines(m_Log);
        if (lines.size() != 1) return m_Log.Text();
        const std::size_t nReason = lines[0].rfind('[') + 1;
        const std::size_t nEnd = lines[0].rfind("].");
        if (nEnd == std::string::npos || nEnd <= nReason) return lines[0];
        return lines[0].substr(0, nReason) + "..." + lines[0].substr(nEnd);
    }

    /// The kernel frees a device a moment after its last user has gone.
    bool AllLoopDevicesGo() {
        const auto deadline = Clock::now() + 10s;
        while (!OurLoopDevices().empty()) {
            if (Clock::now() > deadline) return false;
            std::this_thread::sleep_for(1ms);
        }
        return true;
    }

    const std::string m_strPlace = std::getenv("VOK_TEST_PLACE");
    const std::string m_strPoint = paths::MountPoint("Weather");
    const std::string m_strImage = m_strPlace + "/a b\\c/emp.img";
    test::CLogCapture m_Log;
};

/// A place that no other world has, so that its loop devices can be told from others'.
struct Place {
    Place() {
        const std::string strPlace = "/tmp/vok-place-" + std::to_string(std::random_device()());
        (void)::setenv("VOK_TEST_PLACE", strPlace.c_str(), 1);
    }
} const s_Place;

class MountType : public MountTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(MountType, IsFoundOutAndServedReadOnly) {
    const std::string strImage = m_strPlace + "/emp.img";
    if (!MakeImage(GetParam(), strImage)) GTEST_SKIP() << "no tool for " << GetParam();

    ASSERT_TRUE(Mount(strImage, m_strPoint)) << m_Log.Text();
    EXPECT_EQ(Content("name"), "content");
    EXPECT_TRUE(IsImgMounted("Weather"));
    EXPECT_EQ(OurLoopDevices().size(), 1u);
    const auto entry = FindMount(m_strPoint);
    ASSERT_TRUE(entry.has_value());
    EXPECT_EQ(entry->strFileSystem, GetParam());
    EXPECT_TRUE(LoopDeviceServes(entry->strSource, strImage));
    const auto seen = MountedOn("/opt/../" + m_strPoint);
    ASSERT_TRUE(seen.has_value());
    EXPECT_EQ(seen->strSource, entry->strSource);
    EXPECT_FALSE(MountedOn(paths::MountPoint("Clock")).has_value());
    EXPECT_FALSE(std::ofstream(m_strPoint + "/new").is_open());
    struct statvfs info {};
    ASSERT_EQ(::statvfs(m_strPoint.c_str(), &info), 0);
    constexpr unsigned long kFlags = ST_RDONLY | ST_NOSUID | ST_NODEV;
    EXPECT_EQ(info.f_flag & kFlags, kFlags);

    EXPECT_TRUE(Umount(m_strPoint)) << m_Log.Text();
    EXPECT_FALSE(IsImgMounted("Weather"));
    EXPECT_TRUE(AllLoopDevicesGo());
    EXPECT_TRUE(m_Log.Messages().empty()) << m_Log.Text();
}

INSTANTIATE_TEST_SUITE_P(Images, MountType, ::testing::Values("squashfs", "ext4", "erofs"),
                         [](const auto& info) { return std::string(info.param); });

class MountSquashfs : public MountTest {
protected:
    void SetUp() override {
        MountTest::SetUp();
        if (IsSkipped()) return;
        if (!MakeImageWithBlanks()) GTEST_SKIP() << "no mksquashfs";
    }

    /// The tool's command line knows no blanks, so the image gets its place afterwards.
    bool MakeImageWithBlanks() {
        if (!MakeImage("squashfs", m_strPlace + "/plain.img")) return false;
        fs::create_directories(fs::path(m_strImage).parent_path());
        fs::rename(m_strPlace + "/plain.img", m_strImage);
        return true;
    }
};

TEST_F(MountSquashfs, SecondMountIsNotStacked) {
    ASSERT_TRUE(Mount(m_strImage, m_strPoint)) << m_Log.Text();
    EXPECT_TRUE(Mount(m_strImage, m_strPoint)) << m_Log.Text();
    EXPECT_EQ(OurLoopDevices().size(), 1u);
    EXPECT_TRUE(Umount(m_strPoint));
    EXPECT_FALSE(Umount(m_strPoint)) << "it was mounted twice";
    EXPECT_TRUE(m_Log.HasLine(LEVEL_ERROR, "Umount", "Nothing is mounted on [" + m_strPoint + "]."))
        << m_Log.Text();
}

TEST_F(MountSquashfs, SameImageUnderAnotherPathIsTheSame) {
    const std::string strLink = m_strPlace + "/link.img";
    fs::create_hard_link(m_strImage, strLink);
    ASSERT_TRUE(Mount(m_strImage, m_strPoint)) << m_Log.Text();
    EXPECT_TRUE(Mount(strLink, m_strPoint)) << m_Log.Text();
    EXPECT_EQ(OurLoopDevices().size(), 1u);
}

TEST_F(MountSquashfs, ReplacedImageUnderTheSamePathIsNotTheSame) {
    ASSERT_TRUE(Mount(m_strImage, m_strPoint)) << m_Log.Text();
    fs::copy_file(m_strImage, m_strImage + ".new");
    fs::rename(m_strImage + ".new", m_strImage);
    EXPECT_FALSE(Mount(m_strImage, m_strPoint));
    EXPECT_THAT(test::LogLines(m_Log),
                ElementsAre("0 Mount: [" + FindMount(m_strPoint)->strSource + "] is mounted on [" +
                            m_strPoint + "], not [" + m_strImage + "]."));
}

TEST_F(MountSquashfs, ForeignMountIsRefusedAndLeft) {
    fs::create_directories(m_strPoint);
    ASSERT_EQ(::mount("foreign", m_strPoint.c_str(), "tmpfs", 0, nullptr), 0);
    EXPECT_FALSE(Mount(m_strImage, m_strPoint));
    EXPECT_EQ(FindMount(m_strPoint)->strSource, "foreign");
    EXPECT_TRUE(
        m_Log.HasLine(LEVEL_ERROR, "Mount",
                      "[foreign] is mounted on [" + m_strPoint + "], not [" + m_strImage + "]."))
        << m_Log.Text();
    EXPECT_TRUE(OurLoopDevices().empty());
}

TEST_F(MountSquashfs, BusyMountIsNotUnmounted) {
    ASSERT_TRUE(Mount(m_strImage, m_strPoint)) << m_Log.Text();
    CUniqueFd user{::open((m_strPoint + "/name").c_str(), O_RDONLY | O_CLOEXEC)};
    ASSERT_TRUE(user.IsOpen());
    EXPECT_FALSE(Umount(m_strPoint));
    EXPECT_EQ(Complaint(), "0 Umount: Unmounting [" + m_strPoint + "] failed: [...].");
    EXPECT_EQ(Content("name"), "content");
    user.Reset();
    EXPECT_TRUE(Umount(m_strPoint)) << m_Log.Text();
}

TEST_F(MountSquashfs, MountPointBehindALinkIsFound) {
    fs::create_directories(m_strPlace + "/real");
    fs::create_directories("/opt/down");
    fs::create_directory_symlink(m_strPlace + "/real", "/opt/down/emps");
    ASSERT_TRUE(Mount(m_strImage, m_strPoint)) << m_Log.Text();
    EXPECT_TRUE(Mount(m_strImage, m_strPoint)) << m_Log.Text();
    EXPECT_TRUE(IsImgMounted("Weather"));
    EXPECT_TRUE(Umount(m_strPoint)) << m_Log.Text();
    EXPECT_FALSE(IsImgMounted("Weather"));
}

TEST_F(MountSquashfs, SamePathInAnotherMountNamespaceIsAnotherImage) {
    ASSERT_TRUE(Mount(m_strImage, m_strPoint)) << m_Log.Text();
    const std::string strDevice = FindMount(m_strPoint)->strSource;
    const std::string strCopy = m_strPlace + "/copy.img";
    fs::copy_file(m_strImage, strCopy);
    const pid_t nPid = ::fork();
    if (nPid == 0) {
        // There, the path means a copy: the mount is inherited, but is not of that file.
        const bool bReady =
            ::unshare(CLONE_NEWNS) == 0 &&
            ::mount(strCopy.c_str(), m_strImage.c_str(), nullptr, MS_BIND, nullptr) == 0;
        ::_exit(!bReady                                   ? 3
                : LoopDeviceServes(strDevice, m_strImage) ? 2
                : Mount(m_strImage, m_strPoint)           ? 1
                                                          : 0);
    }
    int nStatus = -1;
    ASSERT_EQ(::waitpid(nPid, &nStatus, 0), nPid);
    EXPECT_EQ(WEXITSTATUS(nStatus), 0);
    EXPECT_TRUE(LoopDeviceServes(strDevice, m_strImage));
}

TEST_F(MountSquashfs, DeviceOfSomebodyElseIsNotShared) {
    const LoopDevice foreign = SetUpLoopDevice(m_strImage);
    ASSERT_TRUE(foreign.fd.IsOpen());
    ASSERT_TRUE(Mount(m_strImage, m_strPoint)) << m_Log.Text();
    EXPECT_NE(FindMount(m_strPoint)->strSource, foreign.strPath);
    EXPECT_EQ(OurLoopDevices().size(), 2u);
}

TEST_F(MountSquashfs, ManyImagesMayBeMountedAtOnce) {
    constexpr int kThreads = 4;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            const std::string strPoint = m_strPlace + "/point" + std::to_string(i);
            for (int j = 0; j < 5; ++j) {
                EXPECT_TRUE(Mount(m_strImage, strPoint)) << m_Log.Text();
                EXPECT_TRUE(Umount(strPoint)) << m_Log.Text();
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
}

/// Makes the kernel of this process one from before 5.8. Compares the low half of the request.
bool ForbidLoopConfigure() {
    constexpr std::uint32_t kRequest = offsetof(seccomp_data, args[1]);
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_ioctl, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kRequest),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, LOOP_CONFIGURE, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EINVAL),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program{sizeof filter / sizeof *filter, filter};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

TEST_F(MountSquashfs, OlderKernelServesAsWell) {
    const pid_t nPid = ::fork();
    if (nPid == 0) {
        if (!ForbidLoopConfigure()) ::_exit(test::CPrivateWorld::kSkipped);
        EXPECT_TRUE(Mount(m_strImage, m_strPoint)) << m_Log.Text();
        EXPECT_EQ(Content("name"), "content");
        EXPECT_TRUE(Mount(m_strImage, m_strPoint)) << m_Log.Text();
        EXPECT_EQ(OurLoopDevices().size(), 1u);
        EXPECT_TRUE(Umount(m_strPoint)) << m_Log.Text();
        EXPECT_TRUE(AllLoopDevicesGo());
        ::_exit(HasFailure() ? 1 : 0);
    }
    int nStatus = -1;
    ASSERT_EQ(::waitpid(nPid, &nStatus, 0), nPid);
    if (WEXITSTATUS(nStatus) == test::CPrivateWorld::kSkipped) GTEST_SKIP() << "no seccomp";
    EXPECT_EQ(nStatus, 0);
}

TEST_F(MountSquashfs, MissingImageGetsNoDevice) {
    fs::remove(m_strImage);
    EXPECT_FALSE(Mount(m_strImage, m_strPoint));
    EXPECT_THAT(test::LogLines(m_Log), ElementsAre("0 Mount: No loop device for [" + m_strImage +
                                                   "]: [No such file or directory]."));
    EXPECT_TRUE(OurLoopDevices().empty());
}

TEST_F(MountSquashfs, TruncatedImageFailsAndLeavesNoDevice) {
    fs::resize_file(m_strImage, fs::file_size(m_strImage) / 2);
    EXPECT_FALSE(Mount(m_strImage, m_strPoint));
    EXPECT_EQ(Complaint(),
              "0 Mount: Mounting [" + m_strImage + "] on [" + m_strPoint + "] failed: [...].");
    EXPECT_FALSE(FindMount(m_strPoint).has_value());
    EXPECT_TRUE(AllLoopDevicesGo());
}

TEST_F(MountTest, TruncatedExt4ImageFailsAndLeavesNoDevice) {
    const std::string strImage = m_strPlace + "/emp.img";
    if (!MakeImage("ext4", strImage)) GTEST_SKIP() << "no mke2fs";
    fs::resize_file(strImage, fs::file_size(strImage) / 2);
    EXPECT_FALSE(Mount(strImage, m_strPoint));
    EXPECT_TRUE(AllLoopDevicesGo());
}

TEST_F(MountTest, Ext4ImageThatWasNotUnmountedCleanlyIsReadable) {
    const std::string strImage = m_strPlace + "/emp.img";
    if (!MakeImage("ext4", strImage)) GTEST_SKIP() << "no mke2fs";
    const std::string strCommand =
        "PATH=$PATH:/usr/sbin:/sbin debugfs -w -R 'feature needs_recovery' " + strImage +
        " >/dev/null 2>&1";
    if (std::system(strCommand.c_str()) != 0) GTEST_SKIP() << "no debugfs";
    EXPECT_TRUE(Mount(strImage, m_strPoint)) << m_Log.Text();
    EXPECT_EQ(Content("name"), "content");
}

TEST_F(MountTest, WhatIsNoImageFailsAndLeavesNoDevice) {
    const std::string strText = m_strPlace + "/text.img";
    std::ofstream(strText) << std::string(100'000, 'x');
    const std::string strEmpty = m_strPlace + "/empty.img";
    std::ofstream(strEmpty).flush();
    for (const std::string& strImage :
         {strText, strEmpty, m_strPlace, m_strPlace + "/none", std::string("/dev/null")}) {
        m_Log.Clear();
        EXPECT_FALSE(Mount(strImage, m_strPoint)) << strImage;
        EXPECT_EQ(m_Log.Messages(LEVEL_ERROR).size(), 1u) << m_Log.Text();
        EXPECT_TRUE(AllLoopDevicesGo()) << strImage;
    }
    EXPECT_FALSE(FindMount(m_strPoint).has_value());
}

TEST_F(MountTest, UmountOfWhatIsNotThereFails) {
    EXPECT_FALSE(Umount("/nowhere/at/all"));
    EXPECT_TRUE(m_Log.HasLine(LEVEL_ERROR, "Umount", "Nothing is mounted on [/nowhere/at/all]."))
        << m_Log.Text();
}

TEST_F(MountTest, DevicesThatAreNoLoopDevicesServeNothing) {
    const std::string strFile = m_strPlace + "/files/name";
    for (const char* szDevice : {"/dev/null", "/dev/loop-control", "/nowhere", "/tmp", "tmpfs"}) {
        EXPECT_FALSE(LoopDeviceServes(szDevice, strFile)) << szDevice;
    }
}

}  // namespace
}  // namespace vok
