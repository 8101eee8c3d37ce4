// Two batches of jobs for one thread, which sees each batch as a whole and in order.

#include "ky/kyLog.h"
#include "ky/kySystem.h"
#include "ky/kyWorkThread.h"

#include <future>

namespace {

struct Order : ky::kyJob {
    explicit Order(int orderedPieces) : pieces(orderedPieces) {}
    const int pieces;
};

/// A job without pieces is the last one.
class Store : public ky::kyWorkThread {
public:
    ~Store() override { stop(); }

    std::promise<int> sold;

private:
    void processJob(ky::kyJob* job) override
    {
        const auto* const order = static_cast<const Order*>(job);
        mPieces += order->pieces;
        if (order->pieces == 0)
            sold.set_value(mPieces);
        delete order;
    }

    int mPieces = 0;  // the thread's own
};

}  // namespace

int main()
{
    ky::initializeKySystem(ky::InitType::Full, false);
    int pieces = 0;
    {
        Store store;
        store.startThread("store");
        for (const int last : {100, 0}) {
            store.beginWake();
            store.addJob(new Order(7));
            store.addJob(new Order(last));
            store.endWake();
        }
        pieces = store.sold.get_future().get();
    }
    ky::kyLogObject(ky::kyLog::Info) << pieces << " pieces sold";
    ky::terminateKySystem();
    return pieces == 114 ? 0 : 1;
}
