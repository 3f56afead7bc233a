// What a client does: open, hold, call, close.
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <ctime>

#include "ctl/BrokerClient.h"
#include "ctl/CallbackServer.h"
#include "ctl/Commands.h"
#include "ctl/Failure.h"
#include "ctl/Signals.h"
#include "ctl/Table.h"
#include "ctl/Waits.h"
#include "platform/Limits.h"

namespace vok::ctl {

namespace {

std::int64_t MicrosecondsSince(std::chrono::steady_clock::time_point begin) {
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() -
                                                                 begin)
        .count();
}

std::string TimeOfDay() {
    const std::time_t nNow = std::time(nullptr);
    std::tm now{};
    std::array<char, 16> text{};
    if (::localtime_r(&nNow, &now) != nullptr)
        (void)std::strftime(text.data(), text.size(), "%H:%M:%S", &now);
    return text.data();
}

Json ToJson(const ConnectionInfo& info) {
    return {{"empName", info.empName},
            {"clientPort", info.clientPort},
            {"empPort", info.empPort},
            {"serial", info.serial},
            {"ip", info.ip}};
}

/// A connection to an EMP, with the callback server that keeps it from being taken for a dead
/// client's. The server comes before the open, and the broker's answer to a first call before the
/// server, which could be given the very port that a broker is to serve on.
class CConnection {
public:
    explicit CConnection(const Options& options)
        : m_Options(options),
          m_Broker(WaitFor(options, kOpenPatience, m_Signals.EndFd())),
          m_Events((m_Broker.CheckServes(), CCallbackServer())) {}

    void Open();
    /// False when the broker says that it has not.
    bool Close();
    /// Closes after something else has failed.
    void CloseQuietly();

    const ConnectionInfo& Info() const { return m_Info; }
    std::int64_t Microseconds() const { return m_nMicroseconds; }
    const CSignals& Signals() const { return m_Signals; }
    CCallbackServer& Events() { return m_Events; }
    CEmpClient Emp() const {
        return {m_Info, WaitFor(m_Options, kCallPatience, m_Signals.EndFd())};
    }

private:
    void OpenOnce();

    const Options& m_Options;
    CSignals m_Signals;  // first: the server's threads inherit what is blocked
    CBrokerClient m_Broker;
    CCallbackServer m_Events;
    ConnectionInfo m_Info;
    std::int64_t m_nMicroseconds = 0;
};

[[noreturn]] void ThrowNotOpened(const std::string& strEmp, const ConnectionInfo& info) {
    const std::string strBegin = "the broker did not open " + strEmp + ": ";
    const std::string strWhere = "\"vokctl where " + strEmp + "\" tells ";
    if (info.empPort.empty())
        throw CFailure(EXIT_FAILED, strBegin + "it is not installed, and no launcher serves it; " +
                                        strWhere + "where it looks");
    throw CFailure(EXIT_FAILED,
                   strBegin +
                       "it did not start or report in time, or takes one connection only and has "
                       "it; " +
                       strWhere + "which, and the broker's log says why");
}

/// An EMP whose last client leaves may be handed out once more before it ends: then another open
/// starts it anew.
void CConnection::Open() {
    try {
        OpenOnce();
    } catch (const CEmpHasGone&) {
        OpenOnce();
    }
}

void CConnection::OpenOnce() {
    const auto begin = std::chrono::steady_clock::now();
    m_Info =
        m_Broker.Open(m_Events.Port(), m_Options.strName, m_Options.strVersion, m_Options.strApp);
    m_nMicroseconds = MicrosecondsSince(begin);
    if (!IsConnected(m_Info)) ThrowNotOpened(m_Options.strName, m_Info);
    try {
        (void)Emp().Open(m_Options.strVersion, m_Options.strApp);
    } catch (const CFailure&) {
        CloseQuietly();
        throw;
    }
}

bool CConnection::Close() {
    // A signal has ended the holding, not the closing.
    return CBrokerClient{WaitFor(m_Options)}.Close(m_Info);
}

void CConnection::CloseQuietly() {
    try {
        (void)Close();
    } catch (const CFailure&) {
        // What has failed before is what there is to tell.
    }
}

[[noreturn]] void ThrowNotClosed(const std::string& strEmp) {
    throw CFailure(EXIT_FAILED, "the broker has not closed " + strEmp +
                                    ": it has no such connection any more, or the EMP did not "
                                    "answer; \"vokctl list\" shows what there is");
}

std::string OpenedText(const CConnection& connection) {
    const ConnectionInfo& info = connection.Info();
    return "opened " + info.empName + " at " + info.ip + ':' + info.empPort + ", client port " +
           info.clientPort + ", serial " + std::to_string(info.serial) + ", in " +
           Elapsed(connection.Microseconds());
}

/// "" for events that are between an EMP and its clients.
std::string Meaning(int nEvent) {
    switch (nEvent) {
        case 99:
            return "the broker asks whether this client lives";
        case -50000:
            return "the EMP has not answered five pings";
        case -30001:
            return "log at this level";
        default:
            return {};
    }
}

/// Keeps a connection, and tells what comes.
class CHold {
public:
    CHold(const Options& options, COutput& output, CConnection& connection)
        : m_Options(options), m_Output(output), m_Connection(connection) {}

    void Run();

private:
    void TellOpened();
    void TellEvents();
    void Tell(const std::string& strText, const Json& json);
    bool InputHasEnded() const;

    const Options& m_Options;
    COutput& m_Output;
    CConnection& m_Connection;
};

void CHold::Tell(const std::string& strText, const Json& json) {
    if (m_Options.bJson)
        m_Output.AddLine(json);
    else
        m_Output.Add(Line(strText, m_Output.GetStyle()));
    m_Output.Flush();
}

void CHold::TellOpened() {
    Json json{{"event", "opened"}};
    json.update(ToJson(m_Connection.Info()));
    json["elapsedUs"] = m_Connection.Microseconds();
    Tell(OpenedText(m_Connection) +
             (m_Options.bUntilEof ? "; held until the input ends" : "; held until Ctrl-C"),
         json);
}

void CHold::TellEvents() {
    for (const ClientEvent& event : m_Connection.Events().Take()) {
        const std::string strMeaning = Meaning(event.nType);
        Tell(TimeOfDay() + " event " + std::to_string(event.nType) + " \"" + event.strArg1 +
                 "\" \"" + event.strArg2 + "\"" + (strMeaning.empty() ? "" : ": " + strMeaning),
             {{"event", "callback"},
              {"type", event.nType},
              {"arg1", event.strArg1},
              {"arg2", event.strArg2}});
    }
}

bool CHold::InputHasEnded() const {
    std::array<char, 512> ignored;
    const ssize_t nRead = ::read(STDIN_FILENO, ignored.data(), ignored.size());
    return nRead == 0 || (nRead < 0 && errno != EINTR && errno != EAGAIN);
}

void CHold::Run() {
    m_Output.SetInterrupt(m_Connection.Signals().EndFd());
    TellOpened();
    const int nInput = m_Options.bUntilEof ? STDIN_FILENO : -1;
    // Of the output only errors are reported: its reader has gone.
    std::array<pollfd, 4> fds{{{m_Connection.Signals().EndFd(), POLLIN, 0},
                               {m_Connection.Events().EventFd(), POLLIN, 0},
                               {STDOUT_FILENO, 0, 0},
                               {nInput, POLLIN, 0}}};
    while (true) {
        if (::poll(fds.data(), fds.size(), -1) < 0) continue;  // EINTR
        if (fds[1].revents != 0) TellEvents();
        if (fds[0].revents != 0 || (fds[2].revents & (POLLERR | POLLHUP)) != 0) break;
        if (fds[3].revents != 0 && InputHasEnded()) break;
    }
    m_Output.SetInterrupt(-1);
}

int HoldOpen(const Options& options, COutput& output, CConnection& connection) {
    try {
        CHold(options, output, connection).Run();
    } catch (const CFailure&) {
        connection.CloseQuietly();
        throw;
    }
    if (!connection.Close()) ThrowNotClosed(options.strName);
    if (options.bJson)
        output.AddLine({{"event", "closed"}, {"closed", true}});
    else
        output.Add(Line("closed " + options.strName, output.GetStyle()));
    output.Flush();
    return EXIT_DONE;
}

}  // namespace

int RunOpen(const Options& options, COutput& output) {
    CConnection connection{options};
    connection.Open();
    if (options.bHold) return HoldOpen(options, output, connection);

    if (!connection.Close()) ThrowNotClosed(options.strName);
    if (options.bJson) {
        Json json = ToJson(connection.Info());
        json["elapsedUs"] = connection.Microseconds();
        json["closed"] = true;
        output.AddDocument(json);
    } else {
        output.Add(Line(OpenedText(connection) + "; closed again (--hold keeps it open)",
                        output.GetStyle()));
    }
    return EXIT_DONE;
}

int RunClose(const Options& options, COutput& output) {
    ConnectionInfo info;
    info.empName = options.strName;
    info.empPort = options.strPort;
    info.clientPort = options.strClientPort;
    info.ip = kBrokerAddress;
    if (!CBrokerClient{WaitFor(options)}.Close(info)) ThrowNotClosed(options.strName);
    if (options.bJson)
        output.AddDocument({{"closed", true}});
    else
        output.Add(Line("closed " + options.strName, output.GetStyle()));
    return EXIT_DONE;
}

int RunCall(const Options& options, COutput& output) {
    CConnection connection{options};
    connection.Open();
    std::string strAnswer;
    const auto begin = std::chrono::steady_clock::now();
    try {
        strAnswer = connection.Emp().Execute(options.strCmd, options.arguments, options.bAsList);
    } catch (const CFailure&) {
        connection.CloseQuietly();
        throw;
    }
    const std::int64_t nMicroseconds = MicrosecondsSince(begin);
    if (options.bJson)
        output.AddDocument({{"empName", options.strName},
                            {"cmd", options.strCmd},
                            {"arguments", options.arguments},
                            {"answer", strAnswer},
                            {"elapsedUs", nMicroseconds}});
    else
        output.Add(AnswerText(strAnswer, output.GetStyle()));
    output.Flush();
    if (!connection.Close()) ThrowNotClosed(options.strName);
    return EXIT_DONE;
}

}  // namespace vok::ctl
