#include "ky/kyException.h"

#include "frame/Report.h"
#include "support/Child.h"

#include <gtest/gtest.h>

#include <functional>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <pthread.h>

using ky::exception::impl::ExecGuardedCode;

namespace {

std::vector<std::string> sReports;

/// Catches the reports of the library while it lives.
struct Guard : ::testing::Test {
    Guard()
    {
        sReports.clear();
        const auto sink = [](int level, const char* name, std::string_view text, bool flush) {
            EXPECT_EQ(level, ky::impl::ReportLevel::Critical);
            EXPECT_STREQ(name, "kySystem");
            EXPECT_TRUE(flush);
            sReports.emplace_back(text);
        };
        ky::impl::SetReportSinks(sink, nullptr);
    }
    ~Guard() override { ky::impl::SetReportSinks(nullptr, nullptr); }
};

void RunGuarded(const std::function<void()>& body)
{
    ExecGuardedCode(
        [](void* argument) { (*static_cast<const std::function<void()>*>(argument))(); },
        const_cast<std::function<void()>*>(&body));
}

struct SilentException : std::exception {
    const char* what() const noexcept override { return nullptr; }
};

/// Sets a flag when it is destroyed.
struct Witness {
    explicit Witness(bool& destroyed) : mDestroyed(destroyed) {}
    ~Witness() { mDestroyed = true; }
    bool& mDestroyed;
};

}  // namespace

TEST_F(Guard, ReportsWhatEscapesAndReturns)
{
    RunGuarded([] { throw std::runtime_error("out of paper"); });
    RunGuarded([] { throw std::bad_alloc(); });
    RunGuarded([] { throw SilentException(); });
    RunGuarded([] { throw 3; });
    ExecGuardedCode([] { throw std::logic_error("no argument"); });
    RunGuarded([] {
        RunGuarded([] { throw std::logic_error("inner"); });
        throw std::logic_error("outer");
    });
    RunGuarded([] {});
    const std::string after = "' see application and system logs";
    EXPECT_EQ(sReports,
              std::vector<std::string>(
                  {"Catch an exception : 'out of paper" + after,
                   "Catch an exception : 'std::bad_alloc" + after, "Catch an exception : '" + after,
                   "Unknown exception", "Catch an exception : 'no argument" + after,
                   "Catch an exception : 'inner" + after, "Catch an exception : 'outer" + after}));
}

TEST_F(Guard, LetsAThreadEndItselfFromInside)
{
    bool destroyed = false;
    bool wentOn = false;
    std::thread([&] {
        RunGuarded([&] {
            const Witness witness(destroyed);
            ::pthread_exit(nullptr);
        });
        wentOn = true;
    }).join();
    EXPECT_TRUE(destroyed);
    EXPECT_FALSE(wentOn);
    EXPECT_TRUE(sReports.empty());
}

TEST_F(Guard, FallsBackToStandardErrorWhenTheReportThrows)
{
    const auto result = ky::test::RunInChild([] {
        ky::impl::SetReportSinks([](int, const char*, std::string_view, bool) { throw 1; },
                                 nullptr);
        RunGuarded([] { throw std::runtime_error("out of paper"); });
        RunGuarded([] { throw 2; });
    });
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.err,
              "Catch an exception : 'out of paper' see application and system logs\n"
              "Unknown exception\n");
}
