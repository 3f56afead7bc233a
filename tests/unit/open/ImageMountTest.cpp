#include <chrono>
#include <string>
#include <vector>

#include "tests/support/BrokerTest.h"

namespace vok {
namespace {

using namespace test;
using namespace std::chrono_literals;
using ::testing::AllOf;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::SizeIs;

constexpr char kImage[] = "/opt/down/emps/empWeather_img/empWeather.img";
constexpr char kMountCall[] =
    "Mount /opt/down/emps/empWeather_img/empWeather.img /opt/down/emps/empWeather";
constexpr char kUmountCall[] = "Umount /opt/down/emps/empWeather";

class ImageMountTest : public BrokerTest {};

// ---- Img_Mount ----

TEST_F(ImageMountTest, Img_MountRefusesAnEmptyName) {
    EXPECT_FALSE(m_Broker.Img_Mount(""));
    EXPECT_THAT(LinesOf(m_Log, "Img_Mount"), ElementsAre("0 Image name is empty."));
    EXPECT_THAT(m_Fake.mounter.Calls(), IsEmpty());
}

TEST_F(ImageMountTest, Img_MountOfAMountedImageNeitherSleepsNorMounts) {
    m_Fake.mounter.SetImgMounted("Weather", true);

    EXPECT_TRUE(m_Broker.Img_Mount("Weather"));

    EXPECT_THAT(LinesOf(m_Log, "Img_Mount"),
                ElementsAre("4 Image:[Weather] had been mounted, no need to mount again."));
    EXPECT_THAT(m_Fake.mounter.Calls(), IsEmpty());
    EXPECT_THAT(m_Fake.clock.Sleeps(), IsEmpty());
}

TEST_F(ImageMountTest, Img_MountSleepsBeforeTheFirstAttempt) {
    std::vector<std::string> callsAtSleep{"unset"};
    m_Fake.clock.OnSleep([&](int) { callsAtSleep = m_Fake.mounter.Calls(); });

    EXPECT_TRUE(m_Broker.Img_Mount("Weather"));

    EXPECT_THAT(callsAtSleep, IsEmpty());
    EXPECT_THAT(m_Fake.clock.Sleeps(), ElementsAre(1s));
    EXPECT_THAT(m_Fake.mounter.Calls(), ElementsAre(kMountCall));
    EXPECT_THAT(LinesOf(m_Log, "Img_Mount"),
                ElementsAre(std::string("4 Succeed to mount [") + kImage + "]."));
    EXPECT_THAT(BrokerProbe::MountCounts(m_Broker), IsEmpty());
}

TEST_F(ImageMountTest, Img_MountTriesUntilItSucceeds) {
    m_Fake.mounter.FailMounts(4);

    EXPECT_TRUE(m_Broker.Img_Mount("Weather"));

    EXPECT_THAT(m_Fake.clock.Sleeps(), ElementsAre(1s, 1s, 1s, 1s, 1s));
    EXPECT_EQ(LinesOf(m_Log, "Img_Mount").back(),
              std::string("4 Succeed to mount [") + kImage + "].");
}

TEST_F(ImageMountTest, Img_MountGivesUpAfterFiveAttempts) {
    m_Fake.mounter.FailMounts(99);

    EXPECT_FALSE(m_Broker.Img_Mount("Weather"));

    EXPECT_THAT(m_Fake.clock.Sleeps(), ElementsAre(1s, 1s, 1s, 1s, 1s));
    EXPECT_THAT(m_Fake.mounter.Calls(), AllOf(SizeIs(5), Each(kMountCall)));
    const std::string strFailed = std::string("0 Failed to mount:[") + kImage;
    EXPECT_THAT(
        LinesOf(m_Log, "Img_Mount"),
        ElementsAre(strFailed + "], Failing Times:[1].", strFailed + "], Failing Times:[2].",
                    strFailed + "], Failing Times:[3].", strFailed + "], Failing Times:[4].",
                    strFailed + "], Failing Times:[5].",
                    "0 ### [Exit] Img_Mount  Result:[Failed] ###."));
}

TEST_F(ImageMountTest, Img_MountOfABrokerThatStopsGivesUpAtOnce) {
    m_Fake.mounter.FailMounts(99);
    m_Fake.clock.OnSleep([&](int nSleep) {
        if (nSleep == 2) m_Broker.RequestStop();
    });

    EXPECT_FALSE(m_Broker.Img_Mount("Weather"));

    EXPECT_THAT(m_Fake.clock.Sleeps(), SizeIs(2));
}

// ---- Img_UnMount ----

TEST_F(ImageMountTest, Img_UnMountRefusesAnEmptyName) {
    EXPECT_FALSE(m_Broker.Img_UnMount(""));
    EXPECT_THAT(LinesOf(m_Log, "Img_UnMount"), ElementsAre("0 Image name is empty."));
}

TEST_F(ImageMountTest, Img_UnMountOfAnUnmountedImageIsFalse) {
    EXPECT_FALSE(m_Broker.Img_UnMount("Weather"));
    EXPECT_THAT(LinesOf(m_Log, "Img_UnMount"),
                ElementsAre("4 Are you kidding me? Image:[Weather] was not mounted yet!"));
    EXPECT_THAT(m_Fake.mounter.Calls(), IsEmpty());
}

TEST_F(ImageMountTest, Img_UnMountAnswersWhatUnmountingGave) {
    m_Fake.mounter.SetImgMounted("Weather", true);
    m_Fake.mounter.FailUmounts(1);

    EXPECT_FALSE(m_Broker.Img_UnMount("Weather"));
    EXPECT_TRUE(m_Broker.Img_UnMount("Weather"));

    EXPECT_THAT(m_Fake.mounter.Calls(), ElementsAre(kUmountCall, kUmountCall));
    EXPECT_FALSE(HasLinesOf(m_Log, "Img_UnMount"));
}

// ---- Pepper_Img_Mount ----

TEST_F(ImageMountTest, Pepper_Img_MountRefusesAnEmptyPath) {
    EXPECT_FALSE(m_Broker.Pepper_Img_Mount(""));
    EXPECT_THAT(LinesOf(m_Log, "Pepper_Img_Mount"), ElementsAre("0 Image name is empty."));
}

TEST_F(ImageMountTest, Pepper_Img_MountFindsThePluginsMounted) {
    m_Fake.files.Add("/opt/down/pepper/webapis");

    EXPECT_TRUE(m_Broker.Pepper_Img_Mount("/some.img"));

    EXPECT_THAT(LinesOf(m_Log, "Pepper_Img_Mount"),
                ElementsAre("4 [/some.img] had already been mounted."));
    EXPECT_THAT(m_Fake.files.Calls(), ElementsAre("IsAccessible /opt/down/pepper/webapis"));
    EXPECT_THAT(m_Fake.mounter.Calls(), IsEmpty());
    EXPECT_THAT(m_Fake.clock.Sleeps(), IsEmpty());
}

TEST_F(ImageMountTest, Pepper_Img_MountTriesUntilItSucceeds) {
    m_Fake.mounter.FailMounts(1);

    EXPECT_TRUE(m_Broker.Pepper_Img_Mount("/some.img"));

    EXPECT_THAT(m_Fake.mounter.Calls(), ElementsAre("Mount /some.img /opt/down/pepper",
                                                    "Mount /some.img /opt/down/pepper"));
    EXPECT_THAT(m_Fake.clock.Sleeps(), ElementsAre(1s, 1s));
    EXPECT_THAT(LinesOf(m_Log, "Pepper_Img_Mount"),
                ElementsAre("4 Pepper_Img_Mount:[/some.img]",
                            "0 Failed to mount:[/some.img], Failing Times:[1].",
                            "4 Succeed to mount [/some.img]."));
}

TEST_F(ImageMountTest, Pepper_Img_MountGivesUpAfterFiveAttempts) {
    m_Fake.mounter.FailMounts(99);

    EXPECT_FALSE(m_Broker.Pepper_Img_Mount("/some.img"));

    EXPECT_THAT(m_Fake.clock.Sleeps(), ElementsAre(1s, 1s, 1s, 1s, 1s));
    EXPECT_THAT(LinesOf(m_Log, "Pepper_Img_Mount"),
                ElementsAre("4 Pepper_Img_Mount:[/some.img]",
                            "0 Failed to mount:[/some.img], Failing Times:[1].",
                            "0 Failed to mount:[/some.img], Failing Times:[2].",
                            "0 Failed to mount:[/some.img], Failing Times:[3].",
                            "0 Failed to mount:[/some.img], Failing Times:[4].",
                            "0 Failed to mount:[/some.img], Failing Times:[5].",
                            "0 [Exit] Mount_Pepper_Plugins  Result:[Failed]."));
}

// ---- UnmoutEMP ----

TEST_F(ImageMountTest, UnmoutEMPOfAnUncountedImageIsTrue) {
    EXPECT_TRUE(m_Broker.UnmoutEMP("Weather"));

    EXPECT_THAT(LinesOf(m_Log, "UnmoutEMP"), ElementsAre("4 Enter [UnmoutEMP], emp:[Weather].",
                                                         "0 EMP [Weather] is not in the map. ",
                                                         "4 Leave [UnmoutEMP], emp:[Weather]."));
    EXPECT_THAT(m_Fake.mounter.Calls(), IsEmpty());
}

TEST_F(ImageMountTest, UnmoutEMPUnmountsWhatNobodyUses) {
    m_Fake.AddMounted("Weather");
    BrokerProbe::SetMountCount(m_Broker, "Weather", 0);
    BrokerProbe::SetMountCount(m_Broker, "Clock", 0);

    EXPECT_TRUE(m_Broker.UnmoutEMP("Weather"));

    EXPECT_THAT(LinesOf(m_Log, "UnmoutEMP"), ElementsAre("4 Enter [UnmoutEMP], emp:[Weather].",
                                                         "3 Umount: Emp=[Weather], count=[0].",
                                                         "4 Umount:[/opt/down/emps/empWeather].",
                                                         "3 Umount for [Weather] EMP Succeeded!",
                                                         "4 Leave [UnmoutEMP], emp:[Weather]."));
    EXPECT_THAT(m_Fake.mounter.Calls(), ElementsAre(kUmountCall));
    EXPECT_THAT(BrokerProbe::MountCounts(m_Broker), ElementsAre(Pair("Clock", 0)));
}

TEST_F(ImageMountTest, UnmoutEMPKeepsTheEntryWhenUnmountingFails) {
    m_Fake.AddMounted("Weather");
    m_Fake.mounter.FailUmounts(1);
    BrokerProbe::SetMountCount(m_Broker, "Weather", 0);

    EXPECT_FALSE(m_Broker.UnmoutEMP("Weather"));

    EXPECT_THAT(
        LinesOf(m_Log, "UnmoutEMP"),
        ElementsAre("4 Enter [UnmoutEMP], emp:[Weather].", "3 Umount: Emp=[Weather], count=[0].",
                    "4 Umount:[/opt/down/emps/empWeather].", "0 Umount for [Weather] EMP Failed!",
                    "4 Leave [UnmoutEMP], emp:[Weather]."));
    EXPECT_THAT(BrokerProbe::MountCounts(m_Broker), ElementsAre(Pair("Weather", 0)));
}

TEST_F(ImageMountTest, UnmoutEMPForgetsAnImageThatIsNotVisible) {
    m_Fake.AddImage("Weather");
    BrokerProbe::SetMountCount(m_Broker, "Weather", 0);

    EXPECT_TRUE(m_Broker.UnmoutEMP("Weather"));

    EXPECT_THAT(LinesOf(m_Log, "UnmoutEMP"), ElementsAre("4 Enter [UnmoutEMP], emp:[Weather].",
                                                         "3 Umount: Emp=[Weather], count=[0].",
                                                         "0 Not a Mounted EMP, No need to umount.",
                                                         "3 Umount for [Weather] EMP Succeeded!",
                                                         "4 Leave [UnmoutEMP], emp:[Weather]."));
    EXPECT_THAT(m_Fake.mounter.Calls(), IsEmpty());
    EXPECT_THAT(BrokerProbe::MountCounts(m_Broker), IsEmpty());
}

TEST_F(ImageMountTest, UnmoutEMPLeavesAnImageThatIsUsed) {
    m_Fake.AddMounted("Weather");
    for (const int nCount : {2, 1, -1}) {
        m_Log.Clear();
        BrokerProbe::SetMountCount(m_Broker, "Weather", nCount);

        EXPECT_TRUE(m_Broker.UnmoutEMP("Weather"));

        EXPECT_THAT(LinesOf(m_Log, "UnmoutEMP"),
                    ElementsAre("4 Enter [UnmoutEMP], emp:[Weather].",
                                "0 No need to umount emp:[Weather], Cause the umount count isn't "
                                "equal to 0.",
                                "4 Leave [UnmoutEMP], emp:[Weather]."));
        EXPECT_THAT(BrokerProbe::MountCounts(m_Broker), ElementsAre(Pair("Weather", nCount)));
    }
    EXPECT_THAT(m_Fake.mounter.Calls(), IsEmpty());
}

}  // namespace
}  // namespace vok
