#include "ky/kyLog.h"
#include "ky/kyResource.h"
#include "ky/kySystem.h"

#include "support/Child.h"
#include "support/Library.h"

#include <algorithm>
#include <atomic>
#include <functional>
#include <future>
#include <list>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

using ky::InitType;
using ky::kyLog;
using ky::rc::GetResource;
using ky::rc::GetResourceSha256Hex;
using ky::test::Lines;
using ky::test::RunInChild;

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

/// Collects the messages of the library while it lives.
class Messages {
public:
    Messages()
    {
        kyLog::Instance()->setEchoToConsole(false);
        kyLog::Instance()->installCustomHandler(
            [](std::list<kyLog::LogEntry>& batch, void* self) {
                for (const kyLog::LogEntry& entry : batch) {
                    EXPECT_EQ(entry.level, kyLog::Critical);
                    EXPECT_EQ(entry.systemLogName, "");
                    static_cast<Messages*>(self)->mTexts.push_back(entry.message);
                }
            },
            this);
    }
    ~Messages() { kyLog::Instance()->installCustomHandler(nullptr, nullptr); }

    std::vector<std::string> take()
    {
        kyLog::Instance()->flush();
        return std::exchange(mTexts, {});
    }

private:
    std::vector<std::string> mTexts;
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
    EXPECT_EQ(data != nullptr, isThere);
    EXPECT_EQ(digest != nullptr, isThere);
    EXPECT_EQ(size, isThere ? name.size() - 1 : 0);
    EXPECT_EQ(digestSize, isThere ? 64u : 0u);
    EXPECT_EQ(copy, isThere ? name.substr(1) : "");
    EXPECT_EQ(digestCopy, isThere ? std::string(64, name.back()) : "");
    EXPECT_TRUE(!isThere || std::string(data, size) == copy);
    return isThere;
}

/// The exit code of a child that gets a minute, 1 when an expectation has failed in it.
int ForkAndWait(const std::function<void()>& body)
{
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(60);
        body();
        ::_exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    return status;
}

struct Resources : ky::test::FullLibrary {};

}  // namespace

TEST_F(Resources, AreFoundUntilTheirTableIsUnregistered)
{
    // The first without bytes, the others in no order and beyond ASCII.
    const Module module({"0", "zebra", "\xff\xfe", "Zebra", "caf\xc3\xa9", "zebra/stripe"});
    Messages messages;
    module.add();
    for (const char* const name : module.names)
        EXPECT_TRUE(IsThere(name)) << name;
    const char* data = nullptr;
    unsigned long size = 0;
    EXPECT_TRUE(GetResource("Zebra", data, size));
    EXPECT_EQ(data, module.blob.data() + module.offsets[3]) << "not where the module has it";
    std::string nameAndOutput = "zebra";
    EXPECT_TRUE(GetResource(nameAndOutput.c_str(), nameAndOutput));
    EXPECT_EQ(nameAndOutput, "ebra");
    EXPECT_EQ(messages.take().size(), 0u);

    EXPECT_FALSE(IsThere("zebr"));
    EXPECT_EQ(messages.take(), std::vector<std::string>(4, "Resource is missing zebr"));
    module.remove();
    EXPECT_FALSE(IsThere("0"));
    messages.take();
    module.remove();
    std::vector<std::string> expected;
    for (const char* const name : module.names)
        expected.push_back(std::string("Resource is already unregistered ") + name);
    EXPECT_EQ(messages.take(), expected);
}

TEST_F(Resources, KeepTheirFirstRegistration)
{
    const Module first({"logo", "text"});
    const Module second({"text", "new", "logo", "new"});
    Messages messages;
    first.add();
    second.add();
    EXPECT_EQ(messages.take(),
              (std::vector<std::string>{"Resource conflict text", "Resource conflict logo",
                                        "Resource conflict new"}));
    const char* data = nullptr;
    unsigned long size = 0;
    EXPECT_TRUE(GetResource("text", data, size));
    EXPECT_EQ(data, first.blob.data() + first.offsets[1]);
    EXPECT_TRUE(GetResource("new", data, size));
    EXPECT_EQ(data, second.blob.data() + second.offsets[1]);
}

TEST_F(Resources, ThrowForANullNameAndLeaveNoLockBehind)
{
    const Module module({"before", nullptr, "after"});
    Messages messages;
    EXPECT_THROW(module.add(), std::logic_error);
    const char* data = nullptr;
    unsigned long size = 0;
    std::string out = "old";
    EXPECT_THROW(GetResource(nullptr, data, size), std::logic_error);
    EXPECT_THROW(GetResourceSha256Hex(nullptr, data, size), std::logic_error);
    EXPECT_THROW(GetResource(nullptr, out), std::logic_error);
    EXPECT_EQ(out, "");
    EXPECT_THROW(GetResourceSha256Hex(nullptr, out), std::logic_error);
    // Another thread would wait for a lock that was left behind.
    std::thread([&] {
        EXPECT_TRUE(IsThere("before"));
        EXPECT_FALSE(IsThere("after"));
        EXPECT_THROW(module.remove(), std::logic_error);
    }).join();
    EXPECT_FALSE(IsThere("before"));

    messages.take();
    ky::rc::impl::RegisterResources(0, nullptr, nullptr, nullptr, nullptr, nullptr);
    ky::rc::impl::UnRegisterResources(0, nullptr, nullptr, nullptr, nullptr, nullptr);
    EXPECT_EQ(messages.take().size(), 0u);
}

TEST_F(Resources, ServeManyThreads)
{
    constexpr int threadCount = 64;
    constexpr int rounds = 20;
    const Module common({"common"});
    Messages messages;
    common.add();
    std::vector<std::thread> threads;
    for (int i = 0; i < threadCount; ++i) {
        threads.emplace_back([i] {
            const std::string own = "own" + std::to_string(i);
            const Module mine({own.c_str(), "common"});
            const Module removed({own.c_str()});
            for (int round = 0; round < rounds; ++round) {
                mine.add();
                EXPECT_TRUE(IsThere(own));
                EXPECT_TRUE(IsThere("common"));
                removed.remove();
            }
            EXPECT_FALSE(IsThere(own));
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    const std::vector<std::string> texts = messages.take();
    EXPECT_EQ(std::count(texts.begin(), texts.end(), "Resource conflict common"),
              threadCount * rounds);
    EXPECT_EQ(texts.size(), static_cast<std::size_t>(threadCount * (rounds + 4)));
    const char* data = nullptr;
    unsigned long size = 0;
    EXPECT_TRUE(GetResource("common", data, size));
    EXPECT_EQ(data, common.blob.data());
}

TEST_F(Resources, AreFoundByALogHandlerAndAForkedChildWhileALineIsWrittenUnderTheLock)
{
    // Its line fills the log's queue, so that whoever registers waits for the handler.
    static const std::string longName((16 << 20) + 1, 'n');
    const Module module({"wanted", longName.c_str(), longName.c_str()});
    struct Handler {
        std::promise<bool> isFound;
        std::promise<void> mayReturn;
    } handler;
    kyLog::Instance()->setEchoToConsole(false);
    kyLog::Instance()->installCustomHandler(
        [](std::list<kyLog::LogEntry>& batch, void* data) {
            if (batch.front().message.size() < longName.size())
                return;
            std::string text;
            static_cast<Handler*>(data)->isFound.set_value(GetResource("wanted", text));
            static_cast<Handler*>(data)->mayReturn.get_future().wait();
        },
        &handler);
    std::thread registering([&] { module.add(); });
    EXPECT_TRUE(handler.isFound.get_future().get());
    EXPECT_EQ(ForkAndWait([] {
                  EXPECT_TRUE(IsThere("wanted"));
                  const Module own({"child's"});
                  own.add();
                  EXPECT_TRUE(IsThere("child's"));
                  own.remove();
                  EXPECT_FALSE(IsThere("child's"));
                  ky::terminateKySystem();
                  ky::initializeKySystem(InitType::Full, false);
                  EXPECT_FALSE(IsThere("wanted"));
                  own.add();
                  EXPECT_TRUE(IsThere("child's"));
              }),
              0);
    handler.mayReturn.set_value();
    registering.join();
    kyLog::Instance()->installCustomHandler(nullptr, nullptr);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// The sanitizers' own locks do not survive a fork beside threads that allocate.
TEST_F(Resources, AreWholeInAChildThatIsForkedWhileTheyChange)
{
    const Module stable({"stable"});
    stable.add();
    std::atomic<bool> isDone{false};
    std::vector<std::thread> threads;
    for (const char* const name : {"flow", "ebb"}) {
        threads.emplace_back([name, &isDone] {
            const Module module({name});
            while (!isDone.load(std::memory_order_relaxed)) {
                module.add();
                module.remove();
            }
        });
    }
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(ForkAndWait([] {
                      EXPECT_TRUE(IsThere("stable"));
                      const Module own({"child's"});
                      own.add();
                      own.remove();
                  }),
                  0);
    }
    isDone = true;
    for (std::thread& thread : threads)
        thread.join();
}
#endif

TEST(ResourceLifetime, BeginsBeforeInitialisationAndEndsWithTermination)
{
    const Module module({"early"});
    const auto result = RunInChild([&] {
        EXPECT_FALSE(IsThere("early"));
        module.remove();
        module.add();
        EXPECT_TRUE(IsThere("early"));
        for (const InitType type : {InitType::Light, InitType::Full}) {
            ky::initializeKySystem(type, false);
            EXPECT_TRUE(IsThere("early"));
        }
        ky::terminateKySystem();
        EXPECT_TRUE(IsThere("early")) << "one user is left";
        ky::terminateKySystem();
        module.remove();
        std::cout << "terminated" << std::endl;
        ky::initializeKySystem(InitType::Light, false);
        EXPECT_FALSE(IsThere("early"));
        module.add();
        EXPECT_TRUE(IsThere("early"));
        ky::terminateKySystem();
        EXPECT_FALSE(IsThere("early"));
    });
    EXPECT_EQ(result.exitCode, 0) << result.err;
    const std::vector<std::string> lines = Lines(result.out);
    ASSERT_EQ(lines.size(), 13u) << result.out;
    EXPECT_EQ(lines[4], "terminated");
    for (const std::size_t i : {0u, 3u, 5u, 8u, 9u, 12u})
        EXPECT_NE(lines[i].find(" : Resource is missing early"), std::string::npos) << lines[i];
}

TEST(ResourceLifetime, OfAProgramWithResourcesCoversItsStaticObjects)
{
    const auto result = ky::test::RunCommand({KY_EXAMPLE_RESOURCES});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.err, "");
    const std::vector<std::string> lines = Lines(result.out);
    // Nothing is said of what is unregistered after the library has ended.
    ASSERT_EQ(lines.size(), 3u) << result.out;
    EXPECT_NE(lines[0].find("  page.html: "), std::string::npos) << lines[0];
    EXPECT_NE(lines[2].find(" : Resource is missing missing"), std::string::npos) << lines[2];
}
