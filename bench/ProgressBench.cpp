// What polling for cancellation and reporting progress add to a loop, beside one relaxed load.

#include "FullLibrary.h"

#include "ky/kyCancelInterface.h"
#include "ky/kyProgressNotifier.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <limits>

namespace {

constexpr double sEndless = std::numeric_limits<double>::max();

void RelaxedLoad(benchmark::State& state)
{
    std::atomic<bool> flag = false;
    benchmark::DoNotOptimize(&flag);
    for (auto _ : state)
        benchmark::DoNotOptimize(flag.load(std::memory_order_relaxed));
}
BENCHMARK(RelaxedLoad);

/// Through the given number of proxies.
void ShouldCancel(benchmark::State& state)
{
    bool flag = false;
    const ky::kyCancelInterfaceProxyReadOnly last(&flag);
    const ky::kyCancelInterfaceProxyReadOnly first(nullptr, &last);
    const ky::kyCancelInterfaceReadOnly* source = state.range(0) == 1 ? &last : &first;
    benchmark::DoNotOptimize(source);
    for (auto _ : state)
        benchmark::DoNotOptimize(source->shouldCancel());
}
BENCHMARK(ShouldCancel)->Arg(1)->Arg(2);

void Increment(benchmark::State& state, ky::kyProgressNotifierInterface& notifier)
{
    notifier.beginStepGroupWeights({1.0, 2.0}, sEndless);
    notifier.beginStepGroupWeights({2.0, 1.0}, sEndless);
    for (auto _ : state)
        notifier.incrementCurrentStepProgress(1.0);
}

/// Three groups deep, and so small that the whole never changes.
void IncrementStep(benchmark::State& state)
{
    ky::kyProgressNotifierBase notifier;
    Increment(state, notifier);
}
BENCHMARK(IncrementStep);

void IncrementStepThroughLock(benchmark::State& state)
{
    const FullLibrary library;
    ky::kyProgressNotifierBase notifier;
    ky::kyProgressNotifierThreadSafeProxy proxy(&notifier);
    Increment(state, proxy);
}
BENCHMARK(IncrementStepThroughLock);

}  // namespace
