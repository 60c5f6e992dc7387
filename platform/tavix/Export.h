/// @file
/// Symbol visibility for the platform library: everything is hidden unless marked.
#pragma once

#if defined(TAVIX_PLATFORM_BUILDING)
/// Marks a class or function of libtavixplatform as exported; expands to nothing for consumers.
#define TAVIX_EXPORT __attribute__((visibility("default")))
#else
#define TAVIX_EXPORT
#endif
