// The host program every consumer project builds: starts the library,
// sends one beacon naming the consumer ("consumer" = argv[1]) to the
// endpoint in KORVEL_EXAMPLE_ENDPOINT and shuts down once it was delivered.
// Prints "beacon <uuid>"; exits 0 only when the beacon was delivered.
#include "host.h"

#include <cstdio>

int main(int argc, char** argv) {
  const char* consumer = argc > 1 ? argv[1] : "unnamed";
  return sendOneBeacon(consumer);
}
