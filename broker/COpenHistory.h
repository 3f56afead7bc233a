/// The opens that ended last, and where their time went.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <type_traits>
#include <vector>

#include "broker/Types.h"
#include "platform/Limits.h"

namespace vok {

enum eOpenOutcome : std::int32_t {
    OPEN_REFUSED = 0,
    OPEN_FAILED = 1,
    OPEN_REUSED = 2,   // connected to a server that ran
    OPEN_STARTED = 3,  // its server was started
};

/// What an open notes on its way. Made with `{}`, nothing of it has happened yet.
///
/// No member has an initialiser, here and below: a history that is made costs no memory before
/// there are opens to remember.
struct OpenTrace {
    /// A moment of the steady clock; zero, its epoch: it did not come to that.
    using Moment = std::chrono::steady_clock::duration;
    static Moment Now() { return std::chrono::steady_clock::now().time_since_epoch(); }

    Moment begin;
    Moment located;   // and it is clear that a server must start, or is being started
    Moment mounted;   // by this open
    Moment started;   // handed to the thread that forks, or taken by the launcher
    Moment reported;  // by the EMP; of a reused one, to somebody else's open, for which this waited
    Moment answered;
    std::int64_t nSerial;  // -1: no ticket
    eEmpLocation location;
    eOpenOutcome eOutcome;
};

/// A text of any bytes, of which the beginning is kept: at most `kMost` bytes, and of a UTF-8 text
/// no half character.
template <std::size_t kMost>
struct CutText {
    static_assert(kMost <= UINT8_MAX);

    void Set(std::string_view strText) {
        nSize = static_cast<std::uint8_t>(SizeOfCut(strText));
        std::memcpy(bytes.data(), strText.data(), nSize);
    }
    std::string_view Get() const { return {bytes.data(), nSize}; }

    static std::size_t SizeOfCut(std::string_view strText) {
        if (strText.size() <= kMost) return strText.size();
        constexpr std::size_t kMostOfCharacter = 4;
        for (std::size_t n = kMost; n > kMost - kMostOfCharacter; --n)
            if ((static_cast<unsigned char>(strText[n]) & 0xC0U) != 0x80U) return n;
        return kMost;  // no text: wherever it is cut
    }

    std::uint8_t nSize;
    std::array<char, kMost> bytes;
};

struct OpenRecord {
    OpenTrace trace;
    CutText<63> emp;
    CutText<127> clientPort;  // 107: the longest path of a socket
};
static_assert(std::is_trivially_default_constructible_v<OpenRecord> &&
              std::is_trivially_copyable_v<OpenRecord>);

/// A ring of kKeptOpens records of fixed size. It has no lock: the caller's guards it, and is held
/// for a short copy only.
class COpenHistory {
public:
    /// Puts an open in the place of the oldest one. Needs no memory, and never throws.
    void Add(const OpenTrace& trace, std::string_view strEmp, std::string_view strClientPort) {
        OpenRecord& record = m_Records[m_nAdded++ % kKeptOpens];
        record.trace = trace;
        record.emp.Set(strEmp);
        record.clientPort.Set(strClientPort);
    }

    /// Appends all, the newest first. Needs no memory either, when there is room for kKeptOpens.
    void CopyNewestFirst(std::vector<OpenRecord>& records) const;

private:
    std::uint64_t m_nAdded = 0;
    std::array<OpenRecord, kKeptOpens> m_Records;
};

}  // namespace vok
