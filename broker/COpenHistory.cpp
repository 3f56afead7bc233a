#include "broker/COpenHistory.h"

#include <algorithm>

namespace vok {

void COpenHistory::CopyNewestFirst(std::vector<OpenRecord>& records) const {
    const std::uint64_t nKept = std::min<std::uint64_t>(m_nAdded, kKeptOpens);
    for (std::uint64_t n = 1; n <= nKept; ++n)
        records.push_back(m_Records[(m_nAdded - n) % kKeptOpens]);
}

}  // namespace vok
