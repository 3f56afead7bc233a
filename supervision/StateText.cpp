#include "supervision/StateText.h"

#include <boost/locale/utf.hpp>

namespace vok {

std::string Text(std::string_view strBytes) {
    using boost::locale::utf::code_point;
    using Traits = boost::locale::utf::utf_traits<char>;
    constexpr char kReplacement[] = "\xef\xbf\xbd";  // U+FFFD

    std::string strText;
    for (auto it = strBytes.begin(); it != strBytes.end();) {
        const auto start = it;
        const code_point nCode = Traits::decode(it, strBytes.end());
        if (nCode == boost::locale::utf::illegal || nCode == boost::locale::utf::incomplete) {
            strText += kReplacement;
            it = start + 1;
        } else {
            strText.append(start, it);
        }
    }
    return strText;
}

std::vector<admin::LauncherState> Describe(const LauncherTable& table) {
    std::vector<admin::LauncherState> launchers;
    for (const auto& [key, setEmp] : table) {
        admin::LauncherState& launcher = launchers.emplace_back();
        launcher.name = Text(key.first);
        launcher.port = Text(key.second);
        launcher.emps.reserve(setEmp.size());
        for (const std::string& strEmp : setEmp) launcher.emps.push_back(Text(strEmp));
    }
    return launchers;
}

void Describe(const ClientMap& clients, std::vector<std::string>& ports,
              std::vector<std::int64_t>& agesMs) {
    const auto now = CCoarseClock::now();
    ports.reserve(clients.size());
    agesMs.reserve(clients.size());
    for (const auto& [strPort, since] : clients) {
        ports.push_back(Text(strPort));
        agesMs.push_back(
            std::chrono::duration_cast<std::chrono::milliseconds>(now - since).count());
    }
}

}  // namespace vok
