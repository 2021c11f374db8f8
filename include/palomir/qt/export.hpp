#pragma once

/// @file

// PALOMIR_QT_API marks what libpalomir-qt exports.
#if defined(PALOMIR_QT_STATIC)
#define PALOMIR_QT_API
#elif defined(PALOMIR_QT_BUILDING_LIBRARY)
#define PALOMIR_QT_API __attribute__((visibility("default")))
#else
#define PALOMIR_QT_API
#endif
