// Visibility of the host's classes. The host's own binary defines IP_HOST_BUILD; everybody else imports.
#pragma once

#if defined(_WIN32) && !defined(IP_HOST_STATIC)
#if defined(IP_HOST_BUILD)
#define IP_HOST_API __declspec(dllexport)
#else
#define IP_HOST_API __declspec(dllimport)
#endif
#elif defined(__GNUC__)
#define IP_HOST_API __attribute__((visibility("default")))
#else
#define IP_HOST_API
#endif
