#include "tests/support/CFakeClient.h"

#include <utility>

#include "VokEmpEvent.h"
#include "tests/support/FakeServer.h"

namespace vok::test {

void PrintTo(const ClientEvent& event, std::ostream* pStream) {
    *pStream << event.nType << " \"" << event.strA << "\" \"" << event.strB << '"';
}

class CFakeClient::CHandler : public VokEmpEventIf {
public:
    void Callback(int32_t nType, const std::string& strA, const std::string& strB) override {
        record.Take({nType, strA, strB});
    }

    CCallRecord<ClientEvent> record;
};

CFakeClient::CFakeClient() : CFakeClient(0) {}

CFakeClient::CFakeClient(int nPort)
    : m_pHandler(std::make_shared<CHandler>()),
      m_pServer(std::make_unique<CFakeServer>(std::make_shared<VokEmpEventProcessor>(m_pHandler),
                                              nPort)) {
    m_strAddress = std::to_string(m_pServer->Port());
}

CFakeClient::CFakeClient(const std::string& strPath)
    : m_pHandler(std::make_shared<CHandler>()),
      m_strAddress(strPath),
      m_pServer(std::make_unique<CFakeServer>(std::make_shared<VokEmpEventProcessor>(m_pHandler),
                                              strPath)) {}

CFakeClient::~CFakeClient() = default;

void CFakeClient::FailCalls(const std::string& strText) {
    m_pHandler->record.FailCalls(strText);
}

void CFakeClient::OnEvent(std::function<void(const ClientEvent&)> hook) {
    m_pHandler->record.OnCall(std::move(hook));
}

std::vector<ClientEvent> CFakeClient::Events() const {
    return m_pHandler->record.Calls();
}

}  // namespace vok::test
