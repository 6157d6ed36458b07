#pragma once

// Starts the library, sends one beacon carrying "consumer" = name, shuts
// down; 0 when the beacon was delivered.
#if defined(KORVEL_CONSUMER_HOST_LIBRARY)
__attribute__((visibility("default")))
#endif
int sendOneBeacon(const char* name);
