/// What the tests of register launchers and grouping processes share: a look into the tables.
#pragma once

#include <algorithm>
#include <vector>

#include "tests/daemon/OpenCloseTest.h"
#include "tests/support/CAdminClient.h"

namespace vok::test {

class LauncherTest : public OpenCloseTest {
protected:
    static std::vector<std::string> KnownEmps() {
        std::vector<std::string> names;
        for (const admin::EmpState& emp : CAdminClient().GetState().emps) names.push_back(emp.name);
        return names;
    }

    /// "EMP|port|client|client..." each.
    static std::vector<std::string> Connections() {
        std::vector<std::string> texts;
        for (const admin::ConnectionState& connection : CAdminClient().GetState().connections) {
            std::string strText = connection.empName + '|' + connection.empPort;
            for (const std::string& strClient : connection.clientPorts) strText += '|' + strClient;
            texts.push_back(strText);
        }
        return texts;
    }
    static std::string ConnectionText(const ConnectionInfo& info) {
        return info.empName + '|' + info.empPort + '|' + info.clientPort;
    }

    /// "LAUNCHER|port|EMP|EMP..." each.
    static std::vector<std::string> Texts(const std::vector<admin::LauncherState>& launchers) {
        std::vector<std::string> texts;
        for (const admin::LauncherState& launcher : launchers) {
            std::string strText = launcher.name + '|' + launcher.port;
            for (const std::string& strEmp : launcher.emps) strText += '|' + strEmp;
            texts.push_back(strText);
        }
        return texts;
    }

    /// "<level> <message>" of what a function has logged.
    std::vector<std::string> LinesOf(const std::string& strFunction) const {
        std::vector<std::string> lines;
        for (const DaemonLogLine& line : m_Daemon.LogLines()) {
            if (line.strFunction == strFunction)
                lines.push_back(std::to_string(line.nLevel) + ' ' + line.strMessage);
        }
        return lines;
    }
};

}  // namespace vok::test
