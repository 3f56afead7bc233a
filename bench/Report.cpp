#include "bench/Report.h"

#include <nlohmann/json.hpp>
#include <sys/utsname.h>

#include <cstdio>
#include <ctime>
#include <fstream>
#include <thread>

#include "bench/SvgChart.h"

namespace vok::bench {

namespace {

constexpr char kLine[] = "%-51s %-45s %9s  %-15s %8s  %-6s  %s";

std::string Number(double value, int nDigits) {
    char szNumber[32];
    std::snprintf(szNumber, sizeof szNumber, "%.*f", nDigits, value);
    return szNumber;
}

std::string Unit(eValue eKind) {
    switch (eKind) {
        case eValue::Bytes:
            return " B";
        case eValue::Milliseconds:
            return " ms";
        case eValue::Ratio:
        case eValue::Threads:
            break;
    }
    return "";
}

int Digits(eValue eKind) {
    return eKind == eValue::Ratio ? 3 : 1;
}

std::string Spread(const Summary& summary, int nDigits) {
    return Number(summary.lowQuartile, nDigits) + ".." + Number(summary.highQuartile, nDigits);
}

/// The baseline's and the subject's cost, as they were.
std::string Costs(const Measured& measured) {
    if (measured.baseline == 0) return "";
    const int nDigits = measured.subject < 10 ? 2 : 1;
    std::string strCosts = Number(measured.baseline, nDigits) + " / " +
                           Number(measured.subject, nDigits) + " " + measured.strUnit;
    if (!measured.strNote.empty()) strCosts += "; " + measured.strNote;
    return strCosts;
}

std::string Verdict(const Result& result) {
    if (!result.spec.target) return "";
    return result.IsMissed() ? "MISSED" : "met";
}

std::string Format(const std::string& strRow, const std::string& strBaseline,
                   const std::string& strValue, const std::string& strSpread,
                   const std::string& strTarget, const std::string& strVerdict,
                   const std::string& strCosts) {
    char szLine[512];
    std::snprintf(szLine, sizeof szLine, kLine, strRow.c_str(), strBaseline.c_str(),
                  strValue.c_str(), strSpread.c_str(), strTarget.c_str(), strVerdict.c_str(),
                  strCosts.c_str());
    return std::string(szLine) + "\n";
}

std::string ProcessorName() {
    std::ifstream file{"/proc/cpuinfo"};
    for (std::string strLine; std::getline(file, strLine);) {
        const std::size_t nColon = strLine.find(": ");
        if (strLine.rfind("model name", 0) == 0 && nColon != std::string::npos)
            return strLine.substr(nColon + 2);
    }
    return "unknown processor";
}

nlohmann::ordered_json AsJson(const Summary& summary) {
    return {{"median", summary.median},
            {"quartiles", {summary.lowQuartile, summary.highQuartile}},
            {"range", {summary.least, summary.most}}};
}

const char* NameOf(eValue eKind) {
    switch (eKind) {
        case eValue::Ratio:
            return "ratio";
        case eValue::Bytes:
            return "bytes";
        case eValue::Threads:
            return "threads";
        case eValue::Milliseconds:
            return "milliseconds";
    }
    return "";
}

nlohmann::ordered_json AsJson(const Result& result) {
    nlohmann::ordered_json json{{"id", result.spec.strId},
                                {"row", result.spec.strWhat},
                                {"baseline", result.spec.strBaseline},
                                {"kind", NameOf(result.spec.eKind)}};
    if (result.spec.target) json["target"] = *result.spec.target;
    if (result.IsSkipped()) {
        json["skipped"] = result.strSkipped;
        return json;
    }
    json["value"] = AsJson(result.measured.value);
    if (result.measured.control) json["control"] = AsJson(*result.measured.control);
    if (result.measured.baseline != 0)
        json["costs"] = {{"baseline", result.measured.baseline},
                         {"subject", result.measured.subject},
                         {"unit", result.measured.strUnit}};
    if (!result.measured.strNote.empty()) json["note"] = result.measured.strNote;
    if (result.spec.target) json["met"] = !result.IsMissed();
    return json;
}

}  // namespace

RunInfo DescribeRun(bool bQuick) {
    RunInfo info;
    info.bQuick = bQuick;
    utsname system{};
    (void)::uname(&system);
    info.strMachine = ProcessorName() + ", " + std::to_string(std::thread::hardware_concurrency()) +
                      " processors, " + system.sysname + " " + system.release;
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    char szTime[32];
    if (::gmtime_r(&now, &utc) != nullptr &&
        std::strftime(szTime, sizeof szTime, "%Y-%m-%d %H:%M UTC", &utc) > 0)
        info.strTime = szTime;
    return info;
}

std::string TableHeading() {
    return Format("row", "baseline", "value", "quartiles", "at most", "", "baseline / broker");
}

std::string TableLine(const Result& result) {
    const Spec& spec = result.spec;
    if (result.IsSkipped())
        return Format(spec.strWhat, spec.strBaseline, "-", "", "", "", result.strSkipped);
    const int nDigits = Digits(spec.eKind);
    const std::string strTarget =
        spec.target ? Number(*spec.target, spec.eKind == eValue::Ratio ? 2 : 0) : "";
    return Format(spec.strWhat, spec.strBaseline,
                  Number(result.measured.value.median, nDigits) + Unit(spec.eKind),
                  Spread(result.measured.value, nDigits), strTarget, Verdict(result),
                  Costs(result.measured));
}

std::string ControlLines(const std::vector<Result>& results) {
    std::string strLines;
    for (const Result& result : results) {
        if (!result.measured.control) continue;
        const Summary& control = *result.measured.control;
        strLines += Format(result.spec.strWhat, result.spec.strBaseline + " (itself)",
                           Number(control.median, 3), Spread(control, 3), "", "", "");
    }
    return strLines;
}

std::string AsJson(const RunInfo& info, const std::vector<Result>& results) {
    nlohmann::ordered_json rows = nlohmann::ordered_json::array();
    for (const Result& result : results) rows.push_back(AsJson(result));
    const nlohmann::ordered_json json{{"machine", info.strMachine},
                                      {"time", info.strTime},
                                      {"quick", info.bQuick},
                                      {"rows", rows}};
    return json.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

std::string AsSvg(const RunInfo& info, const std::vector<Result>& results) {
    std::vector<SvgBar> bars;
    for (const Result& result : results) {
        if (result.IsSkipped() || result.spec.eKind != eValue::Ratio) continue;
        bars.push_back({result.spec.strWhat, "beside " + result.spec.strBaseline,
                        result.measured.value, result.spec.target, result.IsMissed()});
    }
    return SvgChart("Costs of the broker, the baseline's being 1",
                    info.strMachine + ", " + info.strTime + (info.bQuick ? ", a quick run" : ""),
                    bars);
}

}  // namespace vok::bench
