#pragma once

#if defined(_MSC_VER)
#if defined(KELM_BUILDING)
#define KELM_API __declspec(dllexport)
#else
#define KELM_API __declspec(dllimport)
#endif
#else
#define KELM_API __attribute__((visibility("default")))
#endif
