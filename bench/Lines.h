/// Lines of text over a stream socket: how the bench and the programs that it starts talk.
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <string>

namespace vok::bench {

/// The socket to the bench, in the programs that it starts.
inline constexpr int kOrders = 3;

/// Throws std::runtime_error when the other side has gone.
inline void SendLine(int nSocket, std::string strLine) {
    strLine += '\n';
    for (std::size_t nSent = 0; nSent < strLine.size();) {
        const ssize_t nMore =
            ::send(nSocket, strLine.data() + nSent, strLine.size() - nSent, MSG_NOSIGNAL);
        if (nMore < 0 && errno == EINTR) continue;
        if (nMore <= 0) throw std::runtime_error("a program of the bench does not listen");
        nSent += static_cast<std::size_t>(nMore);
    }
}

/// False when the other side has gone. One line at a time is under way.
inline bool ReceiveLine(int nSocket, std::string& strLine) {
    strLine.clear();
    for (;;) {
        char buffer[4096];
        const ssize_t nMore = ::recv(nSocket, buffer, sizeof buffer, 0);
        if (nMore < 0 && errno == EINTR) continue;
        if (nMore <= 0) return false;
        strLine.append(buffer, static_cast<std::size_t>(nMore));
        if (strLine.back() != '\n') continue;
        strLine.pop_back();
        return true;
    }
}

}  // namespace vok::bench
