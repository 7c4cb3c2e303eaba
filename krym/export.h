#pragma once

#if defined(_MSC_VER)
#if defined(KRYM_BUILDING)
#define KRYM_API __declspec(dllexport)
#else
#define KRYM_API __declspec(dllimport)
#endif
#else
#define KRYM_API __attribute__((visibility("default")))
#endif
