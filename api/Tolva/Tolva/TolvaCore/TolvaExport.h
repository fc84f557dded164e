/// @file
/// Visibility of the TolvaCore shared library: the library is built with hidden symbols by
/// default and marks its public classes and functions with TOLVA_EXPORT.
#pragma once

/// Exports a class or function from the TolvaCore shared library.
#define TOLVA_EXPORT __attribute__((visibility("default")))
