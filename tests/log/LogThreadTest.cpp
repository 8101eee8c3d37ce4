#include "ky/kyLog.h"

#include "ky/kyMutex.h"
#include "ky/kyWaitCondition.h"

#include "support/Asleep.h"
#include "support/Child.h"
#include "support/Library.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <climits>
#include <csignal>
#include <cstdlib>

using ky::kyLog;
using ky::kyLogObject;

namespace {

using Batch = std::list<kyLog::LogEntry>;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool sIsSanitized = true;
#else
constexpr bool sIsSanitized = false;
#endif

/// The library at the full level with a silent console.
struct LogThread : ky::test::FullLibrary {
    LogThread() : log(*kyLog::Instance()) { log.setEchoToConsole(false); }
    ~LogThread() override { log.installCustomHandler(nullptr, nullptr); }

    kyLog& log;
};

/// Keeps messages. Read it when the handler is removed, or from the handler.
struct Messages {
    static void Handle(Batch& batch, void* self)
    {
        for (const auto& entry : batch)
            static_cast<Messages*>(self)->all.push_back(entry.message);
    }
    std::vector<std::string> all;
};

/// "thread number text", the text being as long and as made of one letter as the number says.
std::string Line(int thread, int number)
{
    const std::size_t size = number % 100 == 99 ? static_cast<std::size_t>(number) * 7919 % 65536
                                                : static_cast<std::size_t>(number) % 180;
    return std::to_string(thread) + " " + std::to_string(number) + " " +
           std::string(size, static_cast<char>('a' + thread % 26));
}

void ExpectEachOnceInOrder(const std::vector<std::string>& messages, int threads, int lines)
{
    std::vector<int> next(static_cast<std::size_t>(threads), 0);
    for (const std::string& message : messages) {
        const auto thread = static_cast<std::size_t>(std::atoi(message.c_str()));
        ASSERT_LT(thread, next.size());
        ASSERT_EQ(message, Line(static_cast<int>(thread), next[thread]));
        ++next[thread];
    }
    for (const int count : next)
        EXPECT_EQ(count, lines);
}

std::vector<std::string> MessagesOfLines(const std::string& text)
{
    std::vector<std::string> messages;
    for (const std::string& line : ky::test::Lines(text))
        messages.push_back(line.substr(line.find(" : ") + 3));
    return messages;
}

void LogFrom(int threads, int lines)
{
    std::vector<std::jthread> producers;
    for (int thread = 0; thread < threads; ++thread)
        producers.emplace_back([=] {
            for (int i = 0; i < lines; ++i)
                kyLogObject(kyLog::Info) << Line(thread, i);
        });
}

ky::test::ChildResult RunAtFullLevel(const std::function<void(kyLog&)>& body)
{
    return ky::test::RunInChild([&] {
        ky::initializeKySystem(ky::InitType::Full, false);
        body(*kyLog::Instance());
    });
}

[[noreturn]] void Wait()
{
    for (;;)
        ::pause();
}

}  // namespace

TEST(LogThreadOutput, CarriesEveryLineOfManyThreadsOnceWholeAndInOrder)
{
    constexpr int threads = sIsSanitized ? 8 : 64;
    constexpr int lines = sIsSanitized ? 300 : 1000;
    const auto result = RunAtFullLevel([&](kyLog& log) {
        Messages messages;
        log.installCustomHandler(&Messages::Handle, &messages);
        LogFrom(threads, lines);
        log.installCustomHandler(nullptr, nullptr);
        ExpectEachOnceInOrder(messages.all, threads, lines);
        ky::terminateKySystem();
    });
    EXPECT_EQ(result.exitCode, 0) << result.err;
    ExpectEachOnceInOrder(MessagesOfLines(result.out), threads, lines);
}

TEST_F(LogThread, ReturnsFromAFlushWhenTheEntryIsThroughTheHandler)
{
    std::atomic<int> handled = 0;
    const auto count = [](Batch& batch, void* total) {
        *static_cast<std::atomic<int>*>(total) += static_cast<int>(batch.size());
    };
    log.installCustomHandler(count, &handled);
    for (int i = 1; i <= 100; ++i) {
        kyLogObject(kyLog::Info).setFlushNow() << i;
        ASSERT_EQ(handled, 2 * i - 1);
        kyLogObject(kyLog::Info) << i;
        log.flush();
        ASSERT_EQ(handled, 2 * i);
    }
}

TEST_F(LogThread, HoldsAProducerBackAboveSixteenMebibytesOnly)
{
    struct Gate {
        std::promise<void> entered;
        std::promise<void> leave;
        bool isFirst = true;
    } gate;
    const auto block = [](Batch&, void* self) {
        auto& g = *static_cast<Gate*>(self);
        if (!std::exchange(g.isFirst, false))
            return;
        g.entered.set_value();
        g.leave.get_future().wait();
    };
    log.installCustomHandler(block, &gate);
    kyLogObject(kyLog::Info) << "block";
    gate.entered.get_future().wait();
    // The queue was swapped out, so it is empty now. Exactly 16 MiB do not wait.
    kyLogObject(kyLog::Info) << std::string(16777216, 'x');
    std::atomic<bool> passed = false;
    std::thread producer = ky::test::StartUntilAsleep([&] {
        kyLogObject(kyLog::Info) << "y";
        passed = true;
    });
    EXPECT_FALSE(passed);
    gate.leave.set_value();
    producer.join();
}

TEST_F(LogThread, WritesUnderTheConfigurationOfTheMomentOfLogging)
{
    log.setLogLevel(ky::kyLogLevel::Debug);
    std::vector<std::jthread> producers;
    for (int i = 0; i < 2; ++i)
        producers.emplace_back([](const std::stop_token& stop) {
            const std::string noise(2000, 'n');
            while (!stop.stop_requested())
                kyLogObject(kyLog::Debug, "noise") << noise;
        });
    for (int round = 0; round < 100; ++round) {
        // Freed with its content looked at while others log on: no call of the handler is left.
        Messages messages;
        ASSERT_TRUE(log.installCustomHandler(&Messages::Handle, &messages));
        kyLogObject(kyLog::Info) << "mine";
        ASSERT_TRUE(log.installCustomHandler(nullptr, nullptr));
        ASSERT_EQ(std::count(messages.all.begin(), messages.all.end(), "mine"), 1);
        kyLogObject(kyLog::Info) << "unheard";
    }
}

TEST_F(LogThread, LetsAHandlerLogFlushConfigureThrowAndRemoveItself)
{
    Messages heard;
    const auto talk = [](Batch& batch, void* self) {
        Messages::Handle(batch, self);
        const std::string message = batch.front().message;
        kyLog& own = *kyLog::Instance();
        kyLogObject(kyLog::Info).setFlushNow() << "about " << message;
        own.flush();
        own.setSubTypeEnabled("x", false);
        if (message == "throw")
            throw std::runtime_error("of the handler");
        if (message == "leave")
            own.installCustomHandler(nullptr, nullptr);
    };
    log.installCustomHandler(talk, &heard);
    for (const char* message : {"start", "throw", "leave", "unheard"}) {
        kyLogObject(kyLog::Info).setFlushNow() << message;
        log.flush();
    }
    // The report goes to the other sinks: a handler that always throws would be called for ever.
    EXPECT_EQ(heard.all, (std::vector<std::string>{"start", "about start", "throw", "leave"}));
}

TEST_F(LogThread, WritesOnTheCallersThreadWhenItsOwnWasEnded)
{
    log.installCustomHandler([](Batch&, void*) { ::pthread_exit(nullptr); }, nullptr);
    kyLogObject(kyLog::Info).setFlushNow() << "ends the log's thread";
    log.installCustomHandler(nullptr, nullptr);
    log.setEchoToConsole(true);
    ky::test::CaughtStream out(std::cout);
    kyLogObject(kyLog::Info).setFlushNow() << "still written";
    EXPECT_NE(out.take().find(" : still written\n"), std::string::npos);
}

TEST_F(LogThread, StartsAndStopsAsFastAsItCan)
{
    for (int i = 0; i < (sIsSanitized ? 200 : 2000); ++i) {
        kyLog other(true);
        kyLog::LogEntry entry;
        if (i % 2 == 0)
            other.Write(entry, i % 3 == 0);
        other.setEchoToConsole(false);
    }
}

TEST(LogThreadAtExit, WritesWhatIsQueuedAndWhatStaticDestructorsLog)
{
    const auto result = RunAtFullLevel([](kyLog&) {
        LogFrom(4, 500);
        std::exit(7);
    });
    EXPECT_EQ(result.exitCode, 7);
    ExpectEachOnceInOrder(MessagesOfLines(result.out), 4, 500);
}

TEST(LogThreadAtExit, GivesUpOnAHandlerThatIsStuck)
{
    const auto result = RunAtFullLevel([](kyLog& log) {
        log.installCustomHandler([](Batch&, void*) { ::pause(); }, nullptr);
        kyLogObject(kyLog::Info) << "last";
        std::exit(7);
    });
    EXPECT_EQ(result.exitCode, 7);
    EXPECT_TRUE(result.out.ends_with(" : last\n"));
}

TEST(LogThreadAtExit, WritesTheRestWhenAHandlerExits)
{
    const auto result = RunAtFullLevel([](kyLog& log) {
        static std::promise<void> sEntered;
        static std::promise<void> sGo;
        log.installCustomHandler(
            [](Batch&, void*) {
                sEntered.set_value();
                sGo.get_future().wait();
                std::exit(7);
            },
            nullptr);
        kyLogObject(kyLog::Info) << "exit";
        sEntered.get_future().wait();
        LogFrom(1, 100);
        sGo.set_value();
        Wait();
    });
    EXPECT_EQ(result.exitCode, 7);
    auto messages = MessagesOfLines(result.out);
    messages.erase(messages.begin());
    ExpectEachOnceInOrder(messages, 1, 100);
}

TEST(LogThreadFork, LetsAChildReturnFromAHandlerAndTakeSignals)
{
    if (sIsSanitized)
        GTEST_SKIP() << "the sanitizer knows nothing of the threads that the child left behind";
    const auto result = RunAtFullLevel([](kyLog& log) {
        log.installCustomHandler(
            [](Batch&, void*) {
                for (const bool waits : {false, true}) {
                    const pid_t child = ::fork();
                    if (child == 0 && waits)
                        Wait();
                    if (child == 0)
                        return;
                    if (waits)
                        ::kill(child, SIGTERM);
                    int status = -1;
                    ::waitpid(child, &status, 0);
                    EXPECT_EQ(status, waits ? SIGTERM : 0);
                }
            },
            nullptr);
        ::alarm(60);
        kyLogObject(kyLog::Info).setFlushNow() << "fork";
        log.installCustomHandler(nullptr, nullptr);
        ky::terminateKySystem();
    });
    EXPECT_EQ(result.exitCode, 0) << result.err;
}

TEST(LogThreadFork, LetsChildrenLogAndEndWhileOthersHoldTheLocks)
{
    if (sIsSanitized)
        GTEST_SKIP() << "the sanitizer's own locks are not renewed in a child of many threads";
    constexpr int rounds = 100;
    const auto result = RunAtFullLevel([](kyLog& log) {
        std::vector<std::jthread> producers;
        for (int i = 0; i < 8; ++i)
            producers.emplace_back([i](const std::stop_token& stop) {
                // With a wait now and then, or each child has a full queue to wait for.
                for (int line = 0; !stop.stop_requested(); ++line)
                    kyLogObject(kyLog::Info).setFlushNow(line % 20 == 0)
                        << "parent " << std::string(1000, 'p') << i << " " << line;
            });
        for (int round = 0; round < rounds; ++round) {
            const pid_t child = ::fork();
            if (child == 0) {
                ::alarm(60);
                kyLogObject(kyLog::Info).setFlushNow() << "child " << round;
                log.flush();
                log.setEchoToConsole(true);
                ky::kyMutex();
                ky::kyWaitCondition();
                ky::terminateKySystem();
                std::exit(0);
            }
            int status = -1;
            ::waitpid(child, &status, 0);
            EXPECT_EQ(status, 0) << "round " << round;
        }
        producers.clear();
        ky::terminateKySystem();
    });
    EXPECT_EQ(result.exitCode, 0) << result.err;
    int childLines = 0;
    std::map<std::string, int> lines;
    for (const std::string& message : MessagesOfLines(result.out)) {
        if (message.starts_with("Detect "))
            continue;
        childLines += message.starts_with("child ");
        EXPECT_EQ(++lines[message], 1) << message;
    }
    EXPECT_EQ(childLines, rounds);
}

namespace {

[[gnu::noinline]] int OverflowStack(int depth)
{
    volatile char frame[4096];
    frame[0] = static_cast<char>(depth);
    return depth == 0 ? 0 : OverflowStack(depth + 1) + frame[0];
}

/// Kills the log's own thread while it waits for work.
void CrashInLogThread()
{
    static std::atomic<pthread_t> sLogThread = 0;
    kyLog::Instance()->installCustomHandler([](Batch&, void*) { sLogThread = ::pthread_self(); },
                                            nullptr);
    kyLogObject(kyLog::Info).setFlushNow() << "who are you";
    ::pthread_kill(sLogThread, SIGSEGV);
    Wait();
}

void CrashInHandler()
{
    kyLog::Instance()->installCustomHandler(
        [](Batch&, void*) { *static_cast<volatile int*>(nullptr) = 1; }, nullptr);
    kyLogObject(kyLog::Info) << "crash";
    Wait();
}

}  // namespace

TEST(LogThreadCrash, LosesNoLineAndDiesOfTheSignal)
{
    if (sIsSanitized)
        GTEST_SKIP() << "the sanitizer has handlers of its own";
    const struct {
        const char* name;
        int signal;
        void (*crash)();
    } rows[] = {
        {"SIGSEGV", SIGSEGV, [] { *static_cast<volatile int*>(nullptr) = 1; }},
        {"abort", SIGABRT, [] { std::abort(); }},
        {"terminate", SIGABRT, [] { std::terminate(); }},
        {"exception in a thread", SIGABRT, [] { std::thread([] { throw 1; }).join(); }},
        {"SIGFPE in a thread", SIGFPE, [] { std::thread([] { ::raise(SIGFPE); }).join(); }},
        {"stack overflow", SIGSEGV, [] { OverflowStack(1); }},
        {"stack overflow in a thread that logs", SIGSEGV,
         [] {
             std::thread([] {
                 kyLogObject(kyLog::Info) << "deep";
                 OverflowStack(1);
             }).join();
         }},
        {"the log's own thread", SIGSEGV, &CrashInLogThread},
        {"a custom handler", SIGSEGV, &CrashInHandler},
    };
    const ky::test::TemporaryFolder folder;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string file = folder.path(row.name);
        const auto result = RunAtFullLevel([&](kyLog& log) {
            ASSERT_TRUE(log.installFileHandlerExUtf8(folder.path(""), row.name,
                                                     kyLog::FileEchoToConsole, 0, 0,
                                                     kyLog::TimeRotationInterval::None));
            LogFrom(4, 500);
            row.crash();
        });
        EXPECT_EQ(result.signal, row.signal) << result.err;
        for (const std::string& written : {result.out, ky::test::Content(file)}) {
            std::vector<std::string> messages = MessagesOfLines(written);
            ASSERT_GT(messages.size(), 2000u);
            EXPECT_TRUE(std::any_of(messages.begin() + 2000, messages.end(), [](auto& message) {
                return message.starts_with("Got signal (");
            }));
            messages.resize(2000);
            ExpectEachOnceInOrder(messages, 4, 500);
        }
    }
}

TEST(LogThreadCrash, ReportsASignalThatHitsAFlush)
{
    if (sIsSanitized)
        GTEST_SKIP() << "the sanitizer has handlers of its own";
    auto& heard = *static_cast<std::atomic<bool>*>(
        ::mmap(nullptr, sizeof(bool), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    for (int round = 0; round < 10; ++round) {
        heard = false;
        const auto result = RunAtFullLevel([&](kyLog& log) {
            log.installCustomHandler(
                [](Batch& batch, void* flag) {
                    for (const auto& entry : batch)
                        if (entry.message.starts_with("Got signal ("))
                            *static_cast<std::atomic<bool>*>(flag) = true;
                },
                &heard);
            const auto flush = [](int lines) {
                for (int i = 0; i < lines; ++i)
                    kyLogObject(kyLog::Info).setFlushNow() << "flushed";
            };
            std::vector<std::thread> producers;
            for (int i = 0; i < 3; ++i)
                producers.emplace_back(flush, INT_MAX);
            flush(50 + round);
            ::kill(::getpid(), SIGTERM);
            flush(INT_MAX);
        });
        ASSERT_EQ(result.signal, SIGTERM);
        ASSERT_TRUE(heard || result.err.find("Got signal (") != std::string::npos);
    }
    ::munmap(&heard, sizeof(bool));
}

TEST(LogThreadCrash, LosesNoLineToASignalFromOutsideThatHitsTheAllocator)
{
    if (sIsSanitized)
        GTEST_SKIP() << "the sanitizer has handlers of its own";
    for (int round = 0; round < 10; ++round) {
        const auto result = RunAtFullLevel([&](kyLog&) {
            kyLogObject(kyLog::Info) << "accepted";
            if (::fork() == 0) {
                const pid_t parent = ::getppid();
                std::this_thread::sleep_for(std::chrono::microseconds(round * 300));
                ::_exit(::kill(parent, SIGTERM));
            }
            // Blocks of such sizes are made under the lock of the heap.
            for (std::size_t i = 0;; ++i) {
                std::vector<char> first(2000 + i % 50000, 'x');
                const std::vector<char> second(first);
            }
        });
        ASSERT_EQ(result.signal, SIGTERM);
        ASSERT_NE(result.out.find(" : accepted\n"), std::string::npos);
        ASSERT_NE(result.out.find(" : Got signal (SIGTERM 15)"), std::string::npos) << result.err;
        ASSERT_NE(result.out.find(" (SI_USER), from PID "), std::string::npos) << result.out;
    }
}

TEST(LogThreadCrash, LosesNoAcceptedLineWhenItHitsAProducer)
{
    if (sIsSanitized)
        GTEST_SKIP() << "the sanitizer has handlers of its own";
    constexpr int threads = 4;
    using Counts = std::atomic<int>[threads];
    auto& accepted = *static_cast<Counts*>(
        ::mmap(nullptr, sizeof(Counts), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    for (int round = 0; round < 10; ++round) {
        for (std::atomic<int>& count : accepted)
            count = 0;
        const auto result = RunAtFullLevel([&](kyLog&) {
            std::vector<std::thread> producers;
            for (int thread = 0; thread < threads; ++thread)
                producers.emplace_back([&accepted, thread] {
                    while (accepted[thread] < 5000) {
                        // The first one waits inside the log nearly all the time.
                        kyLogObject(kyLog::Info).setFlushNow(thread == 0)
                            << Line(thread, accepted[thread] % 99);
                        ++accepted[thread];
                    }
                    Wait();
                });
            while (accepted[0] < 100 + round * 10)
                std::this_thread::yield();
            ::pthread_kill(producers[0].native_handle(), SIGSEGV);
            Wait();
        });
        ASSERT_EQ(result.signal, SIGSEGV);
        // Where the memory allocator was hit, the report is all that is promised.
        if (result.err.find("Got signal (") != std::string::npos)
            continue;
        ASSERT_NE(result.out.find(" : Got signal ("), std::string::npos);
        std::vector<int> written(threads, 0);
        for (const std::string& message : MessagesOfLines(result.out))
            if (message[0] >= '0' && message[0] < '0' + threads)
                ++written[static_cast<std::size_t>(message[0] - '0')];
        for (int thread = 0; thread < threads; ++thread)
            ASSERT_GE(written[static_cast<std::size_t>(thread)], accepted[thread])
                << "round " << round << " thread " << thread;
    }
    ::munmap(&accepted, sizeof(Counts));
}
