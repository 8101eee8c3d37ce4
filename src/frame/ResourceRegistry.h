#pragma once

namespace ky::impl {

/// The registry without a lock. One that static constructors have filled before is kept.
void CreateResourceRegistry();

/// Gives the registry the lock that makes whole operations of it; there is one afterwards. A lock
/// that it has is kept.
void LockResourceRegistry();

/// Forgets all resources. A later registration makes a new registry.
void DestroyResourceRegistry();

}  // namespace ky::impl
