#include "bench/CChild.h"

#include <sys/socket.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

#include "bench/Lines.h"
#include "tests/support/CEmpInstaller.h"

namespace vok::bench {

CChild::CChild(const std::string& strProgram, const std::vector<std::string>& arguments)
    : m_strProgram(strProgram) {
    int sockets[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets) != 0)
        throw std::system_error(errno, std::generic_category(), "socketpair");
    m_Socket.Reset(sockets[0]);
    const CUniqueFd theirs{sockets[1]};

    std::vector<std::string> command{test::CEmpInstaller::BuiltProgram(strProgram)};
    command.insert(command.end(), arguments.begin(), arguments.end());
    m_pProcess =
        std::make_unique<CChildProcess>(command, "/tmp/" + strProgram + ".out", theirs.Get());
}

std::string CChild::Ask(const std::string& strLine) {
    SendLine(m_Socket.Get(), strLine);
    std::string strAnswer;
    if (!ReceiveLine(m_Socket.Get(), strAnswer))
        throw std::runtime_error(m_strProgram + " has ended: see /tmp/" + m_strProgram + ".out");
    return strAnswer;
}

}  // namespace vok::bench
