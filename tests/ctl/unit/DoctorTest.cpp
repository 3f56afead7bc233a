// The doctor, on a machine that is made up for it.
#include <elf.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "ctl/Doctor.h"
#include "ctl/ImageFile.h"
#include "ctl/InstalledEmps.h"
#include "tests/support/CTemporaryFolder.h"

namespace vok::ctl {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

std::string WithNumber(std::string strBytes, std::size_t nAt, std::uint64_t nNumber,
                       std::size_t nSize) {
    for (std::size_t i = 0; i < nSize; ++i)
        strBytes.at(nAt + i) = static_cast<char>((nNumber >> (8 * i)) & 0xFFU);
    return strBytes;
}

std::string Squashfs(std::uint64_t nUsed) {
    return WithNumber("hsqs" + std::string(4092, '\0'), 40, nUsed, 8);
}

/// 4 blocks of 1 KiB, of a kind.
std::string Ext(std::uint64_t nBlocks, std::uint64_t nCompatible, std::uint64_t nIncompatible) {
    std::string strImage = WithNumber(std::string(4096, '\0'), 1024 + 56, 0xEF53, 2);
    strImage = WithNumber(strImage, 1024 + 4, nBlocks, 4);
    strImage = WithNumber(strImage, 1024 + 92, nCompatible, 4);
    return WithNumber(strImage, 1024 + 96, nIncompatible, 4);
}

std::string Erofs(std::uint64_t nBlocks) {
    std::string strImage = WithNumber(std::string(4096, '\0'), 1024, 0xE0F5E1E2, 4);
    strImage = WithNumber(strImage, 1024 + 12, 12, 1);
    return WithNumber(strImage, 1024 + 36, nBlocks, 4);
}

/// As long as it lives, files that are closed to others are closed to the test, even to root's.
class CAsOrdinaryUser {
public:
    CAsOrdinaryUser() : m_nUser(::geteuid()) {
        if (m_nUser == 0 && ::seteuid(kNobody) != 0) throw std::runtime_error("seteuid");
    }
    ~CAsOrdinaryUser() { EXPECT_EQ(::seteuid(m_nUser), 0); }
    CAsOrdinaryUser(const CAsOrdinaryUser&) = delete;
    CAsOrdinaryUser& operator=(const CAsOrdinaryUser&) = delete;

private:
    static constexpr uid_t kNobody = 65534;
    uid_t m_nUser;
};

/// A sound set without a broker. Its tests break one thing each.
class Doctor : public ::testing::Test {
protected:
    Doctor() {
        fs::permissions(m_Root.Path(), fs::perms(0755));
        m_Patient.strRoot = m_Root.Path();
        m_Patient.nOwner = ::geteuid();
        m_Patient.loopbackUp = [this] { return m_bLoopback; };
        m_Patient.port = [this] { return m_Port; };
        m_Patient.admin = [this] { return m_Admin; };
        m_Patient.strKernelRelease = "6.1";
        Folder("/opt/down/emps");
        Folder("/usr/bin/emps");
        Folder("/tmp");
        Folder("/opt/down/pepper/webapis");
        Write("/proc/sys/net/ipv4/ip_local_port_range", "32768\t60999\n");
        Write("/proc/sys/net/ipv4/ip_local_reserved_ports", "49999-50001\n");
        Write("/proc/filesystems", "nodev\ttmpfs\n\text4\n\tsquashfs\n");
        Write("/proc/self/limits",
              "Limit  Soft Limit  Hard Limit  Units\nMax open files   1024   20000   files\n");
        Write("/dev/loop-control", "");
        Write("/opt/down/common/LogPolicyConfig.xml",
              "<Policy><15_vok url='u' queue_max='1' expiration='2' loglevel='3'/></Policy>");
    }

    std::string Path(const std::string& strPath) const { return m_Root.Path() + strPath; }
    void Folder(const std::string& strPath) {
        fs::create_directories(Path(strPath));
        fs::permissions(Path(strPath), fs::perms(0755));
    }
    void Write(const std::string& strPath, const std::string& strContent) {
        fs::create_directories(fs::path(Path(strPath)).parent_path());
        std::ofstream(Path(strPath), std::ios::binary) << strContent;
    }
    void Preinstall(const std::string& strEmp) {
        const std::string strPath = "/usr/bin/emps/emp" + strEmp + "/emp" + strEmp;
        fs::create_directories(fs::path(Path(strPath)).parent_path());
        fs::copy_file("/proc/self/exe", Path(strPath));
    }
    void Close(const std::string& strPath) { fs::permissions(Path(strPath), fs::perms(0)); }
    void Open(const std::string& strPath) { fs::permissions(Path(strPath), fs::perms(0755)); }
    std::vector<std::string> ComplaintsToAnOrdinaryUser() const {
        const CAsOrdinaryUser user;
        return Complaints();
    }
    std::string TextForAnOrdinaryUser() const {
        const CAsOrdinaryUser user;
        return AllText();
    }
    void ServeBroker() {
        m_Port = {PortLook::Broker, "5.100"};
        m_Admin = {AdminLook::Served, 812};
        Write("/tmp/vok_ready", "");
    }

    Findings Run() const { return Examine(m_Patient); }
    /// "level check: text; cure" of everything that is not in order.
    std::vector<std::string> Complaints() const {
        std::vector<std::string> texts;
        for (const Finding& finding : Run()) {
            if (finding.level == eFinding::Ok) continue;
            EXPECT_NE(finding.strCure, "") << finding.strText << ": what is to be done?";
            texts.push_back((finding.level == eFinding::Problem ? "problem " : "warning ") +
                            finding.strCheck + ": " + finding.strText);
        }
        return texts;
    }
    std::string AllText() const { return DoctorReport(Run(), Style()); }

    test::CTemporaryFolder m_Root;
    bool m_bLoopback = true;
    PortLook m_Port;
    AdminLook m_Admin;
    Patient m_Patient;
};

TEST_F(Doctor, FindsNothingWhereAllIsWell) {
    EXPECT_THAT(Complaints(), IsEmpty());
    EXPECT_FALSE(HasProblem(Run()));
    EXPECT_THAT(AllText(), HasSubstr("0 problems, 0 warnings"));
}

TEST_F(Doctor, FindsNothingWhereABrokerServes) {
    ServeBroker();
    EXPECT_THAT(Complaints(), IsEmpty());
    EXPECT_THAT(AllText(), HasSubstr("served by vok-broker 5.100"));
}

TEST_F(Doctor, SaysWhatIsWrongAndWhatToDo) {
    m_bLoopback = false;
    const Findings findings = Run();
    EXPECT_TRUE(HasProblem(findings));
    EXPECT_THAT(
        DoctorReport(findings, Style()),
        HasSubstr("problem  loopback      lo is down, and all calls travel over it; cure: ip "
                  "link set lo up\n"));
}

TEST_F(Doctor, KnowsWhoHoldsThePort) {
    m_Port = {PortLook::Other};
    EXPECT_THAT(Complaints(),
                ElementsAre("problem port 50000: held by something that is no broker"));
    m_Port = {PortLook::Silent};
    EXPECT_THAT(Complaints(), ElementsAre("problem port 50000: whoever holds it does not answer"));
    m_Port = {PortLook::Connection};
    EXPECT_THAT(Complaints(), ElementsAre(HasSubstr("the kernel has given it to a connection")));
}

TEST_F(Doctor, WarnsOfAPortThatTheKernelMayGiveAway) {
    Write("/proc/sys/net/ipv4/ip_local_reserved_ports", "8080,9000-9010\n");
    EXPECT_THAT(Complaints(),
                ElementsAre(HasSubstr("warning port range: 50000 is one of the ports")));
    EXPECT_THAT(AllText(), HasSubstr("ip_local_reserved_ports=8080,9000-9010,50000\" into "
                                     "/etc/sysctl.d/60-vok-broker.conf"));

    Write("/proc/sys/net/ipv4/ip_local_port_range", "32768 49999\n");
    EXPECT_THAT(Complaints(), IsEmpty());
}

TEST_F(Doctor, LeavesTheReadyFlagOfABrokerThatMayBeBusy) {
    Write("/tmp/vok_ready", "");
    m_Port = {PortLook::Silent};
    EXPECT_THAT(Complaints(), ElementsAre("problem port 50000: whoever holds it does not answer"));
}

TEST_F(Doctor, ComparesTheReadyFlagWithTheBroker) {
    Write("/tmp/vok_ready", "");
    EXPECT_THAT(Complaints(),
                ElementsAre("warning ready flag: /tmp/vok_ready is there, and no broker: "
                            "one was killed"));
    ServeBroker();
    fs::remove(Path("/tmp/vok_ready"));
    EXPECT_THAT(Complaints(),
                ElementsAre(HasSubstr("warning ready flag: /tmp/vok_ready is missing")));
    Folder("/tmp/vok_ready");
    EXPECT_THAT(Complaints(),
                ElementsAre(HasSubstr("problem ready flag: /tmp/vok_ready is a folder")));
}

TEST_F(Doctor, TellsABrokerThatStartsFromOneThatWasKilled) {
    Write("/tmp/vok_ready", "");
    m_Admin = {AdminLook::Refused};
    Write("/proc/4711/comm", "vok-broker\n");
    Write("/proc/4711/cmdline", std::string("/usr/bin/vok-broker\0", 20));
    EXPECT_THAT(Complaints(), ElementsAre("warning port 50000: free: a vok-broker runs, process "
                                          "4711, and does not serve: it starts or stops"));
    EXPECT_THAT(AllText(), HasSubstr("admin.sock is not served yet"));
    fs::remove(Path("/tmp/vok_ready"));
    EXPECT_THAT(AllText(), HasSubstr("/tmp/vok_ready is not there yet"));

    Write("/tmp/vok_ready", "");
    Write("/proc/4711/cmdline", "");  // it has ended, and nobody has asked how
    EXPECT_THAT(Complaints(),
                ElementsAre(HasSubstr("one was killed"), HasSubstr("a broker that was killed")));
    Write("/proc/4711/cmdline", "vok-brokerd");
    Write("/proc/4711/comm", "vok-brokerd\n");
    EXPECT_THAT(Complaints(),
                ElementsAre(HasSubstr("one was killed"), HasSubstr("a broker that was killed")));
}

TEST_F(Doctor, LooksAtTheAdminSocket) {
    m_Admin = {AdminLook::Refused};
    EXPECT_THAT(Complaints(), ElementsAre(HasSubstr("warning admin socket")));
    m_Admin = {AdminLook::NoSocket};
    EXPECT_THAT(Complaints(), ElementsAre(HasSubstr("problem admin socket")));
    ServeBroker();
    m_Admin = {AdminLook::Missing};
    EXPECT_THAT(Complaints(),
                ElementsAre(HasSubstr("problem admin socket: the broker serves without")));
    m_Admin = {AdminLook::Silent};
    EXPECT_THAT(Complaints(), ElementsAre(HasSubstr("problem admin socket")));
    m_Admin = {AdminLook::Forbidden};
    EXPECT_THAT(Complaints(), IsEmpty());
    Folder("/run/vok-broker");
    fs::permissions(Path("/run/vok-broker"), fs::perms(0775));
    EXPECT_THAT(Complaints(), ElementsAre(HasSubstr("problem admin folder")));
}

TEST_F(Doctor, SeesAProgramThatWasReplaced) {
    ServeBroker();
    Folder("/proc/812");
    fs::create_symlink("/usr/bin/vok-broker (deleted)", Path("/proc/812/exe"));
    EXPECT_THAT(Complaints(),
                ElementsAre("warning process: 812 runs a program that has been replaced "
                            "since"));
    fs::remove(Path("/proc/812/exe"));
    fs::create_symlink("/usr/bin/vok-broker", Path("/proc/812/exe"));
    EXPECT_THAT(Complaints(), IsEmpty());
    EXPECT_THAT(AllText(), HasSubstr("812 runs /usr/bin/vok-broker"));
}

TEST_F(Doctor, LooksAtTheFolders) {
    fs::permissions(Path("/usr/bin/emps"), fs::perms(0777));
    EXPECT_THAT(Complaints(),
                ElementsAre(HasSubstr("warning folder: /usr/bin/emps can be written")));
    fs::remove(Path("/usr/bin/emps"));
    EXPECT_THAT(Complaints(), ElementsAre(HasSubstr("warning folder: /usr/bin/emps is missing")));
    Write("/usr/bin/emps", "");
    EXPECT_THAT(Complaints(), ElementsAre("problem folder: /usr/bin/emps is no folder"));
}

TEST_F(Doctor, LooksAtWhoOwnsTheFolders) {
    Folder("/run/vok-broker");
    EXPECT_THAT(Complaints(), IsEmpty());
    ++m_Patient.nOwner;  // all is somebody else's
    const std::string strOwner = " belongs to user " + std::to_string(::geteuid());
    EXPECT_THAT(Complaints(),
                ElementsAre(HasSubstr("problem admin folder: /run/vok-broker is not root's alone"),
                            HasSubstr("warning folder: /opt/down/emps" + strOwner),
                            HasSubstr("warning folder: /usr/bin/emps" + strOwner)));
    EXPECT_THAT(AllText(), HasSubstr("; cure: chown root:root /opt/down/emps\n"));

    fs::permissions(Path("/usr/bin/emps"), fs::perms(0777));
    EXPECT_THAT(Complaints(),
                ::testing::IsSupersetOf({HasSubstr("warning folder: /usr/bin/emps belongs to"),
                                         HasSubstr("warning folder: /usr/bin/emps can be")}));
}

TEST_F(Doctor, LooksAtTheFolderThatALinkLeadsTo) {
    Folder("/storage/emps");
    fs::remove(Path("/opt/down/emps"));
    fs::create_symlink("../../storage/emps", Path("/opt/down/emps"));
    // Whose the link is tells nothing; only root can give it away, and need not for the rest.
    if (::geteuid() == 0) {
        ASSERT_EQ(::lchown(Path("/opt/down/emps").c_str(), 12345, 12345), 0);
    }
    EXPECT_THAT(Complaints(), IsEmpty());
    if (::geteuid() == 0) {
        ASSERT_EQ(::chown(Path("/storage/emps").c_str(), 12345, 12345), 0);
        EXPECT_THAT(Complaints(), ElementsAre(HasSubstr("/opt/down/emps belongs to user 12345")));
        ASSERT_EQ(::chown(Path("/storage/emps").c_str(), 0, 0), 0);
    }
    fs::permissions(Path("/storage/emps"), fs::perms(0770));
    EXPECT_THAT(Complaints(), ElementsAre(HasSubstr("/opt/down/emps can be written")));
}

TEST(ThisMachine, IsRootsOwn) {
    EXPECT_EQ(ThisMachine(std::chrono::milliseconds(1)).nOwner, 0U);
}

TEST_F(Doctor, FindsFoldersThatNobodyLooksAt) {
    Folder("/usr/bin/emps/Weather");
    Folder("/opt/down/emps/empClock_img");
    EXPECT_THAT(Complaints(), ElementsAre("warning EMP: /opt/down/emps/empClock_img holds no image",
                                          "warning EMP: /usr/bin/emps/Weather is never looked at"));
}

TEST_F(Doctor, FindsPreinstalledFoldersWithoutAProgram) {
    Folder("/usr/bin/emps/empWeather");
    Folder("/usr/bin/emps/empPepperPlugins");
    EXPECT_THAT(Complaints(),
                ElementsAre("warning EMP: /usr/bin/emps/empWeather holds no program"));
    // A grouping process may come as an image.
    Write("/usr/bin/emps/empWeather/empWeather.xml", "<Emp><Version>1</Version></Emp>");
    EXPECT_THAT(Complaints(), IsEmpty());

    fs::create_symlink("/nowhere", Path("/usr/bin/emps/empWeather/empWeather"));
    EXPECT_THAT(Complaints(), ElementsAre("problem program: /usr/bin/emps/empWeather/empWeather is "
                                          "a link to nowhere"));
}

TEST_F(Doctor, LeavesLostAndFoundAlone) {
    Folder("/opt/down/emps/lost+found");
    EXPECT_THAT(Complaints(), IsEmpty());
}

TEST_F(Doctor, DoesNotBlameFilesThatOnlyRootMayRead) {
    Preinstall("Weather");
    const std::string strProgram = "/usr/bin/emps/empWeather/empWeather";
    const std::string strConfig = strProgram + ".xml";
    const std::string strImage = "/opt/down/emps/empClock_img/empClock.img";
    const std::string strPolicy = "/opt/down/common/LogPolicyConfig.xml";
    Write(strConfig, "<Emp><Version>1</Version></Emp>");
    Write(strImage, Squashfs(4096));
    for (const std::string& strFile : {strProgram, strConfig, strImage, strPolicy}) Close(strFile);

    EXPECT_THAT(ComplaintsToAnOrdinaryUser(), IsEmpty());
    const std::string strText = TextForAnOrdinaryUser();
    for (const std::string& strFile : {strProgram, strConfig, strImage, strPolicy})
        EXPECT_THAT(strText, HasSubstr(strFile + ": only root may look"));
}

TEST_F(Doctor, DoesNotMissWhatLiesInFoldersOfRoot) {
    Preinstall("Weather");
    Write("/opt/down/emps/empClock_img/empClock.img", Squashfs(4096));
    const std::vector<std::string> folders{"/usr/bin/emps/empWeather",
                                           "/opt/down/emps/empClock_img"};
    for (const std::string& strFolder : folders) Close(strFolder);
    EXPECT_THAT(ComplaintsToAnOrdinaryUser(), IsEmpty());
    for (const std::string& strFolder : folders)
        EXPECT_THAT(TextForAnOrdinaryUser(), HasSubstr(strFolder + ": only root may look"));
    for (const std::string& strFolder : folders) Open(strFolder);  // or they could not be removed

    Close("/opt/down");
    EXPECT_THAT(ComplaintsToAnOrdinaryUser(), IsEmpty());
    EXPECT_THAT(TextForAnOrdinaryUser(), HasSubstr("/opt/down/pepper/webapis: only root may look"));
    Open("/opt/down");
}

TEST_F(Doctor, CountsMountsOneOverTheOther) {
    const std::string strLine = "36 35 7:3 / /opt/down/emps/empA ro - squashfs /dev/loop3 ro\n";
    const std::string strOther = "37 35 7:4 / /opt/down/emps/empB ro - squashfs /dev/loop4 ro\n";
    const std::string strHome = "38 1 8:1 / /home ro - ext4 /dev/sda ro\n";
    Write("/proc/self/mountinfo", strLine + strOther + strHome + strHome);
    EXPECT_THAT(Complaints(), IsEmpty());
    Write("/proc/self/mountinfo", strLine + strOther + strLine);
    EXPECT_THAT(Complaints(),
                ElementsAre("warning mount: 2 mounts lie on /opt/down/emps/empA, one over the "
                            "other, and only the topmost is seen"));
    ServeBroker();
    EXPECT_THAT(Complaints(), IsEmpty()) << "the broker's own are what counts";
    Write("/proc/812/mountinfo", strOther + strOther + strOther);
    EXPECT_THAT(Complaints(), ElementsAre(HasSubstr("3 mounts lie on /opt/down/emps/empB")));
}

TEST_F(Doctor, LooksAtPrograms) {
    Preinstall("Weather");
    EXPECT_THAT(Complaints(), IsEmpty());
    const std::string strPath = "/usr/bin/emps/empWeather/empWeather";
    EXPECT_THAT(AllText(), HasSubstr(strPath + " can be started"));
    fs::permissions(Path(strPath), fs::perms(0644));
    EXPECT_THAT(Complaints(), ElementsAre(HasSubstr("it may not be executed")));
    fs::permissions(Path(strPath), fs::perms(0755));
    fs::resize_file(Path(strPath), 4096);
    EXPECT_THAT(Complaints(), ElementsAre(HasSubstr(strPath + ": it ends after 4096 of ")));
    Write(strPath, "#!/bin/sh\n");
    EXPECT_THAT(Complaints(), ElementsAre(HasSubstr("it is a script")));
    Write(strPath, "nothing");
    EXPECT_THAT(Complaints(), ElementsAre(HasSubstr("it is no program")));
    Write(strPath, ELFMAG + std::string(60, '\x7'));
    EXPECT_THAT(Complaints(), ElementsAre(HasSubstr("another processor")));
}

TEST_F(Doctor, LooksAtImagesAndWhetherTheKernelMountsThem) {
    const std::string strImage = "/opt/down/emps/empClock_img/empClock.img";
    Write(strImage, Squashfs(4096));
    EXPECT_THAT(Complaints(), IsEmpty());
    Write(strImage, Squashfs(4097));
    EXPECT_THAT(Complaints(), ElementsAre(HasSubstr("it ends after 4096 of 4097 bytes")));
    Write(strImage, std::string(4096, 'x'));
    EXPECT_THAT(Complaints(), ElementsAre(HasSubstr("it is neither squashfs nor")));

    Write(strImage, Erofs(1));
    EXPECT_THAT(Complaints(), ElementsAre(HasSubstr("problem file system: the kernel does not know "
                                                    "erofs, and an image is made of it")));
    Write("/lib/modules/6.1/modules.dep", "kernel/fs/erofs/erofs.ko: kernel/lib/crc.ko\n");
    EXPECT_THAT(Complaints(), IsEmpty());

    fs::remove(Path("/dev/loop-control"));
    EXPECT_THAT(Complaints(), ElementsAre(HasSubstr("problem loop devices")));
    fs::remove(Path(strImage));
    fs::remove(fs::path(Path(strImage)).parent_path());
    EXPECT_THAT(Complaints(), ElementsAre(HasSubstr("warning loop devices")));
}

TEST_F(Doctor, LooksAtConfigurationFiles) {
    Preinstall("Group");
    const std::string strConfig = "/usr/bin/emps/empGroup/empGroup.xml";
    Write(strConfig, "<Emp><Version>5.100</Version></Emp>");
    EXPECT_THAT(Complaints(), IsEmpty());
    Write(strConfig, "<Emp><Version>5.100</Emp>");
    EXPECT_THAT(Complaints(), ElementsAre(HasSubstr("problem configuration: " + strConfig)));
    Write(strConfig, "<Other/>");
    EXPECT_THAT(Complaints(), ElementsAre(HasSubstr("its root is not <Emp>")));
    for (const char* const szVersion : {"", " 5.1", "5.1x"}) {
        Write(strConfig, std::string("<Emp><Version>") + szVersion + "</Version></Emp>");
        EXPECT_THAT(Complaints(), ElementsAre(HasSubstr("warning configuration"))) << szVersion;
    }
}

TEST_F(Doctor, DoesNotWaitForAFifo) {
    const std::string strFolder = "/usr/bin/emps/empOdd";
    Folder(strFolder);
    ASSERT_EQ(::mkfifo(Path(strFolder + "/empOdd").c_str(), 0600), 0);
    ASSERT_EQ(::mkfifo(Path(strFolder + "/empOdd.xml").c_str(), 0600), 0);
    EXPECT_THAT(Complaints(),
                ElementsAre(HasSubstr("it is no file"), HasSubstr("empOdd.xml counts as none")));
}

TEST_F(Doctor, KnowsThatABrokerTakesThePluginSet) {
    fs::remove_all(Path("/opt/down/pepper"));
    EXPECT_THAT(Complaints(), ElementsAre(HasSubstr("problem plug-in set: there is none")));
    Write("/usr/bin/emps/empPepperPlugins/empPepperPlugins.img", Squashfs(4096));
    EXPECT_THAT(Complaints(), IsEmpty());
    ServeBroker();
    EXPECT_THAT(Complaints(), ElementsAre(HasSubstr("warning plug-in set")));
}

TEST_F(Doctor, ReadsTheLogPolicy) {
    const std::string strPolicy = "/opt/down/common/LogPolicyConfig.xml";
    EXPECT_THAT(AllText(), HasSubstr("fault reports go to u"));
    Write(strPolicy, "<Policy><Node name='15_vok' url='v' queue_max='1'/></Policy>");
    EXPECT_THAT(Complaints(), ElementsAre(HasSubstr("15_vok lacks expiration loglevel")));
    Write(strPolicy, "<Policy/>");
    EXPECT_THAT(Complaints(), ElementsAre(HasSubstr("has no element 15_vok")));
    EXPECT_THAT(AllText(), HasSubstr("see vok-broker(8)\n"));
    Write(strPolicy, "<Policy>");
    EXPECT_THAT(Complaints(), ElementsAre(HasSubstr("problem log policy")));
    fs::remove(Path(strPolicy));
    EXPECT_THAT(Complaints(), ElementsAre(HasSubstr("warning log policy")));
}

TEST_F(Doctor, WarnsOfFewDescriptors) {
    Write("/proc/self/limits", "Max open files            1024                 2048     files\n");
    EXPECT_THAT(Complaints(),
                ElementsAre(HasSubstr("warning descriptors: a broker started from here "
                                      "may have 2048")));
    ServeBroker();
    Write("/proc/812/limits", "Max open files            1024                 1024     files\n");
    EXPECT_THAT(Complaints(), ElementsAre(HasSubstr("the broker may have 1024 descriptors")));
}

TEST_F(Doctor, NamesWhatIsInstalled) {
    Preinstall("Weather");
    Write("/opt/down/emps/empClock_img/empClock.img", Squashfs(4096));
    Write("/usr/bin/emps/empPepperPlugins/empPepperPlugins", "");
    Folder("/opt/down/emps/empMounted");
    EXPECT_THAT(InstalledEmps(m_Root.Path()), ElementsAre("Clock", "Weather"));
    EXPECT_THAT(InstalledEmps(m_Root.Path() + "/nowhere"), IsEmpty());
}

// ---- Images -------------------------------------------------------------------------------------

struct ImageCase {
    const char* szName;
    std::string strImage;
    const char* szFileSystem;
    bool bSound;
};

class ImageTest : public ::testing::TestWithParam<ImageCase> {};

TEST_P(ImageTest, IsRecognised) {
    const test::CTemporaryFolder folder;
    const std::string strPath = folder.Path("image");
    std::ofstream(strPath, std::ios::binary) << GetParam().strImage;
    const ImageLook look = LookAtImage(strPath);
    EXPECT_EQ(look.strFileSystem, GetParam().szFileSystem);
    EXPECT_EQ(look.strTrouble.empty(), GetParam().bSound) << look.strTrouble;
}

INSTANTIATE_TEST_SUITE_P(
    Of, ImageTest,
    ::testing::Values(ImageCase{"Squashfs", Squashfs(4096), "squashfs", true},
                      ImageCase{"HalfASquashfs", Squashfs(9999), "squashfs", false},
                      ImageCase{"Ext2", Ext(4, 0, 0), "ext2", true},
                      ImageCase{"Ext3", Ext(4, 4, 0), "ext3", true},
                      ImageCase{"Ext4", Ext(4, 4, 0x40), "ext4", true},
                      ImageCase{"HalfAnExt4", Ext(8, 4, 0x40), "ext4", false},
                      ImageCase{"Erofs", Erofs(1), "erofs", true},
                      ImageCase{"HalfAnErofs", Erofs(2), "erofs", false},
                      ImageCase{"Noise", std::string(4096, '\x5A'), "", false},
                      ImageCase{"Short", "hsq", "", false}, ImageCase{"Empty", "", "", false}),
    [](const auto& info) { return info.param.szName; });

TEST(Image, ThatIsNotThereOrNoFileIsTold) {
    EXPECT_THAT(LookAtImage("/nowhere").strTrouble, HasSubstr("No such file"));
    EXPECT_EQ(LookAtImage("/tmp").strTrouble, "it is no file");
    EXPECT_EQ(TroubleOfProgram("/proc/self/exe"), "");
}

}  // namespace
}  // namespace vok::ctl
