/*
 * liblum: the device agent a television loads into one of its processes.
 *
 * The host starts the agent with LumInit, feeds it data items, asks for its
 * status and stops it with LumTerm or LumFactoryReset. Every function returns
 * one of the LUM_RESULT_* codes and never throws or aborts.
 *
 * What the host may rely on:
 *
 * - LumTerm and LumFactoryReset return at once; the agent's threads wind down
 *   in the background and end their network transfers early. Once
 *   LumGetStatus reports state 0 (LumDeviceAgentUninitialized) after a stop,
 *   no thread of the agent runs any more: from then on the host may unload
 *   the library (dlclose). Before state 0 it must not. One exception: a
 *   support task whose platform callback has not returned within the stop's
 *   grace time (the support view's message time-out, at most 15 s) is left
 *   behind, and its thread returns into the library when the callback does;
 *   a host that unloads the library must not leave a callback blocked.
 * - A remote support session held when the agent stops is suspended (with
 *   "pauseSessionOnTerm", the default) and resumed by the next start, or
 *   ended; either takes one call, within the same grace time.
 * - The host may exit at any moment, after LumTerm or without it: the agent
 *   never destroys what its threads still use, so the exit neither crashes
 *   nor hangs. What the stop would have stored (the data queue, the time of
 *   the last call) is on disk only once state 0 is reported.
 * - The agent's first use of OpenSSL asks it not to clean up in an exit
 *   handler, which would pull its state from under a thread that is in the
 *   middle of a handshake. A host that initialised OpenSSL itself before
 *   LumInit, with the default exit handler, should wait for state 0 before it
 *   exits, or initialise OpenSSL with OPENSSL_INIT_NO_ATEXIT.
 * - A LumInit that fails inside (LUM_RESULT_REFUSED while the agent was at
 *   state 0) leaves the agent at state 0 with nothing started and nothing
 *   stored; LumInit may be called again.
 * - A Lum* function called from inside a platform callback while the same
 *   thread is already in a Lum* call (see lum_platform.h) is refused with
 *   LUM_RESULT_REFUSED instead of waiting for the agent's lock for ever.
 */
#ifndef LUM_H
#define LUM_H

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define LUM_API __attribute__((visibility("default")))
#define LUM_PRINTF(fmt, args) __attribute__((format(printf, fmt, args)))
#else
#define LUM_API
#define LUM_PRINTF(fmt, args)
#endif

/* Result codes. */
#define LUM_RESULT_SUCCESS 0u
#define LUM_RESULT_NOT_INITIALIZED 1u /* or nothing to act on */
/* already initialised, refused in this state, or failed inside */
#define LUM_RESULT_REFUSED 2u
#define LUM_RESULT_TERMINATING 3u /* terminating or factory resetting */
#define LUM_RESULT_NOT_QUEUED 4u  /* data item not queued */
#define LUM_RESULT_BAD_ARGUMENT 5u

/* How LumGetStatus returns. */
typedef enum LumStatusMethod {
  LumStatusMethodImmediate = 0, /* the current status at once */
  LumStatusMethodOnChange = 1,  /* block until the next status change */
  /* Not a method: keeps every 32-bit value representable, so a wrong
     value from a host is a checked argument, not undefined behaviour. */
  LumStatusMethodMaxEnum = 0x7fffffff
} LumStatusMethod;

/* Agent states reported in LumStatus.deviceAgentState. */
typedef enum LumDeviceAgentState {
  LumDeviceAgentUninitialized = 0,
  LumDeviceAgentInitialized = 1,
  LumDeviceAgentTerminating = 2,
  LumDeviceAgentFactoryResetting = 3
} LumDeviceAgentState;

/* Support session states reported in LumStatus.sessionState. */
typedef enum LumSessionState {
  LumSessionInitializing = 0,
  LumSessionTerminating = 1,
  LumSessionSuspending = 2,
  LumSessionResuming = 3,
  LumSessionReady = 4,
  LumSessionJoined = 5,
  LumSessionNone = 6,
  LumSessionDisabled = 7,
  LumSessionUnsupported = 8
} LumSessionState;

/* Software update states reported in LumStatus.updateState. */
typedef enum LumSoftwareUpdateState {
  LumSoftwareUpdateNotAvailable = 0,
  LumSoftwareUpdateFailed = 1,
  LumSoftwareUpdateAvailable = 2,
  LumSoftwareUpdateDownloaded = 3,
  LumSoftwareUpdateConfirmed = 4,
  LumSoftwareUpdateUnsupported = 5
} LumSoftwareUpdateState;

/*
 * Filled by LumGetStatus and emptied by LumFreeStatus. Text fields are
 * allocated by the library with malloc and may be NULL; hand every filled
 * record back to LumFreeStatus.
 */
typedef struct LumStatus {
  unsigned int deviceAgentState; /* LumDeviceAgentState */
  unsigned int testMode;         /* 1 test mode, 0 production */
  unsigned int sessionState;     /* LumSessionState */
  char* sdkVersion;
  char* deviceId;
  char* certOpid;
  char* certInstance;
  char* allowedDataItemIds; /* comma-separated */
  char* consentUrl;
  char* sessionCode;
  char* swVersion;
  char* updateVersion;
  char* updateStagingFile;
  char* updateHash;
  unsigned int updateState; /* LumSoftwareUpdateState */
  unsigned int updateSource;
  unsigned int updatePermission;
  unsigned int updateMandatory;
  unsigned int updateAutoAnswer;
  unsigned int updatePercentDownloaded;
} LumStatus;

/* Lifecycle. identity, config and device are JSON texts, not file names. */
LUM_API unsigned int LumInit(const char* identity, const char* config, const char* device);
LUM_API unsigned int LumTerm(void);
LUM_API unsigned int LumFactoryReset(void);
LUM_API unsigned int LumEnableTestMode(void);

/* Status. */
LUM_API unsigned int LumGetStatus(LumStatusMethod method, LumStatus* status);
LUM_API unsigned int LumFreeStatus(LumStatus* status);

/* Host log lines; severity 0 (trace) to 5 (fatal). */
LUM_API unsigned int LumLogMessage(unsigned int severity, const char* format, ...) LUM_PRINTF(2, 3);

/* Remote support sessions; allowSessionCodeBypass is 0 or 1. LumSessionInit
   asks for a session: LUM_RESULT_SUCCESS once the request is taken (the
   session code shows in LumStatus.sessionCode when the session is Ready),
   1 when the agent is not running or support view is disabled, 2 while a
   session is being opened or resumed or is in use, 3 while one is ending.
   LumSessionTerm ends the session: 1 when there is none, 3 while one is
   already ending. */
LUM_API unsigned int LumSessionInit(unsigned int allowSessionCodeBypass);
LUM_API unsigned int LumSessionTerm(void);

/* Data services: item is the JSON text of one data item. */
LUM_API unsigned int LumSubmitDataItem(const char* item);

/* Software update and DRMP. */
LUM_API unsigned int LumCheckForSoftwareUpdate(void);
LUM_API unsigned int LumSetSoftwareUpdateSource(unsigned int source, const char* location);
LUM_API unsigned int LumSetSoftwareUpdatePermission(unsigned int permission);
LUM_API unsigned int LumCheckForDrmpUpdate(void);

#ifdef __cplusplus
}
#endif

#endif /* LUM_H */
