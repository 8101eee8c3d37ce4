// Jobs for one thread and solvers for several, turn by turn with peers that do the same.

#include "FullLibrary.h"
#include "Timing.h"

#include "ky/ConcurrentPool.h"
#include "ky/kyWorkThread.h"

#include <benchmark/benchmark.h>

#include <future>
#include <vector>

#ifdef KY_HAVE_POCO
#include <Poco/Notification.h>
#include <Poco/NotificationQueue.h>
#include <Poco/Thread.h>
#endif
#ifdef KY_HAVE_QT
#include <QRunnable>
#include <QThreadPool>
#endif

namespace {

constexpr std::size_t sJobs = 1000000;
constexpr std::size_t sSolvers = 200;

/// Counts jobs on the worker and tells when all have been seen.
struct Tally {
    explicit Tally(std::size_t all) : left(all) {}
    void count()
    {
        if (--left == 0)
            done.set_value();
    }
    std::size_t left;
    std::promise<void> done;
};

struct CountingJob : ky::kyJob {
    explicit CountingJob(Tally& tally) : mTally(tally) {}
    Tally& mTally;
};

struct Worker : ky::kyWorkThread {
    ~Worker() override { stop(); }
    void processJob(ky::kyJob* job) override
    {
        static_cast<CountingJob*>(job)->mTally.count();
        delete job;
    }
};

void OurJobs(std::size_t jobsPerBracket)
{
    Tally tally(sJobs);
    Worker worker;
    worker.startThread("bench");
    for (std::size_t i = 0; i < sJobs; i += jobsPerBracket) {
        worker.beginWake();
        for (std::size_t k = 0; k < jobsPerBracket; ++k)
            worker.addJob(new CountingJob(tally));
        worker.endWake();
    }
    tally.done.get_future().wait();
}

/// The argument is the number of jobs in a bracket of ours.
[[maybe_unused]] void JobsBeside(benchmark::State& state, void (*peer)())
{
    const FullLibrary library;
    const auto jobsPerBracket = static_cast<std::size_t>(state.range(0));
    Compare(
        state, [&] { OurJobs(jobsPerBracket); }, peer);
    state.SetItemsProcessed(static_cast<std::int64_t>(sJobs) * state.iterations());
}

[[maybe_unused]] void OneByOneAndInBatches(benchmark::internal::Benchmark* jobs)
{
    jobs->Arg(1)->Arg(1000)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(7);
}

#ifdef KY_HAVE_POCO
struct CountingNotification : Poco::Notification {
    explicit CountingNotification(Tally& tally) : mTally(tally) {}
    Tally& mTally;
};

void PocoJobs()
{
    Tally tally(sJobs);
    Poco::NotificationQueue queue;
    Poco::Thread thread;
    thread.startFunc([&] {
        while (tally.left != 0) {
            const Poco::AutoPtr<Poco::Notification> next(queue.waitDequeueNotification());
            static_cast<CountingNotification*>(const_cast<Poco::Notification*>(next.get()))
                ->mTally.count();
        }
    });
    for (std::size_t i = 0; i < sJobs; ++i)
        queue.enqueueNotification(new CountingNotification(tally));
    tally.done.get_future().wait();
    thread.join();
}

BENCHMARK_CAPTURE(JobsBeside, Poco, &PocoJobs)->Apply(&OneByOneAndInBatches);
#endif

#ifdef KY_HAVE_QT
struct CountingRunnable : QRunnable {
    explicit CountingRunnable(Tally& tally) : mTally(tally) {}
    void run() override { mTally.count(); }
    Tally& mTally;
};

void QtJobs()
{
    Tally tally(sJobs);
    QThreadPool pool;
    pool.setMaxThreadCount(1);
    for (std::size_t i = 0; i < sJobs; ++i)
        pool.start(new CountingRunnable(tally));
    tally.done.get_future().wait();
    pool.waitForDone();
}

BENCHMARK_CAPTURE(JobsBeside, Qt, &QtJobs)->Apply(&OneByOneAndInBatches);
#endif

/// Computes for about `microseconds`, without the pool's mutex.
struct Solver : ky::ConcurrentPool::SolverBase {
    explicit Solver(long microseconds) : mRounds(microseconds * sRoundsPerMicrosecond) {}
    void solve(ky::kyMutex& mutex, ky::kyWaitCondition&) override
    {
        mutex.unlock();
        for (long i = 0; i < mRounds; ++i)
            benchmark::DoNotOptimize(i);
        mutex.lock();
    }
    static long RoundsPerMicrosecond()
    {
        constexpr long rounds = 100000000;
        const double seconds = Seconds([] {
            for (long i = 0; i < rounds; ++i)
                benchmark::DoNotOptimize(i);
        });
        return static_cast<long>(static_cast<double>(rounds) / seconds / 1e6);
    }
    static inline const long sRoundsPerMicrosecond = RoundsPerMicrosecond();
    const long mRounds;
};

/// Independent solvers of a millisecond on as many workers as the argument says. The counter
/// compares with the same solvers on one thread: with two workers 0.5 is the limit.
void Throughput(benchmark::State& state)
{
    const FullLibrary library;
    ky::ConcurrentPool one(1);
    ky::ConcurrentPool several(static_cast<unsigned int>(state.range(0)));
    Solver solver(1000);
    const std::vector<ky::ConcurrentPool::SolverBase*> solvers(sSolvers, &solver);
    Compare(
        state, [&] { several.solve(solvers); }, [&] { one.solve(solvers); });
    state.SetItemsProcessed(static_cast<std::int64_t>(sSolvers) * state.iterations());
}
BENCHMARK(Throughput)->Arg(2)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(11);

/// What handing out costs: solvers that do nothing, in lists as long as the argument says.
void Overhead(benchmark::State& state)
{
    const FullLibrary library;
    ky::ConcurrentPool pool(2);
    Solver solver(0);
    const auto count = static_cast<std::size_t>(state.range(0));
    const std::vector<ky::ConcurrentPool::SolverBase*> solvers(count, &solver);
    for (auto _ : state)
        pool.solve(solvers);
    state.counters["seconds_per_solver"] = benchmark::Counter(
        static_cast<double>(state.range(0)),
        benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(Overhead)->Arg(1)->Arg(10)->Arg(100)->Arg(10000)->UseRealTime();

}  // namespace
