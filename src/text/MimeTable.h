#pragma once

namespace ky::impl {

/// Makes the table, which the first lookup does otherwise. Any thread.
void BuildMimeTable();

}  // namespace ky::impl
