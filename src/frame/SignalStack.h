#pragma once

namespace ky::impl {

/// Gives the calling thread an alternate signal stack (sigaltstack(2)) while it lives, so that the
/// report of a stack overflow has a stack to run on. A thread that has one already keeps that, and
/// goes without when there is no memory. Leave the scope on the thread that entered it. The memory
/// is unmapped in the end, except that of a few ended threads, which the next ones take over.
class ScopedSignalStack {
public:
    ScopedSignalStack() noexcept;
    ~ScopedSignalStack();
    ScopedSignalStack(const ScopedSignalStack&) = delete;
    ScopedSignalStack& operator=(const ScopedSignalStack&) = delete;

private:
    void* const mMapping;  // null when the thread has kept its own
};

/// The same for the thread that initialises the library, never freed: once per process, so that no
/// number of initialisations adds up.
void MakeInitialSignalStack() noexcept;

}  // namespace ky::impl
