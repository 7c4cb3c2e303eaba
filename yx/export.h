#pragma once

#if defined(_MSC_VER)
#if defined(YX_BUILDING)
#define YX_API __declspec(dllexport)
#else
#define YX_API __declspec(dllimport)
#endif
#else
#define YX_API __attribute__((visibility("default")))
#endif
