#include "ky/kyException.h"

#include "frame/Report.h"
#include "support/Child.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <thread>

#include <pthread.h>

using ky::exception::impl::ExecGuardedCode;

TEST(Guard, ReportsWhatEscapesAndReturns)
{
    struct SilentException : std::exception {
        const char* what() const noexcept override { return nullptr; }
    };
    static std::string sReports;
    sReports.clear();
    const auto record = [](int level, const char* name, std::string_view text, bool flush) {
        sReports += std::to_string(level) + name + (flush ? ": " : "? ") + std::string(text) + "\n";
    };
    ky::impl::SetReportSinks(record, nullptr);
    ExecGuardedCode([](void* text) { throw std::runtime_error(static_cast<char*>(text)); },
                    std::string("no paper").data());
    ExecGuardedCode([] { throw SilentException(); });
    ExecGuardedCode([] {
        ExecGuardedCode([] { throw 3; });
        throw std::logic_error("outer");
    });
    ky::impl::SetReportSinks(nullptr, nullptr);
    const std::string after = "' see application and system logs\n";
    const std::string caught = "5kySystem: Catch an exception : '";
    EXPECT_EQ(sReports, caught + "no paper" + after + caught + after +
                            "5kySystem: Unknown exception\n" + caught + "outer" + after);
}

TEST(Guard, LetsAThreadEndItselfFromInside)
{
    std::string steps;
    const auto endThread = [](void* text) {
        const std::shared_ptr<void> witness(
            text, [](void* target) { *static_cast<std::string*>(target) += "destroyed"; });
        ::pthread_exit(nullptr);
    };
    std::thread([&] {
        ExecGuardedCode(endThread, &steps);
        steps += " and went on";
    }).join();
    EXPECT_EQ(steps, "destroyed");
}

TEST(Guard, FallsBackToStandardErrorWhenTheReportThrows)
{
    const auto result = ky::test::RunInChild([] {
        ky::impl::SetReportSinks([](int, const char*, std::string_view, bool) { throw 1; },
                                 nullptr);
        ExecGuardedCode([] { throw std::runtime_error("no paper"); });
    });
    EXPECT_EQ(result.err, "Catch an exception : 'no paper' see application and system logs\n");
}
