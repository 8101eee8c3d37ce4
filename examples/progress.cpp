// Sums a table in two weighted steps and draws a bar meanwhile; a second run is cancelled.

#include "ky/kyProgressNotifier.h"

#include <iostream>
#include <vector>

namespace {

constexpr std::size_t sRows = 200;

/// Knows nothing of bars: it reports to whoever watches it. False when it was cancelled.
bool Sum(long& sum, ky::kyProgressNotifierInterface& progress)
{
    std::vector<long> rows;
    ky::kyProgressNotifierGroupCloser closer;
    progress.beginStepGroupWeights({1.0, 3.0}, sRows, &closer);
    for (std::size_t row = 0; row < sRows; ++row) {
        rows.push_back(static_cast<long>(row));
        progress.incrementCurrentStepProgress(1.0);
    }
    progress.changeCurrentStep(sRows, 1);
    for (const long row : rows) {
        if (progress.shouldCancel())
            return false;
        sum += row;
        progress.incrementCurrentStepProgress(1.0);
    }
    return true;
}

}  // namespace

int main()
{
    long sum = 0;
    ky::kyProgressNotifierConsoleView bar(nullptr, 40);
    const bool whole = Sum(sum, bar);
    std::cout << "\nthe sum is " << sum << "\n";

    ky::kyProgressNotifierCancelSupportOnly cancelled;
    cancelled.cancel();
    return whole && sum == 19900 && !Sum(sum, cancelled) ? 0 : 1;
}
