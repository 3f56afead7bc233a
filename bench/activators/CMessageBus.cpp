#include "bench/activators/CMessageBus.h"

#include <dbus/dbus.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <stdexcept>

#include "bench/activators/BusService.h"
#include "platform/CUniqueFd.h"
#include "platform/ScopeGuard.h"

namespace vok::bench {
namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::steady_clock;

constexpr milliseconds kPatience{10'000};

struct Unref {
    void operator()(DBusMessage* pMessage) const { dbus_message_unref(pMessage); }
};
using Message = std::unique_ptr<DBusMessage, Unref>;

/// What a call of the bus's library complains of.
class CError {
public:
    CError() { dbus_error_init(&m_Error); }
    ~CError() { dbus_error_free(&m_Error); }
    CError(const CError&) = delete;
    CError& operator=(const CError&) = delete;

    DBusError* Get() { return &m_Error; }
    void Check(const std::string& strWhat) const {
        if (dbus_error_is_set(&m_Error) != FALSE)
            throw std::runtime_error("message bus, " + strWhat + ": " + m_Error.message);
    }

private:
    DBusError m_Error{};
};

/// A call of the bus itself with a name as its argument.
Message BusCall(const char* szMethod) {
    Message pCall{dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS,
                                               DBUS_INTERFACE_DBUS, szMethod)};
    if (!pCall) throw std::bad_alloc();
    const char* szName = kBusName;
    if (dbus_message_append_args(pCall.get(), DBUS_TYPE_STRING, &szName, DBUS_TYPE_INVALID) ==
        FALSE)
        throw std::bad_alloc();
    return pCall;
}

Message ServiceCall(const char* szMethod) {
    Message pCall{dbus_message_new_method_call(kBusName, kBusPath, kBusInterface, szMethod)};
    if (!pCall) throw std::bad_alloc();
    return pCall;
}

Message Ask(DBusConnection* pBus, const Message& pCall) {
    CError error;
    Message pReply{dbus_connection_send_with_reply_and_block(
        pBus, pCall.get(), static_cast<int>(kPatience.count()), error.Get())};
    error.Check(dbus_message_get_member(pCall.get()));
    return pReply;
}

/// Time from the making of the call until its reply has come, as a user's program spends it.
template <typename Make>
nanoseconds TimeOf(DBusConnection* pBus, const Make& make, Message* pReply) {
    const auto begin = steady_clock::now();
    *pReply = Ask(pBus, make());
    return steady_clock::now() - begin;
}

std::string ReadFile(const std::string& strPath) {
    std::ifstream file{strPath};
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

void WriteFile(const std::string& strPath, const std::string& strText) {
    std::ofstream file{strPath};
    file << strText;
    if (!file.flush()) throw std::runtime_error("cannot write " + strPath);
}

/// True when the message tells that the service's name has lost its owner.
bool TellsOfEnd(DBusMessage* pMessage) {
    if (dbus_message_is_signal(pMessage, DBUS_INTERFACE_DBUS, "NameOwnerChanged") == FALSE)
        return false;
    const char* szName = nullptr;
    const char* szOld = nullptr;
    const char* szNew = nullptr;
    return dbus_message_get_args(pMessage, nullptr, DBUS_TYPE_STRING, &szName, DBUS_TYPE_STRING,
                                 &szOld, DBUS_TYPE_STRING, &szNew, DBUS_TYPE_INVALID) != FALSE &&
           std::string(szName) == kBusName && *szNew == '\0';
}

void AwaitOwnerGone(DBusConnection* pBus) {
    const auto deadline = steady_clock::now() + kPatience;
    while (steady_clock::now() < deadline) {
        while (const Message pMessage{dbus_connection_pop_message(pBus)}) {
            if (TellsOfEnd(pMessage.get())) return;
        }
        if (dbus_connection_read_write(pBus, static_cast<int>(kPatience.count())) == FALSE)
            throw std::runtime_error("message bus: the connection is lost");
    }
    throw std::runtime_error("message bus: the service does not end");
}

}  // namespace

void CBusConnection::Closer::operator()(DBusConnection* pConnection) const {
    dbus_connection_close(pConnection);
    dbus_connection_unref(pConnection);
}

CBusConnection::CBusConnection(const std::string& strAddress) {
    CError error;
    m_pConnection.reset(dbus_connection_open_private(strAddress.c_str(), error.Get()));
    error.Check(strAddress);
    dbus_connection_set_exit_on_disconnect(m_pConnection.get(), FALSE);
    (void)dbus_bus_register(m_pConnection.get(), error.Get());  // the error tells
    error.Check("Hello");
}

CBusConnection::~CBusConnection() = default;

nanoseconds CBusConnection::ResolveName() {
    Message pReply;
    return TimeOf(
        m_pConnection.get(), [] { return BusCall("GetNameOwner"); }, &pReply);
}

nanoseconds CBusConnection::Activate() {
    const auto makeCall = [] {
        Message pCall = BusCall("StartServiceByName");
        const dbus_uint32_t nFlags = 0;
        if (dbus_message_append_args(pCall.get(), DBUS_TYPE_UINT32, &nFlags, DBUS_TYPE_INVALID) ==
            FALSE)
            throw std::bad_alloc();
        return pCall;
    };
    Message pReply;
    const nanoseconds time = TimeOf(m_pConnection.get(), makeCall, &pReply);
    dbus_uint32_t nResult = 0;
    CError error;
    (void)dbus_message_get_args(pReply.get(), error.Get(), DBUS_TYPE_UINT32, &nResult,
                                DBUS_TYPE_INVALID);  // the error tells
    error.Check("StartServiceByName");
    if (nResult != DBUS_START_REPLY_SUCCESS)
        throw std::runtime_error("message bus: the service to be started ran already");
    return time;
}

nanoseconds CBusConnection::Call() {
    Message pReply;
    return TimeOf(
        m_pConnection.get(), [] { return ServiceCall(kBusAnswer); }, &pReply);
}

pid_t CBusConnection::ServicePid() {
    const Message pReply = Ask(m_pConnection.get(), BusCall("GetConnectionUnixProcessID"));
    dbus_uint32_t nPid = 0;
    CError error;
    (void)dbus_message_get_args(pReply.get(), error.Get(), DBUS_TYPE_UINT32, &nPid,
                                DBUS_TYPE_INVALID);  // the error tells
    error.Check("GetConnectionUnixProcessID");
    return static_cast<pid_t>(nPid);
}

void CBusConnection::EndService() {
    // Only now: what is measured pays for no signal that it does not need.
    const std::string strRule =
        std::string(
            "type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged',"
            "arg0='") +
        kBusName + "'";
    CError error;
    dbus_bus_add_match(m_pConnection.get(), strRule.c_str(), error.Get());
    error.Check("AddMatch");
    const ScopeGuard removeMatch{
        [&] { dbus_bus_remove_match(m_pConnection.get(), strRule.c_str(), nullptr); }};

    const Message pQuit = ServiceCall(kBusQuit);
    dbus_message_set_no_reply(pQuit.get(), TRUE);
    dbus_message_set_auto_start(pQuit.get(), FALSE);
    if (dbus_connection_send(m_pConnection.get(), pQuit.get(), nullptr) == FALSE)
        throw std::bad_alloc();
    dbus_connection_flush(m_pConnection.get());
    AwaitOwnerGone(m_pConnection.get());
}

CMessageBus::CMessageBus(const std::string& strServiceProgram) {
    Start(WriteConfiguration(strServiceProgram));
    m_pConnection = std::make_unique<CBusConnection>(m_strAddress);
}

std::string CMessageBus::WriteConfiguration(const std::string& strServiceProgram) const {
    if (::access(strServiceProgram.c_str(), X_OK) != 0)
        throw std::runtime_error("message bus: no such program: " + strServiceProgram);
    WriteFile(
        m_Folder.Path(std::string(kBusName) + ".service"),
        std::string("[D-BUS Service]\nName=") + kBusName + "\nExec=" + strServiceProgram + "\n");
    const std::string strFile = m_Folder.Path("bus.conf");
    // The policy is that of every session bus.
    WriteFile(strFile,
              "<busconfig>\n<type>session</type>\n<listen>unix:path=" + m_Folder.Path("bus") +
                  "</listen>\n<auth>EXTERNAL</auth>\n<servicedir>" + m_Folder.Path() +
                  "</servicedir>\n<policy context=\"default\">\n"
                  "<allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
                  "<allow eavesdrop=\"true\"/>\n<allow own=\"*\"/>\n</policy>\n"
                  "</busconfig>\n");
    return strFile;
}

void CMessageBus::Start(const std::string& strConfiguration) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("message bus: no pipe");
    const CUniqueFd reader{fds[0]};
    CUniqueFd writer{fds[1]};
    const std::string strOutput = m_Folder.Path("output");
    m_pDaemon = std::make_unique<CChildProcess>(
        std::vector<std::string>{"dbus-daemon", "--config-file=" + strConfiguration, "--nofork",
                                 "--nopidfile", "--print-address=3"},
        strOutput, writer.Get());
    writer.Reset();  // the daemon's end of it ends the reading, too

    // It tells its address once it listens.
    while (m_strAddress.empty() || m_strAddress.back() != '\n') {
        pollfd event{reader.Get(), POLLIN, 0};
        char szPart[512];
        const ssize_t nRead = ::poll(&event, 1, static_cast<int>(kPatience.count())) > 0
                                  ? ::read(reader.Get(), szPart, sizeof szPart)
                                  : 0;
        if (nRead <= 0)
            throw std::runtime_error("dbus-daemon does not start: " + ReadFile(strOutput));
        m_strAddress.append(szPart, static_cast<std::size_t>(nRead));
    }
    m_strAddress.pop_back();
}

void CMessageBus::Release() {
    const CUniqueFd service = OpenProcess(m_pConnection->ServicePid());
    m_pConnection->EndService();
    if (!AwaitEnd(service, kPatience))
        throw std::runtime_error("message bus: the service's process does not end");
}

}  // namespace vok::bench
