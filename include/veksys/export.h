// What leaves the library. Everything else has hidden visibility.
#pragma once

#if defined(VEKSYS_STATIC)
#define VEK_EXPORT
#else
#define VEK_EXPORT __attribute__((visibility("default")))
#endif
