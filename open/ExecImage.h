/// What an EMP's program is started with.
#pragma once

#include <cstddef>
#include <string_view>
#include <type_traits>

#include "broker/Types.h"

namespace vok {

/// Copies `strSource` into a zeroed buffer of fixed size: what does not fit is cut off, and the
/// copy always ends in a NUL.
template <std::size_t nSize>
void CopyBounded(char (&szTarget)[nSize], std::string_view strSource) {
    szTarget[strSource.copy(szTarget, nSize - 1)] = '\0';
}

/// Everything execve needs, filled before the fork. The bounds are those of the buffers that EMPs
/// were built against.
struct ExecImage {
    char szPath[120];
    char szEmp[48];
    char szSerial[6];  // five characters: a longer serial arrives cut off
    char szCallbackPort[109];
    char szReserved[4];
    char szGroupingEmp[48];
    char* argv[7];
    char* envp[4];
};
static_assert(std::is_trivially_destructible_v<ExecImage>, "the child of a vfork never unwinds");

/// Fills `image`, which must stay where it is. `szLibraryPath` becomes the first environment entry
/// and is borrowed; when it is null, the environment is empty.
void FillExecImage(ExecImage& image, const ForkEmpParams& params, char* szLibraryPath);

}  // namespace vok
