#pragma once

#if defined(_MSC_VER)
#if defined(ZLU_BUILDING)
#define ZLU_API __declspec(dllexport)
#else
#define ZLU_API __declspec(dllimport)
#endif
#else
#define ZLU_API __attribute__((visibility("default")))
#endif

#if defined(_MSC_VER)
#if defined(MZU_BUILDING)
#define MZU_API __declspec(dllexport)
#else
#define MZU_API __declspec(dllimport)
#endif
#else
#define MZU_API __attribute__((visibility("default")))
#endif
