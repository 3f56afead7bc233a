/// A folder that goes with its test.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>

namespace vok::test {

class CTemporaryFolder {
public:
    /// Below `strParent`.
    explicit CTemporaryFolder(const std::string& strParent = "/tmp")
        : m_strPath(strParent + "/vok-test-XXXXXX") {
        if (::mkdtemp(m_strPath.data()) == nullptr) throw std::runtime_error(m_strPath);
    }
    ~CTemporaryFolder() {
        std::error_code ignored;  // a mount that a failed test has left is seen elsewhere
        std::filesystem::remove_all(m_strPath, ignored);
    }
    CTemporaryFolder(const CTemporaryFolder&) = delete;
    CTemporaryFolder& operator=(const CTemporaryFolder&) = delete;

    std::string Path() const { return m_strPath; }
    std::string Path(const std::string& strFile) const { return m_strPath + "/" + strFile; }

private:
    std::string m_strPath;
};

}  // namespace vok::test
