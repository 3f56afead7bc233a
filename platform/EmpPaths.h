/// Every path of the file system that the broker knows.
#pragma once

#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

namespace vok::paths {

inline constexpr std::string_view kDownloadedEmps = "/opt/down/emps";
inline constexpr std::string_view kPreinstalledEmps = "/usr/bin/emps";

/// Written once the broker serves, removed when it stops.
inline constexpr char kReadyFlag[] = "/tmp/vok_ready";

/// The browser plug-in set: an image like an EMP's, but mounted at a place of its own.
inline constexpr char kPlugins[] = "PepperPlugins";
inline constexpr char kPluginMountPoint[] = "/opt/down/pepper";
/// Accessible when the plug-in set is mounted.
inline constexpr char kPluginProbe[] = "/opt/down/pepper/webapis";
/// Where a download puts the plug-in set's update.
inline constexpr char kPluginDownload[] = "/opt/down/appbinarymanager/default/empPepperPlugins.img";

/// What the broker calls itself when it pings an EMP. Nothing serves there.
inline constexpr char kBrokerSocket[] = "/tmp/domain-socket-broker";

/// Where those who look after the set reach the broker.
inline constexpr char kAdminFolder[] = "/run/vok-broker";
inline constexpr char kAdminSocket[] = "/run/vok-broker/admin.sock";

/// Fault reports: whether and where they go, and what the kernel knows about the fault.
inline constexpr char kLogPolicy[] = "/opt/down/common/LogPolicyConfig.xml";
inline constexpr char kFaultInfo[] = "/proc/kpi_fault_info_3rd";

/// What EMPs find in their environment beside the library path.
inline constexpr char kGstRegistry[] = "GST_REGISTRY=/home/app/.gstreamer-0.10/registry.bin";
inline constexpr char kGstRegistry1[] = "GST_REGISTRY_1_0=/home/app/.gstreamer-1.0/registry.bin";

/// False for a name that would leave its folder or end early in a path: one that contains '/' or
/// NUL, "." and "..". Such an EMP has no files.
bool IsFileName(const std::string& strEmp);

/// The path of a file that every open and close looks at: it takes no memory while it is of usual
/// length.
class CPath {
public:
    /// The parts, one after the other.
    template <typename... Parts>
    explicit CPath(const Parts&... parts) {
        if ((std::string_view(parts).size() + ...) >= kUsual) {
            m_szUsual[0] = '\0';
            (m_strLong.append(parts), ...);
            return;
        }
        // A copy for each part: those of a size that the compiler knows take no call.
        char* pEnd = m_szUsual;
        ((pEnd = Append(pEnd, parts)), ...);
        *pEnd = '\0';
    }
    const char* c_str() const { return m_strLong.empty() ? m_szUsual : m_strLong.c_str(); }
    operator std::string() const { return c_str(); }  // NOLINT: it is one, kept elsewhere
    bool operator==(std::string_view strPath) const { return strPath == c_str(); }

private:
    static char* Append(char* pEnd, std::string_view strPart) {
        std::memcpy(pEnd, strPart.data(), strPart.size());
        return pEnd + strPart.size();
    }

    static constexpr std::size_t kUsual = 128;
    char m_szUsual[kUsual];
    std::string m_strLong;
};

CPath ImageFile(const std::string& strEmp);            // /opt/down/emps/empN_img/empN.img
CPath DownloadedProgram(const std::string& strEmp);    // /opt/down/emps/empN/empN
CPath PreinstalledProgram(const std::string& strEmp);  // /usr/bin/emps/empN/empN

std::string MountPoint(const std::string& strEmp);          // /opt/down/emps/empN
std::string DownloadedConfig(const std::string& strEmp);    // /opt/down/emps/empN/empN.xml
std::string PreinstalledConfig(const std::string& strEmp);  // /usr/bin/emps/empN/empN.xml
std::string PreinstalledImage(const std::string& strEmp);   // /usr/bin/emps/empN/empN.img

}  // namespace vok::paths
