#include "ky/kyLog.h"

#include "ky/kyMutex.h"
#include "ky/kyWaitCondition.h"

#include "support/Asleep.h"
#include "support/Crashes.h"
#include "support/Library.h"
#include "support/Logged.h"

#include <algorithm>
#include <atomic>
#include <future>
#include <map>
#include <stdexcept>
#include <thread>

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>
#include <cstdlib>

using ky::kyLog;
using ky::kyLogObject;
using ky::test::Batch;
using ky::test::Contains;
using ky::test::Messages;
using ky::test::Recorder;
using ky::test::Texts;

namespace {

/// The library at the full level with a silent console.
struct LogThread : ky::test::FullLibrary {
    LogThread() : log(*kyLog::Instance()) { log.setEchoToConsole(false); }
    kyLog& log;
};

/// "thread number text", the text being as long and as made of one letter as the number says.
std::string Line(int thread, int number)
{
    const int size = number % 100 == 99 ? number * 7919 % 65536 : number % 180;
    return std::to_string(thread) + " " + std::to_string(number) + " " +
           std::string(static_cast<std::size_t>(size), static_cast<char>('a' + thread % 26));
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

/// What `LogFrom` has logged, each line once and those of a thread in order.
void ExpectAllFrom(int threads, int lines, Texts messages)
{
    std::stable_sort(messages.begin(), messages.end(), [](const auto& a, const auto& b) {
        return std::atoi(a.c_str()) < std::atoi(b.c_str());
    });
    Texts expected;
    for (int i = 0; i < threads * lines; ++i)
        expected.push_back(Line(i / lines, i % lines));
    EXPECT_TRUE(messages == expected) << messages.size();
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

std::vector<std::jthread> MakeNoise()
{
    std::vector<std::jthread> producers;
    for (int i = 0; i < 3; ++i)
        producers.emplace_back([](const std::stop_token& stop) {
            while (!stop.stop_requested())
                kyLogObject(kyLog::Info) << "noise";
        });
    return producers;
}

/// By a custom handler, which goes with it.
void EndLogThread()
{
    kyLog& log = *kyLog::Instance();
    log.installCustomHandler([](Batch&, void*) { ::pthread_exit(nullptr); }, nullptr);
    kyLogObject(kyLog::Info).setFlushNow() << "ends the log's thread";
    log.installCustomHandler(nullptr, nullptr);
}

}  // namespace

TEST(LogThreadOutput, CarriesEveryLineOfManyThreadsOnceWholeAndInOrder)
{
    constexpr int threads = 32;
    constexpr int lines = 500;
    const auto result = RunAtFullLevel([&](kyLog&) {
        LogFrom(threads, lines);
        ky::terminateKySystem();
    });
    EXPECT_EQ(result.exitCode, 0) << result.err;
    ExpectAllFrom(threads, lines, Messages(result.out));
}

TEST(LogThreadOutput, CarriesWhatIsQueuedWhenAHandlerEndsTheThread)
{
    const auto result = RunAtFullLevel([](kyLog& log) {
        static std::promise<void> entered;
        static std::promise<void> leave;
        const auto end = [](Batch&, void*) {
            entered.set_value();
            leave.get_future().wait();
            ::pthread_exit(nullptr);
        };
        log.installCustomHandler(end, nullptr);
        kyLogObject(kyLog::Info) << "ends the log's thread";
        entered.get_future().wait();
        kyLogObject(kyLog::Info) << "queued";
        leave.set_value();
        ky::terminateKySystem();
    });
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_NE(result.out.find(": queued\n"), std::string::npos) << result.out;
}

TEST_F(LogThread, HoldsAProducerBackAboveSixteenMebibytesOnly)
{
    std::promise<void> entered;
    std::promise<void> leave;
    Recorder recorder([&](Batch& batch) {
        if (batch.front().message == "block") {
            entered.set_value();
            leave.get_future().wait();
        }
    });
    recorder.install();
    kyLogObject(kyLog::Info) << "block";
    entered.get_future().wait();
    // The queue was swapped out, so it is empty now. Exactly 16 MiB do not wait.
    kyLogObject(kyLog::Info) << std::string(16777216, 'x');
    std::atomic<bool> passed = false;
    std::thread producer = ky::test::StartUntilAsleep([&] {
        kyLogObject(kyLog::Info) << "y";
        passed = true;
    });
    EXPECT_FALSE(passed);
    leave.set_value();
    producer.join();
}

TEST_F(LogThread, KeepsItsFirstHandlerWhichMayLogFlushConfigureThrowAndRemoveItself)
{
    Recorder second;
    Recorder first([&](Batch& batch) {
        const std::string message = std::exchange(batch, {}).front().message;
        kyLogObject(kyLog::Info).setFlushNow() << "about " << message;
        kyLogObject(kyLog::Info) << "again about " << message;
        log.flush();
        EXPECT_FALSE(second.install());
        if (message == "throw")
            throw std::runtime_error("of the handler");
        if (message == "leave")
            log.installCustomHandler(nullptr, nullptr);
    });
    EXPECT_TRUE(first.install());
    for (const char* message : {"start", "throw", "leave", "unheard"}) {
        kyLogObject(kyLog::Info).setFlushNow() << message;
        log.flush();
    }
    // kept: held back for one further batch; what that one caused went to the console only, as did
    // the report of the exception: a handler that always throws would be called for ever.
    EXPECT_EQ(first.messages,
              (Texts{"start", "about start", "again about start", "throw", "leave"}));
    EXPECT_EQ(first.batchSizes, (std::vector<std::size_t>{1, 2, 1, 1}));
}

TEST(LogThreadAtExit, WritesTheLastLineAlsoWhenAHandlerExitsOrIsStuck)
{
    const std::pair<kyLog::CustomHandler, const char*> rows[] = {
        {nullptr, " : first\n"},
        {[](Batch&, void*) { ::pause(); }, " : first\n"},
        {[](Batch&, void*) {
             std::thread([] { kyLogObject(kyLog::Info) << "rest"; }).join();
             std::exit(7);
         },
         " : rest\n"},
    };
    for (const auto& row : rows) {
        const auto result = RunAtFullLevel([&](kyLog& log) {
            log.installCustomHandler(row.first, nullptr);
            kyLogObject(kyLog::Info) << "first";
            if (row.first == rows[2].first)
                Wait();
            std::exit(7);
        });
        EXPECT_EQ(result.exitCode, 7);
        EXPECT_TRUE(result.out.ends_with(row.second)) << result.out;
    }
}

TEST(LogThreadAtExit, KeepsThoseApartWhoLogBesideAHandlerThatExits)
{
    constexpr int lines = 2000;
    const ky::test::TemporaryFolder folder;
    const auto result = ky::test::RunInChild([&] {
        // Registered before the log's own hook and called after it, on the log's thread.
        std::atexit([] {
            for (int i = 0; i < lines; ++i)
                kyLogObject(kyLog::Info) << Line(0, i);
        });
        ky::initializeKySystem(ky::InitType::Full, false);
        kyLog& log = *kyLog::Instance();
        ASSERT_TRUE(log.installFileHandlerUtf8(folder.path("log")));
        log.installCustomHandler(
            [](Batch&, void*) {
                static std::atomic<bool> sExits = false;
                if (!sExits.exchange(true))
                    std::exit(7);
            },
            nullptr);
        const auto producers = MakeNoise();
        Wait();
    });
    EXPECT_EQ(result.exitCode, 7);
    Texts late = Messages(ky::test::Content(folder.path("log")));
    std::erase(late, "noise");
    ExpectAllFrom(1, lines, late);
}

TEST(LogThreadFork, DoesNotHangWhereTheLogsThreadHasEnded)
{
    SKIP_UNDER_SANITIZERS();
    const auto result = RunAtFullLevel([](kyLog& log) {
        ::alarm(60);
        log.setEchoToConsole(false);
        EndLogThread();
        log.installCustomHandler(
            [](Batch& batch, void*) {
                kyLogObject(kyLog::Info) << "about " << batch.front().message;
                kyLog::Instance()->setSubTypeEnabled("x", false);
                kyLog::Instance()->flush();
            },
            nullptr);
        const auto producers = MakeNoise();
        for (int round = 0; round < 20; ++round)
            EXPECT_EQ(ky::test::EndOf(ky::test::Fork([] { kyLogObject(kyLog::Info) << "child"; })),
                      0);
    });
    EXPECT_EQ(result.exitCode, 0) << result.err;
}

TEST(LogThreadFork, LetsAChildReturnFromAHandlerAndTakeSignals)
{
    SKIP_UNDER_SANITIZERS();
    const auto result = RunAtFullLevel([](kyLog&) {
        Recorder recorder([](Batch&) {
            for (const int signal : {0, SIGTERM}) {
                const pid_t child = ::fork();
                if (child == 0) {
                    ::raise(signal);
                    return;
                }
                int status = -1;
                ::waitpid(child, &status, 0);
                EXPECT_EQ(status, signal);
            }
        });
        recorder.install();
        ::alarm(60);
        kyLogObject(kyLog::Info).setFlushNow() << "fork";
    });
    EXPECT_EQ(result.exitCode, 0) << result.err;
}

TEST(LogThreadFork, LetsChildrenLogAndEndWhileOthersHoldTheLocks)
{
    SKIP_UNDER_SANITIZERS();
    const auto result = RunAtFullLevel([](kyLog& log) {
        std::vector<std::jthread> producers;
        for (int i = 0; i < 8; ++i)
            producers.emplace_back([](const std::stop_token& stop) {
                // With a wait now and then, or each child has a full queue to wait for.
                for (int line = 0; !stop.stop_requested(); ++line)
                    kyLogObject(kyLog::Info).setFlushNow(line % 20 == 0)
                        << "parent" << std::string(1000, 'p');
            });
        for (int round = 0; round < 100; ++round) {
            const auto child = ky::test::RunInChild([&] {
                ::alarm(60);
                kyLogObject(kyLog::Info).setFlushNow() << "child";
                log.flush();
                log.setEchoToConsole(true);
                ky::kyMutex();
                ky::kyWaitCondition();
                ky::terminateKySystem();
                std::exit(0);
            });
            EXPECT_EQ(child.exitCode, 0) << child.signal << child.err;
            EXPECT_TRUE(Contains(child.out, " : child\n")) << child.out;
            EXPECT_FALSE(Contains(child.out, "parent")) << "written twice";
        }
    });
    EXPECT_EQ(result.exitCode, 0) << result.err;
}

TEST(LogThreadCrash, LosesNoLineAndDiesOfTheSignal)
{
    SKIP_UNDER_SANITIZERS();
    static std::atomic<pthread_t> sLogThread = 0;
    const struct {
        const char* name;
        int signal;
        kyLog::CustomHandler handler;
        void (*crash)();
    } rows[] = {
        {"exception", SIGABRT, nullptr, [] { std::thread([] { throw 1; }).join(); }},
        {"overflow", SIGSEGV, nullptr,
         [] {
             std::thread([] {
                 kyLogObject(kyLog::Info) << "deep";
                 ky::test::OverflowStack();
             }).join();
         }},
        {"idle log thread", SIGSEGV, [](Batch&, void*) { sLogThread = ::pthread_self(); },
         [] { ::pthread_kill(sLogThread, SIGSEGV); }},
        {"handler", SIGSEGV, [](Batch&, void*) { ky::test::WriteToNull(); }, [] {}},
        {"after the log's thread", SIGSEGV, nullptr,
         [] {
             EndLogThread();
             ky::test::WriteToNull();
         }},
    };
    const ky::test::TemporaryFolder folder;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const auto result = RunAtFullLevel([&](kyLog& log) {
            ASSERT_TRUE(log.installFileHandlerUtf8(folder.path(row.name)));
            log.setEchoToConsole(true);
            LogFrom(4, 500);
            log.installCustomHandler(row.handler, nullptr);
            kyLogObject(kyLog::Info).setFlushNow() << "to the handler";
            row.crash();
            Wait();
        });
        EXPECT_EQ(result.signal, row.signal) << result.err;
        for (const std::string& written : {result.out, ky::test::Content(folder.path(row.name))}) {
            Texts messages = Messages(written);
            ASSERT_GT(messages.size(), 2000u);
            EXPECT_TRUE(Contains(written, " : Got signal ("));
            messages.resize(2000);
            ExpectAllFrom(4, 500, messages);
        }
    }
}

TEST(LogThreadCrash, LosesNoLineToASignalFromOutsideThatHitsTheAllocator)
{
    SKIP_UNDER_SANITIZERS();
    for (int round = 0; round < 10; ++round) {
        const auto result = RunAtFullLevel([&](kyLog&) {
            kyLogObject(kyLog::Info) << "accepted";
            if (::fork() == 0) {
                ::usleep(static_cast<useconds_t>(round * 300));
                ::_exit(::kill(::getppid(), SIGTERM));
            }
            // Blocks of such sizes are made under the lock of the heap.
            for (std::size_t i = 0;; ++i) {
                std::vector<char> first(2000 + i % 50000, 'x');
                const std::vector<char> second(first);
            }
        });
        ASSERT_EQ(result.signal, SIGTERM);
        for (const char* part :
             {" : accepted\n", " : Got signal (SIGTERM 15)", " (SI_USER), from PID "})
            ASSERT_TRUE(Contains(result.out, part)) << result.out << result.err;
    }
}

TEST(LogThreadCrash, LosesNoAcceptedLineWhenItHitsAProducer)
{
    SKIP_UNDER_SANITIZERS();
    constexpr int threads = 4;
    using Counts = std::atomic<int>[threads];
    auto& accepted = *static_cast<Counts*>(
        ::mmap(nullptr, sizeof(Counts), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    for (int round = 0; round < 20; ++round) {
        for (std::atomic<int>& count : accepted)
            count = 0;
        const int signal = round % 2 == 0 ? SIGSEGV : SIGTERM;
        const auto result = RunAtFullLevel([&](kyLog& log) {
            if (round % 4 < 2)
                log.installCustomHandler([](Batch&, void*) {}, nullptr);
            std::vector<std::thread> producers;
            for (int thread = 0; thread < threads; ++thread)
                producers.emplace_back([&accepted, thread] {
                    // The first ones wait inside the log nearly all the time.
                    for (; accepted[thread] < 5000; ++accepted[thread])
                        kyLogObject(kyLog::Info).setFlushNow(thread < 2) << thread;
                    Wait();
                });
            while (accepted[0] < 100 + round * 5)
                std::this_thread::yield();
            ::pthread_kill(producers[0].native_handle(), signal);
            Wait();
        });
        ASSERT_EQ(result.signal, signal);
        // Where the memory allocator was hit, the report is all that is promised.
        if (Contains(result.err, "Got signal ("))
            continue;
        ASSERT_TRUE(Contains(result.out, " : Got signal ("));
        std::map<std::string, int> written;
        for (const std::string& message : Messages(result.out))
            ++written[message];
        for (int thread = 0; thread < threads; ++thread)
            ASSERT_GE(written[std::to_string(thread)], accepted[thread])
                << "round " << round << " thread " << thread;
    }
    ::munmap(&accepted, sizeof(Counts));
}
