#include "ky/kyResource.h"
#include "ky/kySystem.h"

#include "support/Child.h"
#include "support/Library.h"
#include "support/Logged.h"

#include <future>
#include <stdexcept>
#include <thread>

#include <unistd.h>

using ky::InitType;
using ky::kyLog;
using ky::rc::GetResource;
using ky::rc::GetResourceSha256Hex;
using ky::test::Messages;
using ky::test::Texts;

namespace {

constexpr const char* sDigests =
    "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef";

/// What a module keeps in its constant data. Every resource is its own name, and its digest begins
/// with the digit of the name's length.
struct Module {
    explicit Module(const std::vector<const char*>& resourceNames) : names(resourceNames)
    {
        for (const char* const name : names) {
            const std::string text = name != nullptr ? name : "";
            offsets.push_back(blob.size());
            sizes.push_back(text.size());
            digests.push_back(sDigests + text.size() % 16);
            blob += text;
        }
    }
    void add() const
    {
        ky::rc::impl::RegisterResources(names.size(), blob.data(), names.data(), digests.data(),
                                        sizes.data(), offsets.data());
    }
    void remove() const
    {
        ky::rc::impl::UnRegisterResources(names.size(), nullptr, names.data(), nullptr, nullptr,
                                          nullptr);
    }

    std::vector<const char*> names;
    std::string blob;
    std::vector<const char*> digests;
    std::vector<unsigned long> sizes;
    std::vector<unsigned long> offsets;
};

/// Where the bytes of a resource stand, null when there is none. All four ways to find it agree.
const char* Find(const std::string& name)
{
    const char* data = "";
    const char* digest = "";
    unsigned long size = 7;
    unsigned long digestSize = 7;
    std::string copy = "old";
    std::string digestCopy = "old";
    const bool isThere = GetResource(name.c_str(), data, size);
    EXPECT_EQ(GetResource(name.c_str(), copy), isThere);
    EXPECT_EQ(GetResourceSha256Hex(name.c_str(), digest, digestSize), isThere);
    EXPECT_EQ(GetResourceSha256Hex(name.c_str(), digestCopy), isThere);
    EXPECT_EQ(copy, isThere ? name : "");
    EXPECT_EQ(digestCopy, isThere ? std::string(sDigests + name.size() % 16, 64) : "");
    EXPECT_TRUE(isThere ? std::string(data, size) == copy : data == nullptr && size == 0);
    EXPECT_TRUE(isThere ? std::string(digest, digestSize) == digestCopy : digest == nullptr);
    return data;
}

struct Resources : ky::test::FullLibrary {};

}  // namespace

TEST(ResourceRegistry, KeepsTheFirstRegistrationFromBeforeInitialisationToTermination)
{
    // The first without bytes, the others in no order and beyond ASCII.
    const Module module({"", "zebra", "\xff\xfe", "Zebra"});
    const Module second({"zebra", "new", "new"});
    ky::test::ExpectChildPasses([&] {
        ky::test::CaughtStream out(std::cout);
        module.remove();
        EXPECT_EQ(out.take(), "");
        EXPECT_EQ(Find("zebra"), nullptr);
        EXPECT_EQ(Messages(out.take()), Texts(4, "Resource is missing zebra"));
        module.add();
        ky::initializeKySystem(InitType::Light, false);
        ky::initializeKySystem(InitType::Full, false);
        second.add();
        ky::terminateKySystem();
        for (std::size_t i = 0; i < module.names.size(); ++i)
            EXPECT_EQ(Find(module.names[i]), module.blob.data() + module.offsets[i]);
        EXPECT_EQ(Find("new"), second.blob.data() + second.offsets[1]);
        module.remove();
        second.remove();
        module.add();
        ky::terminateKySystem();
        const std::string reports = out.take();
        EXPECT_EQ(reports.find("CRITICAL PID "), 0u) << reports;
        EXPECT_EQ(Messages(reports), (Texts{"Resource conflict zebra", "Resource conflict new",
                                            "Resource is already unregistered zebra",
                                            "Resource is already unregistered new"}));
        EXPECT_EQ(Find("zebra"), nullptr);
    });
}

TEST_F(Resources, ThrowForANullNameAndLeaveNoLockBehind)
{
    const Module module({"before", nullptr, "after"});
    EXPECT_THROW(module.add(), std::logic_error);
    std::string out = "old";
    EXPECT_THROW(GetResource(nullptr, out), std::logic_error);
    EXPECT_EQ(out, "");
    // Another thread would wait for a lock that was left behind.
    std::thread([&] {
        EXPECT_NE(Find("before"), nullptr);
        EXPECT_EQ(Find("after"), nullptr);
        EXPECT_THROW(module.remove(), std::logic_error);
    }).join();
    EXPECT_EQ(Find("before"), nullptr);
    ky::rc::impl::RegisterResources(0, nullptr, nullptr, nullptr, nullptr, nullptr);
}

TEST_F(Resources, ServeManyThreadsAndChildrenForkedMeanwhile)
{
    const Module common({"common"});
    common.add();
    ky::test::CaughtStream out(std::cout);
    std::vector<std::jthread> threads;
    for (int i = 0; i < 32; ++i)
        threads.emplace_back([i] {
            const std::string own = "own" + std::to_string(i);
            const Module mine({own.c_str()});
            for (int round = 0; round < 20; ++round) {
                mine.add();
                EXPECT_NE(Find(own), nullptr);
                EXPECT_NE(Find("common"), nullptr);
                mine.remove();
            }
        });
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    // The sanitizers' own locks do not survive a fork beside threads that allocate.
    for (int i = 0; i < 20; ++i)
        ky::test::ExpectChildPasses([] { EXPECT_NE(Find("common"), nullptr); });
#endif
    threads.clear();
    kyLog::Instance()->flush();
    EXPECT_EQ(out.take(), "");
}

TEST_F(Resources, AreFoundByAHandlerAndAForkedChildWhileALineIsWritten)
{
    // Its line fills the log's queue, so that whoever registers waits for the handler.
    const std::string longName((16 << 20) + 1, 'n');
    const Module module({"wanted", longName.c_str(), longName.c_str()});
    std::promise<bool> isFound;
    std::promise<void> mayReturn;
    kyLog::Instance()->setEchoToConsole(false);
    ky::test::Recorder recorder([&](ky::test::Batch& batch) {
        if (batch.front().message.size() < longName.size())
            return;
        std::string text;
        isFound.set_value(GetResource("wanted", text));
        mayReturn.get_future().wait();
    });
    recorder.install();
    std::thread registering([&] { module.add(); });
    EXPECT_TRUE(isFound.get_future().get());
    ky::test::ExpectChildPasses([] {
        ::alarm(60);  // for whoever waits for the lock of the parent's thread
        EXPECT_NE(Find("wanted"), nullptr);
        ky::terminateKySystem();
        ky::initializeKySystem(InitType::Full, false);
        EXPECT_EQ(Find("wanted"), nullptr);
    });
    mayReturn.set_value();
    registering.join();
}
