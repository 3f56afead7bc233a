// The log policy, by which faults are reported.
//
// Input: the file.
#include <memory>
#include <string>
#include <string_view>

#include "platform/CLogger.h"
#include "platform/EmpPaths.h"
#include "platform/NodeAttributes.h"
#include "tests/fuzz/support/AtOnce.h"
#include "tests/fuzz/support/CStage.h"
#include "tests/fuzz/support/Target.h"

namespace vok::test {
namespace {

constexpr char kNode[] = "15_vok";

/// A platform whose policy file has this text.
class CPolicyKpi : public CFakeKpi {
public:
    explicit CPolicyKpi(std::string strXml) : m_strXml(std::move(strXml)) {}

    bool ParseNodeAttrFromXml(const std::string&, const std::string& strNode,
                              NodeAttributes& attributes) override {
        return ParseNodeAttr(m_strXml, strNode, attributes);
    }

private:
    const std::string m_strXml;
};

void RequireSameEveryTime(const std::string& strXml, const std::string& strNode) {
    NodeAttributes first{{"left from before", ""}};
    const bool bFound = ParseNodeAttr(strXml, strNode, first);
    NodeAttributes again;
    Require(ParseNodeAttr(strXml, strNode, again) == bFound && first == again,
            "a node has the attributes that it has");
    Require(bFound || first.empty(), "what is not found has no attributes");
}

void ReportFault(const std::string& strXml) {
    const CAtOnce atOnce;
    FakePlatform fake;
    CPolicyKpi kpi{strXml};
    fake.files.Add(paths::kFaultInfo, "what the kernel knows\n");
    CBroker broker{{&fake.mounter, &fake.files, &fake.processes, &fake.clock, &kpi}};
    broker.ReportLogToServer("Weather", "1.0", "App");

    NodeAttributes attributes;
    Require(ParseNodeAttr(strXml, kNode, attributes) == !kpi.Calls().empty(),
            "faults are reported where there is a policy");
}

}  // namespace
}  // namespace vok::test

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t nSize) {
    using namespace vok::test;
    const std::string strXml{reinterpret_cast<const char*>(pData), nSize};
    const CForgetfulLog log;
    for (const char* szNode : {kNode, "Policy", "_digit.15_vok", ""})
        RequireSameEveryTime(strXml, szNode);
    ReportFault(strXml);
    return 0;
}
