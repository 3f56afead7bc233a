#include "tests/support/CFakeLauncher.h"

#include <atomic>
#include <utility>

#include "VOKEmpLauncher.h"
#include "tests/support/FakeServer.h"

namespace vok::test {

void PrintTo(const LauncherOpen& open, std::ostream* pStream) {
    *pStream << '"' << open.strEmp << "\" " << open.nTicketSerial << " \"" << open.strCallbackPort
             << '"';
}

class CFakeLauncher::CHandler : public VOKEmpLauncherIf {
public:
    int32_t Open(const std::string& strEmp, int32_t nTicketSerial,
                 const std::string& strCallbackPort) override {
        record.Take({strEmp, nTicketSerial, strCallbackPort});
        return nAnswer;
    }

    CCallRecord<LauncherOpen> record;
    std::atomic<int> nAnswer{1};
};

CFakeLauncher::CFakeLauncher()
    : m_pHandler(std::make_shared<CHandler>()),
      m_pServer(
          std::make_unique<CFakeServer>(std::make_shared<VOKEmpLauncherProcessor>(m_pHandler))) {}

CFakeLauncher::~CFakeLauncher() = default;

std::string CFakeLauncher::PortText() const {
    return std::to_string(m_pServer->Port());
}

void CFakeLauncher::Answer(int nAnswer) {
    m_pHandler->nAnswer = nAnswer;
}

void CFakeLauncher::FailCalls(const std::string& strText) {
    m_pHandler->record.FailCalls(strText);
}

void CFakeLauncher::OnOpen(std::function<void(const LauncherOpen&)> hook) {
    m_pHandler->record.OnCall(std::move(hook));
}

std::vector<LauncherOpen> CFakeLauncher::Opens() const {
    return m_pHandler->record.Calls();
}

}  // namespace vok::test
