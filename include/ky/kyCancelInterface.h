#pragma once

#include "ky/kyExport.h"

namespace ky {

/// What a long operation asks, again and again, whether it should stop.
///
/// Operations borrow a source through a pointer that may be null: nobody cancels then. Once yes,
/// an answer is expected to stay yes.
class KY_API kyCancelInterfaceReadOnly {
public:
    constexpr kyCancelInterfaceReadOnly() = default;
    virtual ~kyCancelInterfaceReadOnly();

    /// Asked often, so it should cost little.
    virtual bool shouldCancel() const = 0;
};

/// A source that can also be told to answer yes.
class KY_API kyCancelInterface : public kyCancelInterfaceReadOnly {
public:
    constexpr kyCancelInterface() = default;
    ~kyCancelInterface() override;

    /// From then on `shouldCancel` answers yes. May be repeated.
    virtual void cancel() = 0;
};

/// Joins a flag and a further source. Both are borrowed, null means none.
///
/// Any thread may ask. The flag is read with a relaxed atomic load; a thread that writes it while
/// others ask stores it atomically too. Proxies chained in a ring recurse without end.
class KY_API kyCancelInterfaceProxyReadOnly : public kyCancelInterfaceReadOnly {
public:
    /// What is given must outlive the proxy.
    constexpr explicit kyCancelInterfaceProxyReadOnly(
        const bool* flag = nullptr, const kyCancelInterfaceReadOnly* next = nullptr)
        : mFlag(flag), mNext(next)
    {}
    ~kyCancelInterfaceProxyReadOnly() override;
    kyCancelInterfaceProxyReadOnly(const kyCancelInterfaceProxyReadOnly&) = delete;
    kyCancelInterfaceProxyReadOnly& operator=(const kyCancelInterfaceProxyReadOnly&) = delete;

    /// Yes when the flag is set; only otherwise the next source is asked. No without both.
    bool shouldCancel() const override;

private:
    const bool* const mFlag;
    const kyCancelInterfaceReadOnly* const mNext;
};

/// Joins a flag, a source that is cancelled along with it, and a source that is only asked. All
/// are borrowed, null means none; without a flag the proxy uses one of its own, initially false.
///
/// Any thread may ask and cancel; both are signal-safe if they are so in the sources. The flag is
/// accessed with relaxed atomic operations. Proxies chained in a ring recurse without end.
class KY_API kyCancelInterfaceProxy : public kyCancelInterface {
public:
    /// What is given must outlive the proxy.
    constexpr explicit kyCancelInterfaceProxy(bool* flag = nullptr,
                                              kyCancelInterface* chained = nullptr,
                                              const kyCancelInterfaceReadOnly* additional = nullptr)
        : mFlag(flag != nullptr ? flag : &mOwnFlag), mChained(chained), mAdditional(additional)
    {}
    ~kyCancelInterfaceProxy() override;
    kyCancelInterfaceProxy(const kyCancelInterfaceProxy&) = delete;
    kyCancelInterfaceProxy& operator=(const kyCancelInterfaceProxy&) = delete;

    /// Asks the flag, the chained and the additional source, in this order; the first yes ends it.
    bool shouldCancel() const override;

    /// Sets the flag, then cancels the chained source. The additional source is not told.
    void cancel() override;

private:
    bool mOwnFlag = false;
    bool* const mFlag;
    kyCancelInterface* const mChained;
    const kyCancelInterfaceReadOnly* const mAdditional;
};

}  // namespace ky
