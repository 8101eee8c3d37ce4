#include "ky/kyCancelInterface.h"

#include <gtest/gtest.h>

#include <string>

using ky::kyCancelInterfaceProxy;
using ky::kyCancelInterfaceProxyReadOnly;

namespace {

// Others may ask such a proxy before this file's constructors have run.
constinit kyCancelInterfaceProxyReadOnly sEmptyProxy;

/// Writes down what it is asked and told.
class Source : public ky::kyCancelInterface {
public:
    Source(std::string name, bool answer, std::string& record)
        : mName(std::move(name)), mAnswer(answer), mRecord(record)
    {}
    bool shouldCancel() const override
    {
        mRecord += mName + "? ";
        return mAnswer;
    }
    void cancel() override { mRecord += mName + "! "; }

private:
    const std::string mName;
    const bool mAnswer;
    std::string& mRecord;
};

}  // namespace

TEST(CancelProxy, AsksInOrderUntilTheFirstYes)
{
    EXPECT_FALSE(sEmptyProxy.shouldCancel());
    for (const unsigned answers : {0u, 1u, 2u, 3u, 4u, 5u, 6u, 7u}) {
        SCOPED_TRACE(answers);
        bool flag = (answers & 1u) != 0;
        std::string asked;
        Source chained("chained", (answers & 2u) != 0, asked);
        const Source additional("additional", (answers & 4u) != 0, asked);
        const std::string behind = flag ? "" : "chained? ";

        EXPECT_EQ(kyCancelInterfaceProxy(&flag, &chained, &additional).shouldCancel(),
                  answers != 0);
        EXPECT_EQ(asked, (answers & 3u) != 0 ? behind : behind + "additional? ");
    }
}

TEST(CancelProxy, CancelsItsFlagAndTheChainButNotTheAdditionalSource)
{
    std::string told;
    Source end("end", false, told);
    const Source additional("additional", false, told);
    bool flag = false;
    kyCancelInterfaceProxy second(&flag, &end, &additional);
    kyCancelInterfaceProxy first(nullptr, &second);
    first.cancel();
    EXPECT_TRUE(flag && first.shouldCancel() && second.shouldCancel());
    EXPECT_EQ(told, "end! ");

    // The first one's own byte answers for itself, the second's was never touched.
    flag = false;
    EXPECT_TRUE(first.shouldCancel());
    EXPECT_FALSE(second.shouldCancel());
}
