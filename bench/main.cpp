// Measures the broker beside what it rides on, and beside what else could be used in its place.
#include <getopt.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "bench/Clock.h"
#include "bench/Report.h"
#include "bench/Rows.h"
#include "tests/support/CPrivateWorld.h"

namespace {

using namespace vok::bench;

constexpr char kUsage[] =
    "Usage: vok-bench [OPTION]... [ROW]...\n"
    "Measures the rows whose ids begin with one of the ROWs, or all.\n"
    "\n"
    "  --quick      less of everything: under a minute\n"
    "  --json FILE  the figures\n"
    "  --svg FILE   the ratios as a picture\n"
    "  --check      exit status 1 when a target is missed\n"
    "  --list       the rows, and nothing else\n"
    "  --help       show this text\n"
    "\n"
    "Exit status: 0 measured, 1 a row failed (--check: or a target is missed), 2 wrong usage, 77 "
    "no\n"
    "private world can be made here.\n";

struct Options {
    bool bQuick = false;
    bool bCheck = false;
    bool bList = false;
    std::string strJson;
    std::string strSvg;
    std::vector<std::string> rows;
};

[[noreturn]] void Usage(int nStatus) {
    std::fputs(kUsage, nStatus == 0 ? stdout : stderr);
    std::exit(nStatus);
}

Options Parse(int argc, char** argv) {
    constexpr option kOptions[] = {{"quick", no_argument, nullptr, 'q'},
                                   {"json", required_argument, nullptr, 'j'},
                                   {"svg", required_argument, nullptr, 's'},
                                   {"check", no_argument, nullptr, 'c'},
                                   {"list", no_argument, nullptr, 'l'},
                                   {"help", no_argument, nullptr, 'h'},
                                   {nullptr, 0, nullptr, 0}};
    Options options;
    for (int n = 0; (n = ::getopt_long(argc, argv, "h", kOptions, nullptr)) != -1;) {
        switch (n) {
            case 'q':
                options.bQuick = true;
                break;
            case 'j':
                options.strJson = optarg;
                break;
            case 's':
                options.strSvg = optarg;
                break;
            case 'c':
                options.bCheck = true;
                break;
            case 'l':
                options.bList = true;
                break;
            case 'h':
                Usage(0);
            default:
                Usage(2);
        }
    }
    options.rows.assign(argv + optind, argv + argc);
    return options;
}

bool IsWanted(const RowGroup& group, const std::vector<std::string>& rows) {
    if (rows.empty()) return true;
    for (const Spec& spec : group.specs)
        for (const std::string& strRow : rows)
            if (spec.strId.rfind(strRow, 0) == 0) return true;
    return false;
}

std::vector<Result> MeasureAll(const Options& options) {
    const Effort effort = options.bQuick ? QuickEffort() : Effort();
    std::fputs(TableHeading().c_str(), stdout);
    std::vector<Result> results;
    for (const RowGroup& group : AllRows()) {
        if (!IsWanted(group, options.rows)) continue;
        for (Result& result : Measure(group, effort)) {
            std::fputs(TableLine(result).c_str(), stdout);
            std::fflush(stdout);
            results.push_back(std::move(result));
        }
    }
    std::printf("\nControls: the baselines against themselves\n%s", ControlLines(results).c_str());
    return results;
}

bool Write(std::ofstream& file, const std::string& strText) {
    return !file.is_open() || static_cast<bool>(file << strText << std::flush);
}

/// In the world. The files are open already: what lies below a folder that is empty here, too.
int Run(const Options& options, std::ofstream& json, std::ofstream& svg) {
    std::vector<Result> results;
    const double seconds = SecondsOf([&] { results = MeasureAll(options); });
    std::printf("\nMeasured in %.0f s.\n", seconds);
    const RunInfo info = DescribeRun(options.bQuick);
    if (!Write(json, AsJson(info, results)) || !Write(svg, AsSvg(info, results))) {
        std::fputs("The figures cannot be written.\n", stderr);
        return EXIT_FAILURE;
    }
    // What the tests' support has found wrong, it has said on standard output.
    bool bBad = ::testing::UnitTest::GetInstance()->Failed();
    for (const Result& result : results)
        bBad = bBad || result.IsSkipped() || (options.bCheck && result.IsMissed());
    return bBad ? EXIT_FAILURE : EXIT_SUCCESS;
}

void List() {
    for (const RowGroup& group : AllRows())
        for (const Spec& spec : group.specs)
            std::printf("%-20s %s, beside %s\n", spec.strId.c_str(), spec.strWhat.c_str(),
                        spec.strBaseline.c_str());
}

bool Create(std::ofstream& file, const std::string& strPath) {
    if (strPath.empty()) return true;
    file.open(strPath);
    if (!file) std::fprintf(stderr, "%s cannot be written\n", strPath.c_str());
    return static_cast<bool>(file);
}

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    const Options options = Parse(argc, argv);
    if (options.bList) {
        List();
        return EXIT_SUCCESS;
    }
    const auto folder = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    (void)::setenv("VOK_BROKER_UNDER_TEST", (folder / "vok-broker").c_str(), 0);
    std::ofstream json;
    std::ofstream svg;
    if (!Create(json, options.strJson) || !Create(svg, options.strSvg)) return EXIT_FAILURE;
    return vok::test::CPrivateWorld::Run([&] { return Run(options, json, svg); });
}
