#include "ky/kyIoDeviceBroadcast.h"

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
        EXPECT_EQ(third.content, "ab");

        second.failsAt = INT_MAX;
        second.clearDeviceError();
        EXPECT_EQ(all.writeBytes("ef", 2), 0u) << "sticky";
        EXPECT_EQ(third.content, "abef") << "kept: the own error does not stop the forwarding";
        third.setDeviceError("late");
        all.clearDeviceError();
        EXPECT_FALSE(all.good()) << "clears its own error only";
    }
}

TEST_F(Broadcast, AcceptsAllWithoutDevicesAndHasNoEnd)
{
    kyIoDeviceBroadcast none({});
    ky::test::CaughtStream console(std::cout);
    EXPECT_EQ(none.writeBytes("abc", 3), 3u);
    EXPECT_FALSE(none.atEnd());
    const std::string line = console.take();
    EXPECT_TRUE(line.starts_with("CRITICAL PID ")) << line;
    EXPECT_TRUE(line.ends_with(" : kyIoDeviceBroadcast atEnd is not supported\n")) << line;
    EXPECT_EQ(none.readBytes(nullptr, 1), 0u);
    EXPECT_EQ(none.getDeviceErrorMsg(), "Read is not implemented");
}
