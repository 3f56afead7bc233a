/// Other programs, as their users run them.
#pragma once

#include <array>
#include <cstdio>
#include <string>

namespace vok::test {

/// What a shell command writes to its standard output, and its exit status as the last line.
inline std::string OutputOf(const std::string& strCommand) {
    std::string strOutput;
    std::FILE* const pPipe = ::popen((strCommand + "; echo $?").c_str(), "r");
    if (pPipe == nullptr) return "cannot run";
    std::array<char, 512> buffer;
    while (std::fgets(buffer.data(), static_cast<int>(buffer.size()), pPipe) != nullptr)
        strOutput += buffer.data();
    ::pclose(pPipe);
    return strOutput;
}

}  // namespace vok::test
