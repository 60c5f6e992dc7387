// Symbol visibility for the shared library: everything is hidden unless marked.
#pragma once

#if defined(RESTCLIENT_BUILDING_LIBRARY)
#define TAVIX_EXPORT __attribute__((visibility("default")))
#else
#define TAVIX_EXPORT
#endif
