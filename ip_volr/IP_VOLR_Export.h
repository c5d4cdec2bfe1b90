// Visibility of the library's classes and functions: only what carries IP_VOLR_EXPORT is seen outside.
#pragma once

#if defined(IP_VOLR_STATIC)
#define IP_VOLR_EXPORT
#elif defined(_WIN32)
#if defined(IP_VOLR_BUILD)
#define IP_VOLR_EXPORT __declspec(dllexport)
#else
#define IP_VOLR_EXPORT __declspec(dllimport)
#endif
#elif defined(__GNUC__)
#define IP_VOLR_EXPORT __attribute__((visibility("default")))
#else
#define IP_VOLR_EXPORT
#endif
