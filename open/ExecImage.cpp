#include "open/ExecImage.h"

#include "platform/EmpPaths.h"

namespace vok {

namespace {

/// execve(2) takes non-const texts and leaves them alone.
char* AsArgument(const char* szText) {
    return const_cast<char*>(szText);
}

}  // namespace

void FillExecImage(ExecImage& image, const ForkEmpParams& params, char* szLibraryPath) {
    image = ExecImage{};
    CopyBounded(image.szPath, params.ARGV_path == nullptr ? "" : params.ARGV_path);
    CopyBounded(image.szEmp, params.ARGV_empName);
    CopyBounded(image.szSerial,
                std::to_string(static_cast<unsigned int>(params.ARGV_ticketSerial)));
    CopyBounded(image.szCallbackPort, params.CbSrvPort);
    CopyBounded(image.szReserved, std::to_string(params.ARGV_reserved));
    CopyBounded(image.szGroupingEmp, params.ARGV_groupingEmpName);

    image.argv[0] = image.szEmp;
    image.argv[1] = AsArgument("-DSINGLE_PROCESS");
    image.argv[2] = image.szSerial;
    image.argv[3] = image.szCallbackPort;
    image.argv[4] = image.szReserved;
    image.argv[5] = image.szGroupingEmp;

    // A null library path ends the environment before it begins.
    image.envp[0] = szLibraryPath;
    image.envp[1] = AsArgument(paths::kGstRegistry);
    image.envp[2] = AsArgument(paths::kGstRegistry1);
}

}  // namespace vok
