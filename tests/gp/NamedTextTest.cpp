#include "gp/NamedText.h"

#include "gp/GPHTTP.h"
#include "gp/GPMap.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "support/AllocationCounter.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

Pairs pairsOf(const std::vector<NamedText>& texts) {
    Pairs pairs;
    for (const NamedText& text : texts)
        pairs.emplace_back(text.name, text.value);
    return pairs;
}

} // namespace

TEST(LastOfEachName, LeavesWhatIsLeftOfAllOfThemTogether) {
    std::mt19937 random(20190215);
    for (const std::size_t names : {1, 3, 300, 1500, 20000})
        for (const int count : {0, 1, 1024, 1025, 12000}) {
            std::vector<std::string> words;
            for (int i = 0; i < count; ++i)
                words.push_back(std::to_string(random() % names));
            std::vector<NamedText> all;
            LastOfEachName gathered;
            for (std::size_t i = 0; i < words.size(); ++i) {
                all.push_back({words[i], words[words.size() - 1 - i]});
                gathered.add(all.back());
            }
            keepLastOfEachName(all);
            EXPECT_EQ(pairsOf(gathered.take()), pairsOf(all)) << count << " of " << names << " names";
        }
}

TEST(LastOfEachName, IsTheLastWhereItStandsAndNamesOfAnotherCaseAreOthers) {
    for (const int between : {0, 1, 3000}) {
        Pairs expected{{"name", "2"}};
        for (int i = 0; i < between; ++i)
            expected.emplace_back(std::to_string(i), "x");
        expected.emplace_back("Name", "3");
        LastOfEachName gathered;
        gathered.add({"Name", "1"});
        for (const auto& [name, value] : expected)
            gathered.add({name, value});
        EXPECT_EQ(pairsOf(gathered.take()), expected) << between << " between";
    }
}

TEST(LastOfEachName, TakesOneRowOfRoomAloneForAShortList) {
    std::vector<std::string> names;
    for (int i = 0; i < 1000; ++i)
        names.push_back(std::to_string(i));
    LastOfEachName gathered;
    const testsupport::AllocationCounter memory;
    for (const std::string& name : names)
        gathered.add({name, "value"});
    EXPECT_LT(memory.count(), 20) << "an index has a piece for each name and a row beside the entries";
    EXPECT_LE(memory.bytes(), static_cast<long>(2 * 1024 * sizeof(NamedText)));
}

TEST(LastOfEachName, OfManyNamesThatAllComeAgainCostsNoWalkForEach) {
    constexpr int count = 200000;
    std::vector<std::string> names;
    for (int i = 0; i < count; ++i)
        names.push_back(std::to_string(i));
    LastOfEachName gathered;
    for (const char* value : {"1", "2", "3"})
        for (const std::string& name : names)
            gathered.add({name, value});

    const std::vector<NamedText> left = gathered.take();
    ASSERT_EQ(left.size(), names.size());
    EXPECT_EQ(left.front().name, "0");
    EXPECT_EQ(left.front().value, "3");
    EXPECT_EQ(left.back().name, names.back());
}

TEST(LastOfEachName, TakesNoRoomForHeadersThatOthersReplace) {
    std::string lines;
    for (int i = 0; i < 50000; ++i)
        lines += i % 2 ? "a: 1\r\n" : "b: 2\r\n";
    const std::string answer = "HTTP/1.1 200 OK\r\n" + lines + "\r\n";
    const auto headers = Owned<GPMap>::adopt(new GPMap);
    int code = 0;

    const testsupport::AllocationCounter memory;
    ASSERT_TRUE(GPHTTP::parseAnswer(answer, code, *headers));

    EXPECT_LE(memory.bytes(), 200000);
    EXPECT_EQ(headers->count(), 2);
    EXPECT_STREQ(static_cast<GPString*>(headers->objectForKey("a"))->cstr(), "1");
}
