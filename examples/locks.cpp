// One thread makes parcels, the main thread takes them from a shelf with room for three. A
// semaphore keeps the one from going too far ahead, a condition lets the other sleep while there is
// nothing.

#include "ky/kyMutex.h"
#include "ky/kySemaphore.h"
#include "ky/kySystem.h"
#include "ky/kyThread.h"
#include "ky/kyWaitCondition.h"

#include <climits>
#include <deque>
#include <iostream>

namespace {

constexpr int sParcels = 1000;

/// Any thread may call the members.
class Shelf {
public:
    void put(int parcel)
    {
        mRoom.acquire(1);
        {
            const ky::kyMutexLocker lock(mMutex);
            mParcels.push_back(parcel);
        }
        mArrived.wakeOne();
    }

    int take()
    {
        ky::kyMutexLocker lock(mMutex);
        // A wait may end for nothing.
        while (mParcels.empty())
            mArrived.wait(&mMutex, ULONG_MAX);
        const int parcel = mParcels.front();
        mParcels.pop_front();
        mRoom.release(1);
        return parcel;
    }

private:
    ky::kyMutex mMutex;
    ky::kyWaitCondition mArrived;
    ky::kySemaphore mRoom{3};
    std::deque<int> mParcels;  // under mMutex
};

class Maker : public ky::kyThread {
public:
    explicit Maker(Shelf& shelf) : mShelf(shelf) {}
    ~Maker() override { waitThread(INT_MAX); }

private:
    int run() override
    {
        for (int parcel = 1; parcel <= sParcels; ++parcel)
            mShelf.put(parcel);
        return 0;
    }

    Shelf& mShelf;
};

}  // namespace

int main()
{
    ky::initializeKySystem(ky::InitType::Full, false);
    bool isInOrder = true;
    {
        Shelf shelf;
        Maker maker(shelf);
        maker.startThread("maker");
        for (int parcel = 1; parcel <= sParcels; ++parcel)
            isInOrder = shelf.take() == parcel && isInOrder;
    }
    std::cout << sParcels << " parcels, " << (isInOrder ? "in order\n" : "in disorder\n");
    ky::terminateKySystem();
    return isInOrder ? 0 : 1;
}
