/// @file
/// Symbol visibility for librestclient: everything is hidden unless marked.
#pragma once

#if defined(RESTCLIENT_BUILDING_LIBRARY)
/// Marks a class or function of librestclient as exported; expands to nothing for consumers.
#define RESTCLIENT_EXPORT __attribute__((visibility("default")))
#else
#define RESTCLIENT_EXPORT
#endif
