// What a client does: open, hold, call, close.
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>

#include "ctl/AdminClient.h"
#include "ctl/BrokerClient.h"
#include "ctl/CallbackServer.h"
#include "ctl/Commands.h"
#include "ctl/Failure.h"
#include "ctl/Signals.h"
#include "ctl/StateView.h"
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
          m_Events((CBrokerClient{WaitFor(options, kCallPatience, m_Signals.EndFd())}.CheckServes(),
                    CCallbackServer())) {}

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
    if (!IsConnected(m_Info))
        throw CFailure(EXIT_FAILED, NotOpenedText(m_Options.strName, m_Info, m_nMicroseconds));
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
    Json json{{"at", UtcNow()}, {"event", "opened"}};
    json.update(ToJson(m_Connection.Info()));
    json["elapsedUs"] = m_Connection.Microseconds();
    Tell(OpenedText(m_Connection) +
             (m_Options.bUntilEof ? "; held until the input ends" : "; held until Ctrl-C"),
         json);
}

void CHold::TellEvents() {
    for (const ClientEvent& event : m_Connection.Events().Take()) {
        const std::string strMeaning = Meaning(event.nType);
        const std::string strNow = UtcNow();
        Tell(strNow + " event " + std::to_string(event.nType) + " \"" + event.strArg1 + "\" \"" +
                 event.strArg2 + "\"" + (strMeaning.empty() ? "" : ": " + strMeaning),
             {{"at", strNow},
              {"event", "callback"},
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

/// A broker that is told to close what it does not have lowers its counts, and forgets an EMP that
/// runs on: so a port that was mistyped would make the next open start a second server.
void CheckIsConnected(const Options& options) {
    admin::BrokerState state;
    try {
        state = CAdminClient{WaitFor(options)}.GetState();
    } catch (const CFailure& failure) {
        if (failure.Exit() == EXIT_NO_BROKER || failure.Exit() == EXIT_NO_ANSWER) throw;
        // Which has its own words for what is no broker.
        if (failure.Exit() == EXIT_FAILED) CBrokerClient{WaitFor(options)}.CheckServes();
        throw CFailure(failure.Exit(),
                       std::string("whether there is such a connection cannot be looked up: ") +
                           failure.what() + "; --force closes without");
    }
    if (!HasConnection(state, options.strName, options.strPort, options.strClientPort))
        throw CFailure(EXIT_FAILED, "the broker has no connection of " + options.strClientPort +
                                        " to " + options.strName + " at port " + options.strPort +
                                        ": \"vokctl list\" shows what there is");
    if (!KnowsEmp(state, options.strName))
        throw CFailure(EXIT_FAILED,
                       "the broker has forgotten " + options.strName +
                           ", and would say that it is closed: its connection is there "
                           "until its process reports its end");
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
        output.AddLine({{"at", UtcNow()}, {"event", "closed"}, {"closed", true}});
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
    if (!options.bForce) CheckIsConnected(options);
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
