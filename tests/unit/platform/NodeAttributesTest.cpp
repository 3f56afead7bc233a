#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <ostream>
#include <string>

#include "platform/Limits.h"
#include "platform/NodeAttributes.h"
#include "tests/support/CTemporaryFolder.h"

namespace vok {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

// ---- Texts in which the node is found ----

struct FoundCase {
    const char* szName;
    std::string strXml;  // in which the node's "url" is "right"
    std::string strNode = "15_vok";
};
void PrintTo(const FoundCase& c, std::ostream* pStream) {
    *pStream << c.szName;
}

class FoundNodeTest : public ::testing::TestWithParam<FoundCase> {};

TEST_P(FoundNodeTest, GivesItsAttributes) {
    NodeAttributes attributes{{"former", "value"}};

    EXPECT_TRUE(ParseNodeAttr(GetParam().strXml, GetParam().strNode, attributes));

    EXPECT_EQ(attributes["url"], "right");
    EXPECT_EQ(attributes.count("former"), 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Table, FoundNodeTest,
    ::testing::Values(
        FoundCase{"TagWithADigit", "<15_vok url='right'/>"},
        FoundCase{"TagWithADigitAndAnEnd", "<15_vok url='right'>text</15_vok>"},
        FoundCase{"TagWithADigitInside", "<a><b><15_vok url='right'></15_vok></b></a>"},
        FoundCase{"OtherTagsWithDigits", "<1><2 url='x'></2><15_vok url='right'/><3/></1>"},
        FoundCase{"DigitsOnly", "<15 url='right'/>", "15"},
        FoundCase{"OrdinaryTag", "<a><vok15 url='right'/></a>", "vok15"},
        FoundCase{"NameAttribute", "<a><Node name='15_vok' url='right'/></a>"},
        FoundCase{"NameAttributeOfAnotherDigitTag", "<a><7 name=\"15_vok\" url=\"right\"/></a>"},
        FoundCase{"LongerAndShorterTagsAreOthers",
                  "<a><15_vok2 url='x'/><15_vo url='x'/><5_vok url='x'/><15_vok url='right'/></a>"},
        FoundCase{"FirstOfTwoTags", "<a><15_vok url='right'/><15_vok url='x'/></a>"},
        FoundCase{"NameBeforeTag", "<a><b name='15_vok' url='right'/><15_vok url='x'/></a>"},
        FoundCase{"TagBeforeName", "<a><15_vok url='right'/><b name='15_vok' url='x'/></a>"},
        FoundCase{"DeeperButEarlier", "<a><b><15_vok url='right'/></b><15_vok url='x'/></a>"},
        FoundCase{"OuterBeforeInner", "<15_vok url='right'><15_vok url='x'/></15_vok>"},
        FoundCase{"AfterAComment",
                  "<a><!-- <15_vok url='x'/> it's \" --><15_vok url='right'/></a>"},
        FoundCase{"AfterCharacterData",
                  "<a><![CDATA[<15_vok url='x'/> it's \" ]]><15_vok url='right'/></a>"},
        FoundCase{"AfterQuotesInText", "<a>it's 5 \"<15_vok url='right'/></a>"},
        FoundCase{"AfterTagsInAValue", "<a b='<1>' c=\"</2 'd'>\"><15_vok url='right'/></a>"},
        FoundCase{"WithTagsInAValue", "<15_vok a='<5 b=\"' url='right' c='/>'/>"},
        FoundCase{"WhiteSpace", "\n<a >\n\t<15_vok\n\turl = 'right'\n/>\r\n</a >\n"},
        FoundCase{"Declaration", "<?xml version='1.0' encoding='UTF-8'?>\n<15_vok url='right'/>"},
        FoundCase{"DocumentType", "<!DOCTYPE a [<!ELEMENT a ANY>]>\n<a><15_vok url='right'/></a>"},
        FoundCase{"DocumentTypeWithQuotesAndComments",
                  "<!DOCTYPE a [<!-- it's > --><!ENTITY b '<1>'><?c it's?>]>\n"
                  "<a><15_vok url='right'/></a>"},
        FoundCase{"InstructionWithAQuote", "<?b it's <1> ?><a><15_vok url='right'/></a>"},
        FoundCase{"CommentThatLooksComplete",
                  "<a><!--> it's <15_vok url='x'/> --><15_vok url='right'/></a>"},
        FoundCase{"ByteOrderMark", "\xef\xbb\xbf<15_vok url='right'/>"}),
    [](const auto& info) { return info.param.szName; });

// ---- Texts in which there is none ----

struct MissingCase {
    const char* szName;
    std::string strXml;
    std::string strNode = "15_vok";
};
void PrintTo(const MissingCase& c, std::ostream* pStream) {
    *pStream << c.szName;
}

class MissingNodeTest : public ::testing::TestWithParam<MissingCase> {};

TEST_P(MissingNodeTest, LeavesNoAttributes) {
    NodeAttributes attributes{{"former", "value"}};

    EXPECT_FALSE(ParseNodeAttr(GetParam().strXml, GetParam().strNode, attributes));

    EXPECT_THAT(attributes, IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Table, MissingNodeTest,
    ::testing::Values(MissingCase{"Empty", ""}, MissingCase{"Blank", " \n"},
                      MissingCase{"NoMarkup", "15_vok"},
                      MissingCase{"OtherNodes", "<a><b name='x'/><16_vok/></a>"},
                      MissingCase{"NoName", "<a name=''/>", ""},
                      MissingCase{"NoNameNoAttribute", "<a/>", ""},
                      MissingCase{"OtherCase", "<15_VOK url='x'/>"},
                      MissingCase{"InAComment", "<a><!-- <15_vok url='x'/> --></a>"},
                      MissingCase{"InCharacterData", "<a><![CDATA[<15_vok url='x'/>]]></a>"},
                      MissingCase{"InAValue", "<a b=\"<15_vok url='x'/>\"/>"},
                      MissingCase{"InText", "<a>15_vok &lt;15_vok url='x'/&gt;</a>"},
                      MissingCase{"CutInsideTheTag", "<a><15_vok url='x'"},
                      MissingCase{"CutInsideAValue", "<a><15_vok url='x"},
                      MissingCase{"CutBeforeTheEnd", "<a><15_vok url='x'/>"},
                      MissingCase{"CutInsideAComment", "<a><15_vok url='x'/><!-- "},
                      MissingCase{"CutInsideCharacterData", "<a><15_vok url='x'/><![CDATA["},
                      MissingCase{"CutAfterABracket", "<a><15_vok url='x'/><"},
                      MissingCase{"CutInsideAnEnd", "<15_vok url='x'></"},
                      MissingCase{"WrongEnd", "<15_vok url='x'></16_vok>"},
                      MissingCase{"ValueWithoutQuotes", "<15_vok url=x/>"},
                      MissingCase{"Garbage", std::string("\x7f"
                                                         "ELF\x01\x00\xff<>'\"</1<!--",
                                                         18)},
                      MissingCase{"Zeros", std::string(64, '\0')}),
    [](const auto& info) { return info.param.szName; });

TEST(ParseNodeAttr, GivesEveryAttributeDecoded) {
    NodeAttributes attributes;

    EXPECT_TRUE(
        ParseNodeAttr("<a><15_vok url='http://h/?a=1&amp;b=2' queue_max=\"10\" empty=''/></a>",
                      "15_vok", attributes));

    EXPECT_THAT(attributes, ElementsAre(Pair("empty", ""), Pair("queue_max", "10"),
                                        Pair("url", "http://h/?a=1&b=2")));
}

TEST(ParseNodeAttr, NodeWithoutAttributesIsFound) {
    NodeAttributes attributes{{"former", "value"}};

    EXPECT_TRUE(ParseNodeAttr("<15_vok/>", "15_vok", attributes));

    EXPECT_THAT(attributes, IsEmpty());
}

TEST(ParseNodeAttr, NodesMayBeNestedAsDeepAsTheyLike) {
    constexpr int kDepth = 100'000;
    std::string strXml;
    for (int i = 0; i < kDepth; ++i) strXml += "<1>";
    strXml += "<15_vok url='right'/>";
    for (int i = 0; i < kDepth; ++i) strXml += "</1>";
    NodeAttributes attributes;

    EXPECT_TRUE(ParseNodeAttr(strXml, "15_vok", attributes));

    EXPECT_THAT(attributes, ElementsAre(Pair("url", "right")));
}

// ---- Files ----

class ParseNodeAttrFromXmlTest : public ::testing::Test {
protected:
    bool Parse(const std::string& strXml) {
        std::ofstream(m_strFile) << strXml;
        return ParseNodeAttrFromXml(m_strFile, "15_vok", m_Attributes);
    }

    const test::CTemporaryFolder m_Folder;
    const std::string m_strFile = m_Folder.Path("LogPolicyConfig.xml");
    NodeAttributes m_Attributes{{"former", "value"}};
};

TEST_F(ParseNodeAttrFromXmlTest, ReadsTheFile) {
    EXPECT_TRUE(Parse("<Policy>\n  <15_vok url='right' loglevel='3'/>\n</Policy>\n"));

    EXPECT_THAT(m_Attributes, ElementsAre(Pair("loglevel", "3"), Pair("url", "right")));
}

TEST_F(ParseNodeAttrFromXmlTest, MissingFileLeavesNoAttributes) {
    EXPECT_FALSE(ParseNodeAttrFromXml(m_strFile, "15_vok", m_Attributes));
    EXPECT_THAT(m_Attributes, IsEmpty());
}

TEST_F(ParseNodeAttrFromXmlTest, FolderLeavesNoAttributes) {
    EXPECT_FALSE(ParseNodeAttrFromXml(m_Folder.Path(), "15_vok", m_Attributes));
    EXPECT_THAT(m_Attributes, IsEmpty());
}

TEST_F(ParseNodeAttrFromXmlTest, EmptyFileLeavesNoAttributes) {
    EXPECT_FALSE(Parse(""));
    EXPECT_THAT(m_Attributes, IsEmpty());
}

TEST_F(ParseNodeAttrFromXmlTest, LargestFileIsRead) {
    std::string strXml = "<a><15_vok url='right'/></a>";
    strXml.resize(kMaxTextFile, ' ');

    EXPECT_TRUE(Parse(strXml));
    EXPECT_THAT(m_Attributes, ElementsAre(Pair("url", "right")));
}

TEST_F(ParseNodeAttrFromXmlTest, LargerFileIsCutAndSoNoXml) {
    const std::string strEnd = "</a>";
    std::string strXml = "<a><15_vok url='right'/>";
    strXml.resize(kMaxTextFile + 1 - strEnd.size(), ' ');

    EXPECT_FALSE(Parse(strXml + strEnd));
    EXPECT_THAT(m_Attributes, IsEmpty());
}

}  // namespace
}  // namespace vok
