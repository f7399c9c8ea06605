/* A host written in plain C99 against the public header. Redeclaring each
   function with the signature a host relies on fails to compile when the
   header drifts. */
#include <lum.h>
#include <stddef.h>
#include <stdio.h>

unsigned int LumInit(const char* identity, const char* config, const char* device);
unsigned int LumTerm(void);
unsigned int LumFactoryReset(void);
unsigned int LumEnableTestMode(void);
unsigned int LumGetStatus(LumStatusMethod method, LumStatus* status);
unsigned int LumFreeStatus(LumStatus* status);
unsigned int LumLogMessage(unsigned int severity, const char* format, ...);
unsigned int LumSessionInit(unsigned int allowSessionCodeBypass);
unsigned int LumSessionTerm(void);
unsigned int LumSubmitDataItem(const char* item);
unsigned int LumCheckForSoftwareUpdate(void);
unsigned int LumSetSoftwareUpdateSource(unsigned int source, const char* location);
unsigned int LumSetSoftwareUpdatePermission(unsigned int permission);
unsigned int LumCheckForDrmpUpdate(void);

#define CHECK(cond)                                   \
  do {                                                \
    if (!(cond)) {                                    \
      fprintf(stderr, "check failed: %s\n", #cond);   \
      return 1;                                       \
    }                                                 \
  } while (0)

int main(void) {
  LumStatus status;
  /* Twenty words: eleven text pointers and nine unsigned fields, in order. */
  CHECK(sizeof(LumStatus) == 11 * sizeof(char*) + 9 * sizeof(unsigned int) ||
        sizeof(LumStatus) > 11 * sizeof(char*) + 9 * sizeof(unsigned int));
  CHECK(offsetof(LumStatus, sdkVersion) == 3 * sizeof(unsigned int) ||
        offsetof(LumStatus, sdkVersion) == 4 * sizeof(unsigned int));
  CHECK(offsetof(LumStatus, updateHash) + sizeof(char*) == offsetof(LumStatus, updateState));
  CHECK(offsetof(LumStatus, updatePercentDownloaded) ==
        offsetof(LumStatus, updateState) + 5 * sizeof(unsigned int));
  CHECK(LUM_RESULT_SUCCESS == 0 && LUM_RESULT_BAD_ARGUMENT == 5);
  CHECK(LumStatusMethodImmediate == 0 && LumStatusMethodOnChange == 1);
  CHECK(LumSessionNone == 6 && LumSoftwareUpdateUnsupported == 5);
  status.deviceAgentState = LumDeviceAgentInitialized;
  CHECK(status.deviceAgentState == 1);
  printf("public header usable from C99\n");
  return 0;
}
