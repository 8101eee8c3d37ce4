#include "ky/kyIoDeviceBroadcast.h"

#include "support/Devices.h"
#include "support/Library.h"

using ky::kyIoDeviceBroadcast;
using ky::test::NotingDevice;

using Broadcast = ky::test::LightLibrary;

TEST_F(Broadcast, ForwardsUpToTheDeviceThatFails)
{
    NotingDevice first;
    NotingDevice second({}, 1);
    NotingDevice third;
    kyIoDeviceBroadcast all({&first, nullptr, &second, &third});
    EXPECT_EQ(all.writeBytes("ab", 2), 2u);
    EXPECT_EQ(all.writeBytes("cd", 2), 0u) << "taken in part";
    second.setDeviceError("no space");
    EXPECT_EQ(all.getDeviceErrorMsg(), "Sub device is in error, no space");
    all.clearDeviceError();
    EXPECT_EQ(all.getDeviceErrorMsg(), "") << "kept: silent while it has no error of its own";
    second.failsAt = INT_MAX;
    EXPECT_EQ(all.writeBytes("ef", 2), 0u) << "taken, but an error is told";
    second.clearDeviceError();
    EXPECT_EQ(all.writeBytes("gh", 2), 0u) << "sticky";
    EXPECT_EQ(third.content, "abgh") << "kept: the own error does not stop the forwarding";
}

TEST_F(Broadcast, AcceptsAllWithoutDevicesAndHasNoEnd)
{
    kyIoDeviceBroadcast none({});
    ky::test::CaughtStream console(std::cout);
    EXPECT_EQ(none.writeBytes("abc", 3), 3u);
    EXPECT_FALSE(none.atEnd());
    const std::string line = console.take();
    EXPECT_EQ(line.substr(0, 9) + line.substr(line.find(" : ")),
              "CRITICAL  : kyIoDeviceBroadcast atEnd is not supported\n");
    EXPECT_EQ(none.readBytes(nullptr, 1), 0u);
    EXPECT_EQ(none.getDeviceErrorMsg(), "Read is not implemented");
}
