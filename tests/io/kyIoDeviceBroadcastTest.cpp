#include "ky/kyIoDeviceBroadcast.h"

#include "support/Child.h"
#include "support/Devices.h"
#include "support/Library.h"

using ky::kyIoDeviceBroadcast;
using ky::test::NotingDevice;

namespace {
struct Broadcast : ky::test::LightLibrary {};
}  // namespace

TEST_F(Broadcast, ForwardsUpToTheDeviceThatFails)
{
    for (const bool tells : {true, false}) {
        NotingDevice first;
        NotingDevice second({}, 1);
        NotingDevice third;
        kyIoDeviceBroadcast all({&first, nullptr, &second, &third});
        EXPECT_EQ(all.writeBytes("ab", 2), 2u);
        if (tells)
            second.setDeviceError("no space");
        EXPECT_EQ(all.getDeviceErrorMsg(), "") << "kept: silent while it has no error of its own";
        EXPECT_EQ(all.good(), !tells);
        EXPECT_EQ(all.writeBytes("cd", 2), 0u);
        EXPECT_EQ(all.getDeviceErrorMsg(),
                  tells ? "Sub device is in error, no space" : "Sub device is in error");
        EXPECT_EQ(first.content, "abcd");
        EXPECT_EQ(third.content, "ab");

        second.failsAt = INT_MAX;
        second.clearDeviceError();
        EXPECT_EQ(all.writeBytes("ef", 2), 0u) << "sticky";
        EXPECT_EQ(third.content, "abef") << "kept: the own error does not stop the forwarding";
        all.clearDeviceError();
        EXPECT_EQ(all.writeBytes("gh", 2), 2u);
        third.setDeviceError("late");
        all.clearDeviceError();
        EXPECT_FALSE(all.good()) << "clears its own error only";
    }
}

TEST_F(Broadcast, AcceptsAllWithoutDevicesAndHasNoEnd)
{
    kyIoDeviceBroadcast none({});
    EXPECT_EQ(none.writeBytes("abc", 3), 3u);
    char byte = 0;
    EXPECT_EQ(none.readBytes(&byte, 1), 0u);
    EXPECT_EQ(none.getDeviceErrorMsg(), "Read is not implemented");
    EXPECT_EQ(none.writeBytes("abc", 3), 0u);
    ky::test::CaughtStream console(std::cout);
    EXPECT_FALSE(none.atEnd() || none.atEnd());
    const auto lines = ky::test::Lines(console.take());
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[1].find("CRITICAL PID "), 0u);
    EXPECT_NE(lines[1].find(" : kyIoDeviceBroadcast atEnd is not supported"), std::string::npos);
}
