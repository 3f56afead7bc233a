#include "ctl/AdminClient.h"
#include "ctl/Blame.h"
#include "ctl/BlameSvg.h"
#include "ctl/Commands.h"
#include "ctl/Failure.h"
#include "ctl/Json.h"
#include "ctl/Waits.h"

namespace vok::ctl {

namespace {

/// The picture, and what to say of it: beside a file, but never into what it was written to.
void Draw(const Options& options, COutput& output, const std::vector<OpenSpans>& opens,
          const std::string& strNone) {
    const std::string strSvg = BlameSvg(opens, strNone);
    const std::string strSummary = opens.empty() ? strNone : BlameSummary(opens);
    if (options.strSvg == "-") {
        output.Add(strSvg);
        output.Flush();
        output.AddNote(strSummary);
        return;
    }
    const std::string strText = options.strSvg + ": " + strSummary;
    const bool bFile = IsFileOrMissing(options.strSvg);
    WriteFileAtOnce(options.strSvg, strSvg);
    if (!bFile)
        output.AddNote(strText);
    else if (!options.bJson)
        output.Add(Line(strText, output.GetStyle()));
}

}  // namespace

int RunBlame(const Options& options, COutput& output) {
    const std::vector<admin::OpenTimes> all = CAdminClient{WaitFor(options)}.GetOpens();
    const std::vector<OpenSpans> opens = LongestFirst(all, options.strName, options.nMost);
    const std::string strNone = NoOpens(options.strName, all.size());
    if (!options.strSvg.empty()) Draw(options, output, opens, strNone);
    if (options.bJson) {
        Json json = Json::array();
        for (const OpenSpans& open : opens) json.push_back(ToJson(open.record));
        output.AddDocument(json);
    } else if (options.strSvg.empty()) {
        output.Add(opens.empty() ? Line(strNone, output.GetStyle())
                                 : BlameReport(opens, output.GetStyle()));
    }
    return EXIT_DONE;
}

}  // namespace vok::ctl
