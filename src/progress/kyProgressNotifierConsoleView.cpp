#include "ky/kyProgressNotifier.h"

#include <algorithm>
#include <cmath>
#include <iostream>
#include <limits>
#include <string>

namespace ky {
namespace {

constexpr long sMostCharacters = 65536;

/// Rounded down; what an `int` cannot hold becomes what it can.
int Floor(double value)
{
    if (std::isnan(value))
        return 0;
    constexpr double least = std::numeric_limits<int>::min();
    constexpr double most = std::numeric_limits<int>::max();
    return static_cast<int>(std::clamp(std::floor(value), least, most));
}

}  // namespace

kyProgressNotifierConsoleView::kyProgressNotifierConsoleView(
    const bool* externalCancelFlag, int width, const kyCancelInterfaceReadOnly* externalCancel)
    : kyProgressNotifierBase(externalCancelFlag, externalCancel), mWidth(width)
{
    // The base's own first report came too early for this class.
    kyProgressNotifierConsoleView::onProgressChanged(getGlobalProgress());
}

kyProgressNotifierConsoleView::~kyProgressNotifierConsoleView() = default;

void kyProgressNotifierConsoleView::onProgressChanged(float globalProgress)
{
    const float progress = std::isnan(globalProgress) ? 0.0f : globalProgress;
    const int percent = Floor(static_cast<double>(progress) * 100.0);
    if (percent == mLastPercent)
        return;
    mLastPercent = percent;
    // kept: single precision here, double above; the two may disagree by one.
    const long filled = Floor(static_cast<float>(mWidth) * progress);
    const auto count = [most = std::max<long>(mWidth, sMostCharacters)](long characters) {
        return static_cast<std::size_t>(std::clamp(characters, 0L, most));
    };
    // Through the stream of the log's console lines, so that both appear in their order.
    const std::string bar = "\r[" + std::string(count(filled), '=') +
                            std::string(count(mWidth - filled), ' ') + "] " +
                            std::to_string(percent) + "%  ";
    std::cout.write(bar.data(), static_cast<std::streamsize>(bar.size()));
}

}  // namespace ky
