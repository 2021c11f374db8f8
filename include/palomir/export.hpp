#pragma once

// PALOMIR_API marks what libpalomir exports; everything else stays hidden so
// that hosts cannot come to depend on internals.
#if defined(PALOMIR_STATIC)
#define PALOMIR_API
#elif defined(PALOMIR_BUILDING_LIBRARY)
#define PALOMIR_API __attribute__((visibility("default")))
#else
#define PALOMIR_API
#endif
