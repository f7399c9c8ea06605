/*
 * lum-host: drives liblum.so.0 the way a television's software does.
 *
 *   lum-host --identity FILE --config FILE --device FILE
 *            [--test-mode] [--factory-reset] [--log-through] [--run-seconds N]
 *
 * It starts the agent with the three JSON texts, prints one line for every
 * status change (followed on a thread of its own with LumGetStatus method 1),
 * and on SIGINT or SIGTERM (or after --run-seconds) stops the agent with
 * LumTerm, or LumFactoryReset with --factory-reset, and waits for state 0.
 * Written against the public header only.
 */
#define _POSIX_C_SOURCE 200809L

#include <lum.h>
#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

typedef struct Options {
  const char* identityFile;
  const char* configFile;
  const char* deviceFile;
  int testMode;
  int factoryReset;
  int logThrough;
  long runSeconds;
} Options;

static int gLogThrough = 0;

/* Host lines go to standard output and, on request, through the agent's
   supervisor log so both end up in one place. */
static void hostLine(const char* format, const char* text) {
  printf(format, text);
  putchar('\n');
  fflush(stdout);
  if (gLogThrough) {
    LumLogMessage(2, format, text);
  }
}

static char* readWholeFile(const char* path) {
  FILE* file = strcmp(path, "-") == 0 ? stdin : fopen(path, "rb");
  char* text = NULL;
  size_t length = 0;
  size_t capacity = 0;
  if (file == NULL) {
    fprintf(stderr, "lum-host: cannot open %s: %s\n", path, strerror(errno));
    return NULL;
  }
  for (;;) {
    size_t got;
    if (capacity - length < 4096) {
      char* grown = realloc(text, capacity + 65536);
      if (grown == NULL) {
        free(text);
        text = NULL;
        break;
      }
      text = grown;
      capacity += 65536;
    }
    got = fread(text + length, 1, capacity - length - 1, file);
    length += got;
    if (got == 0) {
      text[length] = '\0';
      break;
    }
  }
  if (file != stdin) {
    fclose(file);
  }
  return text;
}

static const char* orEmpty(const char* text) { return text != NULL ? text : ""; }

static void printStatus(const LumStatus* status) {
  char line[4096];
  snprintf(line, sizeof line,
           "status: state=%u testMode=%u session=%u deviceId=%s opid=%s cloud=%s sw=%s "
           "allowed=[%s] consent=%s update=%u source=%u",
           status->deviceAgentState, status->testMode, status->sessionState,
           orEmpty(status->deviceId), orEmpty(status->certOpid), orEmpty(status->certInstance),
           orEmpty(status->swVersion), orEmpty(status->allowedDataItemIds),
           orEmpty(status->consentUrl), status->updateState, status->updateSource);
  hostLine("%s", line);
}

typedef struct Follower {
  pthread_mutex_t mutex;
  pthread_cond_t stopped;
  int stopRequested;
  int reachedZero;
} Follower;

/* Follows the agent's status changes until it is back in state 0 after the
   host asked it to stop. */
static void* followStatus(void* arg) {
  Follower* follower = arg;
  for (;;) {
    LumStatus status;
    unsigned state;
    int stop;
    memset(&status, 0, sizeof status);
    if (LumGetStatus(LumStatusMethodOnChange, &status) != LUM_RESULT_SUCCESS) {
      break;
    }
    printStatus(&status);
    state = status.deviceAgentState;
    LumFreeStatus(&status);
    pthread_mutex_lock(&follower->mutex);
    stop = follower->stopRequested;
    if (stop && state == LumDeviceAgentUninitialized) {
      follower->reachedZero = 1;
      pthread_cond_signal(&follower->stopped);
    }
    pthread_mutex_unlock(&follower->mutex);
    if (stop && state == LumDeviceAgentUninitialized) {
      break;
    }
  }
  return NULL;
}

static int parseOptions(int argc, char** argv, Options* options) {
  int i;
  memset(options, 0, sizeof *options);
  for (i = 1; i < argc; ++i) {
    const char* arg = argv[i];
    const char* next = i + 1 < argc ? argv[i + 1] : NULL;
    if (strcmp(arg, "--identity") == 0 && next) {
      options->identityFile = argv[++i];
    } else if (strcmp(arg, "--config") == 0 && next) {
      options->configFile = argv[++i];
    } else if (strcmp(arg, "--device") == 0 && next) {
      options->deviceFile = argv[++i];
    } else if (strcmp(arg, "--run-seconds") == 0 && next) {
      options->runSeconds = strtol(argv[++i], NULL, 10);
    } else if (strcmp(arg, "--test-mode") == 0) {
      options->testMode = 1;
    } else if (strcmp(arg, "--factory-reset") == 0) {
      options->factoryReset = 1;
    } else if (strcmp(arg, "--log-through") == 0) {
      options->logThrough = 1;
    } else {
      return 0;
    }
  }
  return options->identityFile && options->configFile && options->deviceFile;
}

/* Waits for SIGINT/SIGTERM, or for the run time to pass. */
static void waitForStop(const sigset_t* signals, long runSeconds) {
  if (runSeconds > 0) {
    struct timespec timeout;
    timeout.tv_sec = runSeconds;
    timeout.tv_nsec = 0;
    while (sigtimedwait(signals, NULL, &timeout) < 0 && errno == EINTR) {
    }
  } else {
    int signal = 0;
    sigwait(signals, &signal);
  }
}

int main(int argc, char** argv) {
  Options options;
  char* identity;
  char* config;
  char* device;
  sigset_t signals;
  pthread_t thread;
  Follower follower;
  unsigned result;

  if (!parseOptions(argc, argv, &options)) {
    fprintf(stderr,
            "usage: lum-host --identity FILE --config FILE --device FILE [--test-mode] "
            "[--factory-reset] [--log-through] [--run-seconds N]\n");
    return 2;
  }
  identity = readWholeFile(options.identityFile);
  config = readWholeFile(options.configFile);
  device = readWholeFile(options.deviceFile);
  if (identity == NULL || config == NULL || device == NULL) {
    return 1;
  }

  /* Every thread, the agent's included, inherits the blocked set, so the
     signals reach only sigwait below. */
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, NULL);

  pthread_mutex_init(&follower.mutex, NULL);
  pthread_cond_init(&follower.stopped, NULL);
  follower.stopRequested = 0;
  follower.reachedZero = 0;

  result = LumInit(identity, config, device);
  free(identity);
  free(config);
  free(device);
  if (result != LUM_RESULT_SUCCESS) {
    fprintf(stderr, "lum-host: LumInit failed with %u\n", result);
    return 1;
  }
  gLogThrough = options.logThrough;
  hostLine("host: %s", "agent started");
  if (options.testMode) {
    result = LumEnableTestMode();
    hostLine("host: %s", result == LUM_RESULT_SUCCESS ? "test mode enabled" : "test mode refused");
  }
  pthread_create(&thread, NULL, followStatus, &follower);

  waitForStop(&signals, options.runSeconds);
  hostLine("host: %s", options.factoryReset ? "factory reset requested" : "stop requested");
  pthread_mutex_lock(&follower.mutex);
  follower.stopRequested = 1;
  pthread_mutex_unlock(&follower.mutex);
  gLogThrough = 0;
  result = options.factoryReset ? LumFactoryReset() : LumTerm();
  if (result != LUM_RESULT_SUCCESS) {
    fprintf(stderr, "lum-host: stop failed with %u\n", result);
  }
  pthread_join(thread, NULL);
  printf("host: agent stopped\n");
  return 0;
}
