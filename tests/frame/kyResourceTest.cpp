#include "ky/kyLog.h"
#include "ky/kyResource.h"
#include "ky/kySystem.h"

#include "support/Child.h"
#include "support/Library.h"

#include <algorithm>
#include <future>
#include <list>
#include <stdexcept>
#include <thread>
#include <utility>

#include <unistd.h>

using ky::InitType;
using ky::kyLog;
using ky::rc::GetResource;
using ky::rc::GetResourceSha256Hex;
using Texts = std::vector<std::string>;

namespace {

/// What a module keeps in its constant data. Every resource is its own name without the first
/// character; digests stand one behind the other, each of one character of the name's end.
struct Module {
    explicit Module(const std::vector<const char*>& resourceNames) : names(resourceNames)
    {
        for (const char* const name : names) {
            const std::string text = name != nullptr ? name : "?";
            offsets.push_back(blob.size());
            sizes.push_back(text.size() - 1);
            blob += text.substr(1);
            digestText.append(64, text.back());
        }
        for (std::size_t i = 0; i < names.size(); ++i)
            digests.push_back(digestText.data() + 64 * i);
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
    std::string digestText;
    std::vector<const char*> digests;
    std::vector<unsigned long> sizes;
    std::vector<unsigned long> offsets;
};

/// All four ways to find it agree.
bool IsThere(const std::string& name)
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
    EXPECT_EQ(size, copy.size());
    EXPECT_EQ(digestSize, digestCopy.size());
    EXPECT_EQ(copy, isThere ? name.substr(1) : "");
    EXPECT_EQ(digestCopy, isThere ? std::string(64, name.back()) : "");
    EXPECT_TRUE(isThere ? std::string(data, size) == copy : data == nullptr && digest == nullptr);
    return isThere;
}

const char* DataOf(const char* name)
{
    const char* data = nullptr;
    unsigned long size = 0;
    GetResource(name, data, size);
    return data;
}

/// Collects the messages of the library.
struct Resources : ky::test::FullLibrary {
    Resources()
    {
        kyLog::Instance()->setEchoToConsole(false);
        kyLog::Instance()->installCustomHandler(
            [](std::list<kyLog::LogEntry>& batch, void* texts) {
                for (const kyLog::LogEntry& entry : batch) {
                    EXPECT_EQ(entry.level, kyLog::Critical);
                    EXPECT_EQ(entry.systemLogName, "");
                    static_cast<Texts*>(texts)->push_back(entry.message);
                }
            },
            &mTexts);
    }
    ~Resources() override { kyLog::Instance()->installCustomHandler(nullptr, nullptr); }

    Texts take()
    {
        kyLog::Instance()->flush();
        return std::exchange(mTexts, {});
    }

    Texts mTexts;
};

struct ResourcesUnderTheLog : ky::test::FullLibrary {};

}  // namespace

TEST_F(Resources, KeepTheirFirstRegistrationUntilItIsUnregistered)
{
    // The first without bytes, the others in no order and beyond ASCII.
    const Module module({"0", "zebra", "\xff\xfe", "Zebra", "zebra/stripe"});
    const Module second({"zebra", "new", "new"});
    module.add();
    second.add();
    EXPECT_EQ(take(), (Texts{"Resource conflict zebra", "Resource conflict new"}));
    for (std::size_t i = 0; i < module.names.size(); ++i) {
        EXPECT_TRUE(IsThere(module.names[i]));
        EXPECT_EQ(DataOf(module.names[i]), module.blob.data() + module.offsets[i]);
    }
    EXPECT_EQ(DataOf("new"), second.blob.data() + second.offsets[1]);
    module.remove();
    EXPECT_FALSE(IsThere("zebra"));
    EXPECT_EQ(take(), Texts(4, "Resource is missing zebra"));
    second.remove();
    EXPECT_EQ(take(), (Texts{"Resource is already unregistered zebra",
                             "Resource is already unregistered new"}));
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
        EXPECT_TRUE(IsThere("before"));
        EXPECT_FALSE(IsThere("after"));
        EXPECT_THROW(module.remove(), std::logic_error);
    }).join();
    EXPECT_FALSE(IsThere("before"));
    ky::rc::impl::RegisterResources(0, nullptr, nullptr, nullptr, nullptr, nullptr);
    ky::rc::impl::UnRegisterResources(0, nullptr, nullptr, nullptr, nullptr, nullptr);
}

TEST_F(Resources, ServeManyThreadsAndChildrenForkedMeanwhile)
{
    constexpr int threadCount = 64;
    constexpr int rounds = 20;
    const Module common({"common"});
    common.add();
    std::vector<std::thread> threads;
    for (int i = 0; i < threadCount; ++i) {
        threads.emplace_back([i] {
            const std::string own = "own" + std::to_string(i);
            const Module mine({own.c_str(), "common"});
            for (int round = 0; round < rounds; ++round) {
                mine.add();
                EXPECT_TRUE(IsThere(own));
                EXPECT_TRUE(IsThere("common"));
                Module({own.c_str()}).remove();
            }
            EXPECT_FALSE(IsThere(own));
        });
    }
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    // The sanitizers' own locks do not survive a fork beside threads that allocate.
    for (int i = 0; i < 20; ++i)
        ky::test::ExpectChildPasses([] { EXPECT_TRUE(IsThere("common")); });
#endif
    for (std::thread& thread : threads)
        thread.join();
    const std::vector<std::string> texts = take();
    EXPECT_EQ(std::count(texts.begin(), texts.end(), "Resource conflict common"),
              threadCount * rounds);
    EXPECT_EQ(texts.size(), static_cast<std::size_t>(threadCount * (rounds + 4)));
    EXPECT_EQ(DataOf("common"), common.blob.data());
}

TEST_F(ResourcesUnderTheLog, AreFoundByAHandlerAndAForkedChildWhileALineIsWritten)
{
    // Its line fills the log's queue, so that whoever registers waits for the handler.
    static const std::string longName((16 << 20) + 1, 'n');
    const Module module({"wanted", longName.c_str(), longName.c_str()});
    static std::promise<bool> isFound;
    static std::promise<void> mayReturn;
    kyLog::Instance()->setEchoToConsole(false);
    kyLog::Instance()->installCustomHandler(
        [](std::list<kyLog::LogEntry>& batch, void*) {
            if (batch.front().message.size() < longName.size())
                return;
            std::string text;
            isFound.set_value(GetResource("wanted", text));
            mayReturn.get_future().wait();
        },
        nullptr);
    std::thread registering([&] { module.add(); });
    EXPECT_TRUE(isFound.get_future().get());
    ky::test::ExpectChildPasses([] {
        ::alarm(60);  // for whoever waits for the lock of the parent's thread
        EXPECT_TRUE(IsThere("wanted"));
        const Module own({"child's"});
        own.add();
        own.remove();
        EXPECT_FALSE(IsThere("child's"));
        ky::terminateKySystem();
        ky::initializeKySystem(InitType::Full, false);
        EXPECT_FALSE(IsThere("wanted"));
    });
    mayReturn.set_value();
    registering.join();
    kyLog::Instance()->installCustomHandler(nullptr, nullptr);
}

TEST(ResourceLifetime, BeginsBeforeInitialisationAndEndsWithTermination)
{
    const Module module({"early"});
    ky::test::ExpectChildPasses([&] {
        ky::test::CaughtStream out(std::cout);
        module.remove();
        EXPECT_EQ(out.take(), "");
        EXPECT_FALSE(IsThere("early"));
        EXPECT_NE(out.take().find(" : Resource is missing early\n"), std::string::npos);
        module.add();
        for (const InitType type : {InitType::Light, InitType::Full}) {
            ky::initializeKySystem(type, false);
            EXPECT_TRUE(IsThere("early"));
        }
        ky::terminateKySystem();
        EXPECT_TRUE(IsThere("early")) << "one user is left";
        ky::terminateKySystem();
        module.remove();
        EXPECT_EQ(out.take(), "");
        ky::initializeKySystem(InitType::Light, false);
        EXPECT_FALSE(IsThere("early"));
        ky::terminateKySystem();
    });
}
