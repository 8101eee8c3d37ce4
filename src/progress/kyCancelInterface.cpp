#include "ky/kyCancelInterface.h"

#include "progress/CancelFlag.h"

namespace ky {

kyCancelInterfaceReadOnly::~kyCancelInterfaceReadOnly() = default;

kyCancelInterface::~kyCancelInterface() = default;

kyCancelInterfaceProxyReadOnly::~kyCancelInterfaceProxyReadOnly() = default;

bool kyCancelInterfaceProxyReadOnly::shouldCancel() const
{
    if (mFlag != nullptr && impl::IsFlagSet(mFlag))
        return true;
    return mNext != nullptr && mNext->shouldCancel();
}

kyCancelInterfaceProxy::~kyCancelInterfaceProxy() = default;

bool kyCancelInterfaceProxy::shouldCancel() const
{
    if (impl::IsFlagSet(mFlag))
        return true;
    if (mChained != nullptr && mChained->shouldCancel())
        return true;
    return mAdditional != nullptr && mAdditional->shouldCancel();
}

void kyCancelInterfaceProxy::cancel()
{
    impl::SetFlag(mFlag, true);
    if (mChained != nullptr)
        mChained->cancel();
}

}  // namespace ky
