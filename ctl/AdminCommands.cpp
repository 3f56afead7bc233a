// What is asked of the admin service.
#include <set>

#include "ctl/AdminClient.h"
#include "ctl/Commands.h"
#include "ctl/Failure.h"
#include "ctl/InstalledEmps.h"
#include "ctl/Json.h"
#include "ctl/StateView.h"
#include "ctl/Waits.h"
#include "ctl/Where.h"

namespace vok::ctl {

namespace {

CAdminClient Admin(const Options& options) {
    return CAdminClient{WaitFor(options)};
}

void Tell(const Options& options, COutput& output, const std::string& strText, const Json& json) {
    if (options.bJson)
        output.AddDocument(json);
    else
        output.Add(Line(strText, output.GetStyle()));
}

/// What the broker knows, if it can be asked, and what is installed.
std::set<std::string> OpenableNames(const Options& options) {
    std::set<std::string> names;
    for (std::string& strEmp : InstalledEmps("")) names.insert(std::move(strEmp));
    try {
        const CAdminClient admin{WaitFor(options, kNamesPatience)};
        for (std::string& strEmp : NamesIn(admin.GetState())) names.insert(std::move(strEmp));
    } catch (const CFailure&) {
        // Names are a help, with or without a broker.
    }
    return names;
}

int ListNames(const Options& options, COutput& output) {
    const std::set<std::string> names = OpenableNames(options);
    if (options.bJson) {
        output.AddDocument(Json(names));
        return EXIT_DONE;
    }
    Style style = output.GetStyle();
    style.nWidth = 0;  // a name is of use only whole
    for (const std::string& strEmp : names) output.Add(Line(strEmp, style));
    return EXIT_DONE;
}

}  // namespace

int RunStatus(const Options& options, COutput& output) {
    const admin::BrokerState state = Admin(options).GetState();
    if (options.bJson)
        output.AddDocument(ToJson(state));
    else
        output.Add(StatusScreen(state, output.GetStyle()));
    return EXIT_DONE;
}

int RunList(const Options& options, COutput& output) {
    if (options.bNames) return ListNames(options, output);
    const admin::BrokerState state = Admin(options).GetState();
    if (options.bJson)
        output.AddDocument(
            {{"emps", ToJson(state.emps)}, {"connections", ToJson(state.connections)}});
    else
        output.Add(EmpList(state, output.GetStyle()));
    return EXIT_DONE;
}

int RunShow(const Options& options, COutput& output) {
    const admin::BrokerState state = Admin(options).GetState();
    const auto report = EmpReport(state, options.strName, output.GetStyle());
    if (!report)
        throw CFailure(EXIT_FAILED, "the broker knows nothing of an EMP " + options.strName +
                                        ": \"vokctl where " + options.strName +
                                        "\" tells where an open would look for it");
    if (options.bJson) {
        const admin::BrokerState part = StateOf(state, options.strName);
        output.AddDocument({{"emps", ToJson(part.emps)},
                            {"connections", ToJson(part.connections)},
                            {"mounts", ToJson(part.mounts)},
                            {"launchers", ToJson(part.launchers)},
                            {"groups", ToJson(part.groups)}});
    } else {
        output.Add(*report);
    }
    return EXIT_DONE;
}

int RunWhere(const Options& options, COutput& output) {
    const admin::Whereabouts whereabouts = Admin(options).Where(options.strName);
    if (options.bJson) {
        Json json = ToJson(whereabouts);
        json["decision"] = Decision(whereabouts);
        json["furtherOpen"] = FurtherOpen(whereabouts);
        output.AddDocument(json);
    } else {
        output.Add(WhereReport(whereabouts, output.GetStyle()));
    }
    return EXIT_DONE;
}

int RunDebugLevel(const Options& options, COutput& output) {
    Admin(options).SetDebugLevel(options.nLevel);
    Tell(options, output,
         "log level " + std::to_string(options.nLevel) +
             ": the broker, and the EMPs and clients that are connected",
         {{"debugLevel", options.nLevel}});
    return EXIT_DONE;
}

int RunPing(const Options& options, COutput& output) {
    Admin(options).EnablePing(options.bEnable);
    Tell(options, output, std::string("pings ") + (options.bEnable ? "on" : "off"),
         {{"pingEnabled", options.bEnable}});
    return EXIT_DONE;
}

int RunSweep(const Options& options, COutput& output) {
    const int nClosed = Admin(options).SweepZombies();
    Tell(options, output,
         "closed " + Count(nClosed, "connection", "connections") +
             " of clients that no longer answer",
         {{"closed", nClosed}});
    return EXIT_DONE;
}

int RunCloseAll(const Options& options, COutput& output) {
    const int nClosed = Admin(options).CloseAll(options.strName, options.strWidget);
    Tell(options, output,
         "closed " + Count(nClosed, "connection", "connections") + " of " + options.strName,
         {{"closed", nClosed}});
    return EXIT_DONE;
}

}  // namespace vok::ctl
