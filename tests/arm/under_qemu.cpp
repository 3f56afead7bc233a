/// Starts an ARM program under qemu, in place of it: whoever starts this program by the ARM
/// program's name sees one process with its pid, its environment and its descriptors. So tests of
/// this machine's architecture can start an ARM daemon, and the machine needs no binary format
/// registered for all that runs on it.
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

int main(int, char** argv) {
    const char* const pSlash = std::strrchr(argv[0], '/');
    std::string strProgram = VOK_ARM_PROGRAMS "/";
    strProgram += pSlash == nullptr ? argv[0] : pSlash + 1;
    // The program's 4 GiB of addresses begin at a place that whoever measures it knows.
    std::vector<const char*> arguments = {
        VOK_QEMU,       "-L", VOK_ARM_SYSROOT,   "-B",
        VOK_GUEST_BASE, "-0", strProgram.data(), strProgram.data()};
    for (char** ppArgument = argv + 1; *ppArgument != nullptr; ++ppArgument)
        arguments.push_back(*ppArgument);
    arguments.push_back(nullptr);
    (void)::execv(VOK_QEMU, const_cast<char* const*>(arguments.data()));
    std::perror(VOK_QEMU);
    return 127;
}
