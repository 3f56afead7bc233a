#include "bench/Baselines.h"

#include "platform/EmpPaths.h"

namespace vok::bench {

namespace {

std::vector<std::string> WithPort(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), std::to_string(kBarePort));
    return arguments;
}

std::unique_ptr<CChild> StartIn(const CNetwork& network, const std::string& strProgram) {
    const CNetwork::CVisit visit{&network};
    return std::make_unique<CChild>(strProgram, std::vector<std::string>{});
}

}  // namespace

CBareServer::CBareServer(const std::vector<std::string>& arguments)
    : m_Program("vok-bench-bare-thrift", WithPort(arguments)) {
    (void)m_Program.Ask("serve");
}

std::vector<std::string> FilesOfWarmOpen(const std::string& strEmp) {
    return {paths::ImageFile(strEmp), paths::PreinstalledProgram(strEmp),
            paths::DownloadedProgram(strEmp), paths::ImageFile(strEmp),
            paths::PreinstalledProgram(strEmp)};
}

CBareStarter::CBareStarter() : m_pProgram(StartIn(m_Network, "vok-bench-bare-start")) {}

double CBareStarter::Start(const std::vector<std::string>& emps) {
    std::string strOrder;
    for (const std::string& strEmp : emps) strOrder += strEmp + ' ';
    return std::stod(m_pProgram->Ask(strOrder)) * 1e-9;
}

}  // namespace vok::bench
