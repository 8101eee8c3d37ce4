// A host that crashes: what it reports on standard output is what `ky crash` reads.
//
//   example-crash > report.txt; ky crash report.txt

#include "ky/kyLog.h"
#include "ky/kySystem.h"

#include <cstdlib>

namespace {

struct Order {
    int number;
    const char* customer;
};

[[gnu::noinline]] char FirstLetter(const Order& order)
{
    const volatile char* const name = order.customer;
    return name[0];
}

[[gnu::noinline]] int CountOrders(const Order* orders, int count)
{
    int named = 0;
    for (int i = 0; i < count; ++i)
        named += FirstLetter(orders[i]) != '\0' ? 1 : 0;
    return named;
}

}  // namespace

int main()
{
    ky::initializeKySystem(ky::InitType::Full, false);
    ky::kyLogObject(ky::kyLog::Info) << "reading the orders";
    const Order orders[] = {{1, "Smith"}, {2, nullptr}};
    const int named = CountOrders(orders, 2);
    ky::kyLogObject(ky::kyLog::Info) << named << " orders have a name";
    ky::terminateKySystem();
    return EXIT_SUCCESS;
}
