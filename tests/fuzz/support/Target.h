/// What every fuzz target shares with the program that feeds it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>

namespace vok::test {

/// Ends the process when what has to hold does not. In every kind of build.
void Require(bool bHolds, std::string_view strWhat);

/// What has been called so far ("VokBroker.OpenEmp", "Execute GetVOKVersion"). Kept only when asked
/// for: a fuzzer calls for hours.
class CReached {
public:
    static void Keep() { s_bKeep = true; }
    static void Note(const std::string& strWhat) {
        if (s_bKeep) s_setWhat.insert(strWhat);
    }
    static const std::set<std::string>& All() { return s_setWhat; }

private:
    static inline bool s_bKeep = false;
    static inline std::set<std::string> s_setWhat;
};

}  // namespace vok::test

/// One input. Each target defines it; libFuzzer and the replay call it. Nothing is kept from one
/// input to the next.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t nSize);
