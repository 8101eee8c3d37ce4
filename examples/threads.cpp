// Two threads of the library share a sum under a mutex; the main thread waits for both. What goes
// wrong inside a thread is reported and ends that thread's work alone.

#include "ky/kyLog.h"
#include "ky/kyMutex.h"
#include "ky/kySystem.h"
#include "ky/kyThread.h"

#include <climits>
#include <stdexcept>

namespace {

class Adder : public ky::kyThread {
public:
    Adder(ky::kyMutex& mutex, long& sum) : mMutex(mutex), mSum(sum) {}
    ~Adder() override { waitThread(INT_MAX); }

private:
    int run() override
    {
        for (long i = 1; i <= 1000; ++i) {
            const ky::kyMutexLocker lock(mMutex, true);
            mSum += i;
        }
        throw std::runtime_error("done with adding");
    }

    ky::kyMutex& mMutex;
    long& mSum;
};

}  // namespace

int main()
{
    ky::initializeKySystem(ky::InitType::Full, false);
    ky::kyMutex mutex;
    long sum = 0;
    {
        Adder first(mutex, sum);
        Adder second(mutex, sum);
        first.startThread("first adder");
        second.startThread("second adder");
    }
    ky::kyLogObject(ky::kyLog::Info) << "the sum is " << sum;
    ky::terminateKySystem();
    return sum == 1001000 ? 0 : 1;
}
