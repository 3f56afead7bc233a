// The bytes of a connection, to the broker's service or to the admin service, through what the
// servers read and write them with.
//
// Input: a line that begins with A for the admin service, lines of what happens meanwhile (see
// CScript.h), NUL, and the bytes.
#include <thrift/Thrift.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/server/TConnectedClient.h>
#include <thrift/transport/TBufferTransports.h>

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>

#include "rpc/BrokerProcessor.h"
#include "rpc/CRpcServer.h"
#include "tests/fuzz/support/CStage.h"
#include "tests/fuzz/support/Target.h"

namespace vok::test {
namespace {

using apache::thrift::transport::TMemoryBuffer;
using apache::thrift::transport::TTransport;

/// How much of a connection comes at once.
constexpr std::uint32_t kPacket = 61;

/// The server's end of a connection: reads the input, and keeps what is answered.
class CConnection : public apache::thrift::transport::TVirtualTransport<CConnection> {
public:
    explicit CConnection(std::string_view strInput) : m_strInput(strInput) {}

    bool isOpen() const override { return true; }
    void close() override {}

    std::uint32_t read(std::uint8_t* pData, std::uint32_t nSize) {
        const auto nRead = static_cast<std::uint32_t>(
            m_strInput.copy(reinterpret_cast<char*>(pData), std::min(nSize, kPacket)));
        m_strInput.remove_prefix(nRead);
        return nRead;
    }
    void write(const std::uint8_t* pData, std::uint32_t nSize) {
        m_strAnswers.append(reinterpret_cast<const char*>(pData), nSize);
    }

    const std::string& Answers() const { return m_strAnswers; }

private:
    std::string_view m_strInput;
    std::string m_strAnswers;
};

std::shared_ptr<apache::thrift::TProcessor> MakeProcessor(CStage& stage, bool bAdmin) {
    if (bAdmin) return std::make_shared<admin::VokBrokerAdminProcessor>(stage.AdminService());
    return MakeBrokerProcessor(stage.Service());
}

/// Whatever a client sends, what it gets are whole messages.
void RequireWholeMessages(const std::string& strAnswers) {
    using namespace apache::thrift::protocol;
    const auto pBuffer = std::make_shared<TMemoryBuffer>();
    pBuffer->write(reinterpret_cast<const std::uint8_t*>(strAnswers.data()),
                   static_cast<std::uint32_t>(strAnswers.size()));
    TBinaryProtocol protocol{pBuffer};
    try {
        while (pBuffer->available_read() > 0) {
            std::string strOperation;
            TMessageType type{};
            std::int32_t nSequence = 0;
            protocol.readMessageBegin(strOperation, type, nSequence);
            Require(type == T_REPLY || type == T_EXCEPTION, "an answer is a reply or an error");
            protocol.skip(T_STRUCT);
            protocol.readMessageEnd();
        }
    } catch (const apache::thrift::TException&) {
        Require(false, "an answer is a whole message");
    }
}

void Serve(std::string_view strHeader, std::string_view strBytes) {
    CStage stage;
    const bool bAdmin = strHeader.substr(0, 1) == "A";
    strHeader.remove_prefix(std::min(strHeader.size(), strHeader.find('\n')));
    stage.SetMeanwhile(ParseScript(strHeader.substr(std::min<std::size_t>(strHeader.size(), 1))));

    const auto pConnection = std::make_shared<CConnection>(strBytes);
    const auto pTransports = ServerTransports();
    const auto pProtocols = ServerProtocols();
    apache::thrift::server::TConnectedClient client{
        MakeProcessor(stage, bAdmin),
        pProtocols->getProtocol(pTransports->getTransport(pConnection)),
        pProtocols->getProtocol(pTransports->getTransport(pConnection)), nullptr, pConnection};
    client.run();
    RequireWholeMessages(pConnection->Answers());
}

}  // namespace
}  // namespace vok::test

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t nSize) {
    // What the library has to say about bad messages, it says for every one of them.
    apache::thrift::GlobalOutput.setOutputFunction([](const char*) {});

    const std::string_view strInput{reinterpret_cast<const char*>(pData), nSize};
    const std::size_t nHeader = std::min(strInput.find('\0'), strInput.size());
    vok::test::Serve(strInput.substr(0, nHeader),
                     strInput.substr(std::min(nHeader + 1, strInput.size())));
    return 0;
}
