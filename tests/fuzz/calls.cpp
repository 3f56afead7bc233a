// Calls of every operation of both services, with what happens while they are under way.
//
// Input: lines (see CScript.h), each a call.
#include "tests/fuzz/support/CStage.h"
#include "tests/fuzz/support/Target.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t nSize) {
    vok::test::CStage stage;
    stage.Perform(vok::test::ParseScript({reinterpret_cast<const char*>(pData), nSize}));
    return 0;
}
