// Symbol visibility of the runtime library.
//
// The runtime is built with hidden visibility; only what is marked
// MICA_PLATFORM_API is exported. Classes that are used across the library
// boundary with dynamic_cast or exceptions must be marked so that their type
// information is shared by every module.
#pragma once

#define MICA_PLATFORM_API __attribute__((visibility("default")))
