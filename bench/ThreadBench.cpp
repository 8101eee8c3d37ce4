// Locks and threads beside what they are made of, turn by turn.

#include "FullLibrary.h"
#include "Timing.h"

#include "ky/kyMutex.h"
#include "ky/kyThread.h"

#include <benchmark/benchmark.h>

#include <climits>
#include <thread>

#include <pthread.h>

namespace {

constexpr int sLocksPerTurn = 1000;
constexpr int sThreadsPerTurn = 100;  // each sleeps and wakes; turn by turn they disturb each other

class RecursivePthreadMutex {
public:
    RecursivePthreadMutex()
    {
        pthread_mutexattr_t attribute;
        ::pthread_mutexattr_init(&attribute);
        ::pthread_mutexattr_settype(&attribute, PTHREAD_MUTEX_RECURSIVE);
        ::pthread_mutex_init(&mMutex, &attribute);
        ::pthread_mutexattr_destroy(&attribute);
    }
    ~RecursivePthreadMutex() { ::pthread_mutex_destroy(&mMutex); }
    RecursivePthreadMutex(const RecursivePthreadMutex&) = delete;
    RecursivePthreadMutex& operator=(const RecursivePthreadMutex&) = delete;
    pthread_mutex_t* get() { return &mMutex; }

private:
    pthread_mutex_t mMutex;
};

struct EmptyThread : ky::kyThread {
    ~EmptyThread() override { waitThread(INT_MAX); }
    int run() override { return 0; }
};

void LockAndUnlock(benchmark::State& state)
{
    const FullLibrary library;
    ky::kyMutex ours;
    RecursivePthreadMutex peer;
    Compare(
        state,
        [&] {
            for (int i = 0; i < sLocksPerTurn; ++i) {
                ours.lock();
                ours.unlock();
            }
        },
        [&] {
            for (int i = 0; i < sLocksPerTurn; ++i) {
                ::pthread_mutex_lock(peer.get());
                ::pthread_mutex_unlock(peer.get());
            }
        });
    state.SetItemsProcessed(sLocksPerTurn * state.iterations());
}
BENCHMARK(LockAndUnlock)->UseManualTime();

void StartAndJoin(benchmark::State& state)
{
    const FullLibrary library;
    Compare(
        state,
        [] {
            for (int i = 0; i < sThreadsPerTurn; ++i) {
                EmptyThread thread;
                thread.startThread("bench");
                thread.waitThread(INT_MAX);
            }
        },
        [] {
            for (int i = 0; i < sThreadsPerTurn; ++i)
                std::thread([] {}).join();
        });
    state.SetItemsProcessed(sThreadsPerTurn * state.iterations());
}
BENCHMARK(StartAndJoin)->UseManualTime();

/// The full level up and down again.
void InitializeAndTerminate(benchmark::State& state)
{
    for (auto _ : state)
        const FullLibrary library;
}
BENCHMARK(InitializeAndTerminate)->UseRealTime();

}  // namespace
