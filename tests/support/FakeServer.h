/// What the fakes of the broker's peers are made of: a server, and a record of what it was asked.
#pragma once

#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/server/TThreadedServer.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TServerSocket.h>

#include <exception>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace vok::test {

/// Serves from the constructor, which throws when that fails, to the destructor, which ends all
/// connections and waits for its threads.
class CFakeServer {
public:
    using Processor = std::shared_ptr<apache::thrift::TProcessor>;

    /// On a loopback port; 0: a free one.
    explicit CFakeServer(const Processor& pProcessor, int nPort = 0)
        : CFakeServer(pProcessor, std::make_shared<Socket>("127.0.0.1", nPort)) {}
    /// On a Unix domain socket whose path is free. It stays there.
    CFakeServer(const Processor& pProcessor, const std::string& strPath)
        : CFakeServer(pProcessor, std::make_shared<Socket>(strPath)) {}

    ~CFakeServer() {
        m_Server.stop();
        m_Thread.join();
    }
    CFakeServer(const CFakeServer&) = delete;
    CFakeServer& operator=(const CFakeServer&) = delete;

    int Port() const { return m_nPort; }

private:
    using Socket = apache::thrift::transport::TServerSocket;

    /// Tells the port once the server listens.
    struct Teller : apache::thrift::server::TServerEventHandler {
        explicit Teller(std::shared_ptr<Socket> p) : pSocket(std::move(p)) {}
        void preServe() override { port.set_value(pSocket->getPort()); }
        std::shared_ptr<Socket> pSocket;
        std::promise<int> port;
    };

    CFakeServer(const Processor& pProcessor, const std::shared_ptr<Socket>& pSocket)
        : m_Server(pProcessor, pSocket,
                   std::make_shared<apache::thrift::transport::TBufferedTransportFactory>(),
                   std::make_shared<apache::thrift::protocol::TBinaryProtocolFactory>()) {
        const auto pTeller = std::make_shared<Teller>(pSocket);
        m_Server.setServerEventHandler(pTeller);
        m_Thread = std::thread([this, pTeller] {
            try {
                m_Server.serve();
            } catch (const std::exception&) {  // cannot listen
                pTeller->port.set_exception(std::current_exception());
            }
        });
        try {
            m_nPort = pTeller->port.get_future().get();
        } catch (...) {
            m_Thread.join();
            throw;
        }
    }

    apache::thrift::server::TThreadedServer m_Server;
    int m_nPort = 0;
    std::thread m_Thread;
};

/// The calls that a fake has received, and what it does besides answering them. Thread-safe.
template <typename Call>
class CCallRecord {
public:
    /// From now on every call, once recorded, fails: its caller gets a TApplicationException with
    /// this text. "": they succeed again.
    void FailCalls(const std::string& strText) {
        const std::lock_guard<std::mutex> lock{m_Mutex};
        m_strFailure = strText;
    }

    /// Runs with every call, on the thread that serves it and without any lock of the fake, after
    /// it has been recorded and before it is answered.
    void OnCall(std::function<void(const Call&)> hook) {
        const std::lock_guard<std::mutex> lock{m_Mutex};
        m_Hook = std::move(hook);
    }

    /// For the handler of the service, with every call.
    void Take(const Call& call) {
        std::function<void(const Call&)> hook;
        {
            const std::lock_guard<std::mutex> lock{m_Mutex};
            m_Calls.push_back(call);
            hook = m_Hook;
        }
        if (hook) hook(call);
        const std::lock_guard<std::mutex> lock{m_Mutex};
        if (!m_strFailure.empty()) throw std::runtime_error(m_strFailure);
    }

    /// In the order in which they came.
    std::vector<Call> Calls() const {
        const std::lock_guard<std::mutex> lock{m_Mutex};
        return m_Calls;
    }
    void ForgetCalls() {
        const std::lock_guard<std::mutex> lock{m_Mutex};
        m_Calls.clear();
    }

private:
    mutable std::mutex m_Mutex;  // guards all that follows
    std::string m_strFailure;
    std::function<void(const Call&)> m_Hook;
    std::vector<Call> m_Calls;
};

}  // namespace vok::test
