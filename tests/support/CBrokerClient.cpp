#include "tests/support/CBrokerClient.h"

#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>

namespace vok::test {

using apache::thrift::protocol::TBinaryProtocol;
using apache::thrift::transport::TBufferedTransport;
using apache::thrift::transport::TSocket;

CBrokerClient::CBrokerClient(std::chrono::milliseconds patience, int nPort)
    : m_pSocket(std::make_shared<TSocket>(kBrokerAddress, nPort)),
      m_pClient(std::make_unique<VokBrokerClient>(
          std::make_shared<TBinaryProtocol>(std::make_shared<TBufferedTransport>(m_pSocket)))) {
    const int nMilliseconds = static_cast<int>(patience.count());
    m_pSocket->setConnTimeout(nMilliseconds);
    m_pSocket->setSendTimeout(nMilliseconds);
    m_pSocket->setRecvTimeout(nMilliseconds);
    m_pSocket->open();
}

ConnectionInfo CBrokerClient::Open(const std::string& strClientPort, const std::string& strEmp,
                                   const std::string& strVersion, const std::string& strAppInfo) {
    ConnectionInfo info;
    m_pClient->OpenEmp(info, strClientPort, strEmp, strVersion, strAppInfo);
    return info;
}

std::string CBrokerClient::Execute(const std::string& strArg1, const std::string& strCmd,
                                   const std::string& strArg3, const std::string& strArg4,
                                   const std::string& strArg5, const std::string& strArg6) {
    std::string strResult;
    m_pClient->Execute(strResult, strArg1, strCmd, strArg3, strArg4, strArg5, strArg6);
    return strResult;
}

bool CBrokerClient::Close(const ConnectionInfo& info) {
    return m_pClient->CloseEmp(info);
}

void CBrokerClient::Disconnect() {
    m_pSocket->close();
}

void CBrokerClient::SendRaw(const std::string& strBytes) {
    m_pSocket->write(reinterpret_cast<const uint8_t*>(strBytes.data()),
                     static_cast<uint32_t>(strBytes.size()));
}

std::string CBrokerClient::ReceiveRaw(std::size_t nMost) {
    std::string strBytes(nMost, '\0');
    const uint32_t nRead = m_pSocket->read(reinterpret_cast<uint8_t*>(strBytes.data()),
                                           static_cast<uint32_t>(strBytes.size()));
    strBytes.resize(nRead);
    return strBytes;
}

}  // namespace vok::test
