#include "ky/kyCancelInterface.h"

#include <gtest/gtest.h>

#include <string>

using ky::kyCancelInterfaceProxy;

namespace {

/// Writes down what it is asked and told.
struct Source : ky::kyCancelInterface {
    Source(const char* mark, bool isYes, std::string& into)
        : name(mark), answer(isYes), record(into)
    {}
    bool shouldCancel() const override
    {
        record += name + "?";
        return answer;
    }
    void cancel() override { record += name + "!"; }

    const std::string name;
    const bool answer;
    std::string& record;
};

}  // namespace

TEST(CancelProxy, AsksInOrderUntilTheFirstYes)
{
    for (const std::string yes : {"", "a", "c", "ca", "f", "fca"}) {
        bool flag = yes.starts_with('f');
        std::string asked;
        Source chained("c", yes.find('c') != std::string::npos, asked);
        const Source additional("a", yes.ends_with('a'), asked);
        EXPECT_EQ(kyCancelInterfaceProxy(&flag, &chained, &additional).shouldCancel(), yes != "");
        EXPECT_EQ(asked, flag ? "" : chained.answer ? "c?" : "c?a?") << yes;
    }
}

TEST(CancelProxy, CancelsItsFlagAndTheChain)
{
    std::string told;
    Source end("end", false, told);
    bool flag = false;
    kyCancelInterfaceProxy second(&flag, &end);
    kyCancelInterfaceProxy first(nullptr, &second);
    first.cancel();
    EXPECT_EQ(told, "end!");
    EXPECT_TRUE(flag);
    flag = false;
    EXPECT_TRUE(first.shouldCancel()) << "by a flag of its own";
}
