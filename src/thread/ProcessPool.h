#pragma once

namespace ky::impl {

/// The pool behind `concurrent::GetConcurrentPool`, for the lifecycle. One that exists is kept.
void CreateProcessPool(unsigned int workerCount);

/// Nobody finds the pool any more from the moment when it begins to end.
void DestroyProcessPool();

}  // namespace ky::impl
