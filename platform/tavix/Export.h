// Symbol visibility for the platform library: everything is hidden unless marked.
#pragma once

#if defined(TAVIX_PLATFORM_BUILDING)
#define TAVIX_EXPORT __attribute__((visibility("default")))
#else
#define TAVIX_EXPORT
#endif
