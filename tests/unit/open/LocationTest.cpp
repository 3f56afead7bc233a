#include <ostream>
#include <string>
#include <vector>

#include "tests/support/BrokerTest.h"

namespace vok {
namespace {

using namespace test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class LocationTest : public BrokerTest {};

// ---- WhereIsEMP ----

struct WhereCase {
    const char* szName;
    std::vector<std::string> files;
    bool bGrouped;
    bool bRegistered;
    eEmpLocation location;
    std::vector<std::string> lines;  // between the first and the last
};
void PrintTo(const WhereCase& c, std::ostream* pStream) {
    *pStream << c.szName;
}

class WhereIsEmpTest : public LocationTest, public ::testing::WithParamInterface<WhereCase> {};

TEST_P(WhereIsEmpTest, Classifies) {
    const WhereCase& c = GetParam();
    for (const std::string& strFile : c.files) m_Fake.files.Add(strFile);
    if (c.bGrouped) BrokerProbe::SetGroup(m_Broker, "Group", "N/A", {"Clock", "Weather"});
    if (c.bRegistered) BrokerProbe::SetLauncher(m_Broker, "Launcher", "5000", {"Weather"});

    EXPECT_EQ(m_Broker.WhereIsEMP("Weather"), c.location);

    std::vector<std::string> expected{"4 In WhereIsEMP, use USE_MOUNTABLE_EXECUTABLE_EMP branch"};
    expected.insert(expected.end(), c.lines.begin(), c.lines.end());
    expected.push_back("4 [Weather] belongs to [" + std::to_string(c.location) + "]");
    EXPECT_EQ(LinesOf(m_Log, "WhereIsEMP"), expected);
}

const std::string kImage = "/opt/down/emps/empWeather_img/empWeather.img";
const std::string kDownloaded = "/opt/down/emps/empWeather/empWeather";
const std::string kPreinstalled = "/usr/bin/emps/empWeather/empWeather";

INSTANTIATE_TEST_SUITE_P(
    Table, WhereIsEmpTest,
    ::testing::Values(
        WhereCase{"ImageIsExternal",
                  {kImage},
                  false,
                  false,
                  EMPLOCATION_EXTERNAL,
                  {"4 External EMP:[Weather]."}},
        WhereCase{"PreinstalledIsExternal",
                  {kPreinstalled},
                  false,
                  false,
                  EMPLOCATION_EXTERNAL,
                  {"4 External EMP:[Weather]."}},
        WhereCase{"ImageBeatsLaunchers",
                  {kImage},
                  true,
                  true,
                  EMPLOCATION_EXTERNAL,
                  {"4 External EMP:[Weather]."}},
        WhereCase{"PreinstalledBeatsLaunchers",
                  {kPreinstalled},
                  true,
                  true,
                  EMPLOCATION_EXTERNAL,
                  {"4 External EMP:[Weather]."}},
        WhereCase{"MountedProgramAloneIsUnknown",
                  {kDownloaded},
                  false,
                  false,
                  EMPLOCATION_UNKNOWN,
                  {"0 Unknown location."}},
        WhereCase{"Grouping", {}, true, false, EMPLOCATION_GROUPING, {"4 Grouping EMP:[Weather]."}},
        WhereCase{"GroupingBeatsRegister",
                  {},
                  true,
                  true,
                  EMPLOCATION_GROUPING,
                  {"4 Grouping EMP:[Weather]."}},
        WhereCase{"Register", {}, false, true, EMPLOCATION_REGISTER, {"4 Register EMP:[Weather]."}},
        WhereCase{"Nowhere", {}, false, false, EMPLOCATION_UNKNOWN, {"0 Unknown location."}}),
    [](const auto& info) { return info.param.szName; });

TEST_F(LocationTest, WhereIsEmpLooksAtTheImageThenAtTheProgram) {
    m_Broker.WhereIsEMP("Weather");

    EXPECT_THAT(m_Fake.files.Calls(), ElementsAre("Exists " + kImage, "Exists " + kPreinstalled));
}

// ---- GetEmpLocationType ----

struct TypeCase {
    const char* szName;
    std::vector<std::string> files;
    int nType;
};
void PrintTo(const TypeCase& c, std::ostream* pStream) {
    *pStream << c.szName;
}

class LocationTypeTest : public LocationTest, public ::testing::WithParamInterface<TypeCase> {};

TEST_P(LocationTypeTest, TheFirstFileDecides) {
    for (const std::string& strFile : GetParam().files) m_Fake.files.Add(strFile);

    EXPECT_EQ(m_Broker.GetEmpLocationType("Weather"), GetParam().nType);
}

INSTANTIATE_TEST_SUITE_P(
    Table, LocationTypeTest,
    ::testing::Values(TypeCase{"Nothing", {}, 0}, TypeCase{"OnlyMountedProgram", {kDownloaded}, 1},
                      TypeCase{"MountedImage", {kDownloaded, kImage}, 1},
                      TypeCase{"All", {kDownloaded, kImage, kPreinstalled}, 1},
                      TypeCase{"Image", {kImage}, 2},
                      TypeCase{"ImageBeatsPreinstalled", {kImage, kPreinstalled}, 2},
                      TypeCase{"Preinstalled", {kPreinstalled}, 3}),
    [](const auto& info) { return info.param.szName; });

TEST_F(LocationTest, GetEmpLocationTypeAsksInItsOrder) {
    m_Broker.GetEmpLocationType("Weather");

    EXPECT_THAT(
        LinesOf(m_Log, "CheckEmpFile"),
        ElementsAre("4 Check EMP File:[" + kDownloaded + "]", "4 Check EMP File:[" + kImage + "]",
                    "4 Check EMP File:[" + kPreinstalled + "]"));
}

// ---- Names that are no file names ----

class OddNameTest : public LocationTest, public ::testing::WithParamInterface<std::string> {};

TEST_P(OddNameTest, HasNoFiles) {
    const std::string strOdd = GetParam();
    m_Fake.AddMounted(strOdd);
    m_Fake.AddPreinstalled(strOdd);

    EXPECT_EQ(m_Broker.WhereIsEMP(strOdd), EMPLOCATION_UNKNOWN);
    EXPECT_EQ(m_Broker.GetEmpLocationType(strOdd), EMPFILE_NONE);
    EXPECT_THAT(m_Fake.files.Calls(), IsEmpty());
}

TEST_P(OddNameTest, MayBelongToAGroup) {
    BrokerProbe::SetGroup(m_Broker, "Group", "N/A", {GetParam()});

    EXPECT_EQ(m_Broker.WhereIsEMP(GetParam()), EMPLOCATION_GROUPING);
    EXPECT_THAT(m_Fake.files.Calls(), IsEmpty());
}

TEST_P(OddNameTest, MayBeServedByALauncher) {
    BrokerProbe::SetLauncher(m_Broker, "Launcher", "5000", {GetParam()});

    EXPECT_EQ(m_Broker.WhereIsEMP(GetParam()), EMPLOCATION_REGISTER);
    EXPECT_THAT(m_Fake.files.Calls(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Table, OddNameTest,
                         ::testing::Values("/", "../../etc/passwd", "a/b", ".", "..",
                                           std::string("a\0b", 3), std::string("\0", 1)));

TEST_F(LocationTest, DotsInsideANameAreFine) {
    m_Fake.AddPreinstalled("..a");

    EXPECT_EQ(m_Broker.WhereIsEMP("..a"), EMPLOCATION_EXTERNAL);
}

// ---- Addresses ----

struct AddressCase {
    int nValue;
    std::vector<std::string> lines;
};

TEST_F(LocationTest, GetEmpIPIsAlwaysTheLoopbackAddress) {
    const AddressCase cases[] = {
        {1, {}},
        {2, {}},
        {3, {}},
        {4, {}},
        {5, {}},
        {0, {"0 No type for [0]. It may assign EMPLOCATION_BROKER"}},
        {6, {"0 No type for [6]. It may assign EMPLOCATION_BROKER"}},
        {7, {"0 No type for [7]. It may assign EMPLOCATION_BROKER"}},
    };
    for (const AddressCase& c : cases) {
        SCOPED_TRACE(c.nValue);
        m_Log.Clear();
        EXPECT_EQ(m_Broker.GetEmpIP(static_cast<eEmpLocation>(c.nValue)), "127.0.0.1");
        EXPECT_EQ(LinesOf(m_Log, "GetEmpIP"), c.lines);
        EXPECT_FALSE(HasLinesOf(m_Log, "GetProcessIP"));
    }
}

TEST_F(LocationTest, GetProcessIPIsAlwaysTheLoopbackAddress) {
    EXPECT_EQ(m_Broker.GetProcessIP(PROCESSTYPE_BROKER), "127.0.0.1");
    EXPECT_EQ(m_Broker.GetProcessIP(PROCESSTYPE_CLIENT), "127.0.0.1");
    EXPECT_FALSE(HasLinesOf(m_Log, "GetProcessIP"));
}

TEST_F(LocationTest, GetProcessIPOfAnUnknownTypeIsTheLoopbackAddressAndFatal) {
    EXPECT_EQ(m_Broker.GetProcessIP(static_cast<eProcessType>(7)), "127.0.0.1");
    EXPECT_THAT(LinesOf(m_Log, "GetProcessIP"),
                ElementsAre("0 !!FATAL!! There is no case for [7]. it may return 127.0.0.1"));
}

// ---- CheckEmpFile ----

TEST_F(LocationTest, CheckEmpFileTellsWhatExists) {
    m_Fake.files.Add("/some/file");

    EXPECT_TRUE(m_Broker.CheckEmpFile("/some/file"));
    EXPECT_FALSE(m_Broker.CheckEmpFile("/some/other"));
    EXPECT_THAT(LinesOf(m_Log, "CheckEmpFile"),
                ElementsAre("4 Check EMP File:[/some/file]", "4 Check EMP File:[/some/other]"));
}

TEST_F(LocationTest, CheckEmpFileOfNullIsFalse) {
    EXPECT_FALSE(m_Broker.CheckEmpFile(nullptr));
    EXPECT_THAT(m_Fake.files.Calls(), IsEmpty());
}

}  // namespace
}  // namespace vok
