/// Tells when an RPC server listens.
#pragma once

#include <thrift/server/TServer.h>

#include <functional>
#include <utility>

namespace vok {

/// Calls what it was given, on the serving thread, once the socket accepts connections.
class CListenEvent : public apache::thrift::server::TServerEventHandler {
public:
    explicit CListenEvent(std::function<void()> onListening)
        : m_OnListening(std::move(onListening)) {}
    void preServe() override { m_OnListening(); }

private:
    const std::function<void()> m_OnListening;
};

}  // namespace vok
