// Both tables remember what was found last: whatever comes in whatever order, they answer as tables
// that remember nothing.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <string>

#include "registry/CConnectionDB.h"
#include "registry/CEmpInfo.h"
#include "tests/support/CLogCapture.h"

namespace vok {
namespace {

constexpr int kSteps = 20'000;

/// Always the same numbers.
class CDice {
public:
    int Roll(int nSides) { return static_cast<int>(m_Numbers() % static_cast<unsigned>(nSides)); }
    std::string Name() { return std::string(1, static_cast<char>('A' + Roll(4))); }
    std::string Port() { return std::to_string(4000 + Roll(3)); }
    std::string Client() { return std::to_string(6000 + Roll(3)); }

private:
    std::mt19937 m_Numbers{4711};
};

TEST(CEmpInfo, AnswersAsIfItRememberedNoRecord) {
    const test::CLogCapture log(LEVEL_ERROR);
    CDice dice;
    CEmpInfo info;
    std::map<std::string, EMP_STATUS> model;
    for (int nStep = 0; nStep < kSteps; ++nStep) {
        const std::string strName = dice.Name();
        const auto it = model.find(strName);
        const auto eStatus = static_cast<EMP_STATUS>(1 + dice.Roll(6));
        switch (dice.Roll(6)) {
            case 0:
                ASSERT_EQ(info.Add(strName, "1.0"), model.emplace(strName, EMP_ADDED).second);
                break;
            case 1:
                info.Forget(strName);
                model.erase(strName);
                break;
            case 2: {
                const bool bIsNew = dice.Roll(2) == 0;
                info.EndFailedOpen(strName, bIsNew);
                if (it != model.end() && !bIsNew) it->second = EMP_CLOSED;
                if (it != model.end() && bIsNew) model.erase(it);
                break;
            }
            case 3:
                ASSERT_EQ(info.SetStatusOf(strName, eStatus), it != model.end());
                if (it != model.end()) it->second = eStatus;
                break;
            case 4:
                ASSERT_EQ(info.StatusOf(strName), it == model.end() ? EMP_NOT_FOUND : it->second);
                break;
            default:
                ASSERT_EQ(info.OptionOf(strName), it == model.end() ? "" : "0000");
        }
    }
    const auto records = info.GetEmpInfo();
    ASSERT_EQ(records.size(), model.size());
    for (const auto& [strName, eStatus] : model)
        EXPECT_EQ(records.at(strName).GetStatus(), eStatus);
}

std::string FirstPortOf(const std::map<ConnectionKey, std::set<std::string>>& model,
                        const std::string& strName) {
    const auto it = model.lower_bound({strName, ""});
    return it == model.end() || it->first.first != strName ? kNoPort : it->first.second;
}

TEST(CConnectionDB, AnswersAsIfItRememberedNoEntry) {
    const test::CLogCapture log(LEVEL_ERROR);
    CDice dice;
    CConnectionDB db;
    std::map<ConnectionKey, std::set<std::string>> model;
    for (int nStep = 0; nStep < kSteps; ++nStep) {
        const ConnectionKey key{dice.Name(), dice.Port()};
        const std::string strClient = dice.Client();
        const auto it = model.find(key);
        switch (dice.Roll(6)) {
            case 0:
                ASSERT_EQ(db.AddClient(key.first, key.second, strClient),
                          model[key].insert(strClient).second);
                break;
            case 1:
                ASSERT_EQ(db.RemoveClient(key, strClient),
                          it != model.end() && it->second.erase(strClient) == 1);
                break;
            case 2: {
                const bool bLeaves = it != model.end() && it->second.erase(strClient) == 1;
                ASSERT_EQ(db.RemoveConnection(key, strClient), bLeaves);
                if (bLeaves && it->second.empty()) model.erase(it);
                break;
            }
            case 3:
                if (dice.Roll(3) > 0) break;  // or there would never be much
                ASSERT_EQ(db.RemoveEmpInfoFromConnDB(key), model.erase(key) == 1);
                break;
            case 4: {
                const std::string strPort = dice.Port();
                ASSERT_EQ(db.ModifyConnectionData(key, SERVER_TYPE_EMP, key.second, strPort),
                          it != model.end());
                if (it == model.end()) break;
                model.emplace(ConnectionKey{key.first, strPort}, it->second);
                model.erase(it);
                break;
            }
            default:
                ASSERT_EQ(db.PortOf(key.first), FirstPortOf(model, key.first));
        }
    }
    const ConnectionMap entries = db.GetConnectionDB();
    ASSERT_EQ(entries.size(), model.size());
    for (const auto& [key, clients] : model) {
        EXPECT_EQ(entries.count(key), 1u);
        EXPECT_EQ(db.GetClientPortNumList(key), clients);
    }
}

}  // namespace
}  // namespace vok
