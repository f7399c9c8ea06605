/*
 * lum-unload-host: loads liblum.so.0 with dlopen, starts the agent, stops it
 * and unloads the library as soon as LumGetStatus reports state 0, many times
 * over. The library promises that nothing of it still runs by then.
 *
 *   lum-unload-host LIBRARY IDENTITY_TEXT CONFIG_TEXT DEVICE_TEXT CYCLES
 */
#define _POSIX_C_SOURCE 200809L

#include <dlfcn.h>
#include <lum.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

typedef unsigned (*InitFn)(const char*, const char*, const char*);
typedef unsigned (*TermFn)(void);
typedef unsigned (*StatusFn)(LumStatusMethod, LumStatus*);

int main(int argc, char** argv) {
  long cycle;
  if (argc != 6) {
    fprintf(stderr, "usage: lum-unload-host LIBRARY IDENTITY CONFIG DEVICE CYCLES\n");
    return 2;
  }
  for (cycle = 0; cycle < strtol(argv[5], NULL, 10); ++cycle) {
    void* library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    InitFn init;
    TermFn term;
    StatusFn status;
    LumStatus record;
    unsigned state = LumDeviceAgentInitialized;
    /* Let the agent get some way into its work, differently each cycle. */
    struct timespec pause = {0, 0};
    pause.tv_nsec = (cycle % 20) * 1000000L;
    if (library == NULL) {
      fprintf(stderr, "dlopen: %s\n", dlerror());
      return 1;
    }
    *(void**)&init = dlsym(library, "LumInit");
    *(void**)&term = dlsym(library, "LumTerm");
    *(void**)&status = dlsym(library, "LumGetStatus");
    if (init == NULL || term == NULL || status == NULL ||
        init(argv[2], argv[3], argv[4]) != LUM_RESULT_SUCCESS) {
      fprintf(stderr, "cycle %ld: could not start the agent\n", cycle);
      return 1;
    }
    nanosleep(&pause, NULL);
    term();
    /* Unload at the first sight of state 0, as eagerly as a host can. */
    while (state != LumDeviceAgentUninitialized) {
      memset(&record, 0, sizeof record);
      status(LumStatusMethodImmediate, &record);
      state = record.deviceAgentState;
    }
    if (dlclose(library) != 0) {
      fprintf(stderr, "dlclose: %s\n", dlerror());
      return 1;
    }
  }
  return 0;
}
