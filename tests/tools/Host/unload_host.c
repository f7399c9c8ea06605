/*
 * lum-unload-host: loads liblum.so.0 with dlopen, starts the agent, stops it
 * and unloads the library as soon as LumGetStatus reports state 0, many times
 * over. The library promises that nothing of it still runs by then.
 *
 *   lum-unload-host LIBRARY IDENTITY CONFIG DEVICE CYCLES
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

static char* readWholeFile(const char* path) {
  FILE* file = fopen(path, "rb");
  char* text;
  long size;
  if (file == NULL) {
    return NULL;
  }
  fseek(file, 0, SEEK_END);
  size = ftell(file);
  rewind(file);
  text = calloc((size_t)size + 1, 1);
  if (text != NULL && fread(text, 1, (size_t)size, file) != (size_t)size) {
    free(text);
    text = NULL;
  }
  fclose(file);
  return text;
}

int main(int argc, char** argv) {
  char* identity;
  char* config;
  char* device;
  long cycles;
  long cycle;
  if (argc != 6) {
    fprintf(stderr, "usage: lum-unload-host LIBRARY IDENTITY CONFIG DEVICE CYCLES\n");
    return 2;
  }
  identity = readWholeFile(argv[2]);
  config = readWholeFile(argv[3]);
  device = readWholeFile(argv[4]);
  cycles = strtol(argv[5], NULL, 10);
  if (identity == NULL || config == NULL || device == NULL) {
    return 2;
  }
  for (cycle = 0; cycle < cycles; ++cycle) {
    void* library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    InitFn init;
    TermFn term;
    StatusFn status;
    LumStatus record;
    unsigned state = 1;
    struct timespec pause = {0, 0};
    if (library == NULL) {
      fprintf(stderr, "dlopen: %s\n", dlerror());
      return 1;
    }
    *(void**)&init = dlsym(library, "LumInit");
    *(void**)&term = dlsym(library, "LumTerm");
    *(void**)&status = dlsym(library, "LumGetStatus");
    if (init == NULL || term == NULL || status == NULL) {
      fprintf(stderr, "dlsym failed\n");
      return 1;
    }
    if (init(identity, config, device) != LUM_RESULT_SUCCESS) {
      fprintf(stderr, "cycle %ld: LumInit failed\n", cycle);
      return 1;
    }
    /* Let the agent get some way into its work, differently each cycle. */
    pause.tv_nsec = (cycle % 20) * 1000000L;
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
  free(identity);
  free(config);
  free(device);
  return 0;
}
