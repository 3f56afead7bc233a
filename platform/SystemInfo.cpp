#include "platform/SystemInfo.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>

#include "platform/TextFile.h"

#if defined(VOK_SYSTEM_INFO_LIBRARY)
#define VOK_WEAK  // a weak reference would not make the linker take the library
#else
#define VOK_WEAK __attribute__((weak))
#endif

/// The platform's; null when the process is not linked with it. The text is the caller's to free.
extern "C" VOK_WEAK int system_info_get_value_string(const char* szKey, char** pszValue);

namespace vok {

namespace {

constexpr std::size_t kMostOfOsRelease = 0x10000;

/// Where the file is, in the order of os-release(5).
std::string ReadOsRelease() {
    for (const char* szPath : {"/etc/os-release", "/usr/lib/os-release"}) {
        if (const auto strText = ReadTextFile(szPath, kMostOfOsRelease)) return *strText;
    }
    return {};
}

/// Takes a shell's quotes off: '...', "..." with \ before " $ ` \, or a bare word with \.
std::string Unquote(const std::string& strQuoted) {
    std::string strValue;
    char cQuote = 0;
    for (std::size_t i = 0; i < strQuoted.size(); ++i) {
        const char c = strQuoted[i];
        if (cQuote == 0 && (c == '"' || c == '\'')) {
            cQuote = c;
        } else if (c == cQuote && cQuote != 0) {
            cQuote = 0;
        } else if (cQuote == 0 && (c == ' ' || c == '\t' || c == '\r')) {
            break;  // the end of the word
        } else if (c == '\\' && cQuote != '\'' && i + 1 < strQuoted.size() &&
                   (cQuote == 0 || std::strchr("\"$`\\", strQuoted[i + 1]) != nullptr)) {
            strValue += strQuoted[++i];
        } else {
            strValue += c;
        }
    }
    return strValue;
}

}  // namespace

std::string OsReleaseValue(const std::string& strText, const std::string& strVariable) {
    std::string strValue;
    std::istringstream lines{strText};
    for (std::string strLine; std::getline(lines, strLine);) {
        if (strLine.compare(0, strVariable.size() + 1, strVariable + '=') == 0)
            strValue = Unquote(strLine.substr(strVariable.size() + 1));
    }
    return strValue;
}

int GetSystemInfo(const char* szKey, std::string& strValue) {
    // Through a variable: the address of what is linked for certain needs no question.
    int (*const pfnQuery)(const char*, char**) = &system_info_get_value_string;
    if (pfnQuery != nullptr) {
        char* szValue = nullptr;
        const int rc = pfnQuery(szKey, &szValue);
        const std::unique_ptr<char, decltype(&std::free)> freeValue{szValue, &std::free};
        if (rc != 0) return rc;
        if (szValue == nullptr) return ENODATA;
        strValue = szValue;
        return 0;
    }
    if (std::strcmp(szKey, kModelNameKey) != 0) return EINVAL;
    std::string strName = OsReleaseValue(ReadOsRelease(), "PRETTY_NAME");
    if (strName.empty()) return ENOENT;
    strValue = std::move(strName);
    return 0;
}

}  // namespace vok
