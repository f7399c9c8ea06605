/*
 * lum-host: drives liblum.so.0 the way a television's software does.
 *
 *   lum-host --identity FILE --config FILE --device FILE
 *            [--test-mode] [--factory-reset] [--log-through] [--run-seconds N]
 *            [--items FILE|-] [--items-delay-ms N] [--exit-after-ms N [--no-term]]
 *            [--open-session] [--close-session-after-ms N]
 *            [--tv-dir DIR | --no-tv]
 *            [--check-update] [--update-permission N] [--confirm-update] [--check-drmp]
 *
 * It starts the agent with the three JSON texts, prints one line for every
 * status change (followed on a thread of its own with LumGetStatus method 1),
 * with --items submits one JSON data item per line of FILE ("-": standard
 * input) once the agent knows which items the back end allows, printing
 * "item N: result R" for each, and on SIGINT or SIGTERM (or after
 * --run-seconds, counted from LumInit) stops the agent with
 * LumTerm, or LumFactoryReset with --factory-reset, and waits for state 0.
 * With --exit-after-ms it behaves like a television switched off in the
 * middle of its work: N ms after LumInit it calls LumTerm (not even that with
 * --no-term) and exits the process at once, without waiting for state 0.
 * With --open-session it asks for a remote support session right after the
 * start, as a user choosing "remote support" in the menu would; the session
 * code shows in the status lines ("code=") while the session waits for a
 * support agent and while one is joined. --close-session-after-ms ends the
 * session N ms after the start. A session still held at the stop is
 * suspended and resumed by the next start when the configuration says so.
 * Before LumInit it registers the simulated television's callbacks (its
 * readable files under --tv-dir, by default a directory of this user under
 * $TMPDIR or /tmp), so support commands act on settings that really change;
 * whenever its state changes it prints a "[tv] picture=... keys=..." line.
 * --no-tv registers nothing, leaving the agent's test values.
 * --check-update asks the back end for a software update at the start;
 * --update-permission answers an available update with that permission and
 * --confirm-update confirms it once it is downloaded and verified, as the
 * television's user would. --check-drmp asks for the back end's objects.
 * Written against the public header only, and the simulated television's C
 * header.
 */
#define _POSIX_C_SOURCE 200809L

#include <errno.h>
#include <lum.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "simulated_tv.h"

typedef struct Options {
  const char* identityFile;
  const char* configFile;
  const char* deviceFile;
  int testMode;
  int factoryReset;
  int logThrough;
  long runSeconds;
  const char* itemsFile;
  long itemsDelayMs;
  long exitAfterMs;
  int noTerm;
  int openSession;
  long closeSessionAfterMs;
  const char* tvDir;
  int noTv;
  int checkUpdate;
  int updatePermission; /* -1: leave it */
  int confirmUpdate;
  int checkDrmp;
} Options;

/* How long the items wait for the back end's allowed identifiers at most;
   after that they are submitted anyway and the results show the refusals. */
#define ALLOWED_IDS_WAIT_MS 30000L
#define ALLOWED_IDS_POLL_MS 100L
/* How often the television's state is compared with the last line printed:
   often enough that a support agent's change shows at once. */
#define TV_POLL_MS 200L

static int gLogThrough = 0;

/* Host lines go to standard output and, on request, through the agent's
   supervisor log so both end up in one place. */
static void hostLine(const char* format, const char* text) {
  /* The status thread prints too; a line must not be split by another. */
  flockfile(stdout);
  printf(format, text);
  putchar('\n');
  fflush(stdout);
  funlockfile(stdout);
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

static char gTvLine[512];

/* Prints the simulated television's state when it differs from the last
   line printed. Only the main thread calls it. */
static void reportTvChange(const Options* options) {
  char line[sizeof gTvLine];
  if (options->noTv || lum_sim_tv_describe(line, sizeof line) < 0 || strcmp(line, gTvLine) == 0) {
    return;
  }
  memcpy(gTvLine, line, sizeof gTvLine);
  hostLine("[tv] %s", line);
}

static const char* orEmpty(const char* text) {
  return text != NULL ? text : "";
}

static void printStatus(const LumStatus* status) {
  char line[4096];
  snprintf(line, sizeof line,
           "status: state=%u testMode=%u session=%u code=%s deviceId=%s opid=%s cloud=%s sw=%s "
           "allowed=[%s] consent=%s update=%u source=%u version=%s percent=%u",
           status->deviceAgentState, status->testMode, status->sessionState,
           orEmpty(status->sessionCode), orEmpty(status->deviceId), orEmpty(status->certOpid),
           orEmpty(status->certInstance), orEmpty(status->swVersion),
           orEmpty(status->allowedDataItemIds), orEmpty(status->consentUrl), status->updateState,
           status->updateSource, orEmpty(status->updateVersion), status->updatePercentDownloaded);
  hostLine("%s", line);
}

static const Options* gOptions;

/* Answers an update as the television's user would: the permission given
   with --update-permission once one is available, and the confirmation
   (--confirm-update) once it is downloaded and verified. A permission given
   before an update is available would be ignored. */
static void answerUpdate(unsigned updateState) {
  char report[128];
  if (updateState == LumSoftwareUpdateAvailable && gOptions->updatePermission >= 0) {
    snprintf(report, sizeof report, "update available: permission %d, result %u",
             gOptions->updatePermission,
             LumSetSoftwareUpdatePermission((unsigned)gOptions->updatePermission));
    hostLine("%s", report);
  } else if (updateState == LumSoftwareUpdateDownloaded && gOptions->confirmUpdate) {
    snprintf(report, sizeof report, "update downloaded and verified: confirmed, result %u",
             LumSetSoftwareUpdatePermission(2));
    hostLine("%s", report);
  }
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
  unsigned lastUpdateState = LumSoftwareUpdateNotAvailable;
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
    if (status.updateState != lastUpdateState) {
      lastUpdateState = status.updateState;
      answerUpdate(lastUpdateState);
    }
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
  options->updatePermission = -1;
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
    } else if (strcmp(arg, "--items") == 0 && next) {
      options->itemsFile = argv[++i];
    } else if (strcmp(arg, "--items-delay-ms") == 0 && next) {
      options->itemsDelayMs = strtol(argv[++i], NULL, 10);
    } else if (strcmp(arg, "--exit-after-ms") == 0 && next) {
      options->exitAfterMs = strtol(argv[++i], NULL, 10);
    } else if (strcmp(arg, "--close-session-after-ms") == 0 && next) {
      options->closeSessionAfterMs = strtol(argv[++i], NULL, 10);
    } else if (strcmp(arg, "--tv-dir") == 0 && next) {
      options->tvDir = argv[++i];
    } else if (strcmp(arg, "--no-tv") == 0) {
      options->noTv = 1;
    } else if (strcmp(arg, "--update-permission") == 0 && next) {
      options->updatePermission = atoi(argv[++i]);
    } else if (strcmp(arg, "--check-update") == 0) {
      options->checkUpdate = 1;
    } else if (strcmp(arg, "--confirm-update") == 0) {
      options->confirmUpdate = 1;
    } else if (strcmp(arg, "--check-drmp") == 0) {
      options->checkDrmp = 1;
    } else if (strcmp(arg, "--open-session") == 0) {
      options->openSession = 1;
    } else if (strcmp(arg, "--no-term") == 0) {
      options->noTerm = 1;
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

static long long nowMs(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (long long)now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

/* Sleeps up to `ms` milliseconds; returns 1 when SIGINT/SIGTERM arrived
   meanwhile (the signal is consumed). Every wait of the main thread passes
   here, so this is where the television's state changes are noticed. */
static int stopSignalWithin(const sigset_t* signals, long long ms) {
  long long endMs = nowMs() + (ms > 0 ? ms : 0);
  for (;;) {
    struct timespec timeout;
    long long slice = endMs - nowMs();
    reportTvChange(gOptions);
    if (slice <= 0) {
      return 0;
    }
    if (slice > TV_POLL_MS) {
      slice = TV_POLL_MS;
    }
    timeout.tv_sec = (time_t)(slice / 1000);
    timeout.tv_nsec = (long)(slice % 1000) * 1000000L;
    if (sigtimedwait(signals, NULL, &timeout) >= 0) {
      return 1;
    }
    if (errno != EINTR && errno != EAGAIN) {
      return 0;
    }
  }
}

/* Waits for SIGINT/SIGTERM, or until the deadline (0: none) passes. */
static void waitForStop(const sigset_t* signals, long long deadlineMs) {
  if (deadlineMs > 0) {
    stopSignalWithin(signals, deadlineMs - nowMs());
  } else {
    while (!stopSignalWithin(signals, TV_POLL_MS)) {
    }
  }
}

static int allowedIdsKnown(void) {
  LumStatus status;
  int known;
  memset(&status, 0, sizeof status);
  if (LumGetStatus(LumStatusMethodImmediate, &status) != LUM_RESULT_SUCCESS) {
    return 0;
  }
  known = status.allowedDataItemIds != NULL && status.allowedDataItemIds[0] != '\0';
  LumFreeStatus(&status);
  return known;
}

/* Items the back end does not allow are refused, so the host holds its items
   until the agent has synchronised and learnt the allowed identifiers, as a
   television's software would wait for the agent to come up. Returns 1 when
   a stop signal ended the wait. */
static int waitForAllowedIds(const sigset_t* signals, long long deadlineMs) {
  long long giveUp = nowMs() + ALLOWED_IDS_WAIT_MS;
  if (deadlineMs > 0 && deadlineMs < giveUp) {
    giveUp = deadlineMs;
  }
  while (!allowedIdsKnown()) {
    if (nowMs() >= giveUp) {
      hostLine("host: %s", "no allowed data item ids known yet, submitting anyway");
      return 0;
    }
    if (stopSignalWithin(signals, ALLOWED_IDS_POLL_MS)) {
      return 1;
    }
  }
  return 0;
}

static int isBlank(const char* line) {
  for (; *line != '\0'; ++line) {
    if (*line != ' ' && *line != '\t' && *line != '\r') {
      return 0;
    }
  }
  return 1;
}

/* Submits each non-blank line of `text` as one data item (the text is cut
   up in place). Returns 1 when a stop signal cut the submissions short. */
static int submitItems(char* text, const Options* options, const sigset_t* signals,
                       long long deadlineMs) {
  char* line = text;
  unsigned number = 0;
  int stopped = waitForAllowedIds(signals, deadlineMs);
  while (line != NULL && !stopped) {
    char* end = strchr(line, '\n');
    char* next = NULL;
    if (end != NULL) {
      *end = '\0';
      next = end + 1;
    }
    if (!isBlank(line)) {
      char report[64];
      size_t length = strlen(line);
      unsigned result;
      if (length > 0 && line[length - 1] == '\r') {
        line[length - 1] = '\0';
      }
      if (number > 0 && options->itemsDelayMs > 0) {
        stopped = stopSignalWithin(signals, options->itemsDelayMs);
        if (stopped) {
          break;
        }
      }
      result = LumSubmitDataItem(line);
      snprintf(report, sizeof report, "item %u: result %u", ++number, result);
      hostLine("%s", report);
    }
    line = next;
  }
  return stopped;
}

int main(int argc, char** argv) {
  Options options;
  char* identity;
  char* config;
  char* device;
  char* items = NULL;
  sigset_t signals;
  pthread_t thread;
  Follower follower;
  unsigned result;
  long long deadlineMs = 0;
  int stopped = 0;

  if (!parseOptions(argc, argv, &options)) {
    fprintf(stderr,
            "usage: lum-host --identity FILE --config FILE --device FILE [--test-mode] "
            "[--factory-reset] [--log-through] [--run-seconds N] [--items FILE|-] "
            "[--items-delay-ms N] [--exit-after-ms N [--no-term]] [--open-session] "
            "[--close-session-after-ms N] [--tv-dir DIR | --no-tv] [--check-update] "
            "[--update-permission N] [--confirm-update] [--check-drmp]\n");
    return 2;
  }
  identity = readWholeFile(options.identityFile);
  config = readWholeFile(options.configFile);
  device = readWholeFile(options.deviceFile);
  if (options.itemsFile != NULL) {
    items = readWholeFile(options.itemsFile);
  }
  if (identity == NULL || config == NULL || device == NULL ||
      (options.itemsFile != NULL && items == NULL)) {
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

  if (options.runSeconds > 0) {
    deadlineMs = nowMs() + options.runSeconds * 1000LL;
  }
  if (options.exitAfterMs > 0) {
    deadlineMs = nowMs() + options.exitAfterMs;
  }
  gOptions = &options;
  if (!options.noTv) {
    char defaultDir[256];
    const char* tvDir = options.tvDir;
    if (tvDir == NULL) {
      const char* tmp = getenv("TMPDIR");
      snprintf(defaultDir, sizeof defaultDir, "%s/lum-host-tv-%lu",
               tmp != NULL && tmp[0] != '\0' ? tmp : "/tmp", (unsigned long)getuid());
      tvDir = defaultDir;
    }
    /* Registered before LumInit: the agent reads device facts at the start. */
    if (lum_sim_tv_install(tvDir) != 0) {
      fprintf(stderr, "lum-host: the television's files cannot be kept in %s\n", tvDir);
    }
  }
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
  reportTvChange(&options);
  if (options.testMode) {
    result = LumEnableTestMode();
    hostLine("host: %s", result == LUM_RESULT_SUCCESS ? "test mode enabled" : "test mode refused");
  }
  pthread_create(&thread, NULL, followStatus, &follower);
  if (options.checkUpdate) {
    char report[64];
    snprintf(report, sizeof report, "update check requested, result %u",
             LumSetSoftwareUpdateSource(1, ""));
    hostLine("host: %s", report);
  }
  if (options.checkDrmp) {
    char report[64];
    snprintf(report, sizeof report, "object check requested, result %u", LumCheckForDrmpUpdate());
    hostLine("host: %s", report);
  }
  if (options.openSession) {
    char report[64];
    snprintf(report, sizeof report, "session requested, result %u", LumSessionInit(0));
    hostLine("host: %s", report);
  }
  if (options.closeSessionAfterMs > 0) {
    long long closeAtMs = nowMs() + options.closeSessionAfterMs;
    if (deadlineMs > 0 && deadlineMs < closeAtMs) {
      closeAtMs = deadlineMs;
    }
    stopped = stopSignalWithin(&signals, closeAtMs - nowMs());
    if (!stopped) {
      char report[64];
      snprintf(report, sizeof report, "session end requested, result %u", LumSessionTerm());
      hostLine("host: %s", report);
    }
  }

  if (items != NULL) {
    if (!stopped) {
      stopped = submitItems(items, &options, &signals, deadlineMs);
    }
    free(items);
  }
  if (!stopped) {
    waitForStop(&signals, deadlineMs);
  }
  hostLine("host: %s", options.factoryReset ? "factory reset requested" : "stop requested");
  pthread_mutex_lock(&follower.mutex);
  follower.stopRequested = 1;
  pthread_mutex_unlock(&follower.mutex);
  gLogThrough = 0;
  if (options.exitAfterMs > 0 && options.noTerm) {
    exit(0);
  }
  result = options.factoryReset ? LumFactoryReset() : LumTerm();
  if (result != LUM_RESULT_SUCCESS) {
    fprintf(stderr, "lum-host: stop failed with %u\n", result);
  }
  if (options.exitAfterMs > 0) {
    /* The agent's threads are still winding down; the library must cope. */
    exit(0);
  }
  pthread_join(thread, NULL);
  printf("host: agent stopped\n");
  return 0;
}
