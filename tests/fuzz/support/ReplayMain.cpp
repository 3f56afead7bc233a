// Every input of a corpus once, without a fuzzer: what has been found stays found. Prints what the
// inputs have reached, a line each.
//
// Usage: fuzz-replay-TARGET FILE|FOLDER...
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "tests/fuzz/support/Target.h"

namespace {

namespace fs = std::filesystem;

std::vector<fs::path> FilesOf(const fs::path& path) {
    if (!fs::is_directory(path)) return {path};
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(path)) files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    return files;
}

void Replay(const fs::path& file) {
    std::ifstream stream{file, std::ios::binary};
    const std::string strInput{std::istreambuf_iterator<char>(stream), {}};
    vok::test::Require(!stream.bad() && stream.is_open(), file.string() + " cannot be read");
    // Said before: when it ends the process, it is known which it was.
    std::printf("%s\n", file.c_str());
    std::fflush(stdout);
    (void)LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(strInput.data()),
                                 strInput.size());
}

}  // namespace

int main(int argc, char** argv) {
    vok::test::CReached::Keep();
    int nFiles = 0;
    for (int i = 1; i < argc; ++i) {
        for (const fs::path& file : FilesOf(argv[i])) {
            Replay(file);
            ++nFiles;
        }
    }
    for (const std::string& strWhat : vok::test::CReached::All())
        std::printf("reached %s\n", strWhat.c_str());
    std::printf("%d inputs replayed\n", nFiles);
    return nFiles > 0 ? 0 : 1;
}
