/// @file
/// Symbol visibility for ZuCore.
///
/// ZuCore is built with hidden visibility by default; every class and function that belongs
/// to the public interface is marked ZU_EXPORT so that it (and, for classes, the type
/// information that exceptions and dynamic_cast rely on) is visible to users of the shared
/// library.
#pragma once

#if defined(_WIN32)
#if defined(ZU_BUILDING_ZUCORE)
#define ZU_EXPORT __declspec(dllexport)
#else
#define ZU_EXPORT __declspec(dllimport)
#endif
#else
/// Exports a class or function from the ZuCore shared library.
#define ZU_EXPORT __attribute__((visibility("default")))
#endif
