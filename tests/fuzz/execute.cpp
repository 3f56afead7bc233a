// The arguments of Execute, command after command.
//
// Input: lines (see CScript.h), each the six arguments; below them what happens meanwhile.
#include "tests/fuzz/support/CStage.h"
#include "tests/fuzz/support/Target.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t nSize) {
    vok::test::CStage stage;
    auto lines = vok::test::ParseScript({reinterpret_cast<const char*>(pData), nSize});
    for (auto& line : lines) line.texts.insert(line.texts.begin(), "Execute");
    stage.Perform(lines);
    return 0;
}
