#include "ctl/AdminClient.h"
#include "ctl/Blame.h"
#include "ctl/BlameSvg.h"
#include "ctl/Commands.h"
#include "ctl/Failure.h"
#include "ctl/Json.h"
#include "ctl/Waits.h"

namespace vok::ctl {

int RunBlame(const Options& options, COutput& output) {
    const std::vector<admin::OpenTimes> all = CAdminClient{WaitFor(options)}.GetOpens();
    const std::vector<OpenSpans> opens = LongestFirst(all, options.strName, options.nMost);
    if (!options.strSvg.empty()) WriteFileAtOnce(options.strSvg, BlameSvg(opens));
    if (options.bJson) {
        Json json = Json::array();
        for (const OpenSpans& open : opens) json.push_back(ToJson(open.record));
        output.AddDocument(json);
    } else if (options.strSvg.empty()) {
        output.Add(BlameReport(opens, output.GetStyle()));
    } else {
        output.Add(Line(options.strSvg + ": " + BlameSummary(opens), output.GetStyle()));
    }
    return EXIT_DONE;
}

}  // namespace vok::ctl
