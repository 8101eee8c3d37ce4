#pragma once

/// Marks what the shared object exports; everything else in it is hidden.
#if defined(__GNUC__)
#define KY_API __attribute__((visibility("default")))
#else
#define KY_API
#endif
